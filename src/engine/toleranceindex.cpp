#include "engine/toleranceindex.h"

#include <algorithm>

namespace orvane {

// Why the keys work. For a tolerance fraction f in (0, 1] the cut-offs are
// alpha = trunc(254 f) and whiteness = trunc(255 − 115 f), and a pixel is
// content when A > alpha and M < whiteness. Both conditions are thresholds on
// a common scale of 2 × 254 × 115 units per unit of f: "A > alpha" holds for
// exactly the keys 230 × A above 230 × alpha, and "M < whiteness" for exactly
// the keys 508 × (254 − M) + 1 above 508 × (254 − whiteness) + 1. A threshold
// in both windows at once therefore decides both conditions with one
// comparison against the smaller of the two keys. The windows of the pairs a
// tolerance can produce always overlap (their breakpoints in f interleave and
// only meet at f = 1), so any tolerance is one comparison per pixel, and a
// row's or column's largest key tells whether it holds content at every
// tolerance. 254 − M is clamped to 116 so that the key fits 16 bits: from 115
// upwards every whiteness cut-off (at least 140) is passed anyway.
std::optional<std::uint16_t> ToleranceIndex::threshold(int alphaCutOff, int whitenessCutOff)
{
    if (alphaCutOff < 0 || alphaCutOff > 254 || whitenessCutOff < 140 || whitenessCutOff > 254)
        return std::nullopt;
    const int lowest = std::max(230 * alphaCutOff + 1, 508 * (254 - whitenessCutOff) + 2);
    const int highest = std::min(230 * (alphaCutOff + 1), 508 * (255 - whitenessCutOff) + 1);
    if (lowest > highest)
        return std::nullopt;
    return static_cast<std::uint16_t>(lowest);
}

// The hot loop of making a buffer. Written so that the compiler vectorises it
// (16-bit lanes throughout); the AVX2 clone doubles the lanes where the
// processor has it.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("avx2", "default")))
#endif
std::uint16_t ToleranceIndex::foldRow(const std::uint8_t* row, std::size_t width, std::uint16_t* columnMax)
{
    std::uint16_t rowMax = 0;
    for (std::size_t x = 0; x < width; ++x) {
        const std::uint16_t r = row[4 * x];
        const std::uint16_t g = row[4 * x + 1];
        const std::uint16_t b = row[4 * x + 2];
        const std::uint16_t a = row[4 * x + 3];
        const std::uint16_t m = std::min(r, std::min(g, b));
        // 254 − M clamped to 0…116, i.e. M clamped to 138…254.
        const std::uint16_t mc = std::max<std::uint16_t>(138, std::min<std::uint16_t>(m, 254));
        const std::uint16_t whiteness = static_cast<std::uint16_t>(508 * (254 - mc) + 1);
        const std::uint16_t opacity = static_cast<std::uint16_t>(230 * a);
        const std::uint16_t key = std::min(opacity, whiteness);
        rowMax = std::max(rowMax, key);
        columnMax[x] = std::max(columnMax[x], key);
    }
    return rowMax;
}

ToleranceIndex::Builder::Builder(std::size_t width, std::size_t height)
    : m_width(width)
    , m_rowMax(height, 0)
    , m_columnMax(width, 0)
{
}

void ToleranceIndex::Builder::addRow(std::size_t y, const std::uint8_t* row)
{
    m_rowMax[y] = std::max(m_rowMax[y], foldRow(row, m_width, m_columnMax.data()));
}

namespace {

void runningMaxima(const std::vector<std::uint16_t>& values, std::vector<std::uint16_t>& forward,
                   std::vector<std::uint16_t>& backward)
{
    const std::size_t n = values.size();
    forward.resize(n);
    backward.resize(n);
    std::uint16_t m = 0;
    for (std::size_t i = 0; i < n; ++i)
        forward[i] = m = std::max(m, values[i]);
    m = 0;
    for (std::size_t i = n; i-- > 0;)
        backward[i] = m = std::max(m, values[i]);
}

} // namespace

ToleranceIndex ToleranceIndex::Builder::finish()
{
    ToleranceIndex index;
    runningMaxima(m_rowMax, index.m_fromTop, index.m_fromBottom);
    runningMaxima(m_columnMax, index.m_fromLeft, index.m_fromRight);
    m_rowMax = {};
    m_columnMax = {};
    return index;
}

ToleranceIndex ToleranceIndex::build(const std::uint8_t* pixels, std::size_t width, std::size_t height)
{
    Builder builder(width, height);
    const std::size_t stride = width * 4;
    for (std::size_t y = 0; y < height; ++y)
        builder.addRow(y, pixels + y * stride);
    return builder.finish();
}

std::optional<PixelRect> ToleranceIndex::contentRect(std::uint16_t threshold) const
{
    if (m_fromTop.empty() || m_fromTop.back() < threshold)
        return std::nullopt;
    const auto reaches = [threshold](std::uint16_t v) { return v < threshold; };
    // Running maxima from the start rise, so the first entry that reaches the
    // threshold is a partition point; from the end they fall.
    const auto firstOf = [&](const std::vector<std::uint16_t>& fromStart) {
        return static_cast<std::int64_t>(
            std::partition_point(fromStart.begin(), fromStart.end(), reaches) - fromStart.begin());
    };
    const auto lastOf = [&](const std::vector<std::uint16_t>& fromEnd) {
        return static_cast<std::int64_t>(
                   std::partition_point(fromEnd.begin(), fromEnd.end(),
                                        [threshold](std::uint16_t v) { return v >= threshold; })
                   - fromEnd.begin())
            - 1;
    };
    const std::int64_t top = firstOf(m_fromTop);
    const std::int64_t bottom = lastOf(m_fromBottom);
    const std::int64_t left = firstOf(m_fromLeft);
    const std::int64_t right = lastOf(m_fromRight);
    return PixelRect{left, top, right - left + 1, bottom - top + 1};
}

std::size_t ToleranceIndex::byteCount() const
{
    return (m_fromTop.capacity() + m_fromBottom.capacity() + m_fromLeft.capacity() + m_fromRight.capacity())
        * sizeof(std::uint16_t);
}

} // namespace orvane
