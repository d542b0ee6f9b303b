// Which of the header's two arrangements fits: a plain function, so that it
// can be tested without a display.
#pragma once

namespace orvane {

/// Wide: name row, a flexible gap, the dimensions, side by side.
/// Narrow: the dimensions under the name row.
enum class HeaderArrangement { Wide, Narrow };

/// Layout constants of the header, in logical pixels.
namespace HeaderMetrics {
inline constexpr int nameMinimumWidth = 110; ///< the name row never gets less in the wide arrangement
inline constexpr int spacerMinimumWidth = 12;
inline constexpr int wideSpacing = 8;   ///< between the wide arrangement's parts
inline constexpr int narrowSpacing = 3; ///< between the two lines of the narrow one
inline constexpr int paddingX = 16;
inline constexpr int paddingY = 9;
} // namespace HeaderMetrics

/// Natural width of the wide arrangement: the name row at its full width but at
/// least 110, the 12-pixel minimum gap, the dimensions row, and the spacing
/// between them. dimsRowWidth 0 means the row is absent (no content rectangle):
/// it then takes no space and no spacing.
int wideHeaderWidth(int nameRowWidth, int dimsRowWidth);

/// Wide when its natural width fits into availableWidth (the header's width
/// inside its padding), else Narrow.
HeaderArrangement headerArrangement(int nameRowWidth, int dimsRowWidth, int availableWidth);

} // namespace orvane
