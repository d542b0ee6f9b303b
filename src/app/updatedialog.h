// The window of a user-initiated update check: its progress, its outcome,
// the download, and the automatic-check setting.
#pragma once

#include <QDialog>
#include <QString>

#include "app/appcast.h"

class QCheckBox;
class QLabel;
class QProgressBar;
class QPushButton;

namespace orvane {

/// Shows one state at a time; UpdaterController drives it and listens to its
/// requests. Main thread. Every fixed text is translatable.
class UpdateDialog : public QDialog {
    Q_OBJECT

public:
    explicit UpdateDialog(QWidget* parent = nullptr);

    void showChecking();
    /// The build has no feed: updates come from the system's package manager.
    void showNoFeed();
    void showUpToDate(const QString& currentVersion);
    void showUpdate(const AppcastItem& update, const QString& currentVersion);
    void showCheckFailed(const QString& reason);
    /// received of total bytes; total 0 when unknown.
    void showDownloading(qint64 received, qint64 total);
    void showDownloaded(const QString& filePath);
    /// The offered update stays, so Download can be tried again.
    void showDownloadFailed(const QString& reason);

    /// The check box's state; enabled only when automatic checks are possible.
    void setAutomaticChecks(bool on, bool possible);

    /// The texts shown now (for tests and accessibility checks).
    QString headline() const;
    QString message() const;

Q_SIGNALS:
    void downloadRequested();
    void cancelDownloadRequested();
    void showInFolderRequested();
    void automaticChecksToggled(bool on);

private:
    void setTexts(const QString& headline, const QString& message);
    void setButtons(bool download, bool cancelDownload, bool showInFolder);

    QLabel* m_headline = nullptr;
    QLabel* m_message = nullptr;
    QLabel* m_releaseNotes = nullptr;
    QProgressBar* m_progress = nullptr;
    QCheckBox* m_automatic = nullptr;
    QPushButton* m_download = nullptr;
    QPushButton* m_cancelDownload = nullptr;
    QPushButton* m_showInFolder = nullptr;
    QPushButton* m_close = nullptr;
    QString m_updateVersion;
};

} // namespace orvane
