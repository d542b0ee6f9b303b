// The block under the preview: the status message, the "Trim tolerance"
// slider and the open and save buttons.
#pragma once

#include <optional>

#include <QList>

#include "model/cropmodel.h"
#include "ui/window/barwidget.h"

class QBoxLayout;
class QLabel;
class QProgressBar;
class QPushButton;
class QShortcut;
class QSlider;

namespace orvane {

class CropModel;
class ElidingButton;
class MessageLabel;

/// Shows the model's messages and tolerance and calls its commands. Holds no
/// state of its own; reads the model afresh on every change it announces. Does
/// not own the model, which must outlive it.
class ControlsView : public BarWidget {
    Q_OBJECT

public:
    ControlsView(CropModel* model, QWidget* parent = nullptr);

    /// The one message of the status row.
    struct Status {
        enum class Kind { None, Error, Success };
        Kind kind = Kind::None;
        QString text; ///< empty for None
        QString name; ///< the file name in text, which may be shortened to fit; may be empty
    };

    /// Which message the status row shows: the error first, then "all saved",
    /// then the save confirmation (with " — next image ready." while the queue
    /// holds two or more items), else none.
    static Status status(const std::optional<QString>& errorMessage, bool allSaved,
                         const std::optional<QString>& saveConfirmation, int itemCount);

    /// The line shown while opens run: "Opening 37 of 150 images…", or
    /// "Opening images…" while folders are still being listed.
    static QString openingText(const CropModel::Opening& opening);

    /// The status message's tooltip for the files an open could not take:
    /// one line per file with its reason, at most 20, then "and N more".
    static QString failuresToolTip(const QList<CropModel::FailedFile>& failures);

    /// The slider's integer positions per tolerance unit: 0 to 100 maps to 0 to 10 000.
    static constexpr int sliderScale = 100;

    /// Reads the model now (the window does this after every change).
    void refresh();

Q_SIGNALS:
    /// "Open…" was clicked: the window runs the model's open panel.
    void openRequested();

protected:
    void paletteChanged() override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void updateColours();
    void updateSpacing();
    void fitButtons();

    CropModel* m_model;
    QBoxLayout* m_column;
    QBoxLayout* m_buttons;
    QWidget* m_statusRow;
    QLabel* m_statusIcon;
    MessageLabel* m_statusText;
    QWidget* m_openingRow;
    QLabel* m_openingText;
    QProgressBar* m_openingBar;
    QPushButton* m_cancelOpen;
    QShortcut* m_cancelShortcut;
    QWidget* m_toleranceRow;
    QLabel* m_toleranceLabel;
    QLabel* m_lowIcon;
    QLabel* m_highIcon;
    QSlider* m_slider;
    ElidingButton* m_open;
    ElidingButton* m_saveAsNew;
    ElidingButton* m_saveOverOriginal;
};

} // namespace orvane
