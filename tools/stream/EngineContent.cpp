// SPDX-License-Identifier: Apache-2.0
#include "EngineContent.h"

#include <cstring>

namespace NSVista::NSCorvane::tools {

namespace {

/** Brightness of a request's tuning: up and down between -20 and 20. */
int32_t brightnessOf(uint64_t number) {
    const auto phase = static_cast<int32_t>(number % 80);
    return phase < 40 ? phase - 20 : 60 - phase;
}

uint32_t serialOf(uint64_t number) {
    return static_cast<uint32_t>(number) + 1;
}

/** A grey ramp, steeper from left to right, that moves on from request to request. */
void drawMask(const vengine_picture& picture, uint64_t number) {
    for (uint32_t y = 0; y < picture.height; ++y)
        for (uint32_t x = 0; x < picture.width; ++x)
            vengine_write(&picture, x, y,
                          {static_cast<uint8_t>(x * 256 / picture.width + y + number), 128, 128});
}

std::string differenceOf(const vengine_picture& got, const vengine_picture& expected) {
    for (unsigned plane = 0; plane < 3; ++plane) {
        const corvane_plane& shape = expected.format->planes[plane];
        const uint32_t bytes = corvane_line_bytes(&shape, expected.width);
        for (uint32_t row = 0; bytes != 0 && row < corvane_lines(&shape, expected.height); ++row) {
            const uint8_t* const a = got.data[plane] + size_t{row} * got.stride[plane];
            const uint8_t* const b = expected.data[plane] + size_t{row} * expected.stride[plane];
            if (memcmp(a, b, bytes) == 0)
                continue;
            uint32_t column = 0;
            while (a[column] == b[column])
                ++column;
            return "component plane " + std::to_string(plane) + ", row " + std::to_string(row) +
                   ", byte " + std::to_string(column) + " is " + std::to_string(a[column]) +
                   " instead of " + std::to_string(b[column]);
        }
    }
    return {};
}

}  // namespace

bool EngineContent::isFor(const Device& device) {
    return device.driver == VENGINE_DRIVER;
}

std::string EngineContent::findStrangeFormat(const std::vector<NodePort>& ports,
                                             const client::SceneSession& session) {
    for (size_t port = 0; port < ports.size(); ++port) {
        const PixelFormat& format = session.format(port);
        const vengine_layout layout = vengine_layout_of(format.format, format.width, format.height);
        const bool isMeta = ports[port].node.isMeta();
        bool fits = isMeta ? format.planes[0].size >= VENGINE_META_SIZE
                           : layout.num_planes == format.planeCount;
        for (uint32_t i = 0; fits && !isMeta && i < layout.num_planes; ++i)
            fits = format.planes[i].size == layout.sizeimage[i] &&
                   format.planes[i].stride == layout.bytesperline[i];
        if (!fits)
            return ports[port].entity;
    }
    return {};
}

EngineContent::EngineContent(const std::vector<NodePort>& ports, client::SceneSession& session)
    : Content(ports, session) {
    for (size_t port = 0; port < ports.size(); ++port) {
        const PixelFormat& format = session.format(port);
        Role role{VENGINE_ROLE_STATS, VENGINE_PORTS, {}, {}};
        for (uint32_t i = 0; i < VENGINE_PORTS; ++i)
            if (ports[port].entity == vengine_ports[i].name) {
                role.role = vengine_ports[i].role;
                role.number = i;
            }
        role.layout = vengine_layout_of(format.format, format.width, format.height);
        for (uint32_t plane = 0; plane < role.layout.num_planes; ++plane)
            role.expected.resize(role.expected.size() + role.layout.sizeimage[plane]);
        mRoles.push_back(std::move(role));
    }
}

std::optional<size_t> EngineContent::find(uint32_t role) const {
    for (size_t port = 0; port < mRoles.size(); ++port)
        if (mRoles[port].role == role)
            return port;
    return std::nullopt;
}

vengine_picture EngineContent::pictureOf(size_t port, const client::FrameMapping& planes) const {
    uint8_t* data[3] = {};
    for (size_t i = 0; i < planes.planeCount(); ++i)
        data[i] = planes.plane(i).data();
    return vengine_map(&mRoles[port].layout, data);
}

vengine_picture EngineContent::expectedPicture(Role& role) const {
    uint8_t* data[3] = {};
    uint8_t* at = role.expected.data();
    for (uint32_t i = 0; i < role.layout.num_planes; ++i) {
        data[i] = at;
        at += role.layout.sizeimage[i];
    }
    return vengine_map(&role.layout, data);
}

void EngineContent::fillOutput(uint64_t number, size_t port, const client::FrameMapping& planes) {
    if (mRoles[port].role == VENGINE_ROLE_TUNING) {
        vengine_tuning tuning{};
        tuning.magic = VENGINE_TUNING_MAGIC;
        tuning.serial = serialOf(number);
        tuning.brightness = brightnessOf(number);
        memcpy(planes.plane(0).data(), &tuning, sizeof(tuning));
        return;
    }
    const vengine_picture picture = pictureOf(port, planes);
    if (mRoles[port].role == VENGINE_ROLE_INPUT)
        vengine_draw_test(&picture, static_cast<uint32_t>(number));
    else
        drawMask(picture, number);
}

void EngineContent::beginCheck(uint64_t number) {
    mSource = {};
    if (const auto port = find(VENGINE_ROLE_INPUT)) {
        mInput = pictureOf(*port, frames()[*port]);
        mSource.input = &mInput;
    }
    if (const auto port = find(VENGINE_ROLE_MASK)) {
        mMask = pictureOf(*port, frames()[*port]);
        mSource.mask = &mMask;
    }
    mTuning = {};
    if (const auto port = find(VENGINE_ROLE_TUNING))
        memcpy(&mTuning, frames()[*port].plane(0).data(), sizeof(mTuning));
    // The test picture's number is the engine's own count: the first request tells where it began.
    if (mFirstFrame)
        mSource.frame = *mFirstFrame + static_cast<uint32_t>(number);
}

std::string EngineContent::checkCapture(uint64_t number, size_t port,
                                        const client::FrameMapping& planes) {
    if (mRoles[port].role == VENGINE_ROLE_STATS)
        return checkStats(number, planes);
    if (mSource.input == nullptr && !mFirstFrame) {
        mSource.frame = readFrameNumber(port, planes);
        mFirstFrame = mSource.frame - static_cast<uint32_t>(number);
    }
    return checkPicture(number, port, planes);
}

std::string EngineContent::checkStats(uint64_t number, const client::FrameMapping& planes) {
    vengine_stats stats{};
    memcpy(&stats, planes.plane(0).data(), sizeof(stats));
    uint32_t taking = 0;
    for (const Role& role : mRoles)
        taking |= 1U << role.number;
    if (stats.magic != VENGINE_STATS_MAGIC)
        return "the statistics have no magic";
    if (stats.ports != taking)
        return "the statistics name ports " + std::to_string(stats.ports) + " instead of " +
               std::to_string(taking);
    if (stats.tuning_serial != mTuning.serial)
        return "the statistics name tuning " + std::to_string(stats.tuning_serial);
    if (stats.input_checksum != (mSource.input != nullptr ? vengine_checksum(mSource.input) : 0))
        return "the statistics have another checksum of the input";
    if (!mFirstFrame)
        mFirstFrame = stats.frame - static_cast<uint32_t>(number);
    if (stats.frame != *mFirstFrame + static_cast<uint32_t>(number))
        return "the statistics count frame " + std::to_string(stats.frame) + " instead of " +
               std::to_string(*mFirstFrame + static_cast<uint32_t>(number));
    return {};
}

std::string EngineContent::checkPicture(uint64_t number, size_t port,
                                        const client::FrameMapping& planes) {
    Role& role = mRoles[port];
    const vengine_picture expected = expectedPicture(role);
    const auto control = controls() != nullptr ? controls()->valueOf(ports()[port].entity,
                                                                     V4L2_CID_BRIGHTNESS, number)
                                               : std::nullopt;
    mSource.brightness =
        vengine_brightness(static_cast<int32_t>(control.value_or(0)), mTuning.brightness);
    vengine_capture(&mSource, role.role, &expected);
    return differenceOf(pictureOf(port, planes), expected);
}

/** Reads the number that stands in a test picture, through mask and brightness. */
uint32_t EngineContent::readFrameNumber(size_t port, const client::FrameMapping& planes) const {
    const Role& role = mRoles[port];
    const vengine_picture picture = pictureOf(port, planes);
    vengine_source ones = mSource;
    ones.frame = ~0U;
    const vengine_test test = vengine_test_of(picture.width, picture.height, ones.frame);
    uint32_t frame = 0;
    for (uint32_t bit = 0; bit < 32; ++bit) {
        const uint32_t x = role.role == VENGINE_ROLE_MIRROR ? picture.width - 1 - 2 * bit : 2 * bit;
        const uint32_t y = role.role == VENGINE_ROLE_FLIP ? picture.height - 1 : 0;
        const vengine_yuv one = vengine_capture_pixel(&ones, &test, role.role, x, y);
        if (vengine_read(&picture, x, y).y == one.y)
            frame |= 1U << bit;
    }
    return frame;
}

}  // namespace NSVista::NSCorvane::tools
