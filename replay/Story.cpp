// SPDX-License-Identifier: Apache-2.0
#include <corvane/replay/Story.h>

#include <linux/media.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <set>
#include <utility>

#include <corvane/replay/Decode.h>

namespace NSVista::NSCorvane::replay {

namespace {

using record::Operation;

int64_t numberOf(const Value& value, const char* field) {
    const Value* const found = value.find(field);
    return found != nullptr ? found->number : 0;
}

std::string plainText(const Value& value, const char* field) {
    const Value* const found = value.find(field);
    if (found == nullptr || found->text.size() < 2)
        return {};
    return found->text.substr(1, found->text.size() - 2);
}

/** Descriptors of the dma-bufs of a queued buffer. */
std::vector<int64_t> dmaBufsOf(const Value& buffer) {
    std::vector<int64_t> fds;
    if (const Value* const planes = buffer.find("planes"); planes != nullptr) {
        for (const Value& plane : planes->parts)
            fds.push_back(numberOf(plane, "fd"));
        return fds;
    }
    return {numberOf(buffer, "fd")};
}

/** Which entity a device node belongs to. */
class EntityNames {
public:
    void see(const Call& call, const Machine& machine) {
        if (call.failed())
            return;
        if (call.isIoctl(MEDIA_IOC_ENUM_ENTITIES)) {
            const Value entity = decodeArgument(call.code, call.after, machine);
            const Value* const device = entity.find("dev");
            if (device == nullptr || numberOf(*device, "major") == 0)
                return;
            mNames[std::to_string(numberOf(*device, "major")) + ":" +
                   std::to_string(numberOf(*device, "minor"))] = plainText(entity, "name");
        } else if (call.operation == Operation::ReadLink) {
            const std::string link = call.text(false);
            const std::string target = call.text(true);
            mNodes["/dev/" + target.substr(target.rfind('/') + 1)] =
                link.substr(link.rfind('/') + 1);
        } else if (call.operation == Operation::Stat) {
            const auto told = call.piece(record::kStat, true);
            mNodes[call.text(false)] = std::to_string(machine.read(told, 4, 4)) + ":" +
                                       std::to_string(machine.read(told, 8, 4));
        }
    }
    std::string of(const std::string& path) const {
        const auto node = mNodes.find(path);
        const auto name = node != mNodes.end() ? mNames.find(node->second) : mNames.end();
        return name != mNames.end() ? name->second : std::string();
    }

private:
    std::map<std::string, std::string> mNames;  ///< by device number
    std::map<std::string, std::string> mNodes;  ///< path to device number
};

class Teller {
public:
    explicit Teller(const Record& record) : mRecord(record) {
        mStory.objectOf.assign(record.calls.size(), Story::kNone);
        mStory.cycleOf.assign(record.calls.size(), Story::kNone);
    }

    Story tell() {
        struct Moment {
            int64_t ns;
            bool isBegin;  // what is given back can be used at once
            size_t call;
        };
        std::vector<Moment> moments;
        for (size_t i = 0; i < mRecord.calls.size(); ++i) {
            moments.push_back({mRecord.calls[i].begin, true, i});
            if (mRecord.calls[i].returned)
                moments.push_back({mRecord.calls[i].end, false, i});
        }
        std::stable_sort(moments.begin(), moments.end(), [](const Moment& a, const Moment& b) {
            return std::pair(a.ns, a.isBegin) < std::pair(b.ns, b.isBegin);
        });
        for (const Moment& moment : moments) {
            if (moment.isBegin)
                begin(moment.call);
            else
                end(moment.call);
        }
        for (Object& object : mStory.objects)
            object.entity = mNames.of(object.path);
        return std::move(mStory);
    }

private:
    const Call& call(size_t i) const { return mRecord.calls[i]; }
    Value argument(size_t i, bool isAfter) const {
        return decodeArgument(call(i).code, isAfter ? call(i).after : call(i).before,
                              mRecord.machine);
    }

    static bool isOnDirectory(const Call& call) {
        return call.operation == Operation::ReadDir || call.operation == Operation::CloseDir;
    }
    static bool isByPath(const Call& call) {
        return call.operation == Operation::Open || call.operation == Operation::OpenDir ||
               call.operation == Operation::Stat || call.operation == Operation::ReadLink;
    }

    void begin(size_t i) {
        const Call& now = call(i);
        if (isByPath(now))
            return;
        auto& open = isOnDirectory(now) ? mDirectories : mDescriptors;
        const auto found = open.find(now.handle);
        if (found == open.end())
            return;
        const size_t object = found->second;
        mStory.objectOf[i] = object;
        mStory.objects[object].calls.push_back(i);
        if (now.operation == Operation::Close || now.operation == Operation::CloseDir) {
            open.erase(found);
            mOpenCycles.erase(object);
        } else if (now.isIoctl(VIDIOC_QBUF)) {
            queueBuffer(i, object);
        } else if (now.isIoctl(MEDIA_REQUEST_IOC_QUEUE)) {
            queueRequest(i, object);
        } else if (now.isIoctl(MEDIA_REQUEST_IOC_REINIT)) {
            reinit(i, object);
        }
    }

    void end(size_t i) {
        const Call& now = call(i);
        mNames.see(now, mRecord.machine);
        if (now.result < 0)
            return;
        if (now.operation == Operation::Open)
            make(Object::Kind::Node, now.result, i);
        else if (now.operation == Operation::OpenDir)
            make(Object::Kind::Directory, now.handle, i);
        else if (now.isIoctl(MEDIA_IOC_REQUEST_ALLOC))
            make(Object::Kind::Request, numberOf(argument(i, true), "fd"), i);
        else if (now.isIoctl(VIDIOC_EXPBUF))
            make(Object::Kind::Export, numberOf(argument(i, true), "fd"), i);
        else if (now.isIoctl(VIDIOC_DQBUF))
            dequeue(i);
    }

    void make(Object::Kind kind, int64_t handle, size_t maker) {
        auto& open = kind == Object::Kind::Directory ? mDirectories : mDescriptors;
        open[handle] = mStory.objects.size();
        const bool hasPath = kind == Object::Kind::Node || kind == Object::Kind::Directory;
        mStory.objects.push_back(
            {kind, hasPath ? call(maker).text(false) : std::string(), {}, handle, maker, {}});
    }

    void queueBuffer(size_t i, size_t node) {
        const Value buffer = argument(i, false);
        const auto index = static_cast<uint32_t>(numberOf(buffer, "index"));
        if ((numberOf(buffer, "flags") & V4L2_BUF_FLAG_REQUEST_FD) == 0)
            return;
        const auto request = mDescriptors.find(numberOf(buffer, "request_fd"));
        if (request == mDescriptors.end())
            return;
        const auto [open, isNew] = mOpenCycles.try_emplace(request->second, mStory.cycles.size());
        if (isNew) {
            Cycle& made = mStory.cycles.emplace_back();
            made.request = request->second;
            made.beginNs = call(i).begin;
        }
        Cycle& cycle = mStory.cycles[open->second];
        mStory.cycleOf[i] = open->second;
        cycle.calls.push_back(i);
        BufferUse use{node, index, i, {}};
        use.queued = call(i).returned && call(i).result >= 0;
        if (use.queued) {
            auto fds = dmaBufsOf(buffer);
            auto& last = mDmaBufs[{node, index}];
            use.remapped = !last.empty() && last != fds;
            last = std::move(fds);
            mInFlight[{node, index}] = {open->second, cycle.buffers.size()};
        }
        cycle.buffers.push_back(use);
    }

    void queueRequest(size_t i, size_t request) {
        const auto open = mOpenCycles.find(request);
        if (open == mOpenCycles.end())
            return;
        Cycle& cycle = mStory.cycles[open->second];
        mStory.cycleOf[i] = open->second;
        cycle.calls.push_back(i);
        if (cycle.wasQueued)
            return;
        cycle.queue = i;
        cycle.wasQueued = call(i).returned && call(i).result >= 0;
        cycle.queuedNs = cycle.wasQueued ? call(i).end : 0;
    }

    void reinit(size_t i, size_t request) {
        const auto open = mOpenCycles.find(request);
        if (open == mOpenCycles.end())
            return;
        Cycle& cycle = mStory.cycles[open->second];
        mStory.cycleOf[i] = open->second;
        cycle.calls.push_back(i);
        cycle.reinit = i;
        if (cycle.wasQueued)
            setReady(cycle, call(i).begin);
        if (call(i).returned && call(i).result >= 0)
            mOpenCycles.erase(open);
    }

    void dequeue(size_t i) {
        const Value buffer = argument(i, true);
        const auto found =
            mInFlight.find({mStory.objectOf[i], static_cast<uint32_t>(numberOf(buffer, "index"))});
        if (found == mInFlight.end())
            return;
        const auto [cycleIndex, bufferIndex] = found->second;
        mInFlight.erase(found);
        Cycle& cycle = mStory.cycles[cycleIndex];
        mStory.cycleOf[i] = cycleIndex;
        BufferUse& use = cycle.buffers[bufferIndex];
        use.dequeue = i;
        use.flawed = (numberOf(buffer, "flags") & V4L2_BUF_FLAG_ERROR) != 0;
        if (cycle.wasQueued)
            setReady(cycle, call(i).begin);
        const bool isDone =
            std::all_of(cycle.buffers.begin(), cycle.buffers.end(),
                        [](const BufferUse& other) { return other.dequeue || !other.queued; });
        cycle.doneNs = isDone ? call(i).end : 0;
    }

    static void setReady(Cycle& cycle, int64_t ns) {
        // A call may begin while the queueing is still on its way out.
        const int64_t seen = std::max(ns, cycle.queuedNs);
        cycle.readyNs = cycle.readyNs ? std::min(*cycle.readyNs, seen) : seen;
    }

    using Slot = std::pair<size_t, uint32_t>;  ///< node and index

    const Record& mRecord;
    Story mStory;
    EntityNames mNames;
    std::map<int64_t, size_t> mDescriptors, mDirectories;  ///< open ones
    std::map<size_t, size_t> mOpenCycles;                  ///< by request
    std::map<Slot, std::pair<size_t, size_t>> mInFlight;   ///< to cycle and its buffer
    std::map<Slot, std::vector<int64_t>> mDmaBufs;
};

}  // namespace

std::string Object::label() const {
    if (!entity.empty())
        return entity;
    if (!path.empty())
        return path;
    return (kind == Kind::Request ? "request " : "buffer ") + std::to_string(handle);
}

bool Cycle::isFlawed() const {
    return std::any_of(buffers.begin(), buffers.end(),
                       [](const BufferUse& use) { return use.flawed || !use.queued; });
}

Story tellStory(const Record& record) {
    return Teller(record).tell();
}

}  // namespace NSVista::NSCorvane::replay
