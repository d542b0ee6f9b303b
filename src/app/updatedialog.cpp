#include "app/updatedialog.h"

#include <algorithm>

#include <QApplication>
#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include "app/openexternal.h"

namespace orvane {

UpdateDialog::UpdateDialog(QWidget* parent) : QDialog(parent)
{
    setWindowTitle(tr("Software Update"));
    setObjectName(QStringLiteral("updateDialog"));

    auto* icon = new QLabel(this);
    const QIcon appIcon = QApplication::windowIcon();
    if (!appIcon.isNull())
        icon->setPixmap(appIcon.pixmap(64, 64));
    icon->setAlignment(Qt::AlignTop);

    m_headline = new QLabel(this);
    m_headline->setObjectName(QStringLiteral("headline"));
    QFont bold = m_headline->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.15);
    m_headline->setFont(bold);
    m_headline->setWordWrap(true);
    m_headline->setTextFormat(Qt::PlainText);

    m_message = new QLabel(this);
    m_message->setObjectName(QStringLiteral("message"));
    m_message->setWordWrap(true);
    m_message->setTextFormat(Qt::PlainText);
    m_message->setTextInteractionFlags(Qt::TextSelectableByMouse);

    m_releaseNotes = new QLabel(this);
    m_releaseNotes->setObjectName(QStringLiteral("releaseNotes"));
    m_releaseNotes->setTextFormat(Qt::RichText);
    m_releaseNotes->setTextInteractionFlags(Qt::LinksAccessibleByMouse | Qt::LinksAccessibleByKeyboard);
    connect(m_releaseNotes, &QLabel::linkActivated, this, [](const QString& link) { openExternal(link); });

    m_progress = new QProgressBar(this);
    m_progress->setObjectName(QStringLiteral("progress"));
    m_progress->setTextVisible(false);

    m_automatic = new QCheckBox(tr("Check for updates automatically"), this);
    m_automatic->setObjectName(QStringLiteral("automaticChecks"));
    connect(m_automatic, &QCheckBox::toggled, this, &UpdateDialog::automaticChecksToggled);

    auto* buttons = new QDialogButtonBox(this);
    m_download = buttons->addButton(tr("Download"), QDialogButtonBox::AcceptRole);
    m_download->setObjectName(QStringLiteral("download"));
    m_cancelDownload = buttons->addButton(tr("Cancel Download"), QDialogButtonBox::ActionRole);
    m_cancelDownload->setObjectName(QStringLiteral("cancelDownload"));
    m_showInFolder = buttons->addButton(tr("Show in Folder"), QDialogButtonBox::ActionRole);
    m_showInFolder->setObjectName(QStringLiteral("showInFolder"));
    m_close = buttons->addButton(tr("Close"), QDialogButtonBox::RejectRole);
    m_close->setObjectName(QStringLiteral("close"));
    // The box's accepted()/rejected() stay unconnected: only Close ends the dialog.
    connect(m_download, &QPushButton::clicked, this, &UpdateDialog::downloadRequested);
    connect(m_cancelDownload, &QPushButton::clicked, this, &UpdateDialog::cancelDownloadRequested);
    connect(m_showInFolder, &QPushButton::clicked, this, &UpdateDialog::showInFolderRequested);
    connect(m_close, &QPushButton::clicked, this, &QDialog::reject);

    auto* text = new QVBoxLayout;
    text->addWidget(m_headline);
    text->addWidget(m_message);
    text->addWidget(m_releaseNotes);
    text->addWidget(m_progress);
    text->addStretch(1);

    auto* top = new QHBoxLayout;
    top->addWidget(icon);
    top->addLayout(text, 1);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top, 1);
    layout->addWidget(m_automatic);
    layout->addWidget(buttons);

    setMinimumWidth(420);
    showChecking();
}

void UpdateDialog::setTexts(const QString& headline, const QString& message)
{
    m_headline->setText(headline);
    m_message->setText(message);
    m_message->setVisible(!message.isEmpty());
}

void UpdateDialog::setButtons(bool download, bool cancelDownload, bool showInFolder)
{
    m_download->setVisible(download);
    m_cancelDownload->setVisible(cancelDownload);
    m_showInFolder->setVisible(showInFolder);
    if (download)
        m_download->setDefault(true);
    else if (showInFolder)
        m_showInFolder->setDefault(true);
    else
        m_close->setDefault(true);
}

void UpdateDialog::showChecking()
{
    setTexts(tr("Checking for updates…"), QString());
    m_releaseNotes->hide();
    m_progress->setRange(0, 0);
    m_progress->show();
    setButtons(false, false, false);
}

void UpdateDialog::showNoFeed()
{
    setTexts(tr("Updates come from your system."),
             tr("This copy of Orvane is kept up to date by your system’s package manager."));
    m_releaseNotes->hide();
    m_progress->hide();
    setButtons(false, false, false);
}

void UpdateDialog::showUpToDate(const QString& currentVersion)
{
    setTexts(tr("You’re up to date."),
             tr("Orvane %1 is the newest version available.").arg(currentVersion));
    m_releaseNotes->hide();
    m_progress->hide();
    setButtons(false, false, false);
}

void UpdateDialog::showUpdate(const AppcastItem& update, const QString& currentVersion)
{
    m_updateVersion = update.displayVersion();
    setTexts(tr("A new version of Orvane is available."),
             tr("Orvane %1 is available — you have %2. Download it now?")
                 .arg(m_updateVersion, currentVersion));
    if (update.releaseNotesLink.isEmpty()) {
        m_releaseNotes->hide();
    } else {
        m_releaseNotes->setText(QStringLiteral("<a href=\"%1\">%2</a>")
                                    .arg(update.releaseNotesLink.toString(QUrl::FullyEncoded).toHtmlEscaped(),
                                         tr("Release Notes").toHtmlEscaped()));
        m_releaseNotes->show();
    }
    m_progress->hide();
    setButtons(true, false, false);
}

void UpdateDialog::showCheckFailed(const QString& reason)
{
    setTexts(tr("Couldn’t check for updates."), reason);
    m_releaseNotes->hide();
    m_progress->hide();
    setButtons(false, false, false);
}

void UpdateDialog::showDownloading(qint64 received, qint64 total)
{
    setTexts(tr("Downloading Orvane %1…").arg(m_updateVersion), QString());
    m_releaseNotes->hide();
    if (total > 0) {
        // Percent steps keep the range inside int for any file size.
        m_progress->setRange(0, 100);
        m_progress->setValue(int(std::clamp<qint64>(received * 100 / total, 0, 100)));
    } else {
        m_progress->setRange(0, 0);
    }
    m_progress->show();
    setButtons(false, true, false);
}

void UpdateDialog::showDownloaded(const QString& filePath)
{
    setTexts(tr("The update is ready."),
             tr("Orvane %1 was downloaded and verified as “%2”. Orvane doesn’t install it "
                "itself: open it from its folder.")
                 .arg(m_updateVersion, QFileInfo(filePath).fileName()));
    m_releaseNotes->hide();
    m_progress->hide();
    setButtons(false, false, true);
}

void UpdateDialog::showDownloadFailed(const QString& reason)
{
    setTexts(tr("Couldn’t download the update."), reason);
    m_releaseNotes->hide();
    m_progress->hide();
    setButtons(true, false, false);
}

void UpdateDialog::setAutomaticChecks(bool on, bool possible)
{
    const QSignalBlocker blocker(m_automatic);
    m_automatic->setChecked(on);
    m_automatic->setEnabled(possible);
}

QString UpdateDialog::headline() const
{
    return m_headline->text();
}

QString UpdateDialog::message() const
{
    return m_message->text();
}

} // namespace orvane
