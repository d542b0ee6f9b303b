// The header above the preview: the active image's name, its place in the
// queue and its size before and after trimming.
#pragma once

#include "ui/window/barwidget.h"
#include "ui/window/headerlayout.h"

class QBoxLayout;
class QLabel;
class QSpacerItem;

namespace orvane {

class CropModel;
class ElidedLabel;

/// Shows the model's active item; the window shows the header only while there
/// is one. Reads the model afresh on every change it announces. Does not own
/// the model, which must outlive it.
class HeaderView : public BarWidget {
    Q_OBJECT

public:
    HeaderView(CropModel* model, QWidget* parent = nullptr);

    /// The arrangement in use for the current width and texts.
    HeaderArrangement arrangement() const { return m_arrangement; }

    /// Reads the model now (the window does this after every change).
    void refresh();

protected:
    void resizeEvent(QResizeEvent* event) override;
    void paletteChanged() override;

private:
    void updateArrangement();
    void updateColours();

    CropModel* m_model;
    QBoxLayout* m_box;
    QWidget* m_nameRow;
    ElidedLabel* m_name;
    QLabel* m_badge;
    QSpacerItem* m_spacer;
    QWidget* m_dimsRow;
    QLabel* m_dimsBefore;
    QLabel* m_arrow;
    QLabel* m_dimsAfter;
    HeaderArrangement m_arrangement = HeaderArrangement::Wide;
};

} // namespace orvane
