// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Objects of a scene's surroundings that note what they are asked.
 */
#pragma once

#include <corvane/IMediaRequest.h>
#include <corvane/IV4L2BufferMonitor.h>

#include "support/Capture.h"
#include "support/FakeKernel.h"
#include "support/NullEngine.h"

namespace NSVista::NSCorvane::test {

/** A buffer monitor that notes observers and buffers, each as "what port" or "what fd index". */
class NotingBufferMonitor : public IV4L2BufferMonitor {
public:
    void requestExit() override {}
    int readyToRun(const std::string&) override { return 0; }
    bool threadLoop() override { return false; }
    void dumpState(IPrinter*) const override {}
    const char* getThreadName() const override { return "fake"; }
    void attachObserver(const std::shared_ptr<IV4L2BufferObserver>&, int port) override {
        notes.push_back("attach " + std::to_string(port));
    }
    void detachObserver(const std::shared_ptr<IV4L2BufferObserver>&, int port) override {
        notes.push_back("detach " + std::to_string(port));
    }
    void attachRequestBuffer(int fd, unsigned int index) override {
        notes.push_back("queued " + std::to_string(fd) + " " + std::to_string(index));
    }
    void detachRequestBuffer(int fd, unsigned int index) override {
        notes.push_back("dequeued " + std::to_string(fd) + " " + std::to_string(index));
    }
    void notifyRequestDone(int, int*, size_t) override {}

    Lines take() { return std::exchange(notes, {}); }
    Lines notes;
};

/** A media request that the test completes. */
class FakeMediaRequest : public IMediaRequest {
public:
    std::shared_ptr<RequestDebugInfo> getDebugInfo() const override { return debugInfo; }
    unsigned long* getTrackBuffer() const override { return track; }
    void setTrackBuffer(unsigned long* buffer) override { track = buffer; }
    int getRequestFD() const override { return 200; }
    void setRequestDone(std::function<void()> callback) override { done = std::move(callback); }
    int setMonitor(const std::shared_ptr<IEventMonitor>&) override { return -EINVAL; }
    int queueRequest() override { return 0; }

    std::shared_ptr<RequestDebugInfo> debugInfo;
    std::function<void()> done;
    unsigned long* track = nullptr;
};

/** Video nodes named after their entities; links are noted between the kernel's calls. */
class NotingMediaDevice : public NullMediaDevice {
public:
    explicit NotingMediaDevice(FakeKernel& kernel) : mKernel(kernel) {}
    std::string getEntityDevnodePath(const std::string& name) const override {
        return "/dev/" + name;
    }
    bool enableLink(bool enable, const char* source, unsigned sourcePad, const char* sink,
                    unsigned sinkPad) override {
        char text[64];
        snprintf(text, sizeof(text), "link %d %s:%u-%s:%u", enable, source != nullptr ? source : "",
                 sourcePad, sink != nullptr ? sink : "", sinkPad);
        mKernel.note(text);
        return text != refusedLink;
    }
    std::shared_ptr<IMediaRequest> makeRequest() override { return request; }

    std::shared_ptr<FakeMediaRequest> request = std::make_shared<FakeMediaRequest>();
    std::string refusedLink;  ///< as it is noted

private:
    FakeKernel& mKernel;
};

}  // namespace NSVista::NSCorvane::test
