#include "ui/openprogressdialog.h"

#include <QProgressDialog>
#include <QWidget>

namespace orvane {

OpenProgressDialog::OpenProgressDialog(QWidget* window, std::function<qint64()> clock)
    : m_window(window)
    , m_clock(std::move(clock))
{
    m_timer.start();
}

OpenProgressDialog::~OpenProgressDialog()
{
    delete m_dialog.data();
}

qint64 OpenProgressDialog::elapsed() const
{
    return m_clock ? m_clock() : m_timer.elapsed();
}

QProgressDialog* OpenProgressDialog::dialog() const
{
    return m_dialog && m_dialog->isVisible() ? m_dialog.data() : nullptr;
}

bool OpenProgressDialog::report(int done, int total)
{
    // Cancel, Escape and closing the dialog all end up here.
    if (m_dialog && m_dialog->wasCanceled())
        m_cancelled = true;
    if (m_cancelled)
        return false;

    if (!m_dialog && done < total && elapsed() >= delay) {
        auto* dialog = new QProgressDialog(m_window);
        dialog->setObjectName(QStringLiteral("openProgress"));
        dialog->setWindowTitle(tr("Opening Images"));
        dialog->setCancelButtonText(tr("Cancel"));
        dialog->setWindowModality(Qt::WindowModal);
        // The dialog is shown by us, after our own delay, and closed by our
        // destructor; QProgressDialog's own timing and auto-close stay out.
        dialog->setMinimumDuration(0);
        dialog->setAutoClose(false);
        dialog->setAutoReset(false);
        m_dialog = dialog;
        m_dialog->show();
    }

    if (m_dialog) {
        m_dialog->setMaximum(qMax(total, 1));
        m_dialog->setValue(qBound(0, done, qMax(total, 1)));
        m_dialog->setLabelText(tr("%1 of %2").arg(done).arg(total));
    }

    // Keep the window painted while the files decode; until the dialog stands
    // between the user and the window, input waits as it does for a panel.
    QCoreApplication::processEvents(m_dialog ? QEventLoop::AllEvents : QEventLoop::ExcludeUserInputEvents);
    if (m_dialog && m_dialog->wasCanceled())
        m_cancelled = true;
    return !m_cancelled;
}

} // namespace orvane
