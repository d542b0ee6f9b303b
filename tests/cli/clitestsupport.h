// What the orvane-trim tests share: running the real binary and reading its
// one-JSON-object-a-line report.
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>

#include "support/testfiles.h"

namespace orvane::test {

struct TrimRun {
    int exitCode = -1;
    bool crashed = false;
    QByteArray out;
    QByteArray err;

    /// Every line of standard output as a JSON object, in order.
    QList<QJsonObject> json() const
    {
        QList<QJsonObject> objects;
        for (const QByteArray& line : out.split('\n')) {
            if (line.isEmpty())
                continue;
            QJsonParseError error{};
            const QJsonDocument document = QJsonDocument::fromJson(line, &error);
            EXPECT_EQ(error.error, QJsonParseError::NoError) << "not JSON: " << line.toStdString();
            EXPECT_TRUE(document.isObject()) << line.toStdString();
            objects.append(document.object());
        }
        return objects;
    }
};

/// Runs program with args in workingDir (the test's own when empty); a crash
/// or a run that does not end fails the calling test.
inline TrimRun runProgram(const QString& program, const QStringList& args, const QString& workingDir = {})
{
    QProcess process;
    if (!workingDir.isEmpty())
        process.setWorkingDirectory(workingDir);
    process.start(program, args);
    TrimRun run;
    if (!process.waitForFinished(180'000)) {
        process.kill();
        process.waitForFinished();
        ADD_FAILURE() << "did not finish: " << args.join(QLatin1Char(' ')).toStdString();
    }
    run.crashed = process.exitStatus() != QProcess::NormalExit;
    run.exitCode = run.crashed ? -1 : process.exitCode();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    EXPECT_FALSE(run.crashed) << run.err.toStdString();
    return run;
}

inline TrimRun trim(const QStringList& args, const QString& workingDir = {})
{
    return runProgram(QStringLiteral(ORVANE_TRIM_BINARY), args, workingDir);
}

} // namespace orvane::test
