#include "app/appcast.h"

#include <QXmlStreamReader>

namespace orvane {

namespace {

const QString kNamespace = QString::fromLatin1(Appcast::namespaceUri);

bool isWebAddress(const QUrl& url)
{
    return url.isValid() && !url.host().isEmpty()
        && (url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http"));
}

QUrl webAddress(const QString& text)
{
    const QUrl url(text.trimmed(), QUrl::StrictMode);
    return isWebAddress(url) ? url : QUrl();
}

// Leading zeros carry no value; "000" is "0". Components are compared as
// digit strings so that no feed can overflow an integer.
QStringView withoutLeadingZeros(QStringView digits)
{
    qsizetype i = 0;
    while (i + 1 < digits.size() && digits[i] == u'0')
        ++i;
    return digits.mid(i);
}

struct ItemFields {
    AppcastItem item;
    QString length;
    QString signature;
};

void readEnclosure(QXmlStreamReader& xml, ItemFields& fields)
{
    const QXmlStreamAttributes attributes = xml.attributes();
    for (const QXmlStreamAttribute& a : attributes) {
        if (a.namespaceUri().isEmpty()) {
            if (a.name() == QLatin1String("url"))
                fields.item.enclosureUrl = webAddress(a.value().toString());
            else if (a.name() == QLatin1String("length"))
                fields.length = a.value().toString().trimmed();
            else if (a.name() == QLatin1String("type"))
                fields.item.enclosureType = a.value().toString().trimmed();
        } else if (a.namespaceUri() == kNamespace && a.name() == QLatin1String("edSignature")) {
            fields.signature = a.value().toString().trimmed();
        }
    }
    xml.skipCurrentElement();
}

// Reads one <item> up to its end element. Returns the item when it can be
// offered: valid version, web enclosure, positive length, 64-byte signature.
std::optional<AppcastItem> readItem(QXmlStreamReader& xml)
{
    ItemFields fields;
    while (xml.readNextStartElement()) {
        const QStringView ns = xml.namespaceUri();
        const QStringView name = xml.name();
        if (ns.isEmpty() && name == QLatin1String("title")) {
            fields.item.title = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (ns.isEmpty() && name == QLatin1String("pubDate")) {
            fields.item.pubDate = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (ns.isEmpty() && name == QLatin1String("enclosure")) {
            readEnclosure(xml, fields);
        } else if (ns == kNamespace && name == QLatin1String("version")) {
            fields.item.version = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (ns == kNamespace && name == QLatin1String("shortVersionString")) {
            fields.item.shortVersionString =
                xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (ns == kNamespace && name == QLatin1String("releaseNotesLink")) {
            fields.item.releaseNotesLink =
                webAddress(xml.readElementText(QXmlStreamReader::SkipChildElements));
        } else {
            xml.skipCurrentElement();
        }
    }
    if (xml.hasError())
        return std::nullopt;

    AppcastItem& item = fields.item;
    if (!Appcast::isValidVersion(item.version) || item.enclosureUrl.isEmpty())
        return std::nullopt;
    bool lengthOk = false;
    item.enclosureLength = fields.length.toLongLong(&lengthOk);
    if (!lengthOk || item.enclosureLength <= 0)
        return std::nullopt;
    const auto decoded = QByteArray::fromBase64Encoding(fields.signature.toLatin1(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != 64)
        return std::nullopt;
    item.edSignature = decoded.decoded;
    return item;
}

void readChannel(QXmlStreamReader& xml, std::vector<AppcastItem>& items)
{
    while (xml.readNextStartElement()) {
        if (xml.namespaceUri().isEmpty() && xml.name() == QLatin1String("item")) {
            if (auto item = readItem(xml))
                items.push_back(std::move(*item));
        } else {
            xml.skipCurrentElement();
        }
    }
}

} // namespace

QString AppcastItem::displayVersion() const
{
    return shortVersionString.isEmpty() ? version : shortVersionString;
}

Appcast::ParseResult Appcast::parse(QByteArrayView bytes)
{
    ParseResult result;
    QXmlStreamReader xml(QByteArray(bytes.data(), bytes.size()));

    // Up to the root element. A DTD is refused outright: a feed has no use for
    // one, and entity declarations are the way to blow up a small document.
    while (!xml.atEnd() && !xml.isStartElement()) {
        xml.readNext();
        if (xml.isDTD()) {
            result.error = tr("The update feed contains a document type declaration.");
            return result;
        }
    }
    if (!xml.isStartElement()) {
        result.error = xml.hasError()
            ? tr("The update feed is not valid XML (line %1: %2).")
                  .arg(xml.lineNumber())
                  .arg(xml.errorString())
            : tr("The update feed is empty.");
        return result;
    }
    if (!xml.namespaceUri().isEmpty() || xml.name() != QLatin1String("rss")) {
        result.error = tr("The update feed is not an RSS document.");
        return result;
    }

    while (xml.readNextStartElement()) {
        if (xml.namespaceUri().isEmpty() && xml.name() == QLatin1String("channel"))
            readChannel(xml, result.items);
        else
            xml.skipCurrentElement();
    }
    // Read to the end so that damage after the last item is noticed too.
    while (!xml.atEnd())
        xml.readNext();
    if (xml.hasError()) {
        result.items.clear();
        result.error = tr("The update feed is not valid XML (line %1: %2).")
                           .arg(xml.lineNumber())
                           .arg(xml.errorString());
    }
    return result;
}

bool Appcast::isValidVersion(QStringView version)
{
    if (version.isEmpty())
        return false;
    bool componentHasDigit = false;
    for (const QChar c : version) {
        if (c == u'.') {
            if (!componentHasDigit)
                return false;
            componentHasDigit = false;
        } else if (c >= u'0' && c <= u'9') {
            componentHasDigit = true;
        } else {
            return false;
        }
    }
    return componentHasDigit;
}

int Appcast::compareVersions(QStringView a, QStringView b)
{
    const QList<QStringView> as = a.split(u'.');
    const QList<QStringView> bs = b.split(u'.');
    const qsizetype n = std::max(as.size(), bs.size());
    for (qsizetype i = 0; i < n; ++i) {
        const QStringView x = withoutLeadingZeros(i < as.size() ? as[i] : QStringView(u"0"));
        const QStringView y = withoutLeadingZeros(i < bs.size() ? bs[i] : QStringView(u"0"));
        if (x.size() != y.size())
            return x.size() < y.size() ? -1 : 1;
        if (const int c = x.compare(y); c != 0)
            return c < 0 ? -1 : 1;
    }
    return 0;
}

const AppcastItem* Appcast::newestAbove(const std::vector<AppcastItem>& items, QStringView current)
{
    const AppcastItem* best = nullptr;
    for (const AppcastItem& item : items) {
        if (compareVersions(item.version, current) <= 0)
            continue;
        if (!best || compareVersions(item.version, best->version) > 0)
            best = &item;
    }
    return best;
}

} // namespace orvane
