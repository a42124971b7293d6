// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The program's pipe: one scene on one media device.
 */
#pragma once

#include <memory>
#include <string>

#include <corvane/Pipe.h>
#include <corvane/client/SceneSession.h>

namespace NSVista::NSCorvane::tools {

/** What the pipe is to build. */
struct Plan {
    std::string model;
    client::SessionDesc session;
    std::unique_ptr<client::IDmaBufSource> source;
};

/** Opens a session for its plan and registers the scene under the session's name. */
class StreamPipe : public PipeBase {
public:
    /** @param plan outlives the pipe. */
    StreamPipe(SceneManager& manager, Plan& plan) : PipeBase(manager), mPlan(plan) {}

    void dumpState(IPrinter* printer) override;
    int init() override;
    void uninit() override;

    /** Between init() and uninit(). */
    client::SceneSession& session() { return *mSession; }

private:
    Plan& mPlan;
    std::unique_ptr<client::SceneSession> mSession;
};

}  // namespace NSVista::NSCorvane::tools
