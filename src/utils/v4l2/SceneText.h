// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Text forms of descriptors and frame buffers.
 */
#pragma once

#include <string>

struct LinkDesc;
struct PortDesc;

namespace NSVista::NSCorvane {

struct FrameBuffer;

std::string toString(const PortDesc& port);
std::string toString(const LinkDesc& link);
std::string toString(const FrameBuffer& buffer);

}  // namespace NSVista::NSCorvane
