// SPDX-License-Identifier: Apache-2.0
#include <corvane/sim/Faults.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include <corvane/platform/Mutex.h>

#include "vengine-fault.h"

namespace NSVista::NSCorvane::sim {

namespace {

struct Rule {
    int id;
    Call call;
    int result;  ///< what the call ends with; 0: it hangs
    unsigned left;
    Repeat repeat;
    const char* word = nullptr;  ///< of an ordered one
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
    mutable Mutex mutex;
    std::condition_variable changed;
    std::vector<Rule> rules CORVANE_GUARDED_BY(mutex);
    int lastId CORVANE_GUARDED_BY(mutex) = 0;
    std::map<CountKey, uint64_t, CountLess> counts CORVANE_GUARDED_BY(mutex);

    int add(Rule rule) {
        const MutexLock lock(mutex);
        rule.id = ++lastId;
        rule.left = std::max(rule.left, 1u);
        rules.push_back(std::move(rule));
        return lastId;
    }
    Rule* find(int id) CORVANE_REQUIRES(mutex) {
        auto at = std::find_if(rules.begin(), rules.end(), [id](auto& r) { return r.id == id; });
        return at == rules.end() ? nullptr : &*at;
    }
    /** Counts a call with the rules. @return the one that strikes, null for none. */
    Rule* strike(Operation operation, uint32_t code, std::string_view name, std::string_view path)
        CORVANE_REQUIRES(mutex);
};

Call Call::ioctl(unsigned long code, std::string subject) {
    return {Operation::IOCTL, static_cast<uint32_t>(code), std::move(subject)};
}

Faults::Faults() : mState(std::make_unique<State>()) {
}
Faults::~Faults() = default;

int Faults::fail(const Call& call, int error, unsigned nth, Repeat repeat) {
    return mState->add({0, call, -error, nth, repeat});
}

int Faults::hang(const Call& call, unsigned nth) {
    return mState->add({0, call, 0, nth, Repeat::ONCE});
}

int Faults::order(const std::string& line) {
    if (line == "clear") {
        clear();
        return 0;
    }
    vengine_fault_order order;
    if (int result = vengine_parse_fault(line.c_str(), &order); result < 0)
        return result;
    const vengine_fault_word& word = vengine_fault_words[order.op];
    Operation operation = order.op == VENGINE_OP_BUFFER ? Operation::BUFFER : Operation::IOCTL;
    mState->add(
        {0, {operation, word.code, order.entity}, order.value, order.nth, Repeat::ONCE, word.word});
    return 0;
}

std::string Faults::ordered() const {
    const MutexLock lock(mState->mutex);
    std::string armed, hung;
    for (const Rule& rule : mState->rules) {
        if (!rule.word)
            continue;
        if (rule.hanging > 0)
            hung += std::string(rule.word) + " hangs " + rule.call.subject + '\n';
        else
            armed += std::string(rule.word) + ' ' +
                     (rule.result ? std::to_string(rule.result) : "hang") + ' ' +
                     std::to_string(rule.left) + ' ' + rule.call.subject + '\n';
    }
    return armed + hung;
}

bool Faults::waitUntilHung(int id, std::chrono::milliseconds limit) const {
    const auto end = std::chrono::system_clock::now() + limit;
    MutexLock lock(mState->mutex);
    for (;;) {
        const Rule* rule = mState->find(id);
        if (rule && rule->hanging > 0)
            return true;
        if (std::chrono::system_clock::now() >= end)
            return false;
        mState->changed.wait_until(lock.native(), end);
    }
}

void Faults::remove(int id) {
    const MutexLock lock(mState->mutex);
    std::erase_if(mState->rules, [id](const Rule& rule) { return rule.id == id; });
    mState->changed.notify_all();
}

void Faults::clear() {
    const MutexLock lock(mState->mutex);
    mState->rules.clear();
    mState->changed.notify_all();
}

uint64_t Faults::calls(const Call& call) const {
    const MutexLock lock(mState->mutex);
    Rule pattern{0, call, 0, 0, Repeat::ONCE};
    uint64_t sum = 0;
    for (const auto& [key, count] : mState->counts) {
        const auto& [operation, code, name, path] = key;
        if (pattern.concerns(operation, code, name, path))
            sum += count;
    }
    return sum;
}

Rule* Faults::State::strike(Operation operation, uint32_t code, std::string_view name,
                            std::string_view path) {
    Rule* hit = nullptr;
    for (Rule& rule : rules) {
        if (rule.left == 0 || !rule.concerns(operation, code, name, path))
            continue;
        if (rule.left > 1)
            --rule.left;
        else if (!hit)  // else it is due for the next call, since an older fault takes this one
            hit = &rule;
    }
    if (hit && hit->repeat == Repeat::ONCE)
        hit->left = 0;
    return hit;
}

int Faults::pass(Operation operation, uint32_t code, std::string_view name, std::string_view path) {
    State& state = *mState;
    MutexLock lock(state.mutex);
    auto at = state.counts.find(CountView{operation, code, name, path});
    if (at == state.counts.end()) {
        CountKey key{operation, code, name, path};
        at = state.counts.emplace(std::move(key), 0).first;
    }
    ++at->second;

    Rule* hit = state.strike(operation, code, name, path);
    if (!hit)
        return 0;
    const int id = hit->id, result = hit->result;
    if (result != 0) {
        std::erase_if(state.rules, [](const Rule& rule) { return rule.result && rule.left == 0; });
        return result;
    }
    ++hit->hanging;
    state.changed.notify_all();
    while (state.find(id))
        state.changed.wait(lock.native());
    return 0;
}

}  // namespace NSVista::NSCorvane::sim
