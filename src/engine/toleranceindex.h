// The engine's tolerance index: a per-row and per-column summary of a raster
// from which the content rectangle of any tolerance is read without pixels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "engine/cropengine.h"

namespace orvane {

/// Summary of an 8-bit premultiplied RGBA raster (layout as CropEngine::Buffer)
/// that answers the content rectangle of any pair of cut-offs a tolerance
/// produces, in O(log(width + height)), without reading a pixel.
///
/// Every pixel gets a 16-bit key from its alpha A and M = min(red, green, blue)
/// alone, and every pair of cut-offs a threshold, such that the pixel is
/// content at those cut-offs exactly when its key reaches the threshold. The
/// index keeps, for rows and for columns, the running maximum of the keys from
/// either end, so the first and last row and column holding content are found
/// by binary search.
///
/// An immutable value once built; safe to read from several threads.
class ToleranceIndex {
public:
    /// The key of a pixel with alpha `alpha` and smallest colour byte `minColour`:
    /// min(230 × A, 508 × clamp(254 − M, 0, 116) + 1). 0 means content at no tolerance.
    static constexpr std::uint16_t pixelKey(unsigned alpha, unsigned minColour)
    {
        const int d = 254 - static_cast<int>(minColour);
        const unsigned whiteness = 508u * static_cast<unsigned>(d < 0 ? 0 : (d > 116 ? 116 : d)) + 1u;
        const unsigned opacity = 230u * alpha;
        return static_cast<std::uint16_t>(opacity < whiteness ? opacity : whiteness);
    }

    /// The smallest key a pixel needs to count as content when content needs
    /// alpha above `alphaCutOff` and a colour byte below `whitenessCutOff`.
    /// Absent for pairs that no single threshold separates; every pair that
    /// CropEngine::cutOffs() yields for a tolerance above 0 has one.
    static std::optional<std::uint16_t> threshold(int alphaCutOff, int whitenessCutOff);

    /// Folds one raster row into per-column maxima of the keys and returns the
    /// row's own maximum. `row` holds `width` pixels of 4 bytes; `columnMax`
    /// holds `width` entries, of which only the low 16 bits are the column's
    /// maximum key. Uses AVX2 where the processor has it.
    /// Whether every pixel of the row has alpha 255 is stored in `opaque` when given.
    static std::uint32_t foldRow(const std::uint8_t* row, std::size_t width, std::uint32_t* columnMax,
                                 bool* opaque = nullptr);

    /// Collects row and column maxima while a raster is produced row by row.
    class Builder {
    public:
        /// A builder for a raster of `width` × `height` pixels (both at least 1).
        Builder(std::size_t width, std::size_t height);
        /// Folds row `y` (exactly `width` pixels of 4 bytes) and tells whether
        /// every pixel in it has alpha 255. Folding a row again with keys that
        /// are at least as high replaces its earlier keys.
        bool addRow(std::size_t y, const std::uint8_t* row);
        /// Takes in the rows and columns another builder of the same size folded,
        /// so that row bands can be folded on separate threads.
        void absorb(const Builder& other);
        /// The finished index; the builder is left empty.
        ToleranceIndex finish();

    private:
        std::size_t m_width;
        std::vector<std::uint16_t> m_rowMax;
        std::vector<std::uint32_t> m_columnMax;
    };

    /// Builds the index of a whole raster of `width` × `height` pixels in one
    /// pass, split into row bands over up to `threads` threads.
    static ToleranceIndex build(const std::uint8_t* pixels, std::size_t width, std::size_t height,
                                unsigned threads = 1);

    /// How many threads a one-pass job over `pixels` pixels is worth: several
    /// for large images (the pass is bound by memory once it runs on two
    /// cores), one for small ones.
    static unsigned threadsFor(std::size_t pixels);

    /// The smallest rectangle holding every pixel whose key reaches `threshold`;
    /// absent when there is none. Reads only the index.
    std::optional<PixelRect> contentRect(std::uint16_t threshold) const;

    /// Bytes held by the index.
    std::size_t byteCount() const;

    /// One run of equal running maxima: from position start up to the next run.
    struct Step {
        std::uint32_t start = 0;
        std::uint16_t value = 0;
    };

private:
    // Running maxima from the top, from the bottom, from the left and from the
    // right, as runs: a running maximum only ever changes to a larger key, and
    // there are fewer than 400 distinct keys, so the index stays a few KiB
    // whatever the image's size.
    std::vector<Step> m_fromTop;
    std::vector<Step> m_fromBottom;
    std::vector<Step> m_fromLeft;
    std::vector<Step> m_fromRight;
    std::uint32_t m_rows = 0;
    std::uint32_t m_columns = 0;
};

} // namespace orvane
