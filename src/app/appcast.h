// The update feed: an RSS 2.0 document whose items describe releases with
// elements of Orvane's own namespace. Parsing is a pure function over bytes.
#pragma once

#include <optional>
#include <vector>

#include <QByteArray>
#include <QByteArrayView>
#include <QCoreApplication>
#include <QString>
#include <QStringView>
#include <QUrl>

namespace orvane {

/// One release offered by the feed.
struct AppcastItem {
    QString title;              ///< the item's title, possibly empty
    QString pubDate;            ///< as written in the feed (RFC 822), possibly empty
    QString version;            ///< orvane:version, dot-separated integers, always valid
    QString shortVersionString; ///< orvane:shortVersionString; the version when absent
    QUrl releaseNotesLink;      ///< orvane:releaseNotesLink; empty when absent or not http(s)
    QUrl enclosureUrl;          ///< the download, always an http or https address
    qint64 enclosureLength = 0; ///< the download's size in bytes, always above 0
    QString enclosureType;      ///< the download's MIME type, possibly empty
    QByteArray edSignature;     ///< the decoded Ed25519 signature of the download, 64 bytes

    /// The version to show: shortVersionString, or version when that is empty.
    QString displayVersion() const;
};

/// Reading the update feed and comparing versions. No instances.
class Appcast {
    Q_DECLARE_TR_FUNCTIONS(Appcast)

public:
    /// The namespace of Orvane's own feed elements.
    static constexpr char namespaceUri[] = "https://orvane.app/xml/appcast";

    /// The result of parse(): the items, or why the feed was refused.
    struct ParseResult {
        std::vector<AppcastItem> items; ///< in feed order; only items that could be offered
        QString error;                  ///< translated reason; empty on success
        bool ok() const { return error.isEmpty(); }
    };

    /// Parses a feed. Items missing a valid version, an http(s) enclosure,
    /// a positive length or a 64-byte signature are left out; a document that
    /// is not well-formed RSS, or declares a DTD, is refused with a reason.
    /// Any bytes are safe to pass; nothing is fetched.
    static ParseResult parse(QByteArrayView bytes);

    /// True for one or more dot-separated runs of ASCII digits ("1", "1.10.2").
    static bool isValidVersion(QStringView version);

    /// Compares two valid versions component by component as whole numbers of
    /// any length, missing components counting as 0 ("1.2" equals "1.2.0").
    /// Negative, zero or positive as a is older, the same or newer than b.
    static int compareVersions(QStringView a, QStringView b);

    /// The newest item whose version is above current, or nullptr when none is.
    /// Among equal versions the first in feed order wins.
    static const AppcastItem* newestAbove(const std::vector<AppcastItem>& items, QStringView current);
};

} // namespace orvane
