// SPDX-License-Identifier: Apache-2.0
// The program corvane-stream as a function.
#define main corvaneStreamMain
#include "../../tools/stream/main.cpp"  // NOLINT(bugprone-suspicious-include): it has no header
