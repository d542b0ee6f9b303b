// The More Apps catalog, its categories and the menu built from them.
#include <QDesktopServices>
#include <QMenu>
#include <QTest>

#include "app/buildconfig.h"
#include "app/moreapps.h"
#include "app/openexternal.h"

using namespace orvane;

namespace {

// Receives the addresses QDesktopServices is asked to open.
class UrlRecorder : public QObject {
    Q_OBJECT
public:
    QList<QUrl> opened;
public Q_SLOTS:
    void open(const QUrl& url) { opened.append(url); }
};

QList<QMenu*> submenus(const QMenu& menu)
{
    QList<QMenu*> list;
    for (QAction* action : menu.actions()) {
        if (action->menu())
            list.append(action->menu());
    }
    return list;
}

} // namespace

class MoreAppsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // No row of the built-in data is dropped as malformed, repeated or unknown,
    // and every application is in one to three categories.
    void builtInDataIsWhole()
    {
        const auto& apps = MoreApps::builtInData().apps;
        QCOMPARE(apps.size(), size_t(17));
        QCOMPARE(MoreApps::catalog().size(), 17);
        QList<int> sizes;
        QHash<QString, int> memberships;
        for (const MoreAppCategory& category : MoreApps::categories()) {
            sizes.append(int(category.apps.size()));
            for (const MoreApp& app : category.apps)
                ++memberships[app.slug];
        }
        QCOMPARE(sizes, (QList<int>{7, 6, 5, 4, 4, 3}));
        for (const MoreApp& app : apps) {
            QVERIFY2(memberships.value(app.slug) >= 1 && memberships.value(app.slug) <= 3, qPrintable(app.slug));
            // The blurb follows the name and a dash in the menu.
            QVERIFY2(app.blurb.front().isLower() && app.blurb == app.blurb.trimmed(), qPrintable(app.blurb));
        }
    }

    void parseDataDropsBadRows()
    {
        const QByteArray json = R"({
            "apps": [
                {"slug": "good", "name": "Good", "blurb": "fine"},
                {"slug": "Upper", "name": "Upper", "blurb": "x"},
                {"slug": "with1digit", "name": "Digit", "blurb": "x"},
                {"slug": "", "name": "Empty", "blurb": "x"},
                {"slug": "noname", "name": " ", "blurb": "x"},
                {"slug": "good", "name": "Again", "blurb": "x"}
            ],
            "categories": [{"name": "One", "apps": ["good", "Upper", "missing"]}]
        })";
        const MoreApps::Data data = MoreApps::parseData(json);
        QCOMPARE(data.apps.size(), size_t(1));
        QCOMPARE(data.apps.front().name, QStringLiteral("Good"));
        QCOMPARE(data.categories.size(), size_t(1));
        const MoreAppCategory category = MoreApps::makeCategory(data.categories[0].first, data.categories[0].second,
                                                                MoreApps::makeCatalog(data.apps));
        QCOMPARE(category.apps.size(), size_t(1));
        QVERIFY(MoreApps::parseData("{ not json").apps.empty());
        QVERIFY(MoreApps::parseData("[1, 2]").categories.empty());
    }

    void menuHasOneSubmenuPerCategoryAndOpensPages()
    {
        const auto catalog = MoreApps::makeCatalog(MoreApps::parseData(R"({"apps": [
            {"slug": "a", "name": "Alpha", "blurb": "first"}, {"slug": "b", "name": "Beta", "blurb": "second"}]})").apps);
        const std::vector<MoreAppCategory> categories = {
            MoreApps::makeCategory(QStringLiteral("One"), {QStringLiteral("b"), QStringLiteral("a")}, catalog),
            MoreApps::makeCategory(QStringLiteral("Two"), {QStringLiteral("a")}, catalog)};
        QMenu menu;
        QStringList opened;
        MoreApps::fillMenu(&menu, categories, QStringLiteral("https://example.org/apps/"),
                           [&opened](const QString& address) { opened.append(address); });
        const QList<QMenu*> subs = submenus(menu);
        QCOMPARE(subs.size(), 2);
        QCOMPARE(subs[0]->title(), QStringLiteral("One"));
        QStringList texts;
        for (QAction* item : subs[0]->actions()) {
            texts << item->text();
            item->trigger();
        }
        QCOMPARE(texts, (QStringList{QStringLiteral("Beta — second"), QStringLiteral("Alpha — first")}));
        QCOMPARE(opened, (QStringList{"https://example.org/apps/b.html", "https://example.org/apps/a.html"}));
    }

    // The built-in menu opens the build's pages in the browser; addresses that
    // do not parse are dropped on the way.
    void pagesOpenInTheBrowser()
    {
        UrlRecorder recorder;
        QDesktopServices::setUrlHandler(QStringLiteral("https"), &recorder, "open");
        QMenu menu;
        MoreApps::fillMenu(&menu);
        const QList<QMenu*> subs = submenus(menu);
        QVERIFY(!subs.isEmpty());
        subs.last()->actions().last()->trigger();
        for (const char* address : {"https://exa mple.org/", "not an address", "", "https://orvane.app/help/"})
            openExternal(QString::fromLatin1(address));
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
        const QString page = QString::fromUtf8(BuildConfig::appPageBaseUrl) + MoreApps::categories().back().apps.back().slug;
        QCOMPARE(recorder.opened, (QList<QUrl>{QUrl(page + QStringLiteral(".html")), QUrl(QStringLiteral("https://orvane.app/help/"))}));
    }
};

QTEST_MAIN(MoreAppsTest)
#include "moreappstest.moc"
