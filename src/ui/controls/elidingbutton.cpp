#include "ui/controls/elidingbutton.h"

#include <QFocusEvent>
#include <QPainter>
#include <QStyleOptionButton>
#include <QStylePainter>

namespace orvane {

ElidingButton::ElidingButton(const QString& text, QWidget* parent)
    : QPushButton(text, parent)
{
    setAccessibleName(text);
}

int ElidingButton::frameWidth() const
{
    // What the style puts around the label: the button's width less the
    // width of its contents rectangle.
    QStyleOptionButton option;
    initStyleOption(&option);
    option.rect = QRect(QPoint(0, 0), QPushButton::sizeHint());
    const QRect contents = style()->subElementRect(QStyle::SE_PushButtonContents, &option, this);
    return option.rect.width() - contents.width();
}

int ElidingButton::labelWidth() const
{
    QStyleOptionButton option;
    initStyleOption(&option);
    return style()->subElementRect(QStyle::SE_PushButtonContents, &option, this).width();
}

QStringList ElidingButton::labels() const
{
    const QString ellipsis = QStringLiteral("…");
    const QStringList words = text().split(QLatin1Char(' '), Qt::SkipEmptyParts);
    QStringList labels;
    QString prefix;
    for (qsizetype i = 0; i + 1 < words.size(); ++i) {
        prefix += (i > 0 ? QStringLiteral(" ") : QString()) + words[i];
        QString label = prefix;
        if (label.endsWith(ellipsis))
            label.chop(1);
        labels << label + ellipsis;
    }
    labels << text();
    return labels;
}

int ElidingButton::widthFor(const QString& label) const
{
    return frameWidth() + fontMetrics().horizontalAdvance(label) + 2 * m_textPadding;
}

QString ElidingButton::displayedText() const
{
    // Whole words first: "Save as…" reads better than "Save as N…".
    const int room = labelWidth();
    const QStringList candidates = labels();
    for (qsizetype i = candidates.size() - 1; i >= 0; --i)
        if (fontMetrics().horizontalAdvance(candidates[i]) <= room)
            return candidates[i];
    return fontMetrics().elidedText(text(), Qt::ElideRight, room);
}

QSize ElidingButton::sizeHint() const
{
    QSize hint = QPushButton::sizeHint();
    hint.setWidth(std::max(hint.width(), widthFor(text())));
    return hint;
}

QSize ElidingButton::minimumSizeHint() const
{
    const QString shortest = text().isEmpty() ? QString() : text().left(1) + QStringLiteral("…");
    const int width = frameWidth() + fontMetrics().horizontalAdvance(shortest) + 2;
    return {std::min(width, sizeHint().width()), QPushButton::sizeHint().height()};
}

void ElidingButton::setTextPadding(int padding)
{
    m_textPadding = padding;
    updateGeometry();
}

void ElidingButton::setFocusRingColour(const QColor& colour)
{
    m_focusRing = colour;
    update();
}

void ElidingButton::paintEvent(QPaintEvent*)
{
    QStylePainter painter(this);
    QStyleOptionButton option;
    initStyleOption(&option);
    option.text = displayedText();
    painter.drawControl(QStyle::CE_PushButton, option);

    if (m_focusRing.isValid() && hasFocus() && m_keyboardFocus) {
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(m_focusRing, 1.5));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(QRectF(rect()).adjusted(2.75, 2.75, -2.75, -2.75), 3, 3);
    }
}

void ElidingButton::focusInEvent(QFocusEvent* event)
{
    // The window getting active again gives back the focus it had, and the
    // way it came then still counts.
    if (event->reason() != Qt::ActiveWindowFocusReason && event->reason() != Qt::PopupFocusReason)
        m_keyboardFocus = event->reason() == Qt::TabFocusReason || event->reason() == Qt::BacktabFocusReason
                          || event->reason() == Qt::ShortcutFocusReason;
    QPushButton::focusInEvent(event);
}

void ElidingButton::resizeEvent(QResizeEvent* event)
{
    QPushButton::resizeEvent(event);
    updateToolTip();
}

void ElidingButton::updateToolTip()
{
    setToolTip(displayedText() == text() ? QString() : text());
}

} // namespace orvane
