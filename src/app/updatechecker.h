// The network side of updates: fetching the feed and its signature, choosing
// the release to offer, downloading it and keeping it only when it verifies.
// No widgets.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include <QByteArray>
#include <QByteArrayView>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include "app/appcast.h"

class QNetworkAccessManager;
class QNetworkReply;
class QTemporaryFile;
class QTimer;

namespace orvane {

/// Checks the update feed and downloads releases. Main thread only; every
/// result arrives through a signal, never from inside the call that asked.
class UpdateChecker : public QObject {
    Q_OBJECT

public:
    /// The largest update Orvane downloads, in bytes (1 GiB).
    static constexpr qint64 maxUpdateBytes = qint64(1) << 30;
    /// The largest feed signature file read, in bytes; a real one is 89.
    static constexpr qint64 maxSignatureFileBytes = 1024;
    /// How much of a download Qt may hold in memory before Orvane writes it out.
    static constexpr qint64 downloadBufferBytes = 256 * 1024;

    /// What the checker works with. The application takes these from the
    /// build; tests give their own server and key.
    struct Config {
        QUrl feedUrl;                 ///< empty: no feed, nothing touches the network
        QByteArray publicKey;         ///< base64 Ed25519 public key (32 bytes decoded)
        QString currentVersion;       ///< the running version, dot-separated integers
        /// A transfer that receives nothing for this long is abandoned.
        std::chrono::milliseconds transferTimeout{30'000};
        /// A feed check that has not finished after this long is abandoned.
        std::chrono::milliseconds checkDeadline{120'000};
        qint64 maxFeedBytes = 1 << 20; ///< a larger feed is refused
        /// An update announced as larger than this is refused before any byte is asked for.
        qint64 maxDownloadBytes = maxUpdateBytes;
        /// Where verified downloads are kept; empty: the user's download folder.
        QString downloadDirectory;
        /// For tests only: also accept plain http to 127.0.0.1, ::1 and
        /// localhost. The application never sets it; every other address must
        /// be https.
        bool allowLoopbackHttp = false;
    };

    enum class CheckStatus {
        NoFeed,          ///< this build has no feed: updates come from the package manager
        UpdateAvailable, ///< update holds the newest release above the running version
        UpToDate,        ///< the feed offers nothing newer
        Failed,          ///< error holds the reason
    };

    struct CheckResult {
        CheckStatus status = CheckStatus::Failed;
        std::optional<AppcastItem> update; ///< set with UpdateAvailable only
        QString error;                     ///< translated reason, set with Failed only
    };

    struct DownloadResult {
        bool ok = false;
        QString filePath; ///< the verified file, set when ok
        QString error;    ///< translated reason, set when not ok
    };

    explicit UpdateChecker(Config config, QObject* parent = nullptr);
    ~UpdateChecker() override;

    const Config& config() const { return m_config; }
    /// True when the build (or test) configured a feed address.
    bool hasFeed() const;
    bool isChecking() const { return m_checkReply != nullptr; }
    bool isDownloading() const { return m_downloadReply != nullptr; }

    /// True when url may be asked at all: https with a host, or (with
    /// allowLoopbackHttp) http to a loopback host.
    bool isAllowedAddress(const QUrl& url) const;
    /// True when a request for from may follow a redirect to to: an allowed
    /// address on the same host.
    bool isAllowedRedirect(const QUrl& from, const QUrl& to) const;
    /// Where the feed's detached signature lives: the feed's address with
    /// ".sig" added to its path.
    static QUrl signatureUrl(const QUrl& feedUrl);

    /// Starts a check: the feed, then its signature, which must be the
    /// configured key's signature of the feed's exact bytes before anything
    /// in the feed is read. checkFinished() follows once. A check asked for while
    /// one is running joins it, and both are answered by the one signal.
    void check();

    /// Downloads item's enclosure into the download directory. Refused up
    /// front when the address is not allowed, the announced length is above
    /// maxDownloadBytes or the folder lacks the space. The file is kept only
    /// when its length and signature verify; otherwise it is deleted.
    /// downloadFinished() follows once. Ignored while a download runs.
    void download(const AppcastItem& item);

    /// Abandons a running download (its partial file is deleted); downloadFinished() reports it.
    void cancelDownload();

    /// True when signature (64 bytes) is publicKey's (32 bytes) Ed25519 signature of message.
    static bool verifySignature(QByteArrayView message, QByteArrayView signature,
                                QByteArrayView publicKey);

Q_SIGNALS:
    void checkFinished(const orvane::UpdateChecker::CheckResult& result);
    /// Bytes received so far of total (the length the feed announced).
    void downloadProgress(qint64 received, qint64 total);
    void downloadFinished(const orvane::UpdateChecker::DownloadResult& result);

private:
    enum class Abort { None, TooLarge, Deadline, WriteFailed, Cancelled, Redirect };
    enum class CheckStage { Feed, Signature };

    QNetworkAccessManager* network();
    QByteArray decodedPublicKey() const;
    QNetworkReply* get(const QUrl& url, Abort& abort);
    QString networkFailure(QNetworkReply* reply, bool neverAnswered) const;
    QString redirectRefusal() const;
    static QString saveFailure(const QString& folder, const QString& why);
    void fetchForCheck(const QUrl& url, qint64 maxBytes);
    void finishCheck(const CheckResult& result);
    void onCheckReplyFinished();
    void onFeedAndSignatureFetched();
    void onDownloadReadyRead();
    /// Appends to the download file; false when the download must be abandoned.
    bool storeDownloadChunk(const QByteArray& chunk);
    void onDownloadReplyFinished();
    void finishDownload(const DownloadResult& result);
    QString finalDownloadPath(const QString& directory) const;

    Config m_config;
    QNetworkAccessManager* m_network = nullptr;

    QNetworkReply* m_checkReply = nullptr;
    QTimer* m_checkDeadline = nullptr;
    CheckStage m_checkStage = CheckStage::Feed;
    qint64 m_checkLimit = 0;
    QByteArray m_checkBody; // the document being fetched
    QByteArray m_feed;      // the feed, kept while its signature is fetched
    Abort m_checkAbort = Abort::None;
    QUrl m_refusedRedirect;

    QNetworkReply* m_downloadReply = nullptr;
    std::unique_ptr<QTemporaryFile> m_downloadFile;
    std::optional<AppcastItem> m_downloadItem;
    QString m_downloadDirectory;
    qint64 m_downloadReceived = 0;
    Abort m_downloadAbort = Abort::None;
};

} // namespace orvane

Q_DECLARE_METATYPE(orvane::UpdateChecker::CheckResult)
Q_DECLARE_METATYPE(orvane::UpdateChecker::DownloadResult)
