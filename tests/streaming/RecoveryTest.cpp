// SPDX-License-Identifier: Apache-2.0
// What a service does after each ending (docs/reliability.md): as told there, and it streams again.
#include <corvane/client/SceneSession.h>

#include <chrono>

#include "StreamingFixture.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using client::SceneSession;
using client::SessionRequest;
using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;

class Recovery : public FaultyStreaming {
protected:
    std::unique_ptr<SceneSession> open() const {
        client::SessionDesc desc = platform.describe("service", 2);
        desc.buffers = 2;
        int error = 0;
        auto session = SceneSession::open(desc, platform.search(), platform.source(), error);
        EXPECT_EQ(session == nullptr, error < 0);
        return session;
    }
    /** A session that streams. */
    std::unique_ptr<SceneSession> begin() const {
        auto session = open();
        EXPECT_EQ(session->start(), 0);
        return session;
    }
    /** Where the session's scene says that it stands. */
    static Lines standOf(const SceneSession& session) {
        LinePrinter printer;
        static_cast<const Scene&>(*session.scene()).explainStall(&printer);
        return printer.lines;
    }
    /** @return the result of the request's first frame that is not good, 0 when all are. */
    static int takeOne(SceneSession& session) {
        int result = 0;
        EXPECT_EQ(session.wait(5s,
                               [&](SessionRequest& request) {
                                   for (size_t port = 0; port < 2; ++port)
                                       if (request.frame(port).result() != 0)
                                           result = request.frame(port).result();
                               }),
                  0);
        return result;
    }
    /** The end of every recipe: a new session in the same process streams. */
    void expectANewSessionStreams() const {
        const auto session = begin();
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(session->submit({}), 0);
            EXPECT_EQ(takeOne(*session), 0);
        }
        EXPECT_EQ(session->stop(5s), 0);
    }
};

TEST_F(Recovery, AfterARefusedRequest) {
    auto session = begin();
    EXPECT_EQ(session->submit({}), 0);
    platform.order("qbuf -12 2");
    EXPECT_EQ(session->submit({}), -ENOMEM) << "the driver's refusal, after one port's buffer";
    EXPECT_THAT(errors(), Contains(HasSubstr("[queueRequest] Failed to queue request")));
    EXPECT_EQ(session->submit({}), -EPIPE) << "only the stop is left";
    EXPECT_EQ(takeOne(*session), 0) << "the first one is not lost";
    EXPECT_THAT(standOf(*session),
                Contains(ContainsRegex("request 1 .fd [0-9]+.: its queueing was refused: the "
                                       "client's turn, to stop the scene; buffers "
                                       "vengine-[a-z]+.1. vengine-[a-z]+.1. refused$")));
    EXPECT_EQ(session->stop(1s), 0);
    for (const client::PortStatistics& port : session->statistics()) {
        EXPECT_EQ(port.queued, 1U) << port.name;
        EXPECT_EQ(port.dequeued, 1U) << port.name;
    }
    session.reset();
    expectANewSessionStreams();
}

TEST_F(Recovery, AfterALostIndex) {
    auto session = begin();
    for (int lost = 0; lost < 2; ++lost) {
        platform.order("dqbuf -5");
        EXPECT_EQ(session->submit({}), 0);
        EXPECT_EQ(takeOne(*session), -EIO);
    }
    EXPECT_EQ(session->submit({}), -ENOBUFS) << "every request has lost a frame; nothing hangs";
    session->stop(1s);
    session.reset();
    expectANewSessionStreams();
}

TEST_F(Recovery, AfterACompletionThatDoesNotCome) {
    auto session = begin();
    platform.hold(true);
    EXPECT_EQ(session->submit({}), 0);
    EXPECT_EQ(session->wait(200ms, {}), -ETIMEDOUT);
    EXPECT_THAT(standOf(*session),
                Contains(ContainsRegex("request 0 .fd [0-9]+.: with the driver for [0-9]{1,5} ms: "
                                       "the driver's turn; buffers vengine-[a-z]+.0. "
                                       "vengine-[a-z]+.0.")));
    EXPECT_EQ(session->stop(200ms), -ETIMEDOUT) << "the request is lost";
    session.reset();
    platform.hold(false);
    expectANewSessionStreams();
}

TEST_F(Recovery, AfterAReport) {
    auto session = open();
    platform.order("streamon -5 2");
    EXPECT_EQ(session->start(), -EIO) << "of the second port; the first one streams";
    EXPECT_THAT(reports.take(), ElementsAre(HasSubstr("STREAMON"), "terminate"));
    EXPECT_EQ(session->submit({}), -EPIPE) << "only the stop is left";
    EXPECT_EQ(session->stop(1s), 0);
    session.reset();
    expectANewSessionStreams();
}

// The driver refuses whatever the service tries, as one does whose device was pulled, and comes
// back under the same nodes.
TEST_F(Recovery, AfterADeviceThatWasGone) {
    auto session = begin();
    EXPECT_EQ(session->submit({}), 0);
    EXPECT_EQ(takeOne(*session), 0);
    platform.order("qbuf -19");
    platform.order("streamoff -19");
    EXPECT_EQ(session->submit({}), -ENODEV);
    EXPECT_EQ(session->stop(1s), -ENODEV);
    EXPECT_THAT(reports.take(), ElementsAre(HasSubstr("STREAMOFF"), "terminate"));
    session.reset();
    platform.order("querycap -19");
    EXPECT_EQ(open(), nullptr) << "it is not back yet";
    platform.order("clear");
    expectANewSessionStreams();
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
