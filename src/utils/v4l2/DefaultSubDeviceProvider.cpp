// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The process's owner of the default sub-device.
 */
#include <corvane/IDeviceEnumerator.h>
#include <corvane/V4L2SubDevice.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/Trace.h>

#include <new>

#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2SubDevice")

namespace NSVista::NSCorvane {

IDefaultSubDeviceProvider* IDefaultSubDeviceProvider::instance() {
    static DefaultSubDeviceProvider provider;
    return &provider;
}

std::shared_ptr<IV4L2SubDevice> DefaultSubDeviceProvider::acquire(const EIGHTCC& user) try {
    const MutexLock lock(mLock);
    if (!mUsers.insert(user).second)
        CORVANE_FATAL("A same user id %s has existed.", user.toString().c_str());
    // A user whose bring-up failed stays recorded: its release balances this and tears down.
    if (mUsers.size() == 1 && !initSubDevice())
        return nullptr;
    return mSubDev;
}
CORVANE_NO_THROW

void DefaultSubDeviceProvider::release(const EIGHTCC& user,
                                       std::shared_ptr<IV4L2SubDevice>& subDevice) try {
    const MutexLock lock(mLock);
    subDevice.reset();
    mUsers.erase(user);
    if (mUsers.empty())
        deinitSubDevice();
}
CORVANE_NO_THROW

void DefaultSubDeviceProvider::dumpState(IPrinter* printer) const try {
    const MutexLock lock(mLock);
    std::string users = "{";
    for (const EIGHTCC& user : mUsers)
        users += " " + user.toString();
    users += " }";
    printer->printFormatLine("<<DefaultSubDeviceProvider>> Users[%zu]=%s", mUsers.size(),
                             users.c_str());
    if (mSubDev)
        mSubDev->dumpState(printer);
}
CORVANE_NO_THROW

bool DefaultSubDeviceProvider::initSubDevice() {
    const TraceSection trace(area::kStreaming, "DefaultSubDeviceProvider::initSubDevice");
    IDeviceEnumerator& enumerator = IDeviceEnumerator::instance();
    const std::string entity = enumerator.getDefaultSubDevEntityName();
    const std::string path = enumerator.determineDefaultSubDevnodePath();
    if (entity.empty())
        CORVANE_FATAL("Bad default subdev entity name");
    if (path.empty())
        CORVANE_FATAL("Bad default subdev dev node path");
    mSubDev.reset(new (std::nothrow) V4L2SubDevice(path, entity));
    if (!mSubDev)
        CORVANE_FATAL("Bad mSubDev");
    return mSubDev->openDevice() == 0 && mSubDev->subscribe() == 0;
}

void DefaultSubDeviceProvider::deinitSubDevice() {
    const TraceSection trace(area::kStreaming, "DefaultSubDeviceProvider::deinitSubDevice");
    if (!mSubDev)
        return;
    // Nothing is left to do about a refusal: the sub-device has reported it.
    mSubDev->unsubscribe();
    mSubDev->closeDevice();
    mSubDev.reset();
}

}  // namespace NSVista::NSCorvane
