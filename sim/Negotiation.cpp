// SPDX-License-Identifier: Apache-2.0
#include "Negotiation.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <tuple>

namespace NSVista::NSCorvane::sim {

namespace {

uint64_t alignUp(uint64_t value, uint32_t align) {
    return (value + align - 1) / align * align;
}

uint32_t distance(uint32_t a, uint32_t b) {
    return a < b ? b - a : a - b;
}

constexpr uint32_t kMostAlign = 4096;

/** Lines of a plane's size for the height, of the usual subsamplings and their sums. */
constexpr std::pair<uint32_t, uint32_t> kLines[] = {
    {1, 1}, {1, 2}, {3, 2}, {2, 1}, {3, 1}, {1, 4}, {5, 4}, {9, 8}, {5, 2},
};

}  // namespace

Negotiation::Negotiation(const FormatDesc& format)
    : mAnswers(format.answers), mSizes(format.sizes) {
    if (mSizes.empty())
        learnRange();
    learnRounding();
    const size_t planes = mAnswers.front().layout.planes.size();
    for (size_t plane = 0; plane < planes && mPlanes.size() == plane; ++plane)
        learnPlane(plane);
    if (mPlanes.size() < planes)
        mPlanes.clear();
}

/** Of a driver that tells no sizes: between the least and the greatest answer, in common steps. */
void Negotiation::learnRange() {
    SizeDesc& size = mSizes.emplace_back();
    size.kind = V4L2_FRMSIZE_TYPE_STEPWISE;
    v4l2_frmsize_stepwise& range = size.range;
    range.min_width = range.min_height = UINT32_MAX;
    for (const AnswerDesc& answer : mAnswers) {
        range.min_width = std::min(range.min_width, answer.layout.width);
        range.min_height = std::min(range.min_height, answer.layout.height);
        range.max_width = std::max(range.max_width, answer.layout.width);
        range.max_height = std::max(range.max_height, answer.layout.height);
    }
    for (const AnswerDesc& answer : mAnswers) {
        if (answer.layout.width < range.max_width)
            range.step_width = std::gcd(range.step_width, answer.layout.width - range.min_width);
        if (answer.layout.height < range.max_height)
            range.step_height =
                std::gcd(range.step_height, answer.layout.height - range.min_height);
    }
}

void Negotiation::learnRounding() {
    uint32_t best = 0;
    Rounding rounding = mRounding;
    Choice choice = mChoice;
    const auto tryOut = [&] {
        if (const uint32_t count = explained(); count > best) {
            best = count;
            rounding = mRounding;
            choice = mChoice;
        }
    };
    for (mRounding = Rounding::DOWN; mRounding <= Rounding::UP;
         mRounding = static_cast<Rounding>(static_cast<int>(mRounding) + 1))
        tryOut();
    mRounding = rounding;
    mChoice = Choice::OVERLAP;
    tryOut();
    mRounding = rounding;
    mChoice = choice;
}

uint32_t Negotiation::explained() const {
    return static_cast<uint32_t>(
        std::count_if(mAnswers.begin(), mAnswers.end(), [this](const AnswerDesc& answer) {
            return adjust(answer.askedWidth, answer.askedHeight) ==
                   Size(answer.layout.width, answer.layout.height);
        }));
}

uint32_t Negotiation::round(uint32_t value, uint32_t min, uint32_t max, uint32_t step) const {
    value = std::clamp(value, min, std::max(min, max));
    if (step <= 1)
        return value;
    const uint32_t over = (value - min) % step;
    const bool up = over != 0 && (mRounding == Rounding::UP ||
                                  (mRounding == Rounding::NEAREST && over * 2 >= step));
    const uint32_t down = value - over;
    return up && max - down >= step ? down + step : down;
}

Negotiation::Size Negotiation::adjust(uint32_t width, uint32_t height) const {
    if (!mSizes.front().isDiscrete()) {
        const v4l2_frmsize_stepwise& range = mSizes.front().range;
        return {round(width, range.min_width, range.max_width, range.step_width),
                round(height, range.min_height, range.max_height, range.step_height)};
    }
    const auto farness = [&](const SizeDesc& size) -> uint64_t {
        const uint64_t w = size.range.min_width, h = size.range.min_height;
        if (mChoice == Choice::NEAREST)
            return uint64_t{distance(width, size.range.min_width)} +
                   distance(height, size.range.min_height);
        // What the two pictures do not share.
        return uint64_t{width} * height + w * h -
               2 * std::min<uint64_t>(w, width) * std::min<uint64_t>(h, height);
    };
    const auto nearest = std::min_element(
        mSizes.begin(), mSizes.end(),
        [&](const SizeDesc& a, const SizeDesc& b) { return farness(a) < farness(b); });
    return {nearest->range.min_width, nearest->range.min_height};
}

uint32_t Negotiation::PlaneRule::stride(uint32_t width) const {
    return static_cast<uint32_t>(
        alignUp((uint64_t{width} * strideBits + strideRest) / 8, strideAlign));
}

uint64_t Negotiation::PlaneRule::size(uint32_t stride, uint32_t height) const {
    const uint64_t rows = alignUp(height, heightAlign), whole = stride * rows;
    switch (division) {
        case Division::HEIGHT:
            return alignUp(stride * (rows * lines / linesBy), sizeAlign) + extra;
        case Division::WHOLE:
            return alignUp(whole * lines / linesBy, sizeAlign) + extra;
        case Division::CHROMA:
            return alignUp(whole + whole * (lines - linesBy) / (linesBy * 2) * 2, sizeAlign) +
                   extra;
    }
    return 0;
}

bool Negotiation::fits(const PlaneRule& rule, size_t plane) const {
    return std::all_of(mAnswers.begin(), mAnswers.end(), [&](const AnswerDesc& answer) {
        const LayoutDesc& layout = answer.layout;
        if (plane >= layout.planes.size() ||
            rule.stride(layout.width) != layout.planes[plane].stride)
            return false;
        return rule.lines == 0 ||
               rule.size(layout.planes[plane].stride, layout.height) == layout.planes[plane].size;
    });
}

bool Negotiation::learnStride(PlaneRule& rule, size_t plane) const {
    constexpr uint32_t kMostBits = 128;
    for (const uint32_t rest : {7U, 0U})
        for (rule.strideAlign = 1; rule.strideAlign <= kMostAlign; rule.strideAlign *= 2)
            for (rule.strideBits = 1; rule.strideBits <= kMostBits; ++rule.strideBits) {
                rule.strideRest = rest;
                if (fits(rule, plane))
                    return true;
            }
    return false;
}

/** @param mayHaveExtra what the first answer has above the rule is tried for all. */
bool Negotiation::learnSize(PlaneRule& rule, size_t plane, bool mayHaveExtra) const {
    using Division = PlaneRule::Division;
    constexpr uint64_t kMostExtra = 4096;
    const LayoutDesc& first = mAnswers.front().layout;
    const auto isTheRule = [&] {
        rule.extra = 0;
        const uint64_t bare = rule.size(first.planes[plane].stride, first.height);
        const uint64_t whole = first.planes[plane].size;
        if (mayHaveExtra && whole > bare && whole - bare <= kMostExtra)
            rule.extra = static_cast<uint32_t>(whole - bare);
        return fits(rule, plane);
    };
    for (rule.sizeAlign = 1; rule.sizeAlign <= kMostAlign; rule.sizeAlign *= 2)
        for (rule.heightAlign = 1; rule.heightAlign <= 64; rule.heightAlign *= 2)
            for (const auto& [lines, by] : kLines)
                for (const auto division : {Division::HEIGHT, Division::WHOLE, Division::CHROMA}) {
                    rule.lines = lines;
                    rule.linesBy = by;
                    rule.division = division;
                    if ((division != Division::CHROMA || lines > by) && isTheRule())
                        return true;
                }
    return false;
}

/** Adds the plane's rule, the plainest that explains every answer; nothing when there is none. */
void Negotiation::learnPlane(size_t plane) {
    PlaneRule rule;
    if (learnStride(rule, plane) && (learnSize(rule, plane, false) || learnSize(rule, plane, true)))
        mPlanes.push_back(rule);
}

const AnswerDesc& Negotiation::nextLarger(uint32_t width, uint32_t height) const {
    const auto area = [](const AnswerDesc& a) {
        return uint64_t{a.layout.width} * a.layout.height;
    };
    const AnswerDesc* best = nullptr;
    const AnswerDesc* largest = &mAnswers.front();
    for (const AnswerDesc& answer : mAnswers) {
        const bool holds = answer.layout.width >= width && answer.layout.height >= height;
        if (holds && (best == nullptr || area(answer) < area(*best)))
            best = &answer;
        if (area(answer) > area(*largest))
            largest = &answer;
    }
    return best != nullptr ? *best : *largest;
}

LayoutDesc Negotiation::answer(uint32_t width, uint32_t height) const {
    for (const AnswerDesc& answer : mAnswers)
        if (answer.askedWidth == width && answer.askedHeight == height)
            return answer.layout;
    LayoutDesc layout;
    std::tie(layout.width, layout.height) = adjust(width, height);
    for (const AnswerDesc& answer : mAnswers)
        if (answer.layout.width == layout.width && answer.layout.height == layout.height)
            return answer.layout;
    for (const PlaneRule& rule : mPlanes) {
        const uint32_t stride = rule.stride(layout.width);
        layout.planes.push_back({stride, static_cast<uint32_t>(rule.size(stride, layout.height))});
    }
    if (layout.planes.empty())
        layout.planes = nextLarger(layout.width, layout.height).layout.planes;
    return layout;
}

}  // namespace NSVista::NSCorvane::sim
