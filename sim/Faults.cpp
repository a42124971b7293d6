#include <corvane/sim/Faults.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <tuple>
#include <utility>
#include <vector>

namespace NSVista::NSCorvane::sim {

namespace {

struct Rule {
    int id;
    Call call;
    int error;  ///< 0: hangs
    unsigned left;
    Repeat repeat;
    unsigned hanging = 0;

    bool concerns(Operation operation, uint32_t code, std::string_view name,
                  std::string_view path) const {
        return call.operation == operation && (call.code == 0 || call.code == code) &&
               (call.subject.empty() || call.subject == name || call.subject == path);
    }
};

/** Calls are counted under name and path; neither is copied once its entry exists. */
using CountKey = std::tuple<Operation, uint32_t, std::string, std::string>;
using CountView = std::tuple<Operation, uint32_t, std::string_view, std::string_view>;

struct CountLess {
    using is_transparent = void;
    static CountView view(const CountKey& key) {
        return {std::get<0>(key), std::get<1>(key), std::get<2>(key), std::get<3>(key)};
    }
    static const CountView& view(const CountView& key) { return key; }
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const {
        return view(a) < view(b);
    }
};

}  // namespace

struct Faults::State {
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<Rule> rules;
    int lastId = 0;
    std::map<CountKey, uint64_t, CountLess> counts;

    int add(const Call& call, int error, unsigned nth, Repeat repeat) {
        std::lock_guard lock(mutex);
        rules.push_back({++lastId, call, error, std::max(nth, 1u), repeat});
        return lastId;
    }
    Rule* find(int id) {
        auto at = std::find_if(rules.begin(), rules.end(), [id](auto& r) { return r.id == id; });
        return at == rules.end() ? nullptr : &*at;
    }
};

Call Call::ioctl(unsigned long code, std::string subject) {
    return {Operation::IOCTL, static_cast<uint32_t>(code), std::move(subject)};
}

Faults::Faults() : mState(std::make_unique<State>()) {
}
Faults::~Faults() = default;

int Faults::fail(const Call& call, int error, unsigned nth, Repeat repeat) {
    return mState->add(call, error, nth, repeat);
}

int Faults::hang(const Call& call, unsigned nth) {
    return mState->add(call, 0, nth, Repeat::ONCE);
}

bool Faults::waitUntilHung(int id, std::chrono::milliseconds limit) const {
    std::unique_lock lock(mState->mutex);
    return mState->changed.wait_until(lock, std::chrono::system_clock::now() + limit, [&] {
        Rule* rule = mState->find(id);
        return rule && rule->hanging > 0;
    });
}

void Faults::remove(int id) {
    std::lock_guard lock(mState->mutex);
    std::erase_if(mState->rules, [id](const Rule& rule) { return rule.id == id; });
    mState->changed.notify_all();
}

void Faults::clear() {
    std::lock_guard lock(mState->mutex);
    mState->rules.clear();
    mState->changed.notify_all();
}

uint64_t Faults::calls(const Call& call) const {
    std::lock_guard lock(mState->mutex);
    Rule pattern{0, call, 0, 0, Repeat::ONCE};
    uint64_t sum = 0;
    for (const auto& [key, count] : mState->counts) {
        const auto& [operation, code, name, path] = key;
        if (pattern.concerns(operation, code, name, path))
            sum += count;
    }
    return sum;
}

int Faults::pass(Operation operation, uint32_t code, std::string_view name, std::string_view path) {
    std::unique_lock lock(mState->mutex);
    auto at = mState->counts.find(CountView{operation, code, name, path});
    if (at == mState->counts.end()) {
        CountKey key{operation, code, name, path};
        at = mState->counts.emplace(std::move(key), 0).first;
    }
    ++at->second;

    int hitId = 0;
    int error = 0;
    for (Rule& rule : mState->rules) {
        if (!rule.concerns(operation, code, name, path) || rule.left == 0)
            continue;
        if (--rule.left > 0)
            continue;
        if (hitId != 0) {
            ++rule.left;  // due for the next call, since an older fault takes this one
            continue;
        }
        hitId = rule.id;
        error = rule.error;
        rule.left = rule.repeat == Repeat::FOR_GOOD ? 1 : 0;
    }
    if (hitId == 0)
        return 0;
    if (error != 0) {
        std::erase_if(mState->rules, [](const Rule& rule) { return rule.error && rule.left == 0; });
    } else {
        ++mState->find(hitId)->hanging;
        mState->changed.notify_all();
        mState->changed.wait(lock, [&] { return mState->find(hitId) == nullptr; });
    }
    return -error;
}

}  // namespace NSVista::NSCorvane::sim
