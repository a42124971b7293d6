// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The library's trace areas: bit numbers of its trace-bit set.
 */
#pragma once

namespace NSVista::NSCorvane::area {

enum : unsigned {
    kLifecycle = 4,       ///< scenes, managers, media devices, enumeration, the worker's life
    kStreaming = 5,       ///< ports, import, streaming, sub-device
    kFormat = 6,          ///< formats, links, attachment of monitors
    kQueueBuffers = 8,    ///< a request's buffers
    kQueueRequest = 9,    ///< a request's way in
    kQueue = 10,          ///< one buffer's way in; a request's completion at the scene
    kDone = 13,           ///< completion and dispatch
    kDriverCall = 14,     ///< single driver calls, one buffer's way out
    kBufferCounter = 34,  ///< the counter of buffers in queue
    kBufferLife = 35,     ///< each buffer's life as an asynchronous section
};

}  // namespace NSVista::NSCorvane::area
