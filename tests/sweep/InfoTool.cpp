// SPDX-License-Identifier: Apache-2.0
// The program corvane-info as a function.
#define main corvaneInfoMain
#include "../../tools/info/main.cpp"  // NOLINT(bugprone-suspicious-include): it has no header
