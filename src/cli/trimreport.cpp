#include "cli/trimreport.h"

#include <cstdio>

#include <QLocale>
#include <QStringList>

#include "imagefile/imagesource.h"

namespace orvane {

namespace {

// QJsonObject sorts its keys; the report keeps the order people read in, so
// the objects are written by hand.
void appendString(QByteArray& out, const QString& text)
{
    out += '"';
    for (const char c : text.toUtf8()) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(c));
                out += escaped;
            } else {
                out += c;
            }
        }
    }
    out += '"';
}

QByteArray number(double value)
{
    return QByteArray::number(value, 'g', QLocale::FloatingPointShortest);
}

QByteArray jsonRect(const PixelRect& r)
{
    return '[' + QByteArray::number(qint64(r.x)) + ',' + QByteArray::number(qint64(r.y)) + ','
        + QByteArray::number(qint64(r.width)) + ',' + QByteArray::number(qint64(r.height)) + ']';
}

QString geometry(const PixelRect& r)
{
    return QStringLiteral("%1x%2+%3+%4").arg(r.width).arg(r.height).arg(r.x).arg(r.y);
}

QString size(std::int64_t width, std::int64_t height)
{
    return QStringLiteral("%1x%2").arg(width).arg(height);
}

} // namespace

void TrimCounts::add(TrimResult::Status status)
{
    switch (status) {
    case TrimResult::Status::Measured: ++measured; break;
    case TrimResult::Status::Trimmed: ++trimmed; break;
    case TrimResult::Status::Unchanged: ++unchanged; break;
    case TrimResult::Status::Nothing: ++nothing; break;
    case TrimResult::Status::Exists: ++exists; break;
    case TrimResult::Status::Failed: ++failed; break;
    }
}

QString TrimReport::statusName(TrimResult::Status status)
{
    switch (status) {
    case TrimResult::Status::Measured: return QStringLiteral("measured");
    case TrimResult::Status::Trimmed: return QStringLiteral("trimmed");
    case TrimResult::Status::Unchanged: return QStringLiteral("unchanged");
    case TrimResult::Status::Nothing: return QStringLiteral("nothing");
    case TrimResult::Status::Exists: return QStringLiteral("exists");
    case TrimResult::Status::Failed: return QStringLiteral("failed");
    }
    return {};
}

QByteArray TrimReport::jsonLine(const TrimResult& result, bool writing)
{
    QByteArray out = "{\"path\":";
    appendString(out, result.path);
    if (result.decoded) {
        out += ",\"type\":";
        appendString(out, result.type);
        out += ",\"width\":" + QByteArray::number(qint64(result.width));
        out += ",\"height\":" + QByteArray::number(qint64(result.height));
        out += ",\"rects\":[";
        for (qsizetype i = 0; i < result.rects.size(); ++i) {
            const auto& [tolerance, rect] = result.rects.at(i);
            if (i > 0)
                out += ',';
            out += "{\"tolerance\":" + number(tolerance) + ",\"rect\":";
            out += rect ? jsonRect(*rect) : QByteArray("null");
            out += '}';
        }
        out += ']';
        if (result.written)
            out += ",\"written\":" + jsonRect(*result.written);
    }
    if (!result.error.isEmpty()) {
        out += ",\"error\":";
        appendString(out, result.error);
        if (result.reason) {
            out += ",\"reason\":";
            appendString(out, ImageFile::reasonCode(*result.reason));
        }
    }
    if (writing) {
        out += ",\"output\":";
        if (result.output.isEmpty())
            out += "null";
        else
            appendString(out, result.output);
        out += ",\"status\":";
        appendString(out, statusName(result.status));
    }
    out += "}\n";
    return out;
}

QString TrimReport::textLine(const TrimResult& r)
{
    switch (r.status) {
    case TrimResult::Status::Measured: {
        QStringList parts;
        for (const auto& [tolerance, rect] : r.rects) {
            parts << QStringLiteral("tolerance %1: %2")
                         .arg(QString::fromLatin1(number(tolerance)),
                              rect ? geometry(*rect) : QStringLiteral("no content"));
        }
        return QStringLiteral("%1: %2, %3\n").arg(r.path, size(r.width, r.height), parts.join(QLatin1String(", ")));
    }
    case TrimResult::Status::Trimmed: {
        const PixelRect& rect = *r.rects.first().second;
        if (r.written) {
            return QStringLiteral("trimmed    %1 -> %2 (%3 -> %4, lossless: %5)\n")
                .arg(r.path, r.output, size(r.width, r.height), size(rect.width, rect.height), geometry(*r.written));
        }
        return QStringLiteral("trimmed    %1 -> %2 (%3 -> %4)\n")
            .arg(r.path, r.output, size(r.width, r.height), size(rect.width, rect.height));
    }
    case TrimResult::Status::Unchanged:
        if (r.output.isEmpty())
            return QStringLiteral("unchanged  %1 (nothing to trim)\n").arg(r.path);
        return QStringLiteral("unchanged  %1 -> %2 (nothing to trim, copied)\n").arg(r.path, r.output);
    case TrimResult::Status::Nothing:
        return QStringLiteral("nothing    %1 (nothing counts as content)\n").arg(r.path);
    case TrimResult::Status::Exists:
        return QStringLiteral("exists     %1 (%2 is already there; --overwrite replaces it)\n")
            .arg(r.path, r.existing);
    case TrimResult::Status::Failed:
        if (r.reason)
            return QStringLiteral("orvane-trim: %1: %2 (%3)\n").arg(r.path, r.error, ImageFile::reasonCode(*r.reason));
        return QStringLiteral("orvane-trim: %1: %2\n").arg(r.path, r.error);
    }
    return {};
}

QString TrimReport::summary(const TrimCounts& c, bool dryRun)
{
    if (dryRun)
        return QStringLiteral("%1 measured, %2 failed\n").arg(c.measured).arg(c.failed);
    return QStringLiteral("%1 trimmed, %2 unchanged, %3 without content, %4 already there, %5 failed\n")
        .arg(c.trimmed)
        .arg(c.unchanged)
        .arg(c.nothing)
        .arg(c.exists)
        .arg(c.failed);
}

} // namespace orvane
