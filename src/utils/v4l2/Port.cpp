// SPDX-License-Identifier: Apache-2.0
#include <corvane/SceneControl.h>

#include <corvane/IMediaDevice.h>
#include <corvane/SceneDesc.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Trace.h>

#include <cerrno>
#include <utility>

#include "RefusedOpen.h"
#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-SceneControl")

namespace NSVista::NSCorvane {

Port::Port(const PortDesc& desc, IMediaDevice* media) try
    : mName(nameOrEmpty(desc.port_name)),
      mIndex(desc.index),
      mType(desc.type_flag ? 0 : 2),
      mSingleDevice(desc.single_device),
      mCtrlMeta(desc.ctrl_meta),
      mDeviceName(nameOrEmpty(desc.device_name)),
      mMediaDevice(media) {}
CORVANE_NO_THROW

Port::~Port() = default;

std::shared_ptr<IV4L2VideoDevice> Port::getVideoDevice() const {
    const MutexLock lock(mDeviceLock);
    return mVideoDevice;
}

/** What was held leaves after the lock: its end logs. */
void Port::replaceDevice(std::shared_ptr<IV4L2VideoDevice> device) {
    const MutexLock lock(mDeviceLock);
    mVideoDevice.swap(device);
}

/** @return what @p call(device) returns, or -ENODEV without a device; a failure is logged. */
template <class Call>
int Port::onDevice(const char* operation, const char* action, Call call) {
    const auto device = getVideoDevice();
    if (device == nullptr)
        CORVANE_LOGE_AS(operation, "%s: No video device before init() and after deinit()",
                        mName.c_str());
    const int ret = device != nullptr ? call(*device) : -ENODEV;
    if (ret != 0)
        CORVANE_LOGE_AS(operation, "%s: Failed to %s", mName.c_str(), action);
    return ret;
}

int Port::init() try {
    const TraceSection section(area::kStreaming, "Port::init");
    replaceDevice(mMediaDevice != nullptr
                      ? IV4L2VideoDevice::make(*mMediaDevice, mName, mDeviceName, mIndex)
                      : nullptr);
    if (getVideoDevice() == nullptr)
        CORVANE_FATAL("IV4L2VideoDevice::make: %s", mName.c_str());
    const int ret = onDevice("init", "open port", [](auto& device) { return device.openDevice(); });
    if (ret == 0)
        return 0;
    const std::string path = mMediaDevice->getEntityDevnodePath(mDeviceName);
    if (path.empty())
        CORVANE_LOGE("%s: the media device has no entity \"%s\" with a node", mName.c_str(),
                     mDeviceName.c_str());
    else if (const auto cause = refusedOpenCause(path, ret); !cause.empty())
        CORVANE_LOGE("%s: %s", mName.c_str(), cause.c_str());
    return ret;
}
CORVANE_NO_THROW

void Port::deinit() {
    const TraceSection section(area::kStreaming, "Port::deinit");
    const auto device = getVideoDevice();
    if (device == nullptr)
        return;
    device->closeDevice();
    replaceDevice(nullptr);
}

int Port::getFormat(PixelFormat& format) {
    const TraceSection section(area::kFormat, "Port::getFormat");
    return onDevice("getFormat", "get format",
                    [&format](auto& device) { return device.getFormat(format); });
}

int Port::setFormat(PixelFormat& format) {
    const TraceSection section(area::kFormat, "Port::setFormat");
    return onDevice("setFormat", "set format",
                    [&format](auto& device) { return device.setFormat(format); });
}

int Port::importBuffer(int count) {
    const TraceSection section(area::kStreaming, "Port::importBuffer");
    return onDevice("importBuffer", "import buffer",
                    [count](auto& device) { return device.importBuffer(count); });
}

int Port::start() {
    const TraceSection section(area::kStreaming, "Port::start");
    return onDevice("start", "start port (streamOn)",
                    [](auto& device) { return device.streamOn(); });
}

int Port::stop() {
    const TraceSection section(area::kStreaming, "Port::stop");
    return onDevice("stop", "stop port (streamOff)",
                    [](auto& device) { return device.streamOff(); });
}

int Port::setMonitor(const std::shared_ptr<IV4L2BufferMonitor>& monitor) {
    const auto device = getVideoDevice();
    return device != nullptr ? device->setMonitor(monitor) : -ENODEV;
}

void Port::dumpState(IPrinter* printer) const {
    if (const auto device = getVideoDevice())
        device->dumpState(printer);
}

std::string Port::toString() const try {
    TextStream text;
    text << std::hex << " 0x" << getIndex() << "(" << getName() << ") type=" << getType();
    if (isSingleDevice())
        text << " singledev";
    return text.str();
}
CORVANE_NO_THROW

}  // namespace NSVista::NSCorvane
