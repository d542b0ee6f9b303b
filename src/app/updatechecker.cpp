#include "app/updatechecker.h"

#include <mutex>

#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStandardPaths>
#include <QStorageInfo>
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
    // Signatures cover the bytes as published. Asking for them unencoded also
    // keeps Qt from decompressing on its own: a server that labels a .tar.gz
    // "Content-Encoding: gzip" would otherwise hand over different bytes, and
    // a compressed feed could expand far beyond the size Orvane accepts.
    request.setRawHeader("Accept-Encoding", "identity");
    // Every redirect is checked by UpdateChecker before it is followed.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::UserVerifiedRedirectPolicy);
    request.setMaximumRedirectsAllowed(5);
    return request;
}

bool isLoopbackHost(const QString& host)
{
    return host == QLatin1String("127.0.0.1") || host == QLatin1String("::1")
        || host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0;
}

// An error text of Qt's, made to fit inside a sentence: no trailing colon or
// space (Qt leaves "Decompression failed: " and the like when it has no detail).
QString detail(QString text)
{
    text = text.trimmed();
    while (text.endsWith(u':') || text.endsWith(u'.'))
        text.chop(1);
    return text.trimmed();
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

// A size as people write it: "1 GiB", "64 KiB", "1.5 GiB".
QString sizeText(qint64 bytes)
{
    qint64 unit = 1;
    while (unit < (qint64(1) << 50) && bytes >= unit * 1024)
        unit *= 1024;
    return QLocale().formattedDataSize(bytes, bytes % unit == 0 ? 0 : 1);
}

} // namespace

QString UpdateChecker::saveFailure(const QString& folder, const QString& why)
{
    const QString shown = detail(why);
    return shown.isEmpty() ? tr("Couldn’t save the download in “%1”.").arg(folder)
                           : tr("Couldn’t save the download in “%1” (%2).").arg(folder, shown);
}

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

bool UpdateChecker::isAllowedAddress(const QUrl& url) const
{
    if (!url.isValid() || url.host().isEmpty() || !url.userInfo().isEmpty())
        return false;
    if (url.scheme() == QLatin1String("https"))
        return true;
    return m_config.allowLoopbackHttp && url.scheme() == QLatin1String("http")
        && isLoopbackHost(url.host());
}

bool UpdateChecker::isAllowedRedirect(const QUrl& from, const QUrl& to) const
{
    return isAllowedAddress(to) && to.host().compare(from.host(), Qt::CaseInsensitive) == 0
        && (to.scheme() == QLatin1String("https") || from.scheme() == to.scheme());
}

QUrl UpdateChecker::signatureUrl(const QUrl& feedUrl)
{
    QUrl url = feedUrl;
    url.setPath(url.path() + QStringLiteral(".sig"));
    return url;
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

QNetworkReply* UpdateChecker::get(const QUrl& url, Abort& abort)
{
    QNetworkReply* reply = network()->get(makeRequest(url, m_config));
    connect(reply, &QNetworkReply::redirected, this, [this, reply, url, &abort](const QUrl& target) {
        const QUrl next = reply->url().resolved(target);
        if (isAllowedRedirect(url, next)) {
            Q_EMIT reply->redirectAllowed();
        } else if (abort == Abort::None) {
            abort = Abort::Redirect;
            m_refusedRedirect = next;
            reply->abort();
        }
    });
    return reply;
}

QString UpdateChecker::redirectRefusal() const
{
    return tr("The update server sent Orvane on to “%1”, which isn’t an https address on the "
              "same server, so Orvane stopped.")
        .arg(m_refusedRedirect.toDisplayString());
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
    const QString why = detail(reply->errorString());
    const QNetworkReply::NetworkError error = reply->error();
    if (error == QNetworkReply::SslHandshakeFailedError)
        return why.isEmpty() ? tr("Couldn’t make a secure connection to the update server.")
                             : tr("Couldn’t make a secure connection to the update server (%1).").arg(why);
    // Qt numbers connection and proxy failures below 200; above, the server
    // was reached and its answer was the problem.
    if (error < QNetworkReply::ContentAccessDenied)
        return why.isEmpty() ? tr("Couldn’t reach the update server.")
                             : tr("Couldn’t reach the update server (%1).").arg(why);
    return why.isEmpty() ? tr("The update server’s answer couldn’t be read.")
                         : tr("The update server’s answer couldn’t be read (%1).").arg(why);
}

// ---- Checking ------------------------------------------------------------

void UpdateChecker::check()
{
    if (m_checkReply)
        return; // joins the running check

    auto failSoon = [this](const QString& reason) {
        QTimer::singleShot(0, this, [this, reason] { Q_EMIT checkFinished({CheckStatus::Failed, {}, reason}); });
    };
    if (!hasFeed()) {
        QTimer::singleShot(0, this, [this] { Q_EMIT checkFinished({CheckStatus::NoFeed, {}, {}}); });
        return;
    }
    if (decodedPublicKey().isEmpty()) {
        failSoon(tr("This copy of Orvane has no valid key to verify updates."));
        return;
    }
    if (!isAllowedAddress(m_config.feedUrl)) {
        failSoon(tr("The update feed’s address “%1” isn’t an https address, so Orvane doesn’t use it.")
                     .arg(m_config.feedUrl.toDisplayString()));
        return;
    }

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
    m_feed.clear();
    m_checkStage = CheckStage::Feed;
    fetchForCheck(m_config.feedUrl, m_config.maxFeedBytes);
}

void UpdateChecker::fetchForCheck(const QUrl& url, qint64 maxBytes)
{
    m_checkBody.clear();
    m_checkLimit = maxBytes;
    m_checkAbort = Abort::None;
    m_checkReply = get(url, m_checkAbort);
    QNetworkReply* reply = m_checkReply;

    auto refuseIfTooLarge = [this, reply](qint64 size) {
        if (size > m_checkLimit && m_checkAbort == Abort::None) {
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
            || refuseIfTooLarge(m_checkBody.size() + reply->bytesAvailable()))
            return;
        m_checkBody += reply->readAll();
    });
    connect(reply, &QNetworkReply::finished, this, &UpdateChecker::onCheckReplyFinished);
}

void UpdateChecker::onCheckReplyFinished()
{
    QNetworkReply* reply = m_checkReply;
    if (!reply)
        return;
    m_checkReply = nullptr;
    reply->deleteLater();

    const bool signature = m_checkStage == CheckStage::Signature;
    auto fail = [this](const QString& reason) {
        m_checkDeadline->stop();
        m_feed.clear();
        m_checkBody.clear();
        finishCheck({CheckStatus::Failed, {}, reason});
    };
    auto tooLarge = [&] {
        fail(signature ? tr("The update feed’s signature isn’t valid, so Orvane didn’t use the feed.")
                       : tr("The update feed is larger than %1.").arg(sizeText(m_config.maxFeedBytes)));
    };

    if (m_checkAbort == Abort::TooLarge)
        return tooLarge();
    if (m_checkAbort == Abort::Redirect)
        return fail(redirectRefusal());
    // A transfer timeout shows up as a cancelled operation that we did not cancel.
    const bool neverAnswered = m_checkAbort == Abort::Deadline
        || reply->error() == QNetworkReply::OperationCanceledError;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const bool httpFailure = status.isValid() && (status.toInt() < 200 || status.toInt() > 299);
    if (signature && !neverAnswered && status.toInt() == 404)
        return fail(tr("The update feed isn’t signed, so Orvane didn’t use it."));
    if (reply->error() != QNetworkReply::NoError || httpFailure || neverAnswered)
        return fail(networkFailure(reply, neverAnswered));

    m_checkBody += reply->readAll();
    if (m_checkBody.size() > m_checkLimit)
        return tooLarge();

    if (!signature) {
        // The feed is kept unread until its signature has been checked.
        m_feed = std::exchange(m_checkBody, {});
        m_checkStage = CheckStage::Signature;
        fetchForCheck(signatureUrl(m_config.feedUrl), maxSignatureFileBytes);
        return;
    }
    m_checkDeadline->stop();
    onFeedAndSignatureFetched();
}

void UpdateChecker::onFeedAndSignatureFetched()
{
    const QByteArray feed = std::exchange(m_feed, {});
    const auto signature = QByteArray::fromBase64Encoding(std::exchange(m_checkBody, {}).trimmed(),
                                                          QByteArray::AbortOnBase64DecodingErrors);
    if (!signature || !verifySignature(feed, signature.decoded, decodedPublicKey())) {
        finishCheck({CheckStatus::Failed, {},
                     tr("The update feed’s signature isn’t valid, so Orvane didn’t use the feed.")});
        return;
    }

    const Appcast::ParseResult parsed = Appcast::parse(feed);
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
    if (!isAllowedAddress(item.enclosureUrl)) {
        fail(tr("The update’s address “%1” isn’t an https address, so Orvane didn’t download it.")
                 .arg(item.enclosureUrl.toDisplayString()));
        return;
    }
    if (item.enclosureLength > m_config.maxDownloadBytes) {
        fail(tr("The update feed announces %1 for this update, more than the %2 Orvane accepts, "
                "so it wasn’t downloaded.")
                 .arg(sizeText(item.enclosureLength), sizeText(m_config.maxDownloadBytes)));
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
    const QStorageInfo storage(directory);
    if (storage.isValid() && storage.bytesAvailable() >= 0 && storage.bytesAvailable() < item.enclosureLength) {
        fail(tr("There isn’t enough free space in “%1” for the update: it needs %2, and %3 are free.")
                 .arg(QDir::toNativeSeparators(directory), sizeText(item.enclosureLength),
                      sizeText(storage.bytesAvailable())));
        return;
    }

    // The bytes go to a hidden temporary file next to their destination: it
    // is removed automatically unless it verifies and is renamed into place.
    auto file = std::make_unique<QTemporaryFile>(directory + QStringLiteral("/.orvane-download-XXXXXX"));
    if (!file->open()) {
        fail(saveFailure(QDir::toNativeSeparators(directory), file->errorString()));
        return;
    }

    m_downloadFile = std::move(file);
    m_downloadItem = item;
    m_downloadDirectory = directory;
    m_downloadReceived = 0;
    m_downloadAbort = Abort::None;
    m_downloadReply = get(item.enclosureUrl, m_downloadAbort);
    // Bytes are written out as they come; Qt holds no more than this meanwhile.
    m_downloadReply->setReadBufferSize(downloadBufferBytes);
    QNetworkReply* reply = m_downloadReply;
    connect(reply, &QNetworkReply::metaDataChanged, this, [this, reply] {
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        if (length.isValid() && length.toLongLong() > m_downloadItem->enclosureLength
            && m_downloadAbort == Abort::None) {
            m_downloadAbort = Abort::TooLarge;
            reply->abort();
        }
    });
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
                        saveFailure(folder, m_downloadFile->errorString())});
        return;
    case Abort::Cancelled:
        finishDownload({false, {}, tr("The download was cancelled.")});
        return;
    case Abort::Redirect:
        finishDownload({false, {}, redirectRefusal()});
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
                        saveFailure(folder, m_downloadFile->errorString())});
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
                        saveFailure(folder, m_downloadFile->errorString())});
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
