#include "app/moreapps.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMenu>
#include <QSet>

#include "app/buildconfig.h"
#include "app/openexternal.h"

namespace orvane {

namespace {

// Menu texts treat "&" as a mnemonic marker; catalog texts are shown as written.
QString menuText(const QString& text)
{
    return QString(text).replace(u'&', QStringLiteral("&&"));
}

bool isSlug(const QString& slug)
{
    if (slug.isEmpty())
        return false;
    for (const QChar c : slug) {
        if (c < u'a' || c > u'z')
            return false;
    }
    return true;
}

} // namespace

MoreApps::Data MoreApps::parseData(QByteArrayView json)
{
    Data data;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray(json.data(), json.size()));
    if (!document.isObject())
        return data;
    const QJsonObject root = document.object();

    QSet<QString> seen;
    const QJsonArray apps = root.value(QLatin1String("apps")).toArray();
    for (const QJsonValue& value : apps) {
        const QJsonObject row = value.toObject();
        MoreApp app{row.value(QLatin1String("slug")).toString(),
                    row.value(QLatin1String("name")).toString().trimmed(),
                    row.value(QLatin1String("blurb")).toString().trimmed()};
        if (!isSlug(app.slug) || app.name.isEmpty() || seen.contains(app.slug))
            continue;
        seen.insert(app.slug);
        data.apps.push_back(std::move(app));
    }

    const QJsonArray categories = root.value(QLatin1String("categories")).toArray();
    for (const QJsonValue& value : categories) {
        const QJsonObject category = value.toObject();
        QStringList slugs;
        const QJsonArray list = category.value(QLatin1String("apps")).toArray();
        for (const QJsonValue& slug : list)
            slugs.append(slug.toString());
        data.categories.emplace_back(category.value(QLatin1String("name")).toString(), slugs);
    }
    return data;
}

MoreApps::Catalog MoreApps::makeCatalog(const std::vector<MoreApp>& rows)
{
    Catalog catalog;
    catalog.reserve(qsizetype(rows.size()));
    for (const MoreApp& row : rows)
        catalog.insert(row.slug, row);
    return catalog;
}

MoreAppCategory MoreApps::makeCategory(const QString& title, const QStringList& slugs,
                                       const Catalog& catalog)
{
    MoreAppCategory category{title, {}};
    for (const QString& slug : slugs) {
        const auto it = catalog.constFind(slug);
        if (it != catalog.constEnd())
            category.apps.push_back(*it);
    }
    return category;
}

const MoreApps::Data& MoreApps::builtInData()
{
    static const Data data = [] {
        QFile file(QStringLiteral(":/orvane/moreapps.json"));
        return file.open(QIODevice::ReadOnly) ? parseData(file.readAll()) : Data{};
    }();
    return data;
}

const MoreApps::Catalog& MoreApps::catalog()
{
    static const Catalog catalog = makeCatalog(builtInData().apps);
    return catalog;
}

const std::vector<MoreAppCategory>& MoreApps::categories()
{
    static const std::vector<MoreAppCategory> categories = [] {
        std::vector<MoreAppCategory> list;
        for (const auto& [title, slugs] : builtInData().categories)
            list.push_back(makeCategory(title, slugs, catalog()));
        return list;
    }();
    return categories;
}

QString MoreApps::itemTitle(const MoreApp& app)
{
    return tr("%1 — %2").arg(app.name, app.blurb);
}

QString MoreApps::pageAddress(const MoreApp& app, const QString& base)
{
    return base + app.slug + QStringLiteral(".html");
}

void MoreApps::fillMenu(QMenu* menu, const std::vector<MoreAppCategory>& categories,
                        const QString& base, const std::function<void(const QString&)>& open)
{
    for (const MoreAppCategory& category : categories) {
        QMenu* submenu = menu->addMenu(menuText(category.name));
        for (const MoreApp& app : category.apps) {
            const QString address = pageAddress(app, base);
            QAction* action = submenu->addAction(menuText(itemTitle(app)));
            QObject::connect(action, &QAction::triggered, menu, [open, address] { open(address); });
        }
    }
}

void MoreApps::fillMenu(QMenu* menu)
{
    fillMenu(menu, categories(), QString::fromUtf8(BuildConfig::appPageBaseUrl),
             [](const QString& address) { openExternal(address); });
}

} // namespace orvane
