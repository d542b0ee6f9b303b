#include "engine/toleranceindex.h"

#include <algorithm>
#include <system_error>
#include <thread>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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

namespace {

// The hot loop of making a buffer, plain: the compiler vectorises it.
std::uint32_t foldRowPortable(const std::uint8_t* row, std::size_t width, std::uint32_t* columnMax, bool* opaque)
{
    std::uint32_t rowMax = 0;
    std::uint8_t alphas = 255;
    for (std::size_t x = 0; x < width; ++x) {
        const std::uint32_t m = std::min<std::uint32_t>(row[4 * x], std::min<std::uint32_t>(row[4 * x + 1], row[4 * x + 2]));
        const std::uint32_t key = ToleranceIndex::pixelKey(row[4 * x + 3], m);
        alphas &= row[4 * x + 3];
        rowMax = std::max(rowMax, key);
        columnMax[x] = std::max(columnMax[x], key);
    }
    *opaque = alphas == 255;
    return rowMax;
}

#if defined(__x86_64__) && defined(__GNUC__)
#define ORVANE_FOLD_AVX2 1
// The same with AVX2, eight pixels at a time, each pixel in one 32-bit lane:
// byte minima give M in the lane's low byte, the lane's two 16-bit halves then
// carry 254 − M and A through one 16-bit multiply, and the smaller half, kept
// in the low half, is the key. Maxima are taken per 16-bit half, so the high
// halves never mix into the keys. About a third faster than what the compiler
// makes of the plain loop, which spends its time taking the bytes apart.
__attribute__((target("avx2"))) std::uint32_t foldRowAvx2(const std::uint8_t* row, std::size_t width,
                                                           std::uint32_t* columnMax, bool* opaque)
{
    const __m256i top = _mm256_set1_epi8(static_cast<char>(254));
    const __m256i whitest = _mm256_set1_epi8(116);
    const __m256i factors = _mm256_set1_epi32((230 << 16) | 508);
    const __m256i one = _mm256_set1_epi32(1);
    const __m256i lowBytes = _mm256_set1_epi32(0x00FF00FF);
    __m256i rowMax = _mm256_setzero_si256();
    __m256i alphas = _mm256_set1_epi8(-1);
    std::size_t x = 0;
    for (; x + 8 <= width; x += 8) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + 4 * x));
        alphas = _mm256_and_si256(alphas, v);
        __m256i m = _mm256_min_epu8(v, _mm256_srli_epi32(v, 8));
        m = _mm256_min_epu8(m, _mm256_srli_epi32(v, 16));                    // low byte: M
        const __m256i whiteness = _mm256_min_epu8(_mm256_subs_epu8(top, m), whitest); // 254 − M in 0…116
        const __m256i alpha = _mm256_srli_epi16(v, 8);                       // high half's low byte: A
        const __m256i both = _mm256_and_si256(_mm256_blend_epi16(whiteness, alpha, 0xAA), lowBytes);
        __m256i key = _mm256_add_epi32(_mm256_mullo_epi16(both, factors), one); // 508 (254 − M) + 1 | 230 A
        key = _mm256_min_epu16(key, _mm256_srli_epi32(key, 16));
        rowMax = _mm256_max_epu16(rowMax, key);
        __m256i* column = reinterpret_cast<__m256i*>(columnMax + x);
        _mm256_storeu_si256(column, _mm256_max_epu16(_mm256_loadu_si256(column), key));
    }
    alignas(32) std::uint32_t lanes[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), rowMax);
    bool tailOpaque = true;
    std::uint32_t result = foldRowPortable(row + 4 * x, width - x, columnMax + x, &tailOpaque);
    for (std::uint32_t lane : lanes)
        result = std::max(result, lane & 0xFFFF);
    // Every alpha byte (the top byte of each lane) 255.
    const __m256i alphaOnly = _mm256_or_si256(alphas, _mm256_set1_epi32(0x00FFFFFF));
    *opaque = tailOpaque && _mm256_movemask_epi8(_mm256_cmpeq_epi8(alphaOnly, _mm256_set1_epi8(-1))) == -1;
    return result;
}
#endif

} // namespace

std::uint32_t ToleranceIndex::foldRow(const std::uint8_t* row, std::size_t width, std::uint32_t* columnMax,
                                      bool* opaque)
{
    bool ignored = false;
    bool* allOpaque = opaque ? opaque : &ignored;
#ifdef ORVANE_FOLD_AVX2
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (avx2)
        return foldRowAvx2(row, width, columnMax, allOpaque);
#endif
    return foldRowPortable(row, width, columnMax, allOpaque);
}

ToleranceIndex::Builder::Builder(std::size_t width, std::size_t height)
    : m_width(width)
    , m_rowMax(height, 0)
    , m_columnMax(width, 0)
{
}

bool ToleranceIndex::Builder::addRow(std::size_t y, const std::uint8_t* row)
{
    bool opaque = false;
    const auto rowMax = static_cast<std::uint16_t>(foldRow(row, m_width, m_columnMax.data(), &opaque));
    m_rowMax[y] = std::max(m_rowMax[y], rowMax);
    return opaque;
}

void ToleranceIndex::Builder::absorb(const Builder& other)
{
    for (std::size_t y = 0; y < m_rowMax.size(); ++y)
        m_rowMax[y] = std::max(m_rowMax[y], other.m_rowMax[y]);
    // Only the low 16 bits of a column entry are its key (see foldRowAvx2).
    for (std::size_t x = 0; x < m_width; ++x)
        m_columnMax[x] = std::max(m_columnMax[x] & 0xFFFF, other.m_columnMax[x] & 0xFFFF);
}

namespace {

// The running maxima of values from the start and from the end, as runs.
template<typename T>
void runningMaxima(const std::vector<T>& values, std::vector<ToleranceIndex::Step>& forward,
                   std::vector<ToleranceIndex::Step>& backward)
{
    const std::size_t n = values.size();
    forward.clear();
    backward.clear();
    std::uint16_t m = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const auto v = static_cast<std::uint16_t>(values[i] & 0xFFFF);
        if (i == 0 || v > m)
            forward.push_back({static_cast<std::uint32_t>(i), m = std::max(m, v)});
    }
    // From the end the maximum falls as the position rises: runs are found
    // from the end and then put in order of position.
    m = 0;
    for (std::size_t i = n; i-- > 0;) {
        const auto v = static_cast<std::uint16_t>(values[i] & 0xFFFF);
        if (i + 1 == n || v > m) {
            m = std::max(m, v);
            backward.push_back({static_cast<std::uint32_t>(i), m});
        } else {
            backward.back().start = static_cast<std::uint32_t>(i);
        }
    }
    std::reverse(backward.begin(), backward.end());
    forward.shrink_to_fit();
    backward.shrink_to_fit();
}

} // namespace

ToleranceIndex ToleranceIndex::Builder::finish()
{
    ToleranceIndex index;
    runningMaxima(m_rowMax, index.m_fromTop, index.m_fromBottom);
    runningMaxima(m_columnMax, index.m_fromLeft, index.m_fromRight);
    index.m_rows = static_cast<std::uint32_t>(m_rowMax.size());
    index.m_columns = static_cast<std::uint32_t>(m_columnMax.size());
    m_rowMax = {};
    m_columnMax = {};
    return index;
}

unsigned ToleranceIndex::threadsFor(std::size_t pixels)
{
    if (pixels < (std::size_t{1} << 22))
        return 1;
    return std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
}

ToleranceIndex ToleranceIndex::build(const std::uint8_t* pixels, std::size_t width, std::size_t height,
                                     unsigned threads)
{
    const std::size_t stride = width * 4;
    const std::size_t bands = std::clamp<std::size_t>(threads, 1, height);
    std::vector<Builder> builders(bands, Builder(width, height));
    const auto fold = [&](std::size_t band) {
        for (std::size_t y = height * band / bands; y < height * (band + 1) / bands; ++y)
            builders[band].addRow(y, pixels + y * stride);
    };
    std::vector<std::thread> helpers;
    for (std::size_t band = 1; band < bands; ++band) {
        try {
            helpers.emplace_back(fold, band);
        } catch (const std::system_error&) {
            fold(band); // no thread to be had: fold it here
        }
    }
    fold(0);
    for (std::thread& helper : helpers)
        helper.join();
    for (std::size_t band = 1; band < bands; ++band)
        builders[0].absorb(builders[band]);
    return builders[0].finish();
}

std::optional<PixelRect> ToleranceIndex::contentRect(std::uint16_t threshold) const
{
    if (m_fromTop.empty() || m_fromTop.back().value < threshold)
        return std::nullopt;
    // Runs from the start rise, so the first run that reaches the threshold
    // is a partition point and its start the first position; runs from the
    // end fall, and the last run that reaches it ends at the last position.
    const auto firstOf = [threshold](const std::vector<Step>& fromStart) {
        return static_cast<std::int64_t>(
            std::partition_point(fromStart.begin(), fromStart.end(), [threshold](const Step& s) { return s.value < threshold; })
                ->start);
    };
    const auto lastOf = [threshold](const std::vector<Step>& fromEnd, std::uint32_t size) {
        const auto next = std::partition_point(fromEnd.begin(), fromEnd.end(),
                                               [threshold](const Step& s) { return s.value >= threshold; });
        return static_cast<std::int64_t>(next == fromEnd.end() ? size : next->start) - 1;
    };
    const std::int64_t top = firstOf(m_fromTop);
    const std::int64_t bottom = lastOf(m_fromBottom, m_rows);
    const std::int64_t left = firstOf(m_fromLeft);
    const std::int64_t right = lastOf(m_fromRight, m_columns);
    return PixelRect{left, top, right - left + 1, bottom - top + 1};
}

std::size_t ToleranceIndex::byteCount() const
{
    return (m_fromTop.capacity() + m_fromBottom.capacity() + m_fromLeft.capacity() + m_fromRight.capacity())
        * sizeof(Step);
}

} // namespace orvane
