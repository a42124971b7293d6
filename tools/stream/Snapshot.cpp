// SPDX-License-Identifier: Apache-2.0
#include "Snapshot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Canvas.h"
#include "Console.h"

namespace NSVista::NSCorvane::tools {

namespace {

constexpr Rgb kBackground{24, 28, 36};
constexpr Rgb kFrame{58, 66, 82};
constexpr Rgb kBright{226, 232, 240};
constexpr Rgb kDim{134, 148, 170};
constexpr uint32_t kMargin = 20;
constexpr uint32_t kLabelHeight = Canvas::kCharHeight + 14;
/** Small pictures are magnified up to this width. */
constexpr uint32_t kTileWidth = 320;

}  // namespace

void Snapshot::take(const std::vector<NodePort>& ports, client::SessionRequest& request) {
    mNumber = request.number();
    mPictures.resize(ports.size());
    for (size_t port = 0; port < ports.size(); ++port) {
        Picture& picture = mPictures[port];
        picture.name = ports[port].entity;
        client::Frame& frame = request.frame(port);
        picture.format = frame.format();
        const client::FrameMapping planes = frame.map(client::CpuAccess::Read);
        for (size_t i = 0; picture.isKnown() && i < planes.planeCount(); ++i) {
            const auto data = planes.plane(i).subspan(
                std::min<size_t>(frame.dataOffset(i), planes.plane(i).size()));
            picture.planes[i].assign(data.begin(), data.end());
            picture.planes[i].resize(planes.plane(i).size());
        }
    }
}

bool Snapshot::write(const std::string& path, const std::string& title) const {
    std::vector<const Picture*> shown;
    uint32_t width = 0;
    uint32_t height = 0;
    for (const Picture& picture : mPictures)
        if (picture.isKnown() && !picture.planes[0].empty()) {
            shown.push_back(&picture);
            width = std::max(width, picture.format.width);
            height = std::max(height, picture.format.height);
        }
    if (shown.empty()) {
        say("%s: no picture in a format that can be drawn", path.c_str());
        return false;
    }
    const auto count = static_cast<uint32_t>(shown.size());
    const auto columns =
        count <= 3 ? count
                   : static_cast<uint32_t>(std::ceil(std::sqrt(static_cast<double>(count))));
    const uint32_t rows = (count + columns - 1) / columns;
    const uint32_t scale = std::max(1U, kTileWidth / width);
    const uint32_t stepX = width * scale + kMargin;
    const uint32_t stepY = height * scale + kLabelHeight + kMargin;
    const uint32_t top = kMargin + Canvas::kCharHeight + kMargin;

    Canvas canvas(kMargin + columns * stepX, top + rows * stepY, kBackground);
    canvas.text(kMargin, kMargin, title + "  REQUEST " + std::to_string(mNumber), kBright);
    for (uint32_t i = 0; i < count; ++i) {
        const Picture& picture = *shown[i];
        const uint32_t x = kMargin + i % columns * stepX;
        const uint32_t y = top + i / columns * stepY;
        const uint32_t w = picture.format.width * scale;
        const uint32_t h = picture.format.height * scale;
        canvas.fill(x - 1, y - 1, w + 2, h + 2, kFrame);
        canvas.picture(x, y, picture, scale);
        const std::string format = v4l2::formatName(picture.format.format);
        const auto formatWidth = static_cast<uint32_t>(format.size()) * Canvas::kCharWidth;
        canvas.text(x, y + h + 8, picture.name, kBright);
        if (picture.name.size() * Canvas::kCharWidth + formatWidth < w)
            canvas.text(x + w - formatWidth, y + h + 8, format, kDim);
    }
    return canvas.writePng(path);
}

}  // namespace NSVista::NSCorvane::tools
