// The German translation: chosen by the locale, complete for every text in
// the sources, and faithful to placeholders and typographic punctuation.
#include <QFile>
#include <QLibraryInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <QTranslator>
#include <QXmlStreamReader>

#include "app/localization.h"
#include "app/moreapps.h"

using namespace orvane;

namespace {

struct Message {
    QString where; // context: source
    bool plural = false;
    QString source;
    QStringList translations; // one, or one per plural form
    QString type;             // "unfinished", "vanished", "obsolete" or empty
};

QList<Message> readTs(const QString& path)
{
    QList<Message> messages;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(path));
    QXmlStreamReader xml(&file);
    QString context;
    while (xml.readNext() != QXmlStreamReader::Invalid && !xml.atEnd()) {
        if (!xml.isStartElement())
            continue;
        Message* last = messages.isEmpty() ? nullptr : &messages.last();
        if (xml.name() == u"name") {
            context = xml.readElementText();
        } else if (xml.name() == u"message") {
            messages.append({context, xml.attributes().value(QLatin1String("numerus")) == QLatin1String("yes"), {}, {}, {}});
        } else if (xml.name() == u"source" && last) {
            last->source = xml.readElementText();
            last->where += QStringLiteral(": ") + last->source;
        } else if (xml.name() == u"translation" && last) {
            last->type = xml.attributes().value(QLatin1String("type")).toString();
            if (!last->plural)
                last->translations.append(xml.readElementText());
        } else if (xml.name() == u"numerusform" && last) {
            last->translations.append(xml.readElementText());
        }
    }
    if (xml.hasError())
        qFatal("%s: %s", qPrintable(path), qPrintable(xml.errorString()));
    return messages;
}

QSet<QString> placeholders(const QString& text)
{
    static const QRegularExpression pattern(QStringLiteral("%(\\d+|n)"));
    QSet<QString> found;
    for (auto it = pattern.globalMatch(text); it.hasNext();)
        found.insert(it.next().captured(0));
    return found;
}

} // namespace

class TranslationsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void localeChoosesTheTranslation_data()
    {
        QTest::addColumn<QLocale>("locale");
        QTest::addColumn<bool>("installed");
        QTest::addColumn<QString>("command");
        QTest::newRow("English needs none") << QLocale(QLocale::English, QLocale::UnitedStates) << false
                                            << "Check for Updates…";
        QTest::newRow("German") << QLocale(QLocale::German, QLocale::Germany) << true << "Nach Updates suchen …";
    }

    void localeChoosesTheTranslation()
    {
        QFETCH(QLocale, locale);
        QFETCH(bool, installed);
        QFETCH(QString, command);
        QCOMPARE(installTranslations(*QCoreApplication::instance(), locale), installed);
        QCOMPARE(QCoreApplication::translate("orvane::UpdaterController", "Check for Updates…"), command);
        if (!installed)
            return;
        const MoreApp app{QStringLiteral("x"), QStringLiteral("Name"), QStringLiteral("blurb")};
        QCOMPARE(MoreApps::itemTitle(app), QStringLiteral("Name — blurb"));
        // Qt's own texts come along when the system has them.
        if (QTranslator().load(locale, QStringLiteral("qtbase"), QStringLiteral("_"),
                               QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
            QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel"), QStringLiteral("Abbrechen"));
    }

    // Every text in the sources (as lupdate finds them, when it is installed)
    // is translated, faithful to placeholders and typographic punctuation.
    void everyMessageIsTranslatedFaithfully()
    {
        QTemporaryDir dir;
        const QString ts = dir.filePath(QStringLiteral("orvane_de.ts"));
        QVERIFY(QFile::copy(QStringLiteral(ORVANE_TS_FILE), ts));
        QFile::setPermissions(ts, QFile::ReadOwner | QFile::WriteOwner);
        if (QFile::exists(QStringLiteral(ORVANE_LUPDATE))) {
            QProcess lupdate;
            lupdate.setProcessChannelMode(QProcess::MergedChannels);
            lupdate.start(QStringLiteral(ORVANE_LUPDATE), {QStringLiteral("-no-obsolete"), QStringLiteral("-locations"),
                          QStringLiteral("none"), QStringLiteral(ORVANE_SOURCE_DIR), QStringLiteral("-ts"), ts});
            QVERIFY(lupdate.waitForFinished(120'000));
            QVERIFY2(lupdate.exitCode() == 0, lupdate.readAll().constData());
        } else {
            qWarning("lupdate is not installed (package qt6-l10n-tools): new texts in the sources go unnoticed");
        }
        const QList<Message> messages = readTs(ts);
        QVERIFY(messages.size() > 50);
        QStringList problems;
        for (const Message& m : messages) {
            if (!m.type.isEmpty())
                problems.append(m.type + QStringLiteral(" — ") + m.where);
            if (m.translations.isEmpty() || m.translations.contains(QString()))
                problems.append(QStringLiteral("empty — ") + m.where);
            for (const QString& german : m.translations) {
                if (placeholders(german) != placeholders(m.source))
                    problems.append(QStringLiteral("placeholders differ — ") + m.where + QStringLiteral(" → ") + german);
                if (german.contains(QStringLiteral("...")))
                    problems.append(QStringLiteral("three dots instead of … — ") + german);
                if (german.contains(u'\'') || (german.contains(u'"') && !m.source.contains(u'"')))
                    problems.append(QStringLiteral("straight quote — ") + german);
                if (german.count(QChar(0x201E)) != german.count(QChar(0x201C)))
                    problems.append(QStringLiteral("unbalanced „“ — ") + german);
                if (german.contains(QChar(0x201D)))
                    problems.append(QStringLiteral("English closing quote ” — ") + german);
                if (m.source.endsWith(QChar(0x2026)) != german.endsWith(QChar(0x2026)))
                    problems.append(QStringLiteral("ellipsis lost or added — ") + german);
            }
        }
        QVERIFY2(problems.isEmpty(), qPrintable(problems.join(u'\n')));
    }
};

QTEST_GUILESS_MAIN(TranslationsTest)
#include "translationstest.moc"
