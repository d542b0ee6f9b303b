// The "More Apps" menu: the maker's other applications, grouped by theme.
// The catalog and its categories are data compiled in with the build.
#pragma once

#include <functional>
#include <utility>
#include <vector>

#include <QByteArrayView>
#include <QCoreApplication>
#include <QHash>
#include <QString>
#include <QStringList>

class QMenu;

namespace orvane {

/// One catalog row.
struct MoreApp {
    QString slug;  ///< unique key, lower-case letters only; the page's file name without ".html"
    QString name;  ///< display name
    QString blurb; ///< a short tagline starting in lower case
};

/// One submenu of "More Apps".
struct MoreAppCategory {
    QString name;              ///< the submenu's title, shown verbatim
    std::vector<MoreApp> apps; ///< in menu order
};

/// The catalog, the categories and the menu built from them. No instances.
class MoreApps {
    Q_DECLARE_TR_FUNCTIONS(MoreApps)

public:
    using Catalog = QHash<QString, MoreApp>;

    /// The catalog data as written: rows in order, and each category's title
    /// with its list of slugs.
    struct Data {
        std::vector<MoreApp> apps;
        std::vector<std::pair<QString, QStringList>> categories;
    };

    /// Reads catalog data from JSON ({"apps": [{slug, name, blurb}…],
    /// "categories": [{name, apps: [slug…]}…]}). Rows whose slug is not
    /// lower-case letters only, or whose name is empty, are left out, as are
    /// rows repeating an earlier slug. Malformed JSON gives empty data.
    static Data parseData(QByteArrayView json);

    /// The catalog built from rows, keyed by slug.
    static Catalog makeCatalog(const std::vector<MoreApp>& rows);

    /// A category with the rows of slugs found in catalog, in order; a slug
    /// missing from the catalog is skipped silently.
    static MoreAppCategory makeCategory(const QString& title, const QStringList& slugs,
                                        const Catalog& catalog);

    /// The built-in data (compiled in as a resource), read once.
    static const Data& builtInData();
    /// The built-in catalog, built once on first use; thread-safe.
    static const Catalog& catalog();
    /// The built-in categories in menu order, built once on first use; thread-safe.
    static const std::vector<MoreAppCategory>& categories();

    /// An item's title: name, " — ", blurb (translatable, two arguments).
    static QString itemTitle(const MoreApp& app);
    /// The application's page: base + slug + ".html", base ending with a slash.
    static QString pageAddress(const MoreApp& app, const QString& base);

    /// Adds one submenu per category to menu, one item per application, each
    /// calling open with the application's page address. Main thread.
    static void fillMenu(QMenu* menu, const std::vector<MoreAppCategory>& categories,
                         const QString& base, const std::function<void(const QString&)>& open);
    /// fillMenu with the built-in categories, the build's page base and openExternal.
    static void fillMenu(QMenu* menu);
};

} // namespace orvane
