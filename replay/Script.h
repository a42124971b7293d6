// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a record's client called, and what of it was called again.
 */
#pragma once

#include <corvane/replay/Decode.h>
#include <corvane/replay/RecordReader.h>
#include <corvane/replay/Story.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace NSVista::NSCorvane::replay {

/** A record that is gone through once. Not thread-safe. */
class Script {
public:
    static constexpr size_t kNone = Story::kNone;

    explicit Script(Record record);

    const Record& record() const { return mRecord; }
    const Story& story() const { return mStory; }
    const Call& call(size_t i) const { return mRecord.calls[i]; }
    bool isMade(size_t i) const { return mMade[i]; }
    /** A call that only asked whether something is there yet: clients make any number of them. */
    bool isIdle(size_t i) const;

    /** Marks a call as made. */
    void make(size_t i);
    /** The first call that is to be made before others can be; #kNone when all were. */
    size_t first() const { return mFirst; }
    uint64_t callsLeft() const { return mLeft; }
    uint64_t differences() const { return mDifferences; }

    /** The calls on an object from the first unmade one on. */
    std::span<const size_t> callsOn(size_t object);
    /** The first unmade one of an operation on a path. */
    size_t findByPath(record::Operation operation, const std::string& path) const;
    /**
     * The unmade call of @p calls that @p now repeats.
     * @param[out] parting where the best one differs; empty when it is the same.
     * @return #kNone when none is of its operation and code.
     */
    size_t findSame(std::span<const size_t> calls, const Call& now, std::string& parting) const;
    /** The object that a call opened. */
    size_t objectBy(size_t call) const;

    /** Tells of a call that the record has otherwise, or not at all. */
    void tellDifference(const Call& now, const std::string& label, size_t recorded,
                        const std::string& parting);
    /** Others need wait no more for the unmade calls that began before a time; tells of the first.
     */
    void giveUpUntil(int64_t ns);

    /** Where two calls of the same code differ, as "format.width"; empty when they do not. */
    std::string partingOf(const Call& recorded, const Call& now) const;
    std::string textOf(size_t i) const;

private:
    void advance();

    Record mRecord;
    Story mStory;
    std::vector<bool> mMade;
    std::vector<bool> mGivenUp;      ///< may still be made
    std::vector<size_t> mCallsMade;  ///< by object, the calls at its beginning that were made
    size_t mFirst = 0;
    uint64_t mLeft = 0;
    uint64_t mDifferences = 0;
};

}  // namespace NSVista::NSCorvane::replay
