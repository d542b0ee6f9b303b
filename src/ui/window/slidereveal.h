// Shows and hides a widget by sliding its height or width open and shut.
#pragma once

#include <QObject>
#include <QPointer>

class QVariantAnimation;
class QWidget;

namespace orvane {

/// Animates a widget's maximum height (vertical) or width (horizontal)
/// between 0 and its natural size with an ease-in-out curve; the widget is
/// hidden once shut. A change of direction mid-way starts from where the
/// widget is. While open, a change of its natural size (new content) is
/// animated the same way. Child of the widget it animates; main thread only.
class SlideReveal : public QObject {
    Q_OBJECT

public:
    SlideReveal(QWidget* widget, Qt::Orientation orientation, int durationMs);

    /// Opens (true) or shuts (false) the widget; animated unless animated is
    /// false or the widget's window is not shown yet.
    void setShown(bool shown, bool animated = true);
    /// Where the widget is going: true while open or opening.
    bool isShown() const { return m_shown; }

    /// The extent the widget is heading for: its natural size, or 0 when shut.
    int targetExtent() const { return m_shown ? naturalExtent() : 0; }
    /// The height (vertical) or width (horizontal) it has now.
    int currentExtent() const;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    int naturalExtent() const;
    void animateFrom(int extent);
    void setExtent(int extent);
    void finish();

    QPointer<QWidget> m_widget;
    Qt::Orientation m_orientation;
    QVariantAnimation* m_animation;
    bool m_shown;
    int m_from = 0; ///< the extent the running animation started from
};

} // namespace orvane
