#include "ui/window/headerlayout.h"

#include <algorithm>

namespace orvane {

int wideHeaderWidth(int nameRowWidth, int dimsRowWidth)
{
    using namespace HeaderMetrics;
    int width = std::max(nameRowWidth, nameMinimumWidth) + wideSpacing + spacerMinimumWidth;
    if (dimsRowWidth > 0)
        width += wideSpacing + dimsRowWidth;
    return width;
}

HeaderArrangement headerArrangement(int nameRowWidth, int dimsRowWidth, int availableWidth)
{
    return wideHeaderWidth(nameRowWidth, dimsRowWidth) <= availableWidth ? HeaderArrangement::Wide
                                                                          : HeaderArrangement::Narrow;
}

} // namespace orvane
