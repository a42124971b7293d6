// SPDX-License-Identifier: Apache-2.0
#include "TraceRing.h"

#include <gtest/gtest.h>

#include <string>

namespace NSVista::NSCorvane::trace {
namespace {

Rings sRings;

TEST(RingTest, ThatWasFullTakesEventsAgainOnceHalfOfItIsRead) {
    ASSERT_TRUE(sRings.prepare());
    Ring* const ring = sRings.mine();
    ASSERT_NE(ring, nullptr);
    while (ring->lost() == 0)
        ring->put(Kind{'B'}, "section", 0);
    size_t read = 0;
    size_t readAtFirst = 0;
    ring->drain([&](const Record& record, const char*) {
        const uint64_t lost = ring->lost();
        if (readAtFirst == 0) {
            ring->put(Kind{'E'}, "", 0);
            readAtFirst = ring->lost() == lost ? read : 0;
        }
        read += Record::sizeFor(record.length);
    });
    EXPECT_GE(readAtFirst, Ring::kBytes / 2 - 64);
    EXPECT_LE(readAtFirst, Ring::kBytes / 2 + 64);
    std::string kinds;
    ring->drain(
        [&](const Record& record, const char*) { kinds += static_cast<char>(record.kind); });
    EXPECT_EQ(kinds, "GE");
}

}  // namespace
}  // namespace NSVista::NSCorvane::trace
