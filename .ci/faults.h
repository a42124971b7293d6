// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Faults that wait in the code, each under a number; the environment switches one on. What is planted
 * asks here whether it is meant, and thereby notes that it was run over.
 */
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace fault {

constexpr size_t kMost = 65536;

/** The bytes of the file that CORVANE_FAULT_REACHED names, one for each fault; null without. */
inline unsigned char* mapReached() noexcept {
    const char* path = getenv("CORVANE_FAULT_REACHED");
    const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0)
        return nullptr;
    void* map = mmap(nullptr, kMost, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return map != MAP_FAILED ? static_cast<unsigned char*>(map) : nullptr;
}

inline int chosen() noexcept {
    const char* number = getenv("CORVANE_FAULT");
    return number != nullptr ? atoi(number) : 0;
}

inline const int sChosen = chosen();
inline unsigned char* const sReached = mapReached();

/** @return 1 when fault @p number is on, else 0; numbers are from 1 on. */
inline int on(int number) noexcept {
    if (sReached != nullptr)
        sReached[number] = 1;
    return number == sChosen ? 1 : 0;
}

template <class A, class B>
bool less(int number, const A& a, const B& b) {
    return on(number) ? a <= b : a < b;
}
template <class A, class B>
bool lessEqual(int number, const A& a, const B& b) {
    return on(number) ? a < b : a <= b;
}
template <class A, class B>
bool greater(int number, const A& a, const B& b) {
    return on(number) ? a >= b : a > b;
}
template <class A, class B>
bool greaterEqual(int number, const A& a, const B& b) {
    return on(number) ? a > b : a >= b;
}
template <class A, class B>
    requires requires(const A& a, const B& b) { a - b; }
auto plus(int number, const A& a, const B& b) {
    return on(number) ? static_cast<decltype(a + b)>(a - b) : a + b;
}
template <class A, class B>
    requires requires(const A& a, const B& b) { a + b; }
auto minus(int number, const A& a, const B& b) {
    return on(number) ? static_cast<decltype(a - b)>(a + b) : a - b;
}

}  // namespace fault
