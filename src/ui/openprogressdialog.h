// The progress dialog of a long open: a bar, the count of files and Cancel.
#pragma once

#include <functional>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QPointer>

#include "model/cropmodel.h"

class QProgressDialog;
class QWidget;

namespace orvane {

/// Watches one CropModel::open(). Nothing shows for an open that ends within
/// about 0.3 s; a longer one gets a modal dialog over the window with a bar,
/// "done of total" and Cancel, which makes the open stop and change nothing.
/// Lives on the stack around the open; main thread only.
class OpenProgressDialog : public OpenProgress {
    Q_DECLARE_TR_FUNCTIONS(OpenProgressDialog)

public:
    /// How long an open runs before the dialog appears, in milliseconds.
    static constexpr qint64 delay = 300;

    /// window is the dialog's parent (not owned). clock, when given, answers the
    /// milliseconds since the open started instead of a real timer (for tests).
    explicit OpenProgressDialog(QWidget* window, std::function<qint64()> clock = {});
    ~OpenProgressDialog() override;

    /// Updates the dialog (showing it once the delay has passed), lets the
    /// window repaint and the dialog take its Cancel click, and answers false
    /// once the user has cancelled.
    bool report(int done, int total) override;

    /// The dialog while it is shown, else null.
    QProgressDialog* dialog() const;

private:
    qint64 elapsed() const;

    QWidget* m_window;
    std::function<qint64()> m_clock;
    QElapsedTimer m_timer;
    QPointer<QProgressDialog> m_dialog;
    bool m_cancelled = false;
};

} // namespace orvane
