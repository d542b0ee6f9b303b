// orvane-release: the publisher's side of updates. Makes the Ed25519 key pair,
// signs a release file and prints its feed item, and signs the feed, so that
// Orvane can check both with the public key it was built with.

#include <cstdio>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QMimeDatabase>
#include <QSaveFile>
#include <QUrl>
#include <QXmlStreamReader>

#include <sodium.h>

#include "app/appcast.h"

namespace {

using orvane::Appcast;

constexpr int kUsage = 2;

void say(FILE* to, const QString& text)
{
    std::fputs(qPrintable(text + u'\n'), to);
}

int failure(const QString& text)
{
    say(stderr, QStringLiteral("orvane-release: ") + text);
    return 1;
}

const unsigned char* bytes(const QByteArray& data)
{
    return reinterpret_cast<const unsigned char*>(data.constData());
}

std::optional<QByteArray> readFile(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("can't read %1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    return file.readAll();
}

bool writeFile(const QString& path, const QByteArray& data, QFileDevice::Permissions permissions,
               QString* error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size()
        || !file.setPermissions(permissions) || !file.commit()) {
        *error = QStringLiteral("can't write %1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

// The secret key file holds libsodium's 64-byte secret key (seed and public
// key) in base64 on one line.
std::optional<QByteArray> readSecretKey(const QString& path, QString* error)
{
    const auto text = readFile(path, error);
    if (!text)
        return std::nullopt;
    const auto decoded =
        QByteArray::fromBase64Encoding(text->trimmed(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != crypto_sign_SECRETKEYBYTES) {
        *error = QStringLiteral("%1 is not a secret key made by orvane-release keygen").arg(path);
        return std::nullopt;
    }
    return decoded.decoded;
}

QByteArray publicKeyOf(const QByteArray& secretKey)
{
    QByteArray publicKey(crypto_sign_PUBLICKEYBYTES, '\0');
    crypto_sign_ed25519_sk_to_pk(reinterpret_cast<unsigned char*>(publicKey.data()), bytes(secretKey));
    return publicKey;
}

QByteArray sign(const QByteArray& message, const QByteArray& secretKey)
{
    QByteArray signature(crypto_sign_BYTES, '\0');
    crypto_sign_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr, bytes(message),
                         static_cast<unsigned long long>(message.size()), bytes(secretKey));
    return signature;
}

// Orvane downloads over https only; plain http is accepted here for loopback
// addresses, where a test build serves its own feed.
bool isPublishable(const QUrl& url)
{
    if (!url.isValid() || url.host().isEmpty() || !url.userInfo().isEmpty())
        return false;
    if (url.scheme() == QLatin1String("https"))
        return true;
    const QString host = url.host();
    return url.scheme() == QLatin1String("http")
        && (host == QLatin1String("127.0.0.1") || host == QLatin1String("::1")
            || host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0);
}

int keygen(const QStringList& args)
{
    if (args.size() != 1)
        return kUsage;
    const QString path = args[0];
    if (QFileInfo::exists(path))
        return failure(QStringLiteral("%1 exists; a key is never replaced").arg(path));
    QByteArray publicKey(crypto_sign_PUBLICKEYBYTES, '\0');
    QByteArray secretKey(crypto_sign_SECRETKEYBYTES, '\0');
    crypto_sign_keypair(reinterpret_cast<unsigned char*>(publicKey.data()),
                        reinterpret_cast<unsigned char*>(secretKey.data()));
    QString error;
    const bool written = writeFile(path, secretKey.toBase64() + '\n',
                                   QFileDevice::ReadOwner | QFileDevice::WriteOwner, &error);
    sodium_memzero(secretKey.data(), size_t(secretKey.size()));
    if (!written)
        return failure(error);
    say(stderr, QStringLiteral("Secret key written to %1; keep it private. The public key, for "
                               "-DORVANE_UPDATE_PUBLIC_KEY:").arg(path));
    say(stdout, QString::fromLatin1(publicKey.toBase64()));
    return 0;
}

int publicKey(const QStringList& args)
{
    if (args.size() != 1)
        return kUsage;
    QString error;
    const auto secretKey = readSecretKey(args[0], &error);
    if (!secretKey)
        return failure(error);
    say(stdout, QString::fromLatin1(publicKeyOf(*secretKey).toBase64()));
    return 0;
}

int item(const QCommandLineParser& options, const QStringList& args)
{
    if (args.size() != 1 || !options.isSet(QStringLiteral("key")) || !options.isSet(QStringLiteral("version"))
        || !options.isSet(QStringLiteral("url")))
        return kUsage;
    const QString version = options.value(QStringLiteral("version"));
    if (!Appcast::isValidVersion(version))
        return failure(QStringLiteral("the version must be dot-separated numbers, like 2.1.0, not \"%1\"")
                           .arg(version));
    const QUrl url(options.value(QStringLiteral("url")), QUrl::StrictMode);
    if (!isPublishable(url))
        return failure(QStringLiteral("the download address must be an https address, not \"%1\"")
                           .arg(options.value(QStringLiteral("url"))));
    const QUrl notes(options.value(QStringLiteral("release-notes")), QUrl::StrictMode);
    if (options.isSet(QStringLiteral("release-notes")) && !isPublishable(notes))
        return failure(QStringLiteral("the release notes address must be an https address"));

    QString error;
    const auto secretKey = readSecretKey(options.value(QStringLiteral("key")), &error);
    if (!secretKey)
        return failure(error);
    const auto file = readFile(args[0], &error);
    if (!file)
        return failure(error);
    if (file->isEmpty())
        return failure(QStringLiteral("%1 is empty").arg(args[0]));

    const QString shortVersion = options.value(QStringLiteral("short-version"));
    const QString type = QMimeDatabase().mimeTypeForFile(args[0]).name();
    auto escaped = [](const QString& text) { return text.toHtmlEscaped(); };
    QString xml = QStringLiteral("<item>\n");
    xml += QStringLiteral("  <title>Orvane %1</title>\n").arg(escaped(shortVersion.isEmpty() ? version : shortVersion));
    xml += QStringLiteral("  <pubDate>%1</pubDate>\n")
               .arg(QLocale::c().toString(QDateTime::currentDateTimeUtc(),
                                          QStringLiteral("ddd, dd MMM yyyy hh:mm:ss +0000")));
    xml += QStringLiteral("  <orvane:version>%1</orvane:version>\n").arg(version);
    if (!shortVersion.isEmpty())
        xml += QStringLiteral("  <orvane:shortVersionString>%1</orvane:shortVersionString>\n").arg(escaped(shortVersion));
    if (!notes.isEmpty())
        xml += QStringLiteral("  <orvane:releaseNotesLink>%1</orvane:releaseNotesLink>\n")
                   .arg(escaped(notes.toString(QUrl::FullyEncoded)));
    xml += QStringLiteral("  <enclosure url=\"%1\" length=\"%2\" type=\"%3\"\n             orvane:edSignature=\"%4\"/>\n")
               .arg(escaped(url.toString(QUrl::FullyEncoded)))
               .arg(file->size())
               .arg(escaped(type), QString::fromLatin1(sign(*file, *secretKey).toBase64()));
    xml += QStringLiteral("</item>");
    say(stdout, xml);
    return 0;
}

int signFeed(const QCommandLineParser& options, const QStringList& args)
{
    if (args.size() != 1 || !options.isSet(QStringLiteral("key")))
        return kUsage;
    QString error;
    const auto secretKey = readSecretKey(options.value(QStringLiteral("key")), &error);
    if (!secretKey)
        return failure(error);
    const auto feed = readFile(args[0], &error);
    if (!feed)
        return failure(error);

    // Sign only what Orvane will read as intended: a feed whose every item can
    // be offered, over https.
    const Appcast::ParseResult parsed = Appcast::parse(*feed);
    if (!parsed.ok())
        return failure(args[0] + QStringLiteral(": ") + parsed.error);
    qsizetype written = 0;
    for (QXmlStreamReader xml(*feed); !xml.atEnd();) {
        if (xml.readNext() == QXmlStreamReader::StartElement && xml.name() == QLatin1String("item")
            && xml.namespaceUri().isEmpty())
            ++written;
    }
    if (qsizetype(parsed.items.size()) != written)
        return failure(QStringLiteral("%1: %2 of its %3 items lack a valid version, enclosure address, "
                                      "length or signature")
                           .arg(args[0])
                           .arg(written - qsizetype(parsed.items.size()))
                           .arg(written));
    for (const orvane::AppcastItem& release : parsed.items) {
        if (!isPublishable(release.enclosureUrl))
            return failure(QStringLiteral("%1: the download of %2 is not an https address")
                               .arg(args[0], release.version));
    }

    const QString signaturePath = args[0] + QStringLiteral(".sig");
    if (!writeFile(signaturePath, sign(*feed, *secretKey).toBase64() + '\n',
                   QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup
                       | QFileDevice::ReadOther,
                   &error))
        return failure(error);
    say(stderr, QStringLiteral("Signed %1 (%2 items); publish %3 beside it.")
                    .arg(args[0])
                    .arg(parsed.items.size())
                    .arg(QFileInfo(signaturePath).fileName()));
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("orvane-release"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Signs Orvane's releases and update feed.\n\n"
        "  keygen SECRET-KEY         make a key pair; prints the public key for the build\n"
        "  public-key SECRET-KEY     print the public key of a secret key\n"
        "  item -k KEY --version V --url URL FILE\n"
        "                            sign a release file; prints its feed <item>\n"
        "  sign-feed -k KEY FEED     check the feed and write FEED.sig beside it"));
    parser.addHelpOption(); // no --version of its own: --version names the release
    parser.addOptions({
        {{QStringLiteral("k"), QStringLiteral("key")}, QStringLiteral("The secret key file."), QStringLiteral("file")},
        {QStringLiteral("version"), QStringLiteral("The release's version (dot-separated numbers)."), QStringLiteral("version")},
        {QStringLiteral("short-version"), QStringLiteral("The version as shown to people."), QStringLiteral("text")},
        {QStringLiteral("url"), QStringLiteral("The https address the file is published at."), QStringLiteral("url")},
        {QStringLiteral("release-notes"), QStringLiteral("The https address of the release notes."), QStringLiteral("url")},
    });
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("keygen, public-key, item or sign-feed."));
    parser.process(app);

    if (sodium_init() < 0)
        return failure(QStringLiteral("libsodium could not be initialised"));

    QStringList args = parser.positionalArguments();
    const QString command = args.isEmpty() ? QString() : args.takeFirst();
    int status = kUsage;
    if (command == QLatin1String("keygen"))
        status = keygen(args);
    else if (command == QLatin1String("public-key"))
        status = publicKey(args);
    else if (command == QLatin1String("item"))
        status = item(parser, args);
    else if (command == QLatin1String("sign-feed"))
        status = signFeed(parser, args);
    if (status == kUsage) {
        say(stderr, parser.helpText());
        return kUsage;
    }
    return status;
}
