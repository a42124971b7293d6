// SPDX-License-Identifier: Apache-2.0
#include "Rig.h"

#include <algorithm>
#include <cstring>

#include "support/Capture.h"
#include "vengine-picture.h"

namespace NSVista::NSCorvane::test {

namespace {

constexpr uint8_t kPoison = 0xA5;

bool isOutput(const std::string& entity) {
    for (const auto& port : vengine_ports)
        if (entity == port.name)
            return V4L2_TYPE_IS_OUTPUT(port.buf_type);
    return entity.ends_with("-out");
}

vengine_picture pictureOf(const PixelFormat& format, const client::FrameMapping& frame) {
    const vengine_layout layout = vengine_layout_of(format.format, format.width, format.height);
    uint8_t* planes[3] = {};
    for (size_t i = 0; i < frame.planeCount(); ++i)
        planes[i] = frame.plane(i).data();
    return vengine_map(&layout, planes);
}

}  // namespace

Rig::Rig(size_t ports)
    : mMedia(Platform::instance().search()), mDesc(Platform::instance().describe("rig", ports)) {
    mMedia->acquire();
    scene = std::make_unique<Scene>(nullptr, mDesc.scene, mMedia);
    events = client::EpollEventMonitor::make();
}

Rig::~Rig() {
    if (mStarted) {
        waitDequeued();
        stop();
    }
    mRequests.clear();
    if (mInitialised)
        scene->uninit();
    mMedia->release();
}

int Rig::init() {
    const int ret = scene->init();
    mInitialised = ret == 0;
    return ret;
}

int Rig::start(int buffers) {
    if (const int ret = mInitialised ? 0 : init(); ret != 0)
        return ret;
    scene->acquire();
    for (const auto& desc : mDesc.ports) {
        const auto port = scene->queryPort(desc.index);
        int ret = scene->getFormat(port, formats.emplace_back());
        if (ret == 0)
            ret = scene->importBuffer(port, buffers);
        if (ret != 0)
            return ret;
    }
    for (int i = 0; i < buffers; ++i)
        if (const int ret = makeSlot(); ret != 0)
            return ret;
    scene->setRequestDoneCallback([this](IRequest* request) {
        if (onDone)
            onDone();
        const std::lock_guard lock(mLock);
        mDone.push_back(reinterpret_cast<size_t>(request->getCookie()));
        ++mDoneCount;
        mChanged.notify_all();
    });
    scene->setBufferDequeuedCallback([this](const DequeuedBuffer& buffer) {
        const std::lock_guard lock(mLock);
        mBack += buffer.result >= 0 ? 1 : 0;
        mChanged.notify_all();
    });
    const int ret = scene->start();
    mStarted = ret == 0;
    return ret;
}

int Rig::makeSlot() {
    // Only the virtual engine reads where a plane begins in its dma-buf.
    const client::FrameLayout layout{Platform::instance().drawsTestPicture() ? 4096U : 0U, 64};
    std::vector<client::Frame> frames(mDesc.ports.size());
    for (size_t i = 0; i < frames.size(); ++i)
        if (const int ret = frames[i].allocate(formats[i], layout, Platform::instance().source());
            ret != 0)
            return ret;
    auto request = scene->createRequest();
    request->setCookie(reinterpret_cast<void*>(mRequests.size()));
    request->setMonitor(events);
    mRequests.push_back(std::move(request));
    mFrames.push_back(std::move(frames));
    mPictures.push_back(0);
    return 0;
}

void Rig::feed(size_t port, client::FrameMapping& frame, size_t slot) {
    if (mDesc.ports[port].device_name == std::string("vengine-input")) {
        const vengine_picture picture = pictureOf(formats[port], frame);
        mPictures[slot] = mNextPicture++;
        vengine_draw_test(&picture, mPictures[slot]);
    } else if (mDesc.ports[port].device_name == std::string("vengine-tuning")) {
        const vengine_tuning tuning = {VENGINE_TUNING_MAGIC, 7, 0, {}};
        memcpy(frame.plane(0).data(), &tuning, sizeof(tuning));
    }
}

void Rig::fill(size_t slot) {
    for (size_t i = 0; i < mDesc.ports.size(); ++i) {
        client::Frame& frame = mFrames[slot][i];
        {
            client::FrameMapping mapping = frame.map(client::CpuAccess::Write);
            for (size_t p = 0; p < mapping.planeCount(); ++p)
                std::fill(mapping.plane(p).begin(), mapping.plane(p).end(), kPoison);
            feed(i, mapping, slot);
        }
        mRequests[slot]->addBuffer(static_cast<int>(i),
                                   [&frame](FrameBuffer& buffer) { buffer = frame.buffer(); });
    }
}

bool Rig::waitDone(uint64_t count) {
    return wait([this, count] { return mDoneCount >= count; });
}

size_t Rig::withDriver() {
    const std::lock_guard lock(mLock);
    return mQueued * formats.size() - mBack;
}

bool Rig::waitDequeued() {
    return wait([this] { return mBack == mQueued * formats.size(); });
}

bool Rig::lookAway() {
    events.reset();
    return wait([this] { return mBack >= mDoneCount * formats.size(); });
}

int Rig::queue(size_t slot) {
    const int ret = scene->queueRequest(mRequests[slot].get(), 0);
    const std::lock_guard lock(mLock);
    mQueued += ret == 0 ? 1 : 0;
    return ret;
}

std::vector<size_t> Rig::takeDone() {
    const std::lock_guard lock(mLock);
    return std::exchange(mDone, {});
}

bool Rig::written(size_t slot) {
    for (size_t i = 0; i < mDesc.ports.size(); ++i) {
        if (isOutput(mDesc.ports[i].device_name))
            continue;
        const client::FrameMapping frame = mFrames[slot][i].map(client::CpuAccess::Read);
        for (size_t p = 0; p < frame.planeCount(); ++p)
            if (std::all_of(frame.plane(p).begin(), frame.plane(p).end(),
                            [](uint8_t byte) { return byte == kPoison; }))
                return false;
    }
    return true;
}

uint32_t Rig::capturedPicture(size_t slot) {
    const client::FrameMapping frame = mFrames[slot][0].map(client::CpuAccess::Read);
    const vengine_picture picture = pictureOf(formats[0], frame);
    return vengine_frame_number(&picture, VENGINE_ROLE_MAIN);
}

int Rig::stop() {
    mStarted = false;
    return scene->stop();
}

std::string Rig::dump() const {
    std::string text;
    for (const std::string& line : dumpOf(*scene))
        text += line + "\n";
    return text;
}

}  // namespace NSVista::NSCorvane::test
