// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * How a run of a fuzzer may end.
 */
#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace NSVista::NSCorvane::fuzz {

/** Where a fatal line that is specified goes on: in place of the end of the process. */
extern thread_local jmp_buf* gEnd;

/**
 * Runs @p body on this thread. A fatal line that is specified ends it, and what it held is left as
 * it is; any other one ends the process.
 * @return whether it came to its end.
 */
template <class Body>
bool endures(Body body) {
    jmp_buf end;
    jmp_buf* const before = gEnd;
    gEnd = &end;
    const bool isFirst = setjmp(end) == 0;  // NOLINT(cert-err52-cpp): nothing is to be unwound
    if (isFirst)
        body();
    gEnd = before;
    return isFirst;
}

/** The fuzzer's bytes, taken from the front; zeroes when there are no more. */
class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : mData(data), mLeft(size) {}

    bool isEmpty() const { return mLeft == 0; }
    template <class T = uint8_t>
    T take() {
        T value{};
        const size_t size = sizeof(T) < mLeft ? sizeof(T) : mLeft;
        memcpy(&value, mData, size);
        mData += size;
        mLeft -= size;
        return value;
    }
    /** As many as a byte before them says. */
    std::string takeText() {
        const size_t wanted = take();
        const size_t size = wanted < mLeft ? wanted : mLeft;
        std::string text(reinterpret_cast<const char*>(mData), size);
        mData += size;
        mLeft -= size;
        return text;
    }

private:
    const uint8_t* mData;
    size_t mLeft;
};

}  // namespace NSVista::NSCorvane::fuzz
