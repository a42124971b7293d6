#include <corvane/SceneControl.h>

#include <corvane/SceneDesc.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Trace.h>

#include <sstream>

#include "Text.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-SceneControl")

namespace NSVista::NSCorvane {

Port::Port(const PortDesc& desc, IMediaDevice* media)
    : mName(nameOrEmpty(desc.port_name)),
      mIndex(desc.index),
      mType(desc.type_flag ? 0 : 2),
      mSingleDevice(desc.single_device),
      mCtrlMeta(desc.ctrl_meta),
      mDeviceName(nameOrEmpty(desc.device_name)),
      mMediaDevice(media) {
}

Port::~Port() = default;

int Port::init() {
    const TraceSection section(area::kStreaming, "Port::init");
    mVideoDevice = mMediaDevice != nullptr
                       ? IV4L2VideoDevice::make(*mMediaDevice, mName, mDeviceName, mIndex)
                       : nullptr;
    if (mVideoDevice == nullptr)
        CORVANE_FATAL("IV4L2VideoDevice::make: %s", mName.c_str());
    const int ret = mVideoDevice->openDevice();
    if (ret != 0)
        CORVANE_LOGE("%s: Failed to open port", mName.c_str());
    return ret;
}

void Port::deinit() {
    const TraceSection section(area::kStreaming, "Port::deinit");
    if (mVideoDevice == nullptr)
        return;
    mVideoDevice->closeDevice();
    mVideoDevice.reset();
}

int Port::getFormat(PixelFormat& format) {
    const TraceSection section(area::kFormat, "Port::getFormat");
    const int ret = mVideoDevice->getFormat(format);
    if (ret != 0)
        CORVANE_LOGE("%s: Failed to get format", mName.c_str());
    return ret;
}

int Port::setFormat(PixelFormat& format) {
    const TraceSection section(area::kFormat, "Port::setFormat");
    const int ret = mVideoDevice->setFormat(format);
    if (ret != 0)
        CORVANE_LOGE("%s: Failed to set format", mName.c_str());
    return ret;
}

int Port::importBuffer(int count) {
    const TraceSection section(area::kStreaming, "Port::importBuffer");
    const int ret = mVideoDevice->importBuffer(count);
    if (ret != 0)
        CORVANE_LOGE("%s: Failed to import buffer", mName.c_str());
    return ret;
}

int Port::start() {
    const TraceSection section(area::kStreaming, "Port::start");
    const int ret = mVideoDevice->streamOn();
    if (ret != 0)
        CORVANE_LOGE("%s: Failed to start port (streamOn)", mName.c_str());
    return ret;
}

int Port::stop() {
    const TraceSection section(area::kStreaming, "Port::stop");
    const int ret = mVideoDevice->streamOff();
    if (ret != 0)
        CORVANE_LOGE("%s: Failed to stop port (streamOff)", mName.c_str());
    return ret;
}

int Port::setMonitor(const std::shared_ptr<IV4L2BufferMonitor>& monitor) {
    return mVideoDevice->setMonitor(monitor);
}

void Port::dumpState(IPrinter* printer) const {
    if (mVideoDevice != nullptr)
        mVideoDevice->dumpState(printer);
}

std::string Port::toString() const {
    std::ostringstream text;
    text << std::hex << " 0x" << getIndex() << "(" << getName() << ") type=" << getType();
    if (isSingleDevice())
        text << " singledev";
    return text.str();
}

}  // namespace NSVista::NSCorvane
