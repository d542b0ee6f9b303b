// The More Apps catalog, its categories and the menu built from them.
#include <QDesktopServices>
#include <QMenu>
#include <QRegularExpression>
#include <QSet>
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
    const QList<QAction*> actions = menu.actions();
    for (QAction* action : actions) {
        if (action->menu())
            list.append(action->menu());
    }
    return list;
}

} // namespace

class MoreAppsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void catalogRows()
    {
        const auto& rows = MoreApps::builtInData().apps;
        QCOMPARE(rows.size(), size_t(17)); // none dropped as malformed or repeated
        QCOMPARE(MoreApps::catalog().size(), 17);

        const QRegularExpression slugPattern(QStringLiteral("^[a-z]+$"));
        QSet<QString> slugs;
        for (const MoreApp& app : rows) {
            QVERIFY2(slugPattern.match(app.slug).hasMatch(), qPrintable(app.slug));
            slugs.insert(app.slug);
            QVERIFY(!app.name.isEmpty());
            QCOMPARE(app.name, app.name.trimmed());
            QVERIFY(!app.blurb.isEmpty());
            QCOMPARE(app.blurb, app.blurb.trimmed());
            QVERIFY2(app.blurb.front().isLower(), qPrintable(app.blurb));
            QCOMPARE(MoreApps::catalog().value(app.slug).name, app.name);
        }
        QCOMPARE(slugs.size(), 17);
    }

    void categoriesHaveTheirSizesAndCoverTheCatalog()
    {
        const auto& categories = MoreApps::categories();
        QList<int> sizes;
        QSet<QString> names;
        QHash<QString, int> memberships;
        for (const MoreAppCategory& category : categories) {
            sizes.append(int(category.apps.size()));
            QVERIFY(!category.name.trimmed().isEmpty());
            names.insert(category.name);
            QSet<QString> inThisCategory;
            for (const MoreApp& app : category.apps) {
                QVERIFY2(!inThisCategory.contains(app.slug), qPrintable(app.slug));
                inThisCategory.insert(app.slug);
                ++memberships[app.slug];
            }
        }
        QCOMPARE(sizes, (QList<int>{7, 6, 5, 4, 4, 3}));
        QCOMPARE(names.size(), 6);
        // No slug in the data is missing from the catalog.
        for (const auto& [title, slugs] : MoreApps::builtInData().categories) {
            for (const QString& slug : slugs)
                QVERIFY2(MoreApps::catalog().contains(slug), qPrintable(slug));
        }
        // Every application somewhere; several in two or three categories, none in more.
        int shared = 0;
        for (const MoreApp& app : MoreApps::builtInData().apps) {
            const int count = memberships.value(app.slug);
            QVERIFY2(count >= 1 && count <= 3, qPrintable(app.slug));
            if (count >= 2)
                ++shared;
        }
        QVERIFY(shared >= 2);
        QVERIFY(std::any_of(memberships.cbegin(), memberships.cend(), [](int n) { return n == 3; }));
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
        const MoreAppCategory category =
            MoreApps::makeCategory(data.categories[0].first, data.categories[0].second,
                                   MoreApps::makeCatalog(data.apps));
        QCOMPARE(category.apps.size(), size_t(1));

        QVERIFY(MoreApps::parseData("{ not json").apps.empty());
        QVERIFY(MoreApps::parseData("[1, 2]").categories.empty());
    }

    void menuHasOneSubmenuPerCategoryAndOpensPages()
    {
        QMenu menu;
        QStringList opened;
        const QString base = QStringLiteral("https://example.org/apps/");
        MoreApps::fillMenu(&menu, MoreApps::categories(), base,
                           [&opened](const QString& address) { opened.append(address); });
        const QList<QMenu*> subs = submenus(menu);
        const auto& categories = MoreApps::categories();
        QCOMPARE(subs.size(), qsizetype(categories.size()));

        QHash<QString, QSet<QString>> pagesByTitle;
        for (qsizetype i = 0; i < subs.size(); ++i) {
            QCOMPARE(subs[i]->title(), categories[size_t(i)].name);
            const QList<QAction*> items = subs[i]->actions();
            QCOMPARE(items.size(), qsizetype(categories[size_t(i)].apps.size()));
            for (qsizetype j = 0; j < items.size(); ++j) {
                const MoreApp& app = categories[size_t(i)].apps[size_t(j)];
                QCOMPARE(items[j]->text(), app.name + QStringLiteral(" — ") + app.blurb);
                QVERIFY(items[j]->isEnabled());
                QVERIFY(items[j]->shortcut().isEmpty());
                QVERIFY(items[j]->icon().isNull());
                opened.clear();
                items[j]->trigger();
                QCOMPARE(opened, QStringList{base + app.slug + QStringLiteral(".html")});
                pagesByTitle[items[j]->text()].insert(opened.front());
            }
        }
        // An application in several categories opens the same page from each.
        for (const QSet<QString>& pages : std::as_const(pagesByTitle))
            QCOMPARE(pages.size(), 1);
    }

    void menuItemsOpenTheBrowser()
    {
        UrlRecorder recorder;
        QDesktopServices::setUrlHandler(QStringLiteral("https"), &recorder, "open");
        QMenu menu;
        MoreApps::fillMenu(&menu);
        const QList<QMenu*> subs = submenus(menu);
        QVERIFY(!subs.isEmpty());
        subs.last()->actions().last()->trigger();
        const MoreApp& app = MoreApps::categories().back().apps.back();
        QCOMPARE(recorder.opened,
                 QList<QUrl>{QUrl(QString::fromUtf8(BuildConfig::appPageBaseUrl) + app.slug + QStringLiteral(".html"))});
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
    }

    void openExternalDropsWhatDoesNotParse()
    {
        UrlRecorder recorder;
        QDesktopServices::setUrlHandler(QStringLiteral("https"), &recorder, "open");
        openExternal(QStringLiteral("https://orvane.app/help/"));
        openExternal(QStringLiteral("https://exa mple.org/"));
        openExternal(QStringLiteral("not an address"));
        openExternal(QString());
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
        QCOMPARE(recorder.opened, QList<QUrl>{QUrl(QStringLiteral("https://orvane.app/help/"))});
    }
};

QTEST_MAIN(MoreAppsTest)
#include "moreappstest.moc"
