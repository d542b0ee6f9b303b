// libFuzzer target: any bytes as the update feed. Besides not crashing, every
// item parse() keeps must satisfy what Appcast promises about it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <QByteArrayView>
#include <QString>

#include "app/appcast.h"

namespace {

[[noreturn]] void fail(const char* what, const QString& detail = {})
{
    std::fprintf(stderr, "fuzz_appcast: %s %s\n", what, detail.toLocal8Bit().constData());
    std::abort();
}

bool isWebUrl(const QUrl& url)
{
    return url.isValid() && (url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using orvane::Appcast;
    const auto result = Appcast::parse(QByteArrayView(reinterpret_cast<const char*>(data),
                                                      static_cast<qsizetype>(size)));
    if (!result.ok() && !result.items.empty())
        fail("refused feed with items");

    for (const auto& item : result.items) {
        if (!Appcast::isValidVersion(item.version))
            fail("invalid version kept:", item.version);
        if (!isWebUrl(item.enclosureUrl))
            fail("enclosure not http(s):", item.enclosureUrl.toString());
        if (item.enclosureLength <= 0)
            fail("length not positive");
        if (item.edSignature.size() != 64)
            fail("signature not 64 bytes");
        if (!item.releaseNotesLink.isEmpty() && !isWebUrl(item.releaseNotesLink))
            fail("release notes not http(s):", item.releaseNotesLink.toString());
        if (item.displayVersion().isEmpty())
            fail("empty display version");
        if (Appcast::compareVersions(item.version, item.version) != 0)
            fail("version not equal to itself:", item.version);
        if (Appcast::compareVersions(item.version + QStringLiteral(".0"), item.version) != 0)
            fail("trailing .0 changes the version:", item.version);
    }

    // Comparison must be an order: antisymmetric over every pair the feed offers.
    for (const auto& a : result.items) {
        for (const auto& b : result.items) {
            const int ab = Appcast::compareVersions(a.version, b.version);
            const int ba = Appcast::compareVersions(b.version, a.version);
            if ((ab < 0) != (ba > 0) || (ab == 0) != (ba == 0))
                fail("compareVersions not antisymmetric:", a.version + QLatin1Char(' ') + b.version);
        }
    }

    for (const QString current : {QStringLiteral("0"), QStringLiteral("1.0"), QStringLiteral("99999999999999999999.1")}) {
        const auto* newest = Appcast::newestAbove(result.items, current);
        for (const auto& item : result.items) {
            const bool above = Appcast::compareVersions(item.version, current) > 0;
            if (above && !newest)
                fail("newestAbove missed", item.version);
            if (newest && above && Appcast::compareVersions(item.version, newest->version) > 0)
                fail("newestAbove not the newest", item.version);
        }
        if (newest && Appcast::compareVersions(newest->version, current) <= 0)
            fail("newestAbove not above", newest->version);
    }
    return 0;
}
