#include "ui/controls/elidedlabel.h"

#include <QEvent>
#include <QPainter>

namespace orvane {

ElidedLabel::ElidedLabel(QWidget* parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

void ElidedLabel::setText(const QString& text)
{
    if (text == m_text)
        return;
    m_text = text;
    // Screen readers get the whole text, not the shortened one.
    setAccessibleName(text);
    updateGeometry();
    update();
}

QString ElidedLabel::displayedText() const
{
    return fontMetrics().elidedText(m_text, Qt::ElideMiddle, width());
}

QSize ElidedLabel::sizeHint() const
{
    const QFontMetrics metrics = fontMetrics();
    // Rounded up: horizontalAdvance truncates, and a label one pixel short
    // of its text would elide it.
    return {metrics.horizontalAdvance(m_text) + 1, metrics.height()};
}

QSize ElidedLabel::minimumSizeHint() const
{
    const QFontMetrics metrics = fontMetrics();
    return {metrics.horizontalAdvance(QStringLiteral("…")) + 1, metrics.height()};
}

void ElidedLabel::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setPen(palette().color(foregroundRole()));
    painter.drawText(rect(), Qt::AlignLeft | Qt::AlignVCenter, displayedText());
}

void ElidedLabel::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::FontChange)
        updateGeometry();
    QWidget::changeEvent(event);
}

} // namespace orvane
