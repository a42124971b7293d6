// SPDX-License-Identifier: Apache-2.0
// The interfaces' destructors live here, so that each has its virtual table in one place.
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IEventMonitor.h>
#include <corvane/IMediaDevice.h>
#include <corvane/IMediaRequest.h>
#include <corvane/IPort.h>
#include <corvane/IRequest.h>
#include <corvane/IScene.h>
#include <corvane/IV4L2BufferMonitor.h>
#include <corvane/IV4L2SubDevice.h>

namespace NSVista::NSCorvane {

IDefaultSubDeviceProvider::~IDefaultSubDeviceProvider() = default;
IDeviceEnumerator::~IDeviceEnumerator() = default;
IEventMonitor::~IEventMonitor() = default;
IEventObserver::~IEventObserver() = default;
IMediaDevice::~IMediaDevice() = default;
IMediaRequest::~IMediaRequest() = default;
IPort::~IPort() = default;
IRequest::~IRequest() = default;
IScene::~IScene() = default;
IV4L2BufferObserver::~IV4L2BufferObserver() = default;
IV4L2SubDevice::~IV4L2SubDevice() = default;

}  // namespace NSVista::NSCorvane
