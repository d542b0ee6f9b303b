#include "ui/window/barwidget.h"

#include <QEvent>
#include <QPainter>

#include "ui/style/theme.h"

namespace orvane {

void BarWidget::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange)
        paletteChanged();
}

void BarWidget::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), Theme::bar(palette()));
}

} // namespace orvane
