// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * How a failed call has to end, by where it was made.
 */
#pragma once

#include <string>
#include <vector>

#include "FaultyKernel.h"

namespace NSVista::NSCorvane::test {

/** A failed call. */
struct Failure {
    Site site;
    int error;  ///< errno
};

/** A failed step of the client. */
struct FailedStep {
    std::string phase;
    int result;
};

/** What one run left. */
struct Outcome {
    std::vector<Failure> failures;
    std::vector<FailedStep> steps;
    std::string text;        ///< all that was written
    bool isDone = false;     ///< it survived and everything was looked at
    bool isAborted = false;  ///< by SIGABRT
    int exitCode = -1;       ///< of a tool's run
    bool isTool = false;
    bool andLater = false;  ///< all later calls failed as well
};

/** Errnos that a call of @p operation has to be tried with, the likeliest first. */
std::vector<int> errnosOf(const std::string& operation);

/**
 * Judges a run by the table of endings.
 * @param[out] ending how it ended, in a word.
 * @return what is not as it has to be, a line each; empty when all is explained.
 */
std::vector<std::string> judge(const Outcome& outcome, std::string& ending);

/** Whether what a failed call would have told stays lost for the process. */
bool isForGood(const Failure& failure);

}  // namespace NSVista::NSCorvane::test
