// SPDX-License-Identifier: Apache-2.0
// The library over a kernel that does nothing, for instruction counters: what remains is its own
// work. What is counted lies between calls of corvane_bench_mark().
#include <corvane/IDeviceEnumerator.h>
#include <corvane/platform/ULog.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mc/MediaGraph.h"
#include "support/NullEngine.h"

extern "C" [[gnu::noinline]] void corvane_bench_mark() {
    asm volatile("");
}

namespace NSVista::NSCorvane::test {
namespace {

using Scenes = std::vector<std::unique_ptr<NullEngine>>;

void run(const Scenes& scenes, long cycles) {
    for (long i = 0; i < cycles; ++i) {
        NullEngine& engine = *scenes[static_cast<size_t>(i) % scenes.size()];
        engine.cycle();
        engine.drain();
    }
}

/** Counts @p cycles requests, and as many again after @p skipped others. */
void countRequests(long ports, bool direct, long sceneCount, long cycles, long skipped) {
    NullKernel kernel;
    Scenes scenes;
    for (long i = 0; i < sceneCount; ++i)
        scenes.push_back(std::make_unique<NullEngine>(static_cast<int>(ports), direct, &kernel));
    run(scenes, 100);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // the scenes' threads begin
    corvane_bench_mark();
    run(scenes, cycles);
    corvane_bench_mark();
    if (skipped != 0) {
        run(scenes, skipped);
        corvane_bench_mark();
        run(scenes, cycles);
        corvane_bench_mark();
    }
    while (!scenes.empty())
        scenes.pop_back();
}

/** Counts the search of a media device with @p count entities. */
void countSearch(long count) {
    MediaGraph graph{"crowd"};
    for (long i = 1; i <= count; ++i)
        graph.entities.push_back(
            entityOf(static_cast<uint32_t>(i), ("entity" + std::to_string(i)).c_str(), 0, 0));
    graph.pads.resize(graph.entities.size());
    graph.links.resize(graph.entities.size());
    MediaKernel kernel{{"media0", graph}};
    corvane_bench_mark();
    IDeviceEnumerator::instance().search("crowd");
    corvane_bench_mark();
}

}  // namespace
}  // namespace NSVista::NSCorvane::test

int main(int argc, char** argv) {
    using namespace NSVista::NSCorvane::test;
    std::map<std::string, long> values = {{"ports", 1}, {"direct", 0},   {"scenes", 1},
                                          {"skip", 0},  {"entities", 0}, {"cycles", 1000},
                                          {"log", 1}};
    for (int i = 1; i < argc; ++i) {
        const std::string text = argv[i];
        const auto value = values.find(text.substr(0, text.find('=')));
        if (value == values.end()) {
            fprintf(stderr,
                    "usage: %s [NAME=VALUE...] of ports, direct, scenes, cycles, skip, "
                    "entities, log\n",
                    argv[0]);
            return 2;
        }
        value->second = atol(text.c_str() + text.find('=') + 1);
    }
    NSVista::Utils::ULog::ULogger::sDetailsLevel = static_cast<int>(values["log"]);
    if (values["entities"] != 0)
        countSearch(values["entities"]);
    else
        countRequests(values["ports"], values["direct"] != 0, values["scenes"], values["cycles"],
                      values["skip"]);
    return 0;
}
