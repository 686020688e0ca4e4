#pragma once

#include "TestEnvironment.h"

#include <QJsonDocument>
#include <QMap>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>

#include <gtest/gtest.h>

namespace hvtest {

/// What one run of hvtool gave.
struct CliResult {
    int code = -1;
    QString out;
    QString err;
    QJsonDocument json() const { return QJsonDocument::fromJson(out.toUtf8()); }
};

/// The environment of this test process with the given variables changed.
inline QProcessEnvironment environmentWith(const QMap<QString, QString> &env)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (auto it = env.constBegin(); it != env.constEnd(); ++it)
        environment.insert(it.key(), it.value());
    return environment;
}

/// Runs the real hvtool to its end, stdin closed, as a user's script would.
inline CliResult hvtool(const QStringList &args, const QMap<QString, QString> &env = {})
{
    QProcess p;
    p.setStandardInputFile(QProcess::nullDevice());
    p.setProcessEnvironment(environmentWith(env));
    p.start(helperPath("hvtool"), args);
    EXPECT_TRUE(p.waitForFinished(120000)) << args.join(' ').toStdString();
    return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()), QString::fromUtf8(p.readAllStandardError())};
}

} // namespace hvtest
