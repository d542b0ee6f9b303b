// A widget on the bar colour, the shade behind the header and the controls.
#pragma once

#include <QWidget>

namespace orvane {

/// Paints the bar colour rather than setting it as the palette's Window
/// colour, so that the widget and its children keep inheriting the desktop's
/// palette; tells subclasses when that palette changes (a new theme).
class BarWidget : public QWidget {
    Q_OBJECT

public:
    using QWidget::QWidget;

protected:
    /// Called once the inherited palette has changed.
    virtual void paletteChanged() {}

    void changeEvent(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
};

} // namespace orvane
