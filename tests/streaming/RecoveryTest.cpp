// SPDX-License-Identifier: Apache-2.0
// What a service does after each ending (docs/reliability.md): as told there, and it streams again.
#include <corvane/client/SceneSession.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "StreamingFixture.h"

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using client::SceneSession;
using client::SessionRequest;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class Recovery : public FaultyStreaming {
protected:
    std::unique_ptr<SceneSession> open(int& error) const {
        client::SessionDesc desc = platform.describe("service", 2);
        desc.buffers = 2;
        return SceneSession::open(desc, platform.search(), platform.source(), error);
    }
    /** A session that streams. */
    std::unique_ptr<SceneSession> begin() const {
        int error = 0;
        auto session = open(error);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(session->start(), 0);
        return session;
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
    EXPECT_EQ(session->statistics()[0].lost + session->statistics()[1].lost, 2U);
    session->stop(1s);
    session.reset();
    expectANewSessionStreams();
}

TEST_F(Recovery, AfterACompletionThatDoesNotCome) {
    auto session = begin();
    platform.hold(true);
    EXPECT_EQ(session->submit({}), 0);
    EXPECT_EQ(session->wait(200ms, {}), -ETIMEDOUT);
    EXPECT_EQ(session->stop(200ms), -ETIMEDOUT) << "the request is lost";
    session.reset();
    platform.hold(false);
    expectANewSessionStreams();
}

TEST_F(Recovery, AfterAReport) {
    int error = 0;
    auto session = open(error);
    ASSERT_EQ(error, 0);
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
    int error = 0;
    EXPECT_EQ(open(error), nullptr) << "it is not back yet";
    EXPECT_NE(error, 0);
    platform.order("clear");
    expectANewSessionStreams();
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
