// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Other processes: what they print, how they end, and the files that they leave.
 */
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

namespace NSVista::NSCorvane::test {

inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/** An exit code, or the negated number of the signal that ended a process. */
inline int endingOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

struct Ran {
    int code;
    std::string output;
};

/** Runs a command line of the shell. */
inline Ran runShell(const std::string& command) {
    FILE* const pipe = popen(command.c_str(), "r");
    std::string output;
    for (int c = 0; (c = fgetc(pipe)) != EOF;)
        output += static_cast<char>(c);
    return {endingOf(pclose(pipe)), output};
}

/** Runs @p body in a forked child. @return its result, or how else the child ended. */
template <class Body>
int inForkedChild(Body body) {
    const pid_t child = fork();
    if (child == 0)
        _exit(body());  // a leak check at the exit of a forked child may wait for ever
    int status = 0;
    waitpid(child, &status, 0);
    return endingOf(status);
}

}  // namespace NSVista::NSCorvane::test
