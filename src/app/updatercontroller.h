// The one holder of Orvane's updater: background checks at launch and once a
// day, and the user-initiated check behind "Check for Updates…".
#pragma once

#include <memory>
#include <optional>

#include <QIcon>
#include <QObject>
#include <QPointer>
#include <QString>

#include "app/appcast.h"
#include "app/updatechecker.h"
#include "app/updatedialog.h"

class QAction;
class QSettings;
class QTimer;
class QWidget;

namespace orvane {

/// Owns an UpdateChecker, the daily schedule and the update dialog. Main
/// thread only. The automatic-check setting is the only state Orvane keeps.
class UpdaterController : public QObject {
    Q_OBJECT

public:
    /// The application's instance, configured from the build; created on
    /// first use (thread-safe) as a child of the application object, so it
    /// lives until the application ends. Needs a QApplication.
    static UpdaterController& shared();

    /// config as for UpdateChecker; settings holds the automatic-check choice
    /// (taken over; must not be null).
    UpdaterController(UpdateChecker::Config config, std::unique_ptr<QSettings> settings,
                      QObject* parent = nullptr);
    ~UpdaterController() override;

    UpdateChecker& checker() { return *m_checker; }

    /// Starts background checking: a check now when automatic checks are on,
    /// then one a day while the application runs. Later calls do nothing.
    void start();
    bool isStarted() const { return m_started; }

    /// Whether checks run in the background. Defaults to on when a feed is
    /// configured; always off without one.
    bool automaticallyChecksForUpdates() const;
    /// Stores the choice and starts or stops the daily schedule.
    void setAutomaticallyChecksForUpdates(bool on);

    /// The window every update dialog belongs to, whichever application is
    /// active when a background check finishes: the dialog closes with it and
    /// never keeps Orvane running on its own. Null: dialogs have no parent.
    void setWindow(QWidget* window);

    /// The user-initiated check: shows the update dialog with its progress,
    /// then the outcome. A non-null window becomes the dialogs' window (see
    /// setWindow). Asking again while a check runs shows the same dialog and
    /// the same running check.
    void checkForUpdates(QWidget* window = nullptr);

    /// The dialog as last shown, or null when none has been made (or its parent was closed).
    UpdateDialog* dialog() const { return m_dialog; }

    /// The "Check for Updates…" icon: the theme's view-refresh, or the bundled one.
    static QIcon checkForUpdatesIcon();

    /// A new "Check for Updates…" action (always enabled, no shortcut) that
    /// runs checkForUpdates(window) on this controller; window becomes the
    /// dialogs' window at once. parent owns the action.
    QAction* makeCheckForUpdatesAction(QWidget* window, QObject* parent);

private:
    UpdateDialog* ensureDialog();
    void onCheckFinished(const UpdateChecker::CheckResult& result);
    void onDownloadFinished(const UpdateChecker::DownloadResult& result);
    void updateSchedule();

    std::unique_ptr<QSettings> m_settings;
    UpdateChecker* m_checker = nullptr;
    QTimer* m_daily = nullptr;
    QPointer<QWidget> m_window;
    QPointer<UpdateDialog> m_dialog;
    std::optional<AppcastItem> m_offered;
    QString m_downloadedPath;
    QString m_lastAnnounced; // the version a background check last put on screen
    bool m_userWaiting = false;
    bool m_started = false;
};

} // namespace orvane
