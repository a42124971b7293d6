// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The pictures of one request, side by side in a PNG.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <corvane/client/SceneSession.h>

#include "Device.h"
#include "Picture.h"

namespace NSVista::NSCorvane::tools {

/** Keeps the pictures of the last request it saw. */
class Snapshot {
public:
    /** Copies the frames of the video ports. */
    void take(const std::vector<NodePort>& ports, client::SessionRequest& request);
    /** @param title stands above the pictures. @return false with a line on stderr. */
    bool write(const std::string& path, const std::string& title) const;

private:
    std::vector<Picture> mPictures;
    uint64_t mNumber = 0;
};

}  // namespace NSVista::NSCorvane::tools
