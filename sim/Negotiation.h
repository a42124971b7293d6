// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * How a format rounds sizes and lays pictures out, learned from what a driver answered.
 */
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::sim {

/**
 * The rules of one format. What was asked before is answered as it was then. Any other size goes by
 * the rule, of a few that drivers have, that explains most of the answers. Where no rule explains
 * the planes, a size gets those of the next larger answer, so that nothing is too small.
 */
class Negotiation {
public:
    /** @param format with at least one answer. */
    explicit Negotiation(const FormatDesc& format);

    /** What a size that is asked for comes to. */
    LayoutDesc answer(uint32_t width, uint32_t height) const;

private:
    enum class Rounding { DOWN, NEAREST, UP };
    enum class Choice { NEAREST, OVERLAP };
    using Size = std::pair<uint32_t, uint32_t>;

    struct PlaneRule {
        uint32_t strideBits = 0, strideAlign = 1;  ///< bits a pixel; 0: no rule was found
        uint32_t strideRest = 7;                   ///< bits added before a division by eight
        uint32_t lines = 0, linesBy = 1;           ///< size = stride * height * lines / linesBy
        /** What is divided: the height, or the whole, as one sum or as two chroma planes. */
        enum class Division { HEIGHT, WHOLE, CHROMA } division = Division::HEIGHT;
        uint32_t heightAlign = 1, sizeAlign = 1;
        uint32_t extra = 0;  ///< bytes that every picture has besides

        uint32_t stride(uint32_t width) const;
        uint64_t size(uint32_t stride, uint32_t height) const;
    };

    Size adjust(uint32_t width, uint32_t height) const;
    uint32_t round(uint32_t value, uint32_t min, uint32_t max, uint32_t step) const;
    uint32_t explained() const;
    void learnRange();
    void learnRounding();
    void learnPlane(size_t plane);
    bool learnStride(PlaneRule& rule, size_t plane) const;
    bool learnSize(PlaneRule& rule, size_t plane, bool mayHaveExtra) const;
    bool fits(const PlaneRule& rule, size_t plane) const;
    const AnswerDesc& nextLarger(uint32_t width, uint32_t height) const;

    std::vector<AnswerDesc> mAnswers;
    std::vector<SizeDesc> mSizes;  ///< discrete ones, or one range
    Rounding mRounding = Rounding::DOWN;
    Choice mChoice = Choice::NEAREST;
    std::vector<PlaneRule> mPlanes;  ///< empty when one plane has no rule
};

}  // namespace NSVista::NSCorvane::sim
