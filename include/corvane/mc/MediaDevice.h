// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * An opened media device and its requests.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <corvane/IEventMonitor.h>
#include <corvane/IMediaDevice.h>
#include <corvane/IMediaRequest.h>
#include <corvane/mc/MediaTopology.h>
#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::mc {

/**
 * A media device node. Not locked: used by the one scene, or client, that holds it; dumpState() and
 * the getters may run beside anything.
 */
class CORVANE_EXPORT MediaDevice : public IMediaDevice {
public:
    /** What MediaDevice::enableLink() makes of a link, which it knows by the pad numbers alone. */
    enum class LinkMatch {
        kNone,   ///< the device has no such link
        kOther,  ///< it has, but another link with these pad numbers comes first and is set
        kSame,   ///< the named link is set
    };

    /**
     * @param path must not be empty, @p info not null (fatal).
     * @param topology may be null: then the device has no entities and no links.
     */
    MediaDevice(const std::string& path, const std::shared_ptr<media_device_info>& info,
                const std::shared_ptr<MediaTopology>& topology);
    /** Closes the node if it is open. */
    ~MediaDevice() override;
    MediaDevice(const MediaDevice&) = delete;
    MediaDevice& operator=(const MediaDevice&) = delete;

    void dumpState(IPrinter* printer, signed char detail) const override;
    std::shared_ptr<media_device_info> getDeviceInfo() const override { return mDeviceInfo; }
    bool hasEntity(const std::string& name) const override;
    std::string getEntityDevnodePath(const std::string& name) const override;
    int acquire() override { return open(); }
    int release() override { return close(); }
    bool enableLink(bool enable, const char* sourceEntity, unsigned int sourcePad,
                    const char* sinkEntity, unsigned int sinkPad) override;
    std::shared_ptr<IMediaRequest> makeRequest() override;

    /** Looks at a link without setting it. Any thread. */
    LinkMatch matchLink(const std::string& sourceEntity, unsigned int sourcePad,
                        const std::string& sinkEntity, unsigned int sinkPad) const;
    /** See acquire(). */
    int open();
    /** See release(). */
    int close();

private:
    void initLinks();
    std::shared_ptr<MediaEntity> findEntity(const std::string& name) const;

    std::string mPath;
    std::shared_ptr<media_device_info> mDeviceInfo;
    std::shared_ptr<MediaTopology> mTopology;
    std::map<std::string, MediaLink> mLinks;
    std::atomic<int32_t> mFd{-1};
};

/**
 * A request of the Media Request API, made by MediaDevice::makeRequest().
 *
 * queueRequest() runs on the client's thread, onEvent() on the event monitor's; the state is all
 * that they share. The getters may run beside anything. A request whose queueing was refused stays
 * failed until reinit().
 */
class CORVANE_EXPORT MediaRequest : public IEventObserver, public IMediaRequest {
public:
    /** Allocates the request (MEDIA_IOC_REQUEST_ALLOC); fatal when there is none to have. */
    explicit MediaRequest(int mediaFd);
    /** Detaches from the event monitor, then closes the request. */
    ~MediaRequest() override;
    MediaRequest(const MediaRequest&) = delete;
    MediaRequest& operator=(const MediaRequest&) = delete;

    int getEventFD() const override { return mFd; }
    void onEvent(const OnEvent& event) override;

    std::shared_ptr<RequestDebugInfo> getDebugInfo() const override { return mDebugInfo; }
    unsigned long* getTrackBuffer() const override {
        return mTrackBuffer.load(std::memory_order_relaxed);
    }
    void setTrackBuffer(unsigned long* track) override {
        mTrackBuffer.store(track, std::memory_order_relaxed);
    }
    int getRequestFD() const override { return mFd; }
    void setRequestDone(std::function<void()> done) override { mRequestDone = std::move(done); }
    int setMonitor(const std::shared_ptr<IEventMonitor>& monitor) override;
    int queueRequest() override;

    /** MEDIA_REQUEST_IOC_REINIT unless the request is idle; a refusal is fatal. @return true. */
    bool reinit();

    /** How far a cycle is. */
    enum State : int32_t { kIdle = 0, kQueuing = 1, kQueued = 2, kDone = 3, kFailed = 4 };
    /** Any thread. */
    State state() const { return static_cast<State>(mState.load(std::memory_order_relaxed)); }

private:
    std::string mName = "request";
    int32_t mFd = -1;
    std::shared_ptr<RequestDebugInfo> mDebugInfo;
    std::atomic<unsigned long*> mTrackBuffer{nullptr};
    std::function<void()> mRequestDone;
    std::weak_ptr<IEventMonitor> mMonitor;
    std::atomic<int32_t> mState{kIdle};
    int mWatched = 0;  ///< what the monitor said to the attachment
};

}  // namespace NSVista::NSCorvane::mc
