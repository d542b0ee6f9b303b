// The German translation: chosen by the locale, complete for every text in
// the sources, and faithful to placeholders and typographic punctuation.
#include <QDir>
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
    QString context;
    QString source;
    QStringList translations; // one, or one per plural form
    QString type;             // "unfinished", "vanished", "obsolete" or empty
};

QList<Message> readTs(const QString& path, QString* error)
{
    QList<Message> messages;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return messages;
    }
    QXmlStreamReader xml(&file);
    QString context;
    Message current;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement()) {
            if (xml.name() == QLatin1String("name")) {
                context = xml.readElementText();
            } else if (xml.name() == QLatin1String("message")) {
                current = Message{context, {}, {}, {}};
            } else if (xml.name() == QLatin1String("source")) {
                current.source = xml.readElementText();
            } else if (xml.name() == QLatin1String("translation")) {
                current.type = xml.attributes().value(QLatin1String("type")).toString();
                QString direct;
                while (!xml.atEnd()) {
                    xml.readNext();
                    if (xml.isEndElement() && xml.name() == QLatin1String("translation"))
                        break;
                    if (xml.isStartElement() && xml.name() == QLatin1String("numerusform"))
                        current.translations.append(xml.readElementText());
                    else if (xml.isCharacters())
                        direct += xml.text();
                }
                if (current.translations.isEmpty())
                    current.translations.append(direct);
            }
        } else if (xml.isEndElement() && xml.name() == QLatin1String("message")) {
            messages.append(current);
        }
    }
    if (xml.hasError())
        *error = xml.errorString();
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
    void englishNeedsNoTranslation()
    {
        QVERIFY(!installTranslations(*QCoreApplication::instance(), QLocale(QLocale::English, QLocale::UnitedStates)));
        QCOMPARE(QCoreApplication::translate("orvane::UpdaterController", "Check for Updates…"),
                 QStringLiteral("Check for Updates…"));
    }

    void germanLocaleLoadsTheTranslation()
    {
        QVERIFY(installTranslations(*QCoreApplication::instance(), QLocale(QLocale::German, QLocale::Germany)));
        QCOMPARE(QCoreApplication::translate("orvane::UpdaterController", "Check for Updates…"),
                 QStringLiteral("Nach Updates suchen …"));
        const MoreApp app{QStringLiteral("x"), QStringLiteral("Name"), QStringLiteral("blurb")};
        QCOMPARE(MoreApps::itemTitle(app), QStringLiteral("Name — blurb"));
        // Qt's own texts come along when the system has them.
        const bool qtHasGerman = QTranslator().load(QLocale(QLocale::German), QStringLiteral("qtbase"),
                                                    QStringLiteral("_"),
                                                    QLibraryInfo::path(QLibraryInfo::TranslationsPath));
        if (qtHasGerman)
            QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel"), QStringLiteral("Abbrechen"));
    }

    void everyMessageIsTranslatedFaithfully()
    {
        QString error;
        const QList<Message> messages = readTs(QStringLiteral(ORVANE_TS_FILE), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY(messages.size() > 50);
        QStringList problems;
        for (const Message& m : messages) {
            const QString where = m.context + QStringLiteral(": ") + m.source;
            if (!m.type.isEmpty())
                problems.append(m.type + QStringLiteral(" — ") + where);
            if (m.translations.isEmpty() || m.translations.contains(QString()))
                problems.append(QStringLiteral("empty — ") + where);
            for (const QString& german : m.translations) {
                if (placeholders(german) != placeholders(m.source))
                    problems.append(QStringLiteral("placeholders differ — ") + where + QStringLiteral(" → ") + german);
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

    void translationCoversEveryTextInTheSources()
    {
        const QString lupdate = QStringLiteral(ORVANE_LUPDATE);
        if (!QFile::exists(lupdate))
            QSKIP("lupdate is not installed (package qt6-l10n-tools)");
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString copy = dir.filePath(QStringLiteral("orvane_de.ts"));
        QVERIFY(QFile::copy(QStringLiteral(ORVANE_TS_FILE), copy));
        QFile::setPermissions(copy, QFile::ReadOwner | QFile::WriteOwner);
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(lupdate, {QStringLiteral("-no-obsolete"), QStringLiteral("-locations"), QStringLiteral("none"),
                                QStringLiteral(ORVANE_SOURCE_DIR), QStringLiteral("-ts"), copy});
        QVERIFY(process.waitForFinished(120'000));
        QVERIFY2(process.exitCode() == 0, process.readAll().constData());

        QString error;
        const QList<Message> messages = readTs(copy, &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QStringList untranslated;
        for (const Message& m : messages) {
            if (!m.type.isEmpty())
                untranslated.append(m.context + QStringLiteral(": ") + m.source);
        }
        QVERIFY2(untranslated.isEmpty(),
                 qPrintable(QStringLiteral("not translated into German yet:\n") + untranslated.join(u'\n')));
    }
};

QTEST_GUILESS_MAIN(TranslationsTest)
#include "translationstest.moc"
