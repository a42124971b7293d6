// SPDX-License-Identifier: Apache-2.0
#include "Script.h"

#include <corvane/platform/Log.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

CORVANE_LOG_UNIT("corvane-Replay")

namespace NSVista::NSCorvane::replay {

namespace {

/** Which buffer is free, and when, is the client's luck. */
bool isOfLuck(const std::string& field) {
    return field == "index";
}

/** @return the path to the first difference, empty for none. */
std::string findParting(const Value& recorded, const Value& now, bool isBuffer) {
    if (recorded.kind == Value::Kind::Handle || recorded.kind == Value::Kind::Place ||
        (isBuffer && isOfLuck(recorded.name)))
        return {};
    if (recorded.kind != Value::Kind::Group)
        return recorded.text == now.text ? std::string()
                                         : recorded.name + ", " + recorded.text + " in the record";
    for (size_t i = 0; i < recorded.parts.size(); ++i) {
        if (i == now.parts.size())
            return recorded.name + ", which had more items";
        const std::string parting = findParting(recorded.parts[i], now.parts[i], isBuffer);
        if (!parting.empty())
            return recorded.name + (recorded.name.empty() ? "" : ".") + parting;
    }
    return now.parts.size() > recorded.parts.size() ? recorded.name + ", which had fewer items"
                                                    : std::string();
}

}  // namespace

Script::Script(Record record)
    : mRecord(std::move(record)),
      mStory(tellStory(mRecord)),
      mMade(mRecord.calls.size(), false),
      mGivenUp(mMade),
      mCallsMade(mStory.objects.size(), 0) {
    for (size_t i = 0; i < mRecord.calls.size(); ++i)
        mLeft += isIdle(i) ? 0 : 1;
    advance();
}

bool Script::isIdle(size_t i) const {
    const Call& call = mRecord.calls[i];
    return (call.isIoctl(VIDIOC_DQBUF) && call.result == -EAGAIN) ||
           (call.isIoctl(VIDIOC_DQEVENT) && (call.result == -ENOENT || call.result == -EAGAIN));
}

void Script::make(size_t i) {
    if (mMade[i])
        return;
    mMade[i] = true;
    mLeft -= isIdle(i) ? 0 : 1;
    advance();
}

void Script::advance() {
    while (mFirst < mMade.size() && (mMade[mFirst] || mGivenUp[mFirst] || isIdle(mFirst)))
        ++mFirst;
    if (mFirst == mMade.size())
        mFirst = kNone;
}

std::span<const size_t> Script::callsOn(size_t object) {
    const std::vector<size_t>& calls = mStory.objects[object].calls;
    size_t& made = mCallsMade[object];
    while (made < calls.size() && mMade[calls[made]])
        ++made;
    return std::span(calls).subspan(made);
}

size_t Script::findByPath(record::Operation operation, const std::string& path) const {
    // What a descriptor stands for is asked by its number, which may be another one now.
    constexpr std::string_view kDescriptors = "/proc/self/fd/";
    const bool isOfDescriptor = path.starts_with(kDescriptors);
    for (size_t i = 0; i < mRecord.calls.size(); ++i) {
        if (mMade[i] || call(i).operation != operation)
            continue;
        const std::string asked = call(i).text(false);
        if (asked == path || (isOfDescriptor && asked.starts_with(kDescriptors)))
            return i;
    }
    return kNone;
}

size_t Script::findSame(std::span<const size_t> calls, const Call& now,
                        std::string& parting) const {
    size_t nearest = kNone;
    for (const size_t i : calls) {
        if (mMade[i] || call(i).operation != now.operation || call(i).code != now.code)
            continue;
        std::string found = partingOf(call(i), now);
        if (found.empty()) {
            parting.clear();
            return i;
        }
        if (nearest == kNone) {
            nearest = i;
            parting = std::move(found);
        }
    }
    return nearest;
}

size_t Script::objectBy(size_t call) const {
    const auto found = std::find_if(mStory.objects.begin(), mStory.objects.end(),
                                    [&](const Object& object) { return object.maker == call; });
    return found != mStory.objects.end() ? static_cast<size_t>(found - mStory.objects.begin())
                                         : kNone;
}

std::string Script::partingOf(const Call& recorded, const Call& now) const {
    if (recorded.operation != record::Operation::Ioctl)
        return {};
    const bool isSame =
        std::equal(recorded.before.begin(), recorded.before.end(), now.before.begin(),
                   now.before.end(), [](const Piece& a, const Piece& b) {
                       return a.what == b.what && std::equal(a.bytes.begin(), a.bytes.end(),
                                                             b.bytes.begin(), b.bytes.end());
                   });
    if (isSame)
        return {};
    return findParting(decodeArgument(recorded.code, recorded.before, mRecord.machine),
                       decodeArgument(now.code, now.before, mRecord.machine),
                       now.isIoctl(VIDIOC_QBUF));
}

std::string Script::textOf(size_t i) const {
    const size_t object = mStory.objectOf[i];
    return callText(call(i), mRecord.machine,
                    object != kNone ? mStory.objects[object].label() : std::string());
}

void Script::tellDifference(const Call& now, const std::string& label, size_t recorded,
                            const std::string& parting) {
    ++mDifferences;
    const std::string text = askText(now, mRecord.machine, label);
    if (recorded == kNone && mFirst == kNone)
        CORVANE_LOGE("A call comes after the end of the record: %s", text.c_str());
    else if (recorded == kNone)
        CORVANE_LOGE("A call is not in the record: %s", text.c_str());
    else if (parting.empty())
        CORVANE_LOGE("A call is not in the record: %s; its next one there is %s", text.c_str(),
                     textOf(recorded).c_str());
    else
        CORVANE_LOGE("A call differs from the record in %s: %s; the record has %s", parting.c_str(),
                     text.c_str(), textOf(recorded).c_str());
}

void Script::giveUpUntil(int64_t ns) {
    if (mFirst == kNone || call(mFirst).begin >= ns)
        return;
    ++mDifferences;
    CORVANE_LOGE("A call of the record was not made: %s", textOf(mFirst).c_str());
    for (; mFirst != kNone && call(mFirst).begin < ns; advance())
        mGivenUp[mFirst] = true;
}

}  // namespace NSVista::NSCorvane::replay
