// SPDX-License-Identifier: Apache-2.0
#include "EngineDefaults.h"

#include <algorithm>
#include <iterator>

#include <corvane/V4L2.h>

#include "Negotiation.h"
#include "vengine-picture.h"

namespace NSVista::NSCorvane::sim {

namespace {

AnswerDesc answerOf(uint32_t fourcc, uint32_t width, uint32_t height) {
    const vengine_layout layout =
        vengine_layout_of(fourcc, vengine_clamp_size(width, VENGINE_MIN_WIDTH, VENGINE_MAX_WIDTH),
                          vengine_clamp_size(height, VENGINE_MIN_HEIGHT, VENGINE_MAX_HEIGHT));
    AnswerDesc answer{width, height, {layout.width, layout.height, {}}};
    for (uint32_t i = 0; i < layout.num_planes; ++i)
        answer.layout.planes.push_back({layout.bytesperline[i], layout.sizeimage[i]});
    return answer;
}

FormatDesc pictureFormat(uint32_t fourcc) {
    FormatDesc format;
    format.fourcc = fourcc;
    format.description = corvane_format_of(fourcc)->text;
    format.sizes.push_back(
        {V4L2_FRMSIZE_TYPE_STEPWISE,
         {VENGINE_MIN_WIDTH, VENGINE_MAX_WIDTH, 2, VENGINE_MIN_HEIGHT, VENGINE_MAX_HEIGHT, 2},
         {}});
    for (const auto& [width, height] : kProbedSizes)
        format.answers.push_back(answerOf(fourcc, width, height));
    return format;
}

FormatDesc metadataFormat(uint32_t fourcc) {
    FormatDesc format;
    format.fourcc = fourcc;
    format.description = v4l2::fourccText(fourcc);
    format.answers = {{0, 0, {0, 0, {{0, VENGINE_META_SIZE}}}}};
    return format;
}

/** The engine's choice for the type, and the node's format where that can be laid out as well. */
std::vector<FormatDesc> pictureFormats(const VideoDesc& video, std::vector<uint32_t> fourccs) {
    const uint32_t planes = vengine_layout_of(video.format, 2, 2).num_planes;
    const bool fits = v4l2::isMultiPlanar(video.bufType) ? planes > 0 : planes == 1;
    if (fits && std::find(fourccs.begin(), fourccs.end(), video.format) == fourccs.end())
        fourccs.push_back(video.format);
    std::vector<FormatDesc> formats;
    std::transform(fourccs.begin(), fourccs.end(), std::back_inserter(formats), pictureFormat);
    return formats;
}

std::vector<FormatDesc> ownFormats(const VideoDesc& video) {
    if (v4l2::isMeta(video.bufType))
        return {metadataFormat(video.format)};
    if (v4l2::isMultiPlanar(video.bufType))
        return pictureFormats(
            video, {std::begin(vengine_mplane_formats), std::end(vengine_mplane_formats)});
    return pictureFormats(video,
                          {std::begin(vengine_splane_formats), std::end(vengine_splane_formats)});
}

/** The brightness of nodes that capture pictures; the control framework adds the class itself. */
std::vector<ControlDesc> ownControls(const VideoDesc& video) {
    if (video.bufType == 0 || v4l2::isMeta(video.bufType) || v4l2::isOutput(video.bufType))
        return {};
    ControlDesc heading;
    heading.id = V4L2_CID_USER_CLASS;
    heading.name = "User Controls";
    heading.type = V4L2_CTRL_TYPE_CTRL_CLASS;
    heading.flags = V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;
    ControlDesc brightness;
    brightness.id = V4L2_CID_BRIGHTNESS;
    brightness.name = "Brightness";
    brightness.minimum = -VENGINE_PORT_BRIGHTNESS;
    brightness.maximum = VENGINE_PORT_BRIGHTNESS;
    brightness.step = 1;
    brightness.flags = V4L2_CTRL_FLAG_SLIDER;
    return {heading, brightness};
}

/** What the kernel itself answers for a node whose signal goes by the media controller. */
void completeSignal(VideoDesc& video) {
    if ((*video.deviceCaps & V4L2_CAP_IO_MC) == 0 || video.signal.inputs || video.signal.outputs)
        return;
    ConnectorsDesc connectors;
    connectors.list.emplace_back();
    if (v4l2::isOutput(video.bufType)) {
        connectors.list[0].type = V4L2_OUTPUT_TYPE_ANALOG;
        video.signal.outputs = connectors;
    } else {
        connectors.list[0].type = V4L2_INPUT_TYPE_CAMERA;
        video.signal.inputs = connectors;
    }
}

/** What the node begins with: its format at the engine's size, unless it says otherwise. */
void completeFormat(VideoDesc& video) {
    if (video.formats.empty())
        return;
    const auto named =
        std::find_if(video.formats.begin(), video.formats.end(),
                     [&](const FormatDesc& format) { return format.fourcc == video.format; });
    const FormatDesc& first = named != video.formats.end() ? *named : video.formats.front();
    video.format = first.fourcc;
    if (!video.layout)
        video.layout = Negotiation(first).answer(VENGINE_DEFAULT_WIDTH, VENGINE_DEFAULT_HEIGHT);
}

}  // namespace

VideoDesc completed(const VideoDesc& video) {
    VideoDesc whole = video;
    if (whole.formats.empty() && whole.bufType != 0)
        whole.formats = ownFormats(video);
    if (!whole.controls)
        whole.controls = ownControls(video);
    const auto* const type = v4l2::findBufferType(video.bufType);
    const uint32_t capabilities = (type != nullptr ? type->caps : 0) | V4L2_CAP_STREAMING |
                                  V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_IO_MC;
    if (!whole.deviceCaps)
        whole.deviceCaps = capabilities;
    if (!whole.capabilities)
        whole.capabilities = capabilities | V4L2_CAP_DEVICE_CAPS;
    completeSignal(whole);
    completeFormat(whole);
    return whole;
}

}  // namespace NSVista::NSCorvane::sim
