#include "ui/controls/messagelabel.h"

#include <QEvent>
#include <QPainter>
#include <QTextLayout>

namespace orvane {

namespace {

QTextOption wrapping()
{
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    return option;
}

// Lays text out into lines of width; the layout must outlive the lines.
void layOut(QTextLayout& layout, int width)
{
    layout.setTextOption(wrapping());
    layout.beginLayout();
    qreal y = 0;
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        line.setLineWidth(width);
        line.setPosition(QPointF(0, y));
        y += line.height();
    }
    layout.endLayout();
}

} // namespace

MessageLabel::MessageLabel(QWidget* parent)
    : QWidget(parent)
{
    QSizePolicy policy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    policy.setHeightForWidth(true);
    setSizePolicy(policy);
}

void MessageLabel::setMessage(const QString& text, const QString& shortenable)
{
    if (text == m_text && shortenable == m_shortenable)
        return;
    m_text = text;
    m_shortenable = shortenable;
    // Screen readers get the whole message, not the shortened one.
    setAccessibleName(text);
    updateGeometry();
    update();
}

int MessageLabel::lineCount(const QString& text, const QFont& font, int width)
{
    if (text.isEmpty())
        return 0;
    QTextLayout layout(text, font);
    layOut(layout, std::max(1, width));
    return layout.lineCount();
}

QString MessageLabel::fitted(const QString& text, const QString& shortenable, const QFont& font, int width, int lines)
{
    if (lineCount(text, font, width) <= lines)
        return text;
    const QFontMetrics metrics(font);
    const qsizetype at = shortenable.isEmpty() ? -1 : text.indexOf(shortenable);
    const auto withName = [&](int nameWidth) {
        // Qt gives nothing when even "…" is too wide; the name keeps that much.
        const QString name = metrics.elidedText(shortenable, Qt::ElideMiddle, nameWidth);
        return text.left(at) + (name.isEmpty() ? QStringLiteral("…") : name) + text.mid(at + shortenable.size());
    };
    if (at >= 0 && lineCount(withName(0), font, width) <= lines) {
        // The widest name that still fits: the line count only grows with it.
        int low = 0;
        int high = metrics.horizontalAdvance(shortenable);
        while (low < high) {
            const int middle = (low + high + 1) / 2;
            if (lineCount(withName(middle), font, width) <= lines)
                low = middle;
            else
                high = middle - 1;
        }
        return withName(low);
    }
    // No name to shorten, or the rest alone is too long: the end gives way.
    qsizetype low = 0;
    qsizetype high = text.size();
    while (low < high) {
        const qsizetype middle = (low + high + 1) / 2;
        if (lineCount(text.left(middle) + QStringLiteral("…"), font, width) <= lines)
            low = middle;
        else
            high = middle - 1;
    }
    return text.left(low) + QStringLiteral("…");
}

QString MessageLabel::displayedText() const
{
    return fitted(m_text, m_shortenable, font(), width(), maxLines);
}

int MessageLabel::heightForWidth(int width) const
{
    const QString shown = fitted(m_text, m_shortenable, font(), width, maxLines);
    return std::max(1, lineCount(shown, font(), width)) * fontMetrics().lineSpacing();
}

QSize MessageLabel::sizeHint() const
{
    const int width = fontMetrics().horizontalAdvance(m_text) + 1;
    return {width, fontMetrics().lineSpacing()};
}

QSize MessageLabel::minimumSizeHint() const
{
    return {fontMetrics().horizontalAdvance(QStringLiteral("…")) + 1, fontMetrics().lineSpacing()};
}

void MessageLabel::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setPen(palette().color(foregroundRole()));
    QTextLayout layout(displayedText(), font());
    layOut(layout, width());
    layout.draw(&painter, QPointF(0, 0));
}

void MessageLabel::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::FontChange)
        updateGeometry();
    QWidget::changeEvent(event);
}

} // namespace orvane
