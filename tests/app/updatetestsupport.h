// Feeds, signing keys and a local update server made in the test, for the updater tests.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <sodium.h>

#include "app/updatechecker.h"
#include "localhttpserver.h"

namespace orvane::test {

/// Generous bound for a signal that must come; the injected timeouts are far shorter.
constexpr int kWait = 20'000;

/// A fresh Ed25519 key pair.
struct SigningKey {
    QByteArray publicKey = QByteArray(crypto_sign_PUBLICKEYBYTES, '\0');
    QByteArray secretKey = QByteArray(crypto_sign_SECRETKEYBYTES, '\0');

    SigningKey()
    {
        if (sodium_init() < 0)
            qFatal("libsodium could not be initialised");
        crypto_sign_keypair(reinterpret_cast<unsigned char*>(publicKey.data()),
                            reinterpret_cast<unsigned char*>(secretKey.data()));
    }

    QByteArray publicKeyBase64() const { return publicKey.toBase64(); }

    /// The detached signature of message, base64-encoded as the feed carries it.
    QByteArray signBase64(const QByteArray& message) const
    {
        QByteArray signature(crypto_sign_BYTES, '\0');
        crypto_sign_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr,
                             reinterpret_cast<const unsigned char*>(message.constData()),
                             static_cast<unsigned long long>(message.size()),
                             reinterpret_cast<const unsigned char*>(secretKey.constData()));
        return signature.toBase64();
    }
};

/// One <item> of a test feed; empty fields are left out of the XML.
struct FeedItem {
    QString version;
    QString shortVersion;
    QString url;
    QString length;
    QByteArray signature; // base64
    QString releaseNotes;
    QString title;
};

/// bytes as a gzip file: what a server sends for a .tar.gz, and what Qt
/// would decompress if left to itself.
inline QByteArray gzipped(const QByteArray& bytes)
{
    quint32 crc = 0xffffffffu;
    for (const char c : bytes) {
        crc ^= quint8(c);
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    QByteArray trailer;
    for (const quint32 v : {~crc, quint32(bytes.size())})
        for (int i = 0; i < 4; ++i)
            trailer += char(v >> (8 * i));
    // qCompress gives a 4-byte length, a 2-byte zlib header, the raw deflate
    // stream and a 4-byte checksum; gzip wants the stream alone.
    return QByteArray("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10) + qCompress(bytes).mid(6).chopped(4) + trailer;
}

inline QByteArray makeFeed(const QList<FeedItem>& items)
{
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                     "<rss version=\"2.0\" xmlns:orvane=\"https://orvane.app/xml/appcast\">\n"
                     "<channel><title>Orvane</title>\n";
    for (const FeedItem& item : items) {
        xml += "<item>";
        if (!item.title.isEmpty())
            xml += "<title>" + item.title.toHtmlEscaped().toUtf8() + "</title>";
        xml += "<pubDate>Mon, 23 Nov 2026 09:00:00 +0000</pubDate>";
        if (!item.version.isEmpty())
            xml += "<orvane:version>" + item.version.toUtf8() + "</orvane:version>";
        if (!item.shortVersion.isEmpty())
            xml += "<orvane:shortVersionString>" + item.shortVersion.toUtf8()
                + "</orvane:shortVersionString>";
        if (!item.releaseNotes.isEmpty())
            xml += "<orvane:releaseNotesLink>" + item.releaseNotes.toHtmlEscaped().toUtf8()
                + "</orvane:releaseNotesLink>";
        xml += "<enclosure";
        if (!item.url.isEmpty())
            xml += " url=\"" + item.url.toHtmlEscaped().toUtf8() + "\"";
        if (!item.length.isEmpty())
            xml += " length=\"" + item.length.toUtf8() + "\"";
        xml += " type=\"application/octet-stream\"";
        if (!item.signature.isEmpty())
            xml += " orvane:edSignature=\"" + item.signature + "\"";
        xml += "/></item>\n";
    }
    xml += "</channel></rss>\n";
    return xml;
}

/// Serves feed at path with key's signature (or signature, when given) at path.sig.
inline void serveFeed(LocalHttpServer& server, const SigningKey& key, const QByteArray& feed,
                      const QByteArray& signature = {}, const QString& path = QStringLiteral("/feed.xml"))
{
    server.setResponse(path, {200, "OK", feed, "application/rss+xml"});
    server.setResponse(path + QStringLiteral(".sig"),
                       {200, "OK", signature.isNull() ? key.signBase64(feed) : signature, "text/plain"});
}

/// An updater at version 1.0 reading /feed.xml from server over loopback http,
/// verifying with publicKey (base64) and keeping downloads in downloads.
inline UpdateChecker::Config testConfig(const LocalHttpServer& server, const QByteArray& publicKey,
                                        const QString& downloads)
{
    using namespace std::chrono_literals;
    UpdateChecker::Config config;
    config.feedUrl = server.url(QStringLiteral("/feed.xml"));
    config.publicKey = publicKey;
    config.currentVersion = QStringLiteral("1.0");
    config.transferTimeout = 300ms;
    config.downloadDirectory = downloads;
    config.allowLoopbackHttp = true;
    return config;
}

} // namespace orvane::test
