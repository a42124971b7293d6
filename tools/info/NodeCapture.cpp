// SPDX-License-Identifier: Apache-2.0
#include "NodeCapture.h"

#include <corvane/V4L2.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Signals.h"

namespace NSVista::NSCorvane::tools {

namespace {

using sim::AnswerDesc;
using sim::FormatDesc;
using sim::IntervalDesc;
using sim::LayoutDesc;
using sim::SizeDesc;
using sim::VideoDesc;

/** No enumeration is longer; it ends one that a driver never ends. */
constexpr uint32_t kMostItems = 4096;

/** A format of no driver: "~~~~". */
constexpr uint32_t kUnknownFormat = 0x7e7e7e7e;

/** What every picture's record has, under the same names. */
template <class Pixels>
sim::ColourDesc colourOf(const Pixels& pixels) {
    return {pixels.field,     pixels.colorspace,   pixels.flags,
            pixels.ycbcr_enc, pixels.quantization, pixels.xfer_func};
}

LayoutDesc layoutOf(const v4l2_format& format) {
    PixelFormat pixels = {};
    v4l2::readFormat(format, v4l2::formatClassOfType(format.type), pixels);
    LayoutDesc layout{pixels.width, pixels.height, {}};
    for (uint32_t i = 0; i < std::min(pixels.planeCount, PixelFormat::kMaxPlanes); ++i)
        layout.planes.push_back(
            {v4l2::isMeta(format.type) ? 0 : pixels.planes[i].stride, pixels.planes[i].size});
    return layout;
}

uint32_t fourccOf(const v4l2_format& format) {
    PixelFormat pixels = {};
    v4l2::readFormat(format, v4l2::formatClassOfType(format.type), pixels);
    return pixels.format;
}

/** Asks the queue of one buffer type. */
class QueueCapture {
public:
    QueueCapture(client::NodeFd& node, VideoDesc& video, std::vector<std::string>& remarks)
        : mNode(node), mVideo(video), mRemarks(remarks) {
        mCurrent.type = video.bufType;
    }

    /** @return false for a queue that tells no format; the description is left alone then. */
    bool read() {
        if (const int r = mNode.ioctl(VIDIOC_G_FMT, &mCurrent); r < 0) {
            remark("tells no format", r);
            return false;
        }
        mVideo.format = fourccOf(mCurrent);
        mVideo.layout = layoutOf(mCurrent);
        readFormats();
        readUnknown();
        restore();
        readInterval();
        readBuffers();
        return true;
    }

private:
    void remark(const std::string& what, int error) {
        mRemarks.push_back(what + ": " + strerror(-error));
    }

    void readFormats() {
        v4l2_fmtdesc desc = {};
        desc.type = mVideo.bufType;
        for (; desc.index < kMostItems && mNode.ioctl(VIDIOC_ENUM_FMT, &desc) >= 0; ++desc.index)
            addFormat(desc);
        const bool isOffered =
            std::any_of(mVideo.formats.begin(), mVideo.formats.end(),
                        [this](const FormatDesc& each) { return each.fourcc == mVideo.format; });
        if (isOffered)
            return;
        // A driver may have a format that it does not offer, or offer none.
        desc.pixelformat = mVideo.format;
        desc.flags = 0;
        desc.description[0] = 0;
        addFormat(desc);
    }

    void addFormat(const v4l2_fmtdesc& desc) {
        const auto known =
            std::any_of(mVideo.formats.begin(), mVideo.formats.end(),
                        [&](const FormatDesc& each) { return each.fourcc == desc.pixelformat; });
        if (known)
            return;
        FormatDesc format;
        format.fourcc = desc.pixelformat;
        format.description = v4l2::fixedText(desc.description);
        format.flags = desc.flags;
        if (!v4l2::isMeta(mVideo.bufType))
            readSizes(format);
        readAnswers(format);
        if (!format.answers.empty())
            mVideo.formats.push_back(std::move(format));
    }

    void readSizes(FormatDesc& format) {
        v4l2_frmsizeenum size = {};
        size.pixel_format = format.fourcc;
        int result = 0;
        for (; size.index < kMostItems; ++size.index) {
            result = mNode.ioctl(VIDIOC_ENUM_FRAMESIZES, &size);
            if (result < 0)
                break;
            SizeDesc& desc = format.sizes.emplace_back();
            desc.kind = size.type;
            if (!desc.isDiscrete()) {
                desc.range = size.stepwise;
                // Of the many sizes of a range the one that is set stands for all.
                const LayoutDesc& now = *mVideo.layout;
                readIntervals(desc, format.fourcc,
                              std::clamp(now.width, desc.range.min_width, desc.range.max_width),
                              std::clamp(now.height, desc.range.min_height, desc.range.max_height));
                break;  // A range is the only item.
            }
            desc.range.min_width = size.discrete.width;
            desc.range.min_height = size.discrete.height;
            readIntervals(desc, format.fourcc, size.discrete.width, size.discrete.height);
        }
        mVideo.enumeratesSizes = result != -ENOTTY;
    }

    void readIntervals(SizeDesc& size, uint32_t fourcc, uint32_t width, uint32_t height) {
        v4l2_frmivalenum interval = {};
        interval.pixel_format = fourcc;
        interval.width = width;
        interval.height = height;
        for (;
             interval.index < kMostItems && mNode.ioctl(VIDIOC_ENUM_FRAMEINTERVALS, &interval) >= 0;
             ++interval.index) {
            IntervalDesc& desc = size.intervals.emplace_back();
            desc.kind = interval.type;
            if (desc.isDiscrete()) {
                desc.range.min = interval.discrete;
                continue;
            }
            desc.range = interval.stepwise;
            break;
        }
    }

    void readAnswers(FormatDesc& format) {
        if (v4l2::isMeta(mVideo.bufType)) {
            ask(format, 0, 0);
            return;
        }
        ask(format, mVideo.layout->width, mVideo.layout->height);
        for (const SizeDesc& size : format.sizes)
            if (size.isDiscrete())
                ask(format, size.range.min_width, size.range.min_height);
        for (const auto& [width, height] : sim::kProbedSizes)
            ask(format, width, height);
    }

    /** Adds what a size comes to; nothing where the driver turns to another format. */
    void ask(FormatDesc& format, uint32_t width, uint32_t height) {
        const bool isAsked =
            std::any_of(format.answers.begin(), format.answers.end(), [&](const AnswerDesc& each) {
                return each.askedWidth == width && each.askedHeight == height;
            });
        v4l2_format wish = wishFor(format.fourcc, width, height);
        if (isAsked || tryOut(wish) < 0 || fourccOf(wish) != format.fourcc)
            return;
        const LayoutDesc layout = layoutOf(wish);
        const bool isLikeTheFirst =
            format.answers.empty() ||
            format.answers.front().layout.planes.size() == layout.planes.size();
        if (layout.planes.empty() || !isLikeTheFirst)
            return;
        format.answers.push_back({width, height, layout});
        if (!v4l2::isMeta(mVideo.bufType))
            format.colour = v4l2::isMultiPlanar(mVideo.bufType) ? colourOf(wish.fmt.pix_mp)
                                                                : colourOf(wish.fmt.pix);
    }

    v4l2_format wishFor(uint32_t fourcc, uint32_t width, uint32_t height) const {
        v4l2_format wish = {};
        wish.type = mVideo.bufType;
        if (v4l2::isMeta(mVideo.bufType)) {
            wish.fmt.meta.dataformat = fourcc;
            return wish;
        }
        // Both kinds of a picture's record begin alike.
        wish.fmt.pix.width = width;
        wish.fmt.pix.height = height;
        wish.fmt.pix.pixelformat = fourcc;
        return wish;
    }

    int tryOut(v4l2_format& wish) {
        if (!mIsSet) {
            const int result = mNode.ioctl(VIDIOC_TRY_FMT, &wish);
            if (result != -ENOTTY)
                return result;
            mIsSet = true;
        }
        return mNode.ioctl(VIDIOC_S_FMT, &wish);
    }

    void readUnknown() {
        v4l2_format wish = wishFor(kUnknownFormat, mVideo.layout->width, mVideo.layout->height);
        mVideo.unknownFormat = std::min(0, tryOut(wish));
        if (mVideo.unknownFormat == 0)
            mVideo.fallback = fourccOf(wish);
    }

    /** Undoes what was set for want of VIDIOC_TRY_FMT. */
    void restore() {
        v4l2_format format = mCurrent;
        if (!mIsSet)
            return;
        if (const int r = mNode.ioctl(VIDIOC_S_FMT, &format); r < 0)
            remark("its format could not be set again", r);
        else if (layoutOf(format) != *mVideo.layout || fourccOf(format) != mVideo.format)
            mRemarks.emplace_back("its format could not be set again as it was");
    }

    void readInterval() {
        v4l2_streamparm parameters = {};
        parameters.type = mVideo.bufType;
        if (mNode.ioctl(VIDIOC_G_PARM, &parameters) >= 0 &&
            (parameters.parm.capture.capability & V4L2_CAP_TIMEPERFRAME) != 0)
            mVideo.interval = parameters.parm.capture.timeperframe;
    }

    int requestBuffers(uint32_t count, v4l2_requestbuffers& request) {
        request = {};
        request.count = count;
        request.type = mVideo.bufType;
        request.memory = V4L2_MEMORY_DMABUF;
        return mNode.ioctl(VIDIOC_REQBUFS, &request);
    }

    void readBuffers() {
        constexpr uint32_t kMost = 64;
        v4l2_requestbuffers request = {};
        int result = requestBuffers(1, request);
        if (result < 0) {
            mVideo.requests = sim::RequestUse::REFUSED;
            remark("its buffers could not be asked for", result);
            return;
        }
        mVideo.minBuffers = std::clamp(request.count, 1U, kMost);
        mVideo.queueCapabilities = request.capabilities;
        if ((request.capabilities & V4L2_BUF_CAP_SUPPORTS_REQUESTS) == 0)
            mVideo.requests = sim::RequestUse::REFUSED;
        else if (queueNothing() == -EBADR)
            mVideo.requests = sim::RequestUse::REQUIRED;
        result = requestBuffers(kMost, request);
        mVideo.maxBuffers = std::clamp(result < 0 ? 32 : request.count, mVideo.minBuffers, kMost);
        if (const int r = requestBuffers(0, request); r < 0)
            remark("its buffers could not be given back", r);
    }

    /** Queues a buffer without a request and without memory, which no queue takes. */
    int queueNothing() {
        v4l2_plane planes[VIDEO_MAX_PLANES] = {};
        v4l2_buffer buffer = {};
        buffer.type = mVideo.bufType;
        buffer.memory = V4L2_MEMORY_DMABUF;
        if (v4l2::isMultiPlanar(mVideo.bufType)) {
            for (v4l2_plane& plane : planes)
                plane.m.fd = -1;
            buffer.m.planes = planes;
            buffer.length = static_cast<uint32_t>(mVideo.layout->planes.size());
        } else {
            buffer.m.fd = -1;
        }
        return mNode.ioctl(VIDIOC_QBUF, &buffer);
    }

    client::NodeFd& mNode;
    VideoDesc& mVideo;
    std::vector<std::string>& mRemarks;
    v4l2_format mCurrent = {};
    bool mIsSet = false;  ///< formats are set, since they cannot be tried
};

void readMenu(client::NodeFd& node, sim::ControlDesc& control) {
    const int64_t end = std::min(control.maximum, control.minimum + int64_t{kMostItems});
    for (int64_t i = control.minimum; i <= end; ++i) {
        v4l2_querymenu item = {};
        item.id = control.id;
        item.index = static_cast<uint32_t>(i);
        if (node.ioctl(VIDIOC_QUERYMENU, &item) >= 0)
            control.menu.emplace_back(i, control.type == V4L2_CTRL_TYPE_INTEGER_MENU
                                             ? std::to_string(item.value)
                                             : v4l2::fixedText(item.name));
    }
}

void readValue(client::NodeFd& node, sim::ControlDesc& control) {
    const bool isLong = control.type == V4L2_CTRL_TYPE_INTEGER64;
    if ((!control.hasValue() && !isLong) || (control.flags & V4L2_CTRL_FLAG_WRITE_ONLY) != 0)
        return;
    v4l2_ext_control item = {};
    item.id = control.id;
    v4l2_ext_controls list = {};
    list.count = 1;
    list.controls = &item;
    if (node.ioctl(VIDIOC_G_EXT_CTRLS, &list) < 0)
        return;
    control.value = isLong                                   ? item.value64
                    : control.type == V4L2_CTRL_TYPE_BITMASK ? static_cast<uint32_t>(item.value)
                                                             : item.value;
}

}  // namespace

std::vector<sim::ControlDesc> captureControls(client::NodeFd& node) {
    constexpr uint32_t kNext = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    std::vector<sim::ControlDesc> controls;
    v4l2_query_ext_ctrl query = {};
    query.id = kNext;
    while (controls.size() < kMostItems && node.ioctl(VIDIOC_QUERY_EXT_CTRL, &query) >= 0) {
        sim::ControlDesc& control = controls.emplace_back();
        control.id = query.id;
        control.name = v4l2::fixedText(query.name);
        control.type = query.type;
        control.minimum = query.minimum;
        control.maximum = query.maximum;
        control.step = static_cast<int64_t>(query.step);
        control.defaultValue = query.default_value;
        control.flags = query.flags;
        control.elementSize = query.elem_size;
        control.elements = query.elems;
        control.dimensions.assign(
            query.dims, query.dims + std::min<uint32_t>(query.nr_of_dims, V4L2_CTRL_MAX_DIMS));
        if (control.type == V4L2_CTRL_TYPE_MENU || control.type == V4L2_CTRL_TYPE_INTEGER_MENU)
            readMenu(node, control);
        readValue(node, control);
        query.id |= kNext;
    }
    return controls;
}

sim::VideoDesc captureVideoNode(client::NodeFd& node, std::vector<std::string>& remarks) {
    VideoDesc video;
    video.role = sim::kPlainRole;
    v4l2_capability capability = {};
    if (const int r = node.ioctl(VIDIOC_QUERYCAP, &capability); r < 0)
        remarks.push_back(std::string("tells no capabilities: ") + strerror(-r));
    video.driver = v4l2::fixedText(capability.driver);
    video.card = v4l2::fixedText(capability.card);
    video.bus = v4l2::fixedText(capability.bus_info);
    video.version = capability.version;
    video.capabilities = capability.capabilities;
    video.deviceCaps = capability.device_caps;
    const uint32_t caps = v4l2::deviceCaps(capability);
    for (const v4l2::BufferType& type : v4l2::kBufferTypes) {
        if ((caps & (type.caps | type.m2mCaps)) == 0)
            continue;
        const bool isSecond = video.bufType != 0;
        const bool isOther = isSecond && v4l2::isOutput(type.type) != v4l2::isOutput(video.bufType);
        if (isSecond && (!isOther || !video.secondQueue.empty())) {
            remarks.push_back(std::string("its queue of ") + type.inWords +
                              " is left out: a description holds one of each direction");
            continue;
        }
        VideoDesc& queue = isSecond ? video.secondQueue.emplace_back() : video;
        queue.bufType = type.type;
        if (QueueCapture(node, queue, remarks).read() && !queue.formats.empty())
            continue;
        if (isSecond)
            video.secondQueue.clear();
        else
            video.bufType = 0;
    }
    video.signal = readSignal(node);
    video.controls = captureControls(node);
    return video;
}

}  // namespace NSVista::NSCorvane::tools
