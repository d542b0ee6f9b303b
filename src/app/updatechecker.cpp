#include "app/updatechecker.h"

#include <mutex>

#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStandardPaths>
#include <QTemporaryFile>
#include <QTimer>

#include <sodium.h>

namespace orvane {

namespace {

constexpr int kPublicKeyBytes = crypto_sign_PUBLICKEYBYTES;
constexpr int kSignatureBytes = crypto_sign_BYTES;

QNetworkRequest makeRequest(const QUrl& url, const UpdateChecker::Config& config)
{
    QNetworkRequest request(url);
    request.setTransferTimeout(int(config.transferTimeout.count()));
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setHeader(QNetworkRequest::UserAgentHeader,
                      QStringLiteral("Orvane/%1").arg(config.currentVersion));
    return request;
}

// A name for the kept download taken from the address, never hidden and never
// leaving the download folder.
QString downloadFileName(const AppcastItem& item)
{
    QString name = item.enclosureUrl.fileName();
    while (name.startsWith(u'.'))
        name.remove(0, 1);
    name.remove(u'/');
    name.remove(u'\\');
    if (name.isEmpty())
        name = QStringLiteral("Orvane-%1").arg(item.displayVersion());
    return name;
}

} // namespace

UpdateChecker::UpdateChecker(Config config, QObject* parent)
    : QObject(parent), m_config(std::move(config))
{
    static std::once_flag registered;
    std::call_once(registered, [] {
        qRegisterMetaType<CheckResult>();
        qRegisterMetaType<DownloadResult>();
    });
}

UpdateChecker::~UpdateChecker()
{
    // Aborting makes the replies emit finished() into a half-destroyed object:
    // disconnect first, then let the partial download file go with m_downloadFile.
    for (QNetworkReply* reply : {m_checkReply, m_downloadReply}) {
        if (reply) {
            reply->disconnect(this);
            reply->abort();
            reply->deleteLater();
        }
    }
}

bool UpdateChecker::hasFeed() const
{
    return m_config.feedUrl.isValid() && !m_config.feedUrl.isEmpty();
}

QNetworkAccessManager* UpdateChecker::network()
{
    // Created on first use, so that a build without a feed never opens the
    // network stack at all.
    if (!m_network)
        m_network = new QNetworkAccessManager(this);
    return m_network;
}

QByteArray UpdateChecker::decodedPublicKey() const
{
    const auto decoded = QByteArray::fromBase64Encoding(m_config.publicKey.trimmed(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    return decoded && decoded.decoded.size() == kPublicKeyBytes ? decoded.decoded : QByteArray();
}

bool UpdateChecker::verifySignature(QByteArrayView message, QByteArrayView signature,
                                    QByteArrayView publicKey)
{
    static const bool sodiumReady = sodium_init() >= 0;
    if (!sodiumReady || signature.size() != kSignatureBytes || publicKey.size() != kPublicKeyBytes)
        return false;
    return crypto_sign_verify_detached(reinterpret_cast<const unsigned char*>(signature.data()),
                                       reinterpret_cast<const unsigned char*>(message.data()),
                                       static_cast<unsigned long long>(message.size()),
                                       reinterpret_cast<const unsigned char*>(publicKey.data()))
        == 0;
}

QString UpdateChecker::networkFailure(QNetworkReply* reply, bool neverAnswered) const
{
    if (neverAnswered)
        return tr("The update server didn’t answer in time.");
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid()) {
        const int code = status.toInt();
        if (code < 200 || code > 299) {
            const QString reason =
                reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString().trimmed();
            return reason.isEmpty() ? tr("The update server answered with status %1.").arg(code)
                                    : tr("The update server answered with status %1 (%2).")
                                          .arg(code)
                                          .arg(reason);
        }
    }
    return tr("Couldn’t reach the update server: %1").arg(reply->errorString());
}

// ---- Checking ------------------------------------------------------------

void UpdateChecker::check()
{
    if (m_checkReply)
        return; // joins the running check

    if (!hasFeed()) {
        QTimer::singleShot(0, this, [this] { Q_EMIT checkFinished({CheckStatus::NoFeed, {}, {}}); });
        return;
    }
    if (decodedPublicKey().isEmpty()) {
        QTimer::singleShot(0, this, [this] {
            Q_EMIT checkFinished(
                {CheckStatus::Failed, {}, tr("This copy of Orvane has no valid key to verify updates.")});
        });
        return;
    }

    m_feed.clear();
    m_checkAbort = Abort::None;
    m_checkReply = network()->get(makeRequest(m_config.feedUrl, m_config));
    QNetworkReply* reply = m_checkReply;

    auto refuseIfTooLarge = [this, reply](qint64 size) {
        if (size > m_config.maxFeedBytes && m_checkAbort == Abort::None) {
            m_checkAbort = Abort::TooLarge;
            reply->abort();
            return true;
        }
        return false;
    };
    connect(reply, &QNetworkReply::metaDataChanged, this, [reply, refuseIfTooLarge] {
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        if (length.isValid())
            refuseIfTooLarge(length.toLongLong());
    });
    connect(reply, &QNetworkReply::readyRead, this, [this, reply, refuseIfTooLarge] {
        if (m_checkAbort != Abort::None
            || refuseIfTooLarge(m_feed.size() + reply->bytesAvailable()))
            return;
        m_feed += reply->readAll();
    });
    connect(reply, &QNetworkReply::finished, this, &UpdateChecker::onCheckReplyFinished);

    if (!m_checkDeadline) {
        m_checkDeadline = new QTimer(this);
        m_checkDeadline->setSingleShot(true);
        connect(m_checkDeadline, &QTimer::timeout, this, [this] {
            if (m_checkReply && m_checkAbort == Abort::None) {
                m_checkAbort = Abort::Deadline;
                m_checkReply->abort();
            }
        });
    }
    m_checkDeadline->start(m_config.checkDeadline);
}

void UpdateChecker::onCheckReplyFinished()
{
    QNetworkReply* reply = m_checkReply;
    if (!reply)
        return;
    m_checkReply = nullptr;
    m_checkDeadline->stop();
    reply->deleteLater();

    if (m_checkAbort == Abort::TooLarge) {
        finishCheck({CheckStatus::Failed, {},
                     tr("The update feed is larger than %1.")
                         .arg(QLocale().formattedDataSize(m_config.maxFeedBytes))});
        return;
    }
    // A transfer timeout shows up as a cancelled operation that we did not cancel.
    const bool neverAnswered = m_checkAbort == Abort::Deadline
        || reply->error() == QNetworkReply::OperationCanceledError;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const bool httpFailure = status.isValid() && (status.toInt() < 200 || status.toInt() > 299);
    if (reply->error() != QNetworkReply::NoError || httpFailure || neverAnswered) {
        finishCheck({CheckStatus::Failed, {}, networkFailure(reply, neverAnswered)});
        return;
    }

    m_feed += reply->readAll();
    if (m_feed.size() > m_config.maxFeedBytes) {
        finishCheck({CheckStatus::Failed, {},
                     tr("The update feed is larger than %1.")
                         .arg(QLocale().formattedDataSize(m_config.maxFeedBytes))});
        return;
    }
    const Appcast::ParseResult parsed = Appcast::parse(m_feed);
    m_feed.clear();
    if (!parsed.ok()) {
        finishCheck({CheckStatus::Failed, {}, parsed.error});
        return;
    }
    if (const AppcastItem* newest = Appcast::newestAbove(parsed.items, m_config.currentVersion))
        finishCheck({CheckStatus::UpdateAvailable, *newest, {}});
    else
        finishCheck({CheckStatus::UpToDate, {}, {}});
}

void UpdateChecker::finishCheck(const CheckResult& result)
{
    Q_EMIT checkFinished(result);
}

// ---- Downloading ---------------------------------------------------------

void UpdateChecker::download(const AppcastItem& item)
{
    if (m_downloadReply)
        return;

    auto fail = [this](QString reason) {
        QTimer::singleShot(0, this, [this, reason] { Q_EMIT downloadFinished({false, {}, reason}); });
    };
    if (decodedPublicKey().isEmpty()) {
        fail(tr("This copy of Orvane has no valid key to verify updates."));
        return;
    }

    QString directory = m_config.downloadDirectory;
    if (directory.isEmpty())
        directory = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    if (directory.isEmpty())
        directory = QDir::homePath();
    if (!QDir().mkpath(directory)) {
        fail(tr("Couldn’t create the folder “%1”.").arg(QDir::toNativeSeparators(directory)));
        return;
    }

    // The bytes go to a hidden temporary file next to their destination: it
    // is removed automatically unless it verifies and is renamed into place.
    auto file = std::make_unique<QTemporaryFile>(directory + QStringLiteral("/.orvane-download-XXXXXX"));
    if (!file->open()) {
        fail(tr("Couldn’t save the download in “%1”: %2")
                 .arg(QDir::toNativeSeparators(directory), file->errorString()));
        return;
    }

    m_downloadFile = std::move(file);
    m_downloadItem = item;
    m_downloadDirectory = directory;
    m_downloadReceived = 0;
    m_downloadAbort = Abort::None;
    m_downloadReply = network()->get(makeRequest(item.enclosureUrl, m_config));
    connect(m_downloadReply, &QNetworkReply::readyRead, this, &UpdateChecker::onDownloadReadyRead);
    connect(m_downloadReply, &QNetworkReply::finished, this, &UpdateChecker::onDownloadReplyFinished);
}

void UpdateChecker::cancelDownload()
{
    if (m_downloadReply && m_downloadAbort == Abort::None) {
        m_downloadAbort = Abort::Cancelled;
        m_downloadReply->abort();
    }
}

void UpdateChecker::onDownloadReadyRead()
{
    QNetworkReply* reply = m_downloadReply;
    if (reply && !storeDownloadChunk(reply->readAll()))
        reply->abort();
}

bool UpdateChecker::storeDownloadChunk(const QByteArray& chunk)
{
    if (m_downloadAbort != Abort::None)
        return true; // already being abandoned
    m_downloadReceived += chunk.size();
    if (m_downloadReceived > m_downloadItem->enclosureLength) {
        m_downloadAbort = Abort::TooLarge;
        return false;
    }
    if (m_downloadFile->write(chunk) != chunk.size()) {
        m_downloadAbort = Abort::WriteFailed;
        return false;
    }
    if (!chunk.isEmpty())
        Q_EMIT downloadProgress(m_downloadReceived, m_downloadItem->enclosureLength);
    return true;
}

void UpdateChecker::onDownloadReplyFinished()
{
    QNetworkReply* reply = m_downloadReply;
    if (!reply)
        return;
    m_downloadReply = nullptr;
    reply->deleteLater();
    if (reply->isOpen())
        storeDownloadChunk(reply->readAll()); // whatever arrived with the end of the transfer

    const AppcastItem item = *m_downloadItem;
    const QString folder = QDir::toNativeSeparators(m_downloadDirectory);
    switch (m_downloadAbort) {
    case Abort::TooLarge:
        finishDownload({false, {},
                        tr("The download is larger than the update feed announced, so it was deleted.")});
        return;
    case Abort::WriteFailed:
        finishDownload({false, {},
                        tr("Couldn’t save the download in “%1”: %2")
                            .arg(folder, m_downloadFile->errorString())});
        return;
    case Abort::Cancelled:
        finishDownload({false, {}, tr("The download was cancelled.")});
        return;
    case Abort::Deadline:
    case Abort::None:
        break;
    }
    const bool neverAnswered = reply->error() == QNetworkReply::OperationCanceledError;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const bool httpFailure = status.isValid() && (status.toInt() < 200 || status.toInt() > 299);
    if (reply->error() != QNetworkReply::NoError || httpFailure) {
        finishDownload({false, {}, networkFailure(reply, neverAnswered)});
        return;
    }
    if (!m_downloadFile->flush()) {
        finishDownload({false, {},
                        tr("Couldn’t save the download in “%1”: %2")
                            .arg(folder, m_downloadFile->errorString())});
        return;
    }
    if (m_downloadReceived != item.enclosureLength) {
        finishDownload({false, {},
                        tr("The download has %1 bytes instead of the %2 the update feed announced, "
                           "so it was deleted.")
                            .arg(m_downloadReceived)
                            .arg(item.enclosureLength)});
        return;
    }

    uchar* mapped = m_downloadFile->map(0, m_downloadReceived);
    const bool verified = mapped
        && verifySignature(QByteArrayView(mapped, m_downloadReceived), item.edSignature,
                           decodedPublicKey());
    if (mapped)
        m_downloadFile->unmap(mapped);
    if (!verified) {
        finishDownload({false, {},
                        tr("The download’s signature doesn’t match the update’s, so it was deleted.")});
        return;
    }

    const QString destination = finalDownloadPath(m_downloadDirectory);
    if (!m_downloadFile->rename(destination)) {
        finishDownload({false, {},
                        tr("Couldn’t save the download in “%1”: %2")
                            .arg(folder, m_downloadFile->errorString())});
        return;
    }
    m_downloadFile->setAutoRemove(false);
    m_downloadFile->setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner
                                   | QFileDevice::ReadGroup | QFileDevice::ReadOther);
    finishDownload({true, destination, {}});
}

QString UpdateChecker::finalDownloadPath(const QString& directory) const
{
    const QString name = downloadFileName(*m_downloadItem);
    const QDir dir(directory);
    if (!QFileInfo::exists(dir.filePath(name)))
        return dir.filePath(name);

    // "Orvane-2.0.tar.gz" becomes "Orvane-2.0 (2).tar.gz", not "Orvane-2.0.tar (2).gz".
    QString stem = name;
    QString suffix;
    for (const QString& known : {QStringLiteral(".tar.gz"), QStringLiteral(".tar.xz"),
                                QStringLiteral(".tar.zst"), QStringLiteral(".tar.bz2")}) {
        if (name.endsWith(known, Qt::CaseInsensitive)) {
            suffix = name.right(known.size());
            break;
        }
    }
    if (suffix.isEmpty()) {
        const qsizetype dot = name.lastIndexOf(u'.');
        if (dot > 0)
            suffix = name.mid(dot);
    }
    stem.chop(suffix.size());
    for (int n = 2;; ++n) {
        const QString candidate = dir.filePath(QStringLiteral("%1 (%2)%3").arg(stem).arg(n).arg(suffix));
        if (!QFileInfo::exists(candidate))
            return candidate;
    }
}

void UpdateChecker::finishDownload(const DownloadResult& result)
{
    m_downloadFile.reset(); // removes the temporary file unless it was kept
    m_downloadItem.reset();
    // Queued: cancelDownload() aborts synchronously, and its caller must not
    // hear the outcome from inside the call.
    QMetaObject::invokeMethod(
        this, [this, result] { Q_EMIT downloadFinished(result); }, Qt::QueuedConnection);
}

} // namespace orvane
