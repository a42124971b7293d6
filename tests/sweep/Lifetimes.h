// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Whole lives of clients of the library, for the sweep to let each of their calls fail.
 */
#pragma once

#include <string>
#include <vector>

#include "FaultyKernel.h"
#include "Memory.h"

namespace NSVista::NSCorvane::test {

/** Runs one lifetime's steps and tells what failed, as "@step PHASE RESULT" on standard error. */
class Client {
public:
    explicit Client(FaultyKernel& used) : kernel(used) {}

    /** Lets @p call use the library. @return its result, after telling it when it is negative. */
    template <class Call>
    int step(const char* phase, Call call) {
        kernel.setPhase(phase);
        const memory::Inside inside;
        const int result = call();
        if (result < 0)
            tellStep(result);
        return result;
    }
    /** Tells a failure in the current phase that no result showed. Any thread. */
    void tellStep(int result) const;
    /** A thing that must not be. Any thread. */
    static void trouble(const std::string& what);

    FaultyKernel& kernel;
};

struct Lifetime {
    const char* name;
    void (*live)(Client& client);
    bool isTool = false;  ///< a program's whole run: it installs its own engine
};

const std::vector<Lifetime>& lifetimes();

/** Streams a fresh scene, which must do. @return whether it did. */
bool streamFresh(Client& client);

/** Keeps the process alive where the library asks for the service's end. */
void watchTermination();
/** Whether the library asked for the service's end since the last call. */
bool takeTermination();

}  // namespace NSVista::NSCorvane::test
