#include "ui/window/dropzone.h"

#include <cmath>

#include <QEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QVBoxLayout>
#include <QVariantAnimation>

#include "ui/controls/elidingbutton.h"
#include "ui/style/painting.h"
#include "ui/style/symbols.h"
#include "ui/style/theme.h"

namespace orvane {

namespace {

constexpr int iconExtent = 64;
constexpr int calloutWidth = 380;
constexpr int stackPadding = 44;
constexpr qreal cornerRadius = 16;
constexpr qreal strokeWidth = 2;

using Painting::mix;
using Painting::withOpacity;

} // namespace

DropZone::DropZone(QWidget* parent)
    : QWidget(parent)
{
    setObjectName(QStringLiteral("dropZone"));
    setCursor(Qt::PointingHandCursor);

    m_icon = new QLabel(this);
    m_icon->setObjectName(QStringLiteral("dropZoneIcon"));
    m_icon->setAlignment(Qt::AlignCenter);

    m_title = new QLabel(tr("Drop images here"), this);
    QFont title = Theme::font(Theme::TextStyle::Title3, font());
    title.setWeight(QFont::DemiBold);
    m_title->setFont(title);
    m_title->setAlignment(Qt::AlignCenter);

    m_callout = new QLabel(
        tr("Transparent and white edges get trimmed to the artwork. Drop several images — or a folder — to queue them up."),
        this);
    m_callout->setFont(Theme::font(Theme::TextStyle::Callout, font()));
    m_callout->setWordWrap(true);
    m_callout->setAlignment(Qt::AlignCenter);

    m_choose = new ElidingButton(tr("Choose Images…"), this);
    m_choose->setObjectName(QStringLiteral("chooseImages"));
    m_choose->setCursor(Qt::ArrowCursor);
    // The large control size.
    m_choose->setMinimumHeight(m_choose->sizeHint().height() + 8);
    QFont buttonFont = font();
    buttonFont.setPointSizeF(buttonFont.pointSizeF() * 1.08);
    m_choose->setFont(buttonFont);
    m_choose->setMinimumWidth(m_choose->sizeHint().width() + 24);
    connect(m_choose, &QPushButton::clicked, this, &DropZone::openRequested);

    auto* stack = new QVBoxLayout;
    stack->setSpacing(14);
    stack->addWidget(m_icon, 0, Qt::AlignHCenter);
    stack->addWidget(m_title, 0, Qt::AlignHCenter);
    stack->addWidget(m_callout, 0, Qt::AlignHCenter);
    stack->addSpacing(6);
    stack->addWidget(m_choose, 0, Qt::AlignHCenter);

    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(margin + stackPadding, margin, margin + stackPadding, margin);
    outer->addStretch(1);
    outer->addLayout(stack);
    outer->addStretch(1);

    m_hoverAnimation = new QVariantAnimation(this);
    m_hoverAnimation->setDuration(120);
    m_hoverAnimation->setEasingCurve(QEasingCurve::InOutQuad);
    connect(m_hoverAnimation, &QVariantAnimation::valueChanged, this, [this](const QVariant& value) {
        m_hover = value.toReal();
        updateIcon();
        update();
    });

    updateColours();
}

void DropZone::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    // The callout wraps within 380 pixels, or within the room the zone has.
    const int width = qMax(80, qMin(calloutWidth, this->width() - 2 * (margin + stackPadding)));
    m_callout->setFixedSize(width, m_callout->heightForWidth(width));
}

void DropZone::setTargeted(bool targeted)
{
    if (targeted == m_targeted)
        return;
    m_targeted = targeted;
    // Starts from where the styling is now, so a quick leave after an enter
    // turns back smoothly.
    m_hoverAnimation->stop();
    m_hoverAnimation->setStartValue(m_hover);
    m_hoverAnimation->setEndValue(targeted ? 1.0 : 0.0);
    m_hoverAnimation->start();
}

QRectF DropZone::panelRect() const
{
    const QRectF panel = QRectF(rect()).adjusted(margin, margin, -margin, -margin);
    const qreal scale = 1.0 + 0.01 * m_hover;
    QRectF scaled(0, 0, panel.width() * scale, panel.height() * scale);
    scaled.moveCenter(panel.center());
    return scaled;
}

void DropZone::updateColours()
{
    Painting::setTextColour(m_callout, Theme::secondary(palette()));
    m_choose->setFocusRingColour(Theme::accent(palette()));
    updateIcon();
}

void DropZone::updateIcon()
{
    const QPalette& p = palette();
    m_icon->setPixmap(
        Symbols::tinted(Symbol::Photo, iconExtent, mix(Theme::secondary(p), Theme::accent(p), m_hover), devicePixelRatioF()));
}

void DropZone::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPalette& p = palette();

    // No background of its own: the preview area's stripes show through, the
    // same behind the drop zone and the image, so that the two can cross-fade.
    const QRectF panel = panelRect();
    QPainterPath shape;
    shape.addRoundedRect(panel, cornerRadius, cornerRadius);
    if (m_hover > 0)
        painter.fillPath(shape, withOpacity(Theme::accent(p), 0.06 * m_hover));

    // Stroked inside the edge: the outline is inset by half the line width.
    const qreal inset = strokeWidth / 2;
    QPainterPath outline;
    outline.addRoundedRect(panel.adjusted(inset, inset, -inset, -inset), cornerRadius - inset, cornerRadius - inset);
    QPen pen(mix(withOpacity(Theme::secondary(p), 0.35), Theme::accent(p), m_hover), strokeWidth);
    pen.setCapStyle(Qt::FlatCap);
    pen.setJoinStyle(Qt::MiterJoin);
    pen.setMiterLimit(10);
    // 9 drawn, 7 left out, stretched a little so that a whole number of
    // dashes runs round the outline and the last gap meets the first dash
    // instead of leaving a stub or a long gap where the path closes. QPen
    // measures dashes in line widths.
    const double period = 16.0;
    const double length = outline.length();
    const double stretch = length / (period * std::max(1.0, std::round(length / period)));
    pen.setDashPattern({9 * stretch / strokeWidth, 7 * stretch / strokeWidth});
    pen.setDashOffset(0);
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(outline);
}

void DropZone::mousePressEvent(QMouseEvent* event)
{
    m_pressed = event->button() == Qt::LeftButton;
    event->accept();
}

void DropZone::mouseReleaseEvent(QMouseEvent* event)
{
    const bool click = m_pressed && event->button() == Qt::LeftButton && rect().contains(event->position().toPoint());
    m_pressed = false;
    event->accept();
    if (click)
        Q_EMIT openRequested();
}

void DropZone::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange)
        updateColours();
}

} // namespace orvane
