// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The words of V4L2: what capabilities, buffer types, formats and fixed-length texts mean.
 *
 * Small inline functions over the kernel's records, for the library and for who works beside it.
 * They keep no state, make no call and may be used on any thread.
 */
#pragma once

#include <linux/videodev2.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include <corvane/formats.h>

namespace NSVista::NSCorvane {

/** A format: of v4l2_pix_format, v4l2_pix_format_mplane or v4l2_meta_format. */
struct PixelFormat {
    static constexpr uint32_t kMaxPlanes = 8;

    struct Plane {
        uint32_t stride;  ///< bytes per line
        uint32_t size;    ///< bytes; of a meta node both are the buffer size
    };

    uint32_t format;      ///< fourcc
    uint32_t width;       ///< pixels; 0 for a meta node
    uint32_t height;      ///< lines; 0 for a meta node
    uint32_t planeCount;  ///< valid entries of planes; 1 for single-plane and meta nodes
    Plane planes[kMaxPlanes];
};

}  // namespace NSVista::NSCorvane

namespace NSVista::NSCorvane::v4l2 {

/** A buffer type that this system knows (v4l2_buf_type). */
struct BufferType {
    uint32_t type;
    uint32_t caps;     ///< capability of a node with one queue, of this type; 0: there is none
    uint32_t m2mCaps;  ///< capability of a memory-to-memory node that has such a queue; or 0
    const char* name;  ///< the kernel's
    const char* inWords;
};

inline constexpr BufferType kBufferTypes[] = {
    {V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_CAP_VIDEO_CAPTURE, V4L2_CAP_VIDEO_M2M,
     "V4L2_BUF_TYPE_VIDEO_CAPTURE", "video capture"},
    {V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE, V4L2_CAP_VIDEO_CAPTURE_MPLANE, V4L2_CAP_VIDEO_M2M_MPLANE,
     "V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE", "video capture, multi-planar"},
    {V4L2_BUF_TYPE_VIDEO_OUTPUT, V4L2_CAP_VIDEO_OUTPUT, V4L2_CAP_VIDEO_M2M,
     "V4L2_BUF_TYPE_VIDEO_OUTPUT", "video output"},
    {V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE, V4L2_CAP_VIDEO_OUTPUT_MPLANE, V4L2_CAP_VIDEO_M2M_MPLANE,
     "V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE", "video output, multi-planar"},
    {V4L2_BUF_TYPE_META_CAPTURE, V4L2_CAP_META_CAPTURE, 0, "V4L2_BUF_TYPE_META_CAPTURE",
     "metadata capture"},
    {V4L2_BUF_TYPE_META_OUTPUT, V4L2_CAP_META_OUTPUT, 0, "V4L2_BUF_TYPE_META_OUTPUT",
     "metadata output"},
    {V4L2_BUF_TYPE_PRIVATE, 0, 0, "V4L2_BUF_TYPE_PRIVATE", "driver's own"},
};

/** @return null for a type that this system does not know. */
constexpr const BufferType* findBufferType(uint32_t type) {
    for (const BufferType& each : kBufferTypes)
        if (each.type == type)
            return &each;
    return nullptr;
}

/** The capabilities of the node itself, where the driver tells them apart from the device's. */
constexpr uint32_t deviceCaps(const v4l2_capability& capability) {
    return (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps
                                                                 : capability.capabilities;
}

inline constexpr uint32_t kMultiPlanarCaps =
    V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_VIDEO_OUTPUT_MPLANE;

/**
 * The buffer type by which a port drives a node of these capabilities. Capture is tested before
 * output: a node that reports both is driven as capture.
 * @return 0 for a node that no port can drive. V4L2_CAP_STREAMING is not looked at.
 */
constexpr uint32_t portBufferType(uint32_t caps) {
    if ((caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) != 0)
        return (caps & kMultiPlanarCaps) != 0 ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE
                                              : V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if ((caps & (V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE)) != 0)
        return (caps & V4L2_CAP_VIDEO_OUTPUT_MPLANE) != 0 ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE
                                                          : V4L2_BUF_TYPE_VIDEO_OUTPUT;
    if ((caps & V4L2_CAP_META_CAPTURE) != 0)
        return V4L2_BUF_TYPE_META_CAPTURE;
    return (caps & V4L2_CAP_META_OUTPUT) != 0 ? V4L2_BUF_TYPE_META_OUTPUT : 0;
}

constexpr bool isOutput(uint32_t bufferType) {
    return V4L2_TYPE_IS_OUTPUT(bufferType);
}

constexpr bool isMultiPlanar(uint32_t bufferType) {
    return V4L2_TYPE_IS_MULTIPLANAR(bufferType);
}

constexpr bool isMeta(uint32_t bufferType) {
    return bufferType == V4L2_BUF_TYPE_META_CAPTURE || bufferType == V4L2_BUF_TYPE_META_OUTPUT;
}

/** Which member of v4l2_format holds a format. */
enum class FormatClass { Meta, MultiPlane, Single };

constexpr FormatClass formatClassOfType(uint32_t bufferType) {
    if (isMeta(bufferType))
        return FormatClass::Meta;
    return isMultiPlanar(bufferType) ? FormatClass::MultiPlane : FormatClass::Single;
}

/** The class by which a port reads and writes a node's formats: metadata comes first here. */
constexpr FormatClass formatClassOfCaps(uint32_t caps) {
    if ((caps & (V4L2_CAP_META_CAPTURE | V4L2_CAP_META_OUTPUT)) != 0)
        return FormatClass::Meta;
    return (caps & kMultiPlanarCaps) != 0 ? FormatClass::MultiPlane : FormatClass::Single;
}

/**
 * Reads a driver's format.
 * @param[out] to planes beyond the count, and beyond PixelFormat::kMaxPlanes, are left alone; the
 *             count itself is passed on as it stands.
 */
inline void readFormat(const v4l2_format& from, FormatClass formatClass, PixelFormat& to) {
    switch (formatClass) {
        case FormatClass::Meta:
            to.format = from.fmt.meta.dataformat;
            to.width = 0;
            to.height = 0;
            to.planeCount = 1;
            to.planes[0] = {from.fmt.meta.buffersize, from.fmt.meta.buffersize};
            break;
        case FormatClass::MultiPlane: {
            const v4l2_pix_format_mplane& pixels = from.fmt.pix_mp;
            to.format = pixels.pixelformat;
            to.width = pixels.width;
            to.height = pixels.height;
            to.planeCount = pixels.num_planes;
            for (uint32_t i = 0; i < std::min(to.planeCount, PixelFormat::kMaxPlanes); ++i)
                to.planes[i] = {pixels.plane_fmt[i].bytesperline, pixels.plane_fmt[i].sizeimage};
            break;
        }
        case FormatClass::Single:
            to.format = from.fmt.pix.pixelformat;
            to.width = from.fmt.pix.width;
            to.height = from.fmt.pix.height;
            to.planeCount = 1;
            to.planes[0] = {from.fmt.pix.bytesperline, from.fmt.pix.sizeimage};
            break;
    }
}

inline constexpr uint32_t kBigEndian = 1U << 31;

/**
 * A fourcc's characters, without trailing blanks; "-BE" follows where the big-endian bit is set.
 * What is no printable character is a dot.
 */
inline std::string fourccText(uint32_t fourcc) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const auto c = static_cast<char>(fourcc >> shift & 0x7f);
        text += c >= ' ' && c <= '~' ? c : '.';
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return (fourcc & kBigEndian) != 0 ? text + "-BE" : text;
}

/** A format's common name ("NV12M" for the characters "NM12"), or its fourccText(). */
inline std::string formatName(uint32_t fourcc) {
    const corvane_format* const known = corvane_format_of(fourcc);
    return known != nullptr ? known->name : fourccText(fourcc);
}

/** Takes what formatName() and fourccText() give. @return 0 for a text that is no format. */
inline uint32_t fourccOf(std::string_view text) {
    for (const corvane_format& each : corvane_formats)
        if (text == each.name)
            return each.fourcc;
    constexpr std::string_view kSuffix = "-BE";
    uint32_t fourcc = 0;
    if (text.size() > kSuffix.size() && text.substr(text.size() - kSuffix.size()) == kSuffix) {
        text.remove_suffix(kSuffix.size());
        fourcc = kBigEndian;
    }
    if (text.empty() || text.size() > 4)
        return 0;
    for (size_t i = 0; i < 4; ++i) {
        const char c = i < text.size() ? text[i] : ' ';
        if (c < ' ' || c > '~')
            return 0;
        fourcc |= static_cast<uint32_t>(c) << 8 * i;
    }
    return fourcc;
}

/** A kernel record's character array, which may lack its terminating zero. */
template <class Char, size_t Size>
std::string fixedText(const Char (&text)[Size]) {
    static_assert(sizeof(Char) == 1);
    const auto* const chars = reinterpret_cast<const char*>(text);
    return std::string(chars, strnlen(chars, Size));
}

}  // namespace NSVista::NSCorvane::v4l2
