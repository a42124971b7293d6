// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A port: one video node of a scene.
 */
#pragma once

#include <string>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

struct PixelFormat;

/**
 * One video node of a scene, as its client sees it.
 *
 * The client serialises format and import calls, which it makes through the scene; dumpState(),
 * toString() and the getters may be called on any thread beside them. After the scene's uninit()
 * format and import calls return -ENODEV with an error line.
 */
class CORVANE_EXPORT IPort {
public:
    virtual ~IPort();
    /** Prints the state of the port's device, when it has one. */
    virtual void dumpState(IPrinter* printer) const = 0;
    virtual std::string toString() const = 0;
    virtual const std::string& getName() const = 0;
    virtual int getIndex() const = 0;
    /** 0 or 2, by the descriptor's type flag. */
    virtual int getType() const = 0;
    virtual bool isSingleDevice() const = 0;
    /** VIDIOC_G_FMT. @return 0 or the negated errno. */
    virtual int getFormat(PixelFormat& format) = 0;
    /**
     * VIDIOC_S_FMT.
     * @param[in,out] format the wanted format; on success what the driver made of it.
     * @return 0 or the negated errno.
     */
    virtual int setFormat(PixelFormat& format) = 0;
    /**
     * VIDIOC_REQBUFS for dma-bufs.
     * @param count 0 to 64 buffers.
     * @return 0, -ENOMEM when the driver grants fewer, or the negated errno.
     */
    virtual int importBuffer(int count) = 0;
};

}  // namespace NSVista::NSCorvane
