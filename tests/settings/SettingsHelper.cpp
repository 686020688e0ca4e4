// Runs settings operations in a process of its own for the settings tests.
//   keys <file> <prefix> <count>   sets <prefix><i> = i for i in [0, count)
//   burst <file> <size>            rewrites "payload" with ever new versions
//                                  until killed; prints "ready" after the first
//   get <key>                      prints Settings::get(key)
//   set <key> <value>              Settings::set(key, value)
#include "JsonSettings.h"
#include "Settings.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

namespace {

/// The burst's version n: its number, a colon, then size copies of one
/// letter, so a reader can tell a complete version from a torn one.
QString burstPayload(int n, int size)
{
    return QString::number(n) + QLatin1Char(':') + QString(size, QLatin1Char('a' + n % 26));
}

int usage()
{
    std::fputs("usage: settings_helper keys|burst|get|set ...\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2)
        return usage();
    const QString command = args.at(1);

    if (command == QLatin1String("keys") && args.size() == 5) {
        JsonSettings settings(args.at(2), JsonSettings::ReadWrite);
        const int count = args.at(4).toInt();
        for (int i = 0; i < count; ++i) {
            if (!settings.setValue(args.at(3) + QString::number(i), i))
                return 1;
        }
        return 0;
    }
    if (command == QLatin1String("burst") && args.size() == 4) {
        JsonSettings settings(args.at(2), JsonSettings::ReadWrite);
        const int size = args.at(3).toInt();
        for (int n = 0;; ++n) {
            if (!settings.setValue(QStringLiteral("payload"), burstPayload(n, size)))
                return 1;
            if (n == 0) {
                std::puts("ready");
                std::fflush(stdout);
            }
        }
    }
    if (command == QLatin1String("get") && args.size() == 3) {
        std::puts(Settings::get(args.at(2)).toString().toUtf8().constData());
        return 0;
    }
    if (command == QLatin1String("set") && args.size() == 4) {
        Settings::set(args.at(2), args.at(3));
        return 0;
    }
    return usage();
}
