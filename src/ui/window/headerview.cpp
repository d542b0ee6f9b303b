#include "ui/window/headerview.h"

#include <QBoxLayout>
#include <QEvent>
#include <QPainter>
#include <QLabel>

#include "model/cropmodel.h"
#include "ui/window/coalescedrefresh.h"
#include "ui/controls/elidedlabel.h"
#include "ui/style/painting.h"
#include "ui/style/symbols.h"
#include "ui/style/theme.h"

namespace orvane {

HeaderView::HeaderView(CropModel* model, QWidget* parent)
    : BarWidget(parent)
    , m_model(model)
{
    using namespace HeaderMetrics;
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);

    m_nameRow = new QWidget(this);
    m_nameRow->setObjectName(QStringLiteral("nameRow"));
    auto* nameLayout = new QHBoxLayout(m_nameRow);
    nameLayout->setContentsMargins(0, 0, 0, 0);
    nameLayout->setSpacing(8);
    m_name = new ElidedLabel(m_nameRow);
    m_name->setObjectName(QStringLiteral("name"));
    QFont nameFont = Theme::font(Theme::TextStyle::Callout, font());
    nameFont.setWeight(QFont::Medium);
    m_name->setFont(nameFont);
    m_badge = new QLabel(m_nameRow);
    m_badge->setObjectName(QStringLiteral("positionBadge"));
    m_badge->setFont(Theme::font(Theme::TextStyle::Caption, font()));
    m_badge->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    nameLayout->addWidget(m_name);
    nameLayout->addWidget(m_badge);
    // Keeps name and badge together at the leading edge when the row is wider.
    nameLayout->addStretch(1);

    m_dimsRow = new QWidget(this);
    m_dimsRow->setObjectName(QStringLiteral("dimsRow"));
    m_dimsRow->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    auto* dimsLayout = new QHBoxLayout(m_dimsRow);
    dimsLayout->setContentsMargins(0, 0, 0, 0);
    dimsLayout->setSpacing(6);
    const QFont callout = Theme::font(Theme::TextStyle::Callout, font());
    m_dimsBefore = new QLabel(m_dimsRow);
    m_dimsBefore->setObjectName(QStringLiteral("dimsBefore"));
    m_dimsBefore->setFont(callout);
    m_arrow = new QLabel(m_dimsRow);
    m_arrow->setObjectName(QStringLiteral("dimsArrow"));
    m_dimsAfter = new QLabel(m_dimsRow);
    m_dimsAfter->setObjectName(QStringLiteral("dimsAfter"));
    QFont semibold = callout;
    semibold.setWeight(QFont::DemiBold);
    m_dimsAfter->setFont(semibold);
    dimsLayout->addWidget(m_dimsBefore);
    dimsLayout->addWidget(m_arrow);
    dimsLayout->addWidget(m_dimsAfter);

    m_box = new QBoxLayout(QBoxLayout::LeftToRight, this);
    m_box->setContentsMargins(paddingX, paddingY, paddingX, paddingY);
    // The gaps are spacer sizes of their own (see updateArrangement), so
    // that the box adds no spacing around an absent dimensions row.
    m_box->setSpacing(0);
    m_spacer = new QSpacerItem(0, 0);
    m_box->addWidget(m_nameRow);
    m_box->addItem(m_spacer);
    m_box->addWidget(m_dimsRow);

    updateColours();
    new CoalescedRefresh(model, this, [this] { refresh(); });
    refresh();
}

void HeaderView::refresh()
{
    const CropModel::Item* item = m_model->active();
    // With no active item the window slides the header away: keep what it
    // showed until it is gone.
    if (!item)
        return;

    m_name->setText(item->url.fileName());
    const int count = int(m_model->items().size());
    const std::optional<int> position = m_model->activePosition();
    if (count >= 2 && position) {
        m_badge->setText(tr("%1 of %2").arg(*position).arg(count));
        m_badge->setVisible(true);
    } else {
        m_badge->setVisible(false);
    }

    const std::optional<PixelRect> content = m_model->activeContentRect();
    if (content) {
        m_dimsBefore->setText(tr("%1×%2").arg(item->width()).arg(item->height()));
        m_dimsAfter->setText(tr("%1×%2").arg(content->width).arg(content->height));
        const QPalette& p = palette();
        Painting::setTextColour(m_dimsAfter, m_model->willTrim() ? Theme::accentText(p) : Theme::secondary(p));
        m_dimsRow->setVisible(true);
    } else {
        m_dimsRow->setVisible(false);
    }
    updateArrangement();
}

void HeaderView::updateArrangement()
{
    using namespace HeaderMetrics;
    int nameRowWidth = m_name->sizeHint().width();
    if (!m_badge->isHidden())
        nameRowWidth += 8 + m_badge->sizeHint().width();
    const int dimsWidth = m_dimsRow->isHidden() ? 0 : m_dimsRow->sizeHint().width();
    m_arrangement = headerArrangement(nameRowWidth, dimsWidth, width() - 2 * paddingX);

    if (m_arrangement == HeaderArrangement::Wide) {
        m_box->setDirection(QBoxLayout::LeftToRight);
        m_nameRow->setMinimumWidth(nameMinimumWidth);
        const int gap = dimsWidth > 0 ? wideSpacing + spacerMinimumWidth + wideSpacing : wideSpacing + spacerMinimumWidth;
        m_spacer->changeSize(gap, 0, QSizePolicy::Expanding, QSizePolicy::Minimum);
        m_box->setAlignment(m_dimsRow, Qt::AlignVCenter);
    } else {
        m_box->setDirection(QBoxLayout::TopToBottom);
        m_nameRow->setMinimumWidth(0);
        m_spacer->changeSize(0, dimsWidth > 0 ? narrowSpacing : 0, QSizePolicy::Minimum, QSizePolicy::Fixed);
        m_box->setAlignment(m_dimsRow, Qt::AlignLeft | Qt::AlignVCenter);
    }
    m_box->invalidate();
}

void HeaderView::updateColours()
{
    const QPalette& p = palette();
    Painting::setTextColour(m_dimsBefore, Theme::secondary(p));
    const int arrowExtent = QFontMetrics(Theme::font(Theme::TextStyle::Caption2, font())).height();
    m_arrow->setPixmap(Symbols::tinted(Symbol::ArrowRight, qMax(10, arrowExtent), Theme::tertiary(p), devicePixelRatioF()));
    m_badge->setStyleSheet(QStringLiteral("QLabel { color: %1; background-color: %2; border-radius: %3px; padding: 2px 7px; }")
                               .arg(Painting::styleSheetColour(Theme::badgeText(p)),
                                    Painting::styleSheetColour(Theme::badge(p)))
                               .arg((m_badge->fontMetrics().height() + 4) / 2));
}

void HeaderView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    updateArrangement();
}

void HeaderView::paletteChanged()
{
    updateColours();
    refresh();
}

} // namespace orvane
