#include "ui/window/slidereveal.h"

#include <QEvent>
#include <QVariantAnimation>
#include <QWidget>

namespace orvane {

SlideReveal::SlideReveal(QWidget* widget, Qt::Orientation orientation, int durationMs)
    : QObject(widget)
    , m_widget(widget)
    , m_orientation(orientation)
    , m_animation(new QVariantAnimation(this))
    , m_shown(!widget->isHidden())
{
    m_animation->setDuration(durationMs);
    m_animation->setEasingCurve(QEasingCurve::InOutQuad);
    // The animation runs from 0 to 1; the open size is asked afresh on every
    // frame, because a widget that was hidden learns its width (and so its
    // natural height) only once the layout has placed it.
    connect(m_animation, &QVariantAnimation::valueChanged, this, [this](const QVariant& value) {
        const int target = m_shown ? naturalExtent() : 0;
        setExtent(m_from + qRound((target - m_from) * value.toReal()));
    });
    connect(m_animation, &QVariantAnimation::finished, this, &SlideReveal::finish);
    widget->installEventFilter(this);
}

bool SlideReveal::eventFilter(QObject* watched, QEvent* event)
{
    // The widget's content asks for another size (the header's second
    // arrangement): grow or shrink to it over the same time, instead of
    // jumping, from the size it has now.
    if (watched == m_widget && event->type() == QEvent::LayoutRequest && m_shown && !m_widget->isHidden()
        && m_animation->state() != QAbstractAnimation::Running && m_widget->window()->isVisible()) {
        const int now = currentExtent();
        if (now > 0 && naturalExtent() != now)
            animateFrom(now);
    }
    return QObject::eventFilter(watched, event);
}

int SlideReveal::naturalExtent() const
{
    const QSize hint = m_widget->sizeHint();
    if (m_orientation == Qt::Vertical) {
        const int width = m_widget->width() > 0 ? m_widget->width() : hint.width();
        return m_widget->hasHeightForWidth() ? m_widget->heightForWidth(width) : hint.height();
    }
    return qMax(hint.width(), m_widget->minimumWidth());
}

int SlideReveal::currentExtent() const
{
    if (m_widget->isHidden())
        return 0;
    return m_orientation == Qt::Vertical ? m_widget->height() : m_widget->width();
}

void SlideReveal::setExtent(int extent)
{
    if (m_orientation == Qt::Vertical)
        m_widget->setMaximumHeight(extent);
    else
        m_widget->setMaximumWidth(extent);
}

void SlideReveal::finish()
{
    if (!m_widget)
        return;
    // Open: free to follow its content again. Shut: out of the layout.
    setExtent(QWIDGETSIZE_MAX);
    m_widget->setVisible(m_shown);
}

void SlideReveal::setShown(bool shown, bool animated)
{
    if (shown == m_shown && m_animation->state() != QAbstractAnimation::Running && m_widget->isHidden() != shown)
        return;
    m_shown = shown;
    m_animation->stop();

    const bool window = m_widget->window() && m_widget->window()->isVisible();
    if (!animated || !window) {
        finish();
        return;
    }

    animateFrom(currentExtent());
}

void SlideReveal::animateFrom(int extent)
{
    m_from = extent;
    setExtent(m_from);
    m_widget->setVisible(true);
    m_animation->setStartValue(0.0);
    m_animation->setEndValue(1.0);
    m_animation->start();
}

} // namespace orvane
