#include "app/updatercontroller.h"

#include <chrono>
#include <utility>

#include <QAction>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QFileInfo>
#include <QSettings>
#include <QTimer>
#include <QUrl>
#include <QWidget>

#include "app/buildconfig.h"
#include "app/updatedialog.h"

namespace orvane {

namespace {

const QString kAutomaticKey = QStringLiteral("updates/checkAutomatically");
constexpr std::chrono::hours kCheckInterval{24};

} // namespace

UpdaterController& UpdaterController::shared()
{
    static UpdaterController* const instance = [] {
        UpdateChecker::Config config;
        config.feedUrl = QUrl(QString::fromUtf8(BuildConfig::updateFeedUrl), QUrl::StrictMode);
        config.publicKey = QByteArray(BuildConfig::updatePublicKey);
        config.currentVersion = QString::fromUtf8(BuildConfig::version);
        auto settings = std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                                    QStringLiteral("Orvane"), QStringLiteral("Orvane"));
        return new UpdaterController(std::move(config), std::move(settings), qApp);
    }();
    return *instance;
}

UpdaterController::UpdaterController(UpdateChecker::Config config, std::unique_ptr<QSettings> settings,
                                     QObject* parent)
    : QObject(parent),
      m_settings(std::move(settings)),
      m_checker(new UpdateChecker(std::move(config), this)),
      m_daily(new QTimer(this))
{
    m_daily->setInterval(kCheckInterval);
    connect(m_daily, &QTimer::timeout, m_checker, &UpdateChecker::check);
    connect(m_checker, &UpdateChecker::checkFinished, this, &UpdaterController::onCheckFinished);
    connect(m_checker, &UpdateChecker::downloadFinished, this, &UpdaterController::onDownloadFinished);
    connect(m_checker, &UpdateChecker::downloadProgress, this, [this](qint64 received, qint64 total) {
        if (m_dialog)
            m_dialog->showDownloading(received, total);
    });
    // A dialog without a parent window would otherwise outlive the event
    // loop and be destroyed while the application object is being torn down.
    if (QCoreApplication* app = QCoreApplication::instance())
        connect(app, &QCoreApplication::aboutToQuit, this, [this] { delete m_dialog.data(); });
}

UpdaterController::~UpdaterController()
{
    delete m_dialog.data();
}

void UpdaterController::start()
{
    if (m_started)
        return;
    m_started = true;
    if (automaticallyChecksForUpdates())
        m_checker->check();
    updateSchedule();
}

bool UpdaterController::automaticallyChecksForUpdates() const
{
    return m_checker->hasFeed() && m_settings->value(kAutomaticKey, true).toBool();
}

void UpdaterController::setAutomaticallyChecksForUpdates(bool on)
{
    m_settings->setValue(kAutomaticKey, on);
    m_settings->sync();
    updateSchedule();
}

void UpdaterController::updateSchedule()
{
    if (m_started && automaticallyChecksForUpdates())
        m_daily->start();
    else
        m_daily->stop();
}

QIcon UpdaterController::checkForUpdatesIcon()
{
    return QIcon::fromTheme(QStringLiteral("view-refresh"),
                            QIcon(QStringLiteral(":/orvane/icons/view-refresh.svg")));
}

QAction* UpdaterController::makeCheckForUpdatesAction(QWidget* window, QObject* parent)
{
    auto* action = new QAction(checkForUpdatesIcon(), tr("Check for Updates…"), parent);
    action->setMenuRole(QAction::ApplicationSpecificRole);
    setWindow(window);
    QPointer<QWidget> guardedWindow(window);
    connect(action, &QAction::triggered, this, [this, guardedWindow] { checkForUpdates(guardedWindow); });
    return action;
}

void UpdaterController::setWindow(QWidget* window)
{
    m_window = window;
    if (m_dialog && window && m_dialog->parentWidget() != window) {
        const bool visible = m_dialog->isVisible();
        m_dialog->setParent(window, m_dialog->windowFlags());
        m_dialog->setVisible(visible);
    }
}

UpdateDialog* UpdaterController::ensureDialog()
{
    if (!m_dialog) {
        m_dialog = new UpdateDialog(m_window);
        connect(m_dialog, &UpdateDialog::automaticChecksToggled, this,
                &UpdaterController::setAutomaticallyChecksForUpdates);
        connect(m_dialog, &UpdateDialog::downloadRequested, this, [this] {
            if (m_offered && !m_checker->isDownloading()) {
                m_dialog->showDownloading(0, m_offered->enclosureLength);
                m_checker->download(*m_offered);
            }
        });
        connect(m_dialog, &UpdateDialog::cancelDownloadRequested, m_checker,
                &UpdateChecker::cancelDownload);
        connect(m_dialog, &UpdateDialog::showInFolderRequested, this, [this] {
            if (!m_downloadedPath.isEmpty())
                QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(m_downloadedPath).absolutePath()));
        });
        // Closing the window abandons a download nobody is watching any more.
        connect(m_dialog, &QDialog::finished, m_checker, &UpdateChecker::cancelDownload);
    }
    m_dialog->setAutomaticChecks(automaticallyChecksForUpdates(), m_checker->hasFeed());
    return m_dialog;
}

void UpdaterController::checkForUpdates(QWidget* window)
{
    if (window)
        setWindow(window);
    UpdateDialog* dialog = ensureDialog();
    if (!m_checker->isDownloading()) {
        m_userWaiting = true;
        dialog->showChecking();
        m_checker->check();
    }
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
}

void UpdaterController::onCheckFinished(const UpdateChecker::CheckResult& result)
{
    const bool userWaiting = std::exchange(m_userWaiting, false);
    if (result.status == UpdateChecker::CheckStatus::UpdateAvailable)
        m_offered = result.update;
    else if (result.status == UpdateChecker::CheckStatus::UpToDate)
        m_offered.reset();

    const QString current = m_checker->config().currentVersion;
    if (!userWaiting) {
        // A background check speaks only when it has something new to offer,
        // and only once per version while the application runs.
        if (result.status != UpdateChecker::CheckStatus::UpdateAvailable
            || result.update->version == m_lastAnnounced || m_checker->isDownloading())
            return;
        m_lastAnnounced = result.update->version;
        ensureDialog()->showUpdate(*result.update, current);
        m_dialog->show();
        return;
    }

    if (!m_dialog)
        return;
    switch (result.status) {
    case UpdateChecker::CheckStatus::NoFeed:
        m_dialog->showNoFeed();
        break;
    case UpdateChecker::CheckStatus::UpdateAvailable:
        m_lastAnnounced = result.update->version;
        m_dialog->showUpdate(*result.update, current);
        break;
    case UpdateChecker::CheckStatus::UpToDate:
        m_dialog->showUpToDate(current);
        break;
    case UpdateChecker::CheckStatus::Failed:
        m_dialog->showCheckFailed(result.error);
        break;
    }
}

void UpdaterController::onDownloadFinished(const UpdateChecker::DownloadResult& result)
{
    if (result.ok)
        m_downloadedPath = result.filePath;
    if (!m_dialog)
        return;
    if (result.ok)
        m_dialog->showDownloaded(result.filePath);
    else
        m_dialog->showDownloadFailed(result.error);
}

} // namespace orvane
