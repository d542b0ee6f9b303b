// The empty window's panel: an invitation to drop images, with a button and
// a click anywhere on it to pick files instead.
#pragma once

#include <QWidget>

class QLabel;
class QVariantAnimation;

namespace orvane {

class ElidingButton;

/// Shown in the preview's place while no image is active. A click anywhere
/// on it (its 28-pixel margin included) or on its button asks for the open
/// panel (openRequested).
class DropZone : public QWidget {
    Q_OBJECT

public:
    explicit DropZone(QWidget* parent = nullptr);

    /// The distance of the dashed panel from the zone's edges; it takes clicks too.
    static constexpr int margin = 28;

    /// Whether a drag with files hovers over the window: the panel then turns
    /// to the accent colour and grows by 1 %, over 0.12 s.
    void setTargeted(bool targeted);
    bool isTargeted() const { return m_targeted; }

    /// How far the hover styling has come: 0 plain, 1 fully targeted.
    qreal hoverProgress() const { return m_hover; }

    /// The dashed panel's outline at the current hover progress, in the zone's coordinates.
    QRectF panelRect() const;

Q_SIGNALS:
    /// The user asked to pick images: the window runs the model's open panel.
    void openRequested();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void updateColours();
    void updateIcon();

    QLabel* m_icon;
    QLabel* m_title;
    QLabel* m_callout;
    ElidingButton* m_choose;
    QVariantAnimation* m_hoverAnimation;
    qreal m_hover = 0.0;
    bool m_targeted = false;
    bool m_pressed = false;
};

} // namespace orvane
