// SPDX-License-Identifier: Apache-2.0
#include "StreamPipe.h"

#include <corvane/IDeviceEnumerator.h>
#include <corvane/platform/Printer.h>

#include <cstdio>
#include <cstring>

#include "Console.h"

namespace NSVista::NSCorvane::tools {

void StreamPipe::dumpState(IPrinter* printer) {
    printer->printFormatLine("<<StreamPipe>> %s, buffers from %s", mPlan.session.name.c_str(),
                             mPlan.source->toString().c_str());
    if (mSession)
        mSession->dumpState(printer);
}

int StreamPipe::init() {
    int error = 0;
    mSession =
        client::SceneSession::open(mPlan.session, IDeviceEnumerator::instance().search(mPlan.model),
                                   *mPlan.source, error, getDebugInfo(mPlan.session.name));
    if (!mSession) {
        say("the scene cannot be set up: %s", error == -1 ? "see the log" : strerror(-error));
        return error;
    }
    return addScene(mPlan.session.name, mSession->scene());
}

void StreamPipe::uninit() {
    if (mSession)
        delScene(mPlan.session.name);
    mSession.reset();
}

}  // namespace NSVista::NSCorvane::tools
