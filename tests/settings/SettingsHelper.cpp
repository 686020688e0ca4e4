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

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString command = args.value(1);
    if (command == QLatin1String("keys") && args.size() == 5) {
        JsonSettings settings(args.at(2), JsonSettings::ReadWrite);
        for (int i = 0; i < args.at(4).toInt(); ++i) {
            if (!settings.setValue(args.at(3) + QString::number(i), i))
                return 1;
        }
        return 0;
    }
    if (command == QLatin1String("burst") && args.size() == 4) {
        // Version n is its number, a colon, then size copies of one letter,
        // so a reader can tell a complete version from a torn one.
        JsonSettings settings(args.at(2), JsonSettings::ReadWrite);
        for (int n = 0;; ++n) {
            const QString payload = QString::number(n) + ':' + QString(args.at(3).toInt(), QChar('a' + n % 26));
            if (!settings.setValue(QStringLiteral("payload"), payload))
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
    std::fputs("usage: settings_helper keys|burst|get|set ...\n", stderr);
    return 2;
}
