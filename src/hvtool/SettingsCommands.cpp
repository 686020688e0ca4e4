// hvtool settings: list, get, set and reset the user's settings.
#include "Command.h"

#include "JsonSettings.h"
#include "Settings.h"
#include "VMToolsEngine.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QVariant>

#include <memory>

namespace hvtool {
namespace {

QString render(const QVariant &value)
{
    const QJsonValue json = QJsonValue::fromVariant(value);
    if (json.isObject())
        return QString::fromUtf8(QJsonDocument(json.toObject()).toJson(QJsonDocument::Compact));
    if (json.isArray())
        return QString::fromUtf8(QJsonDocument(json.toArray()).toJson(QJsonDocument::Compact));
    if (json.isBool())
        return json.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    if (json.isNull())
        return QStringLiteral("null");
    return value.toString();
}

/// A value typed on the command line: JSON literals keep their type
/// (true, 12, 1.5, null, [..], {..}); anything else is a string.
QVariant parseValue(const QString &text)
{
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray("[") + text.toUtf8() + "]");
    if (document.isArray() && document.array().size() == 1)
        return document.array().at(0).toVariant();
    return text;
}

int list(Context &ctx)
{
    const QVariantMap all = Settings::getAll();
    Output output{QJsonObject::fromVariantMap(all), {}, {}, {}};
    for (auto it = all.cbegin(); it != all.cend(); ++it)
        output.lines << it.key() + QStringLiteral(" = ") + render(it.value());
    return ctx.show(output);
}

int get(Context &ctx)
{
    const QString key = ctx.arg(0);
    const QVariant value = Settings::get(key);
    if (!value.isValid())
        return ctx.fail(NotFound, QStringLiteral("setting '%1' is not set and has no default").arg(key));
    return ctx.show({QJsonObject{{key, QJsonValue::fromVariant(value)}}, {}, {}, {render(value)}});
}

/// Success when the engine takes value for key, else its refusal reported.
/// The devices directory goes only where no one else's files are, since
/// listing and deleting take it as the system's. Without a working engine
/// only the devices directory is refused: the engine checks its own
/// settings again when it uses them.
int checkWithEngine(Context &ctx, const QString &key, const QVariant &value)
{
    const VMToolsEngine::LoadResult loaded = VMToolsEngine::loadEngine(VMToolsEngine::NoAccelerationCheck);
    const std::unique_ptr<VMToolsEngine> e(loaded.engine);
    const bool directory = key == VMToolsEngine::devicesDirectoryKey() && QDir::isAbsolutePath(value.toString());
    if (!e)
        return directory ? ctx.fail(Failed, QStringLiteral("cannot tell whether '%1' may be the devices directory: "
                                                           "the engine cannot be used: %2")
                                                .arg(value.toString(), loaded.message))
                         : Success;
    const QStringList allowed = e->settingChoices(key);
    if (!allowed.isEmpty() && !allowed.contains(ctx.arg(1)))
        return ctx.fail(Usage, QStringLiteral("setting '%1' takes one of %2, not '%3'")
                                   .arg(key, allowed.join(QLatin1String(", ")), ctx.arg(1)));
    const QString foreign = directory ? e->foreignDevicesDirectoryReason(value.toString()) : QString();
    return foreign.isEmpty()
        ? Success
        : ctx.fail(Conflict, QStringLiteral("not using it as the devices directory: %1").arg(foreign));
}

int set(Context &ctx)
{
    const QString key = ctx.arg(0);
    const QVariant value = parseValue(ctx.arg(1));
    const int refused = checkWithEngine(ctx, key, value);
    if (refused != Success)
        return refused;
    Settings::set(key, value);
    // The store refuses some writes (a leaf over an object); read it back.
    if (Settings::get(key) != value)
        return ctx.fail(Failed, QStringLiteral("could not store setting '%1'").arg(key));
    return ctx.done(QJsonObject{{key, QJsonValue::fromVariant(value)}},
                    QStringLiteral("%1 = %2").arg(key, render(value)));
}

int reset(Context &ctx)
{
    Settings::remove(ctx.arg(0));
    // A write that failed (a full disk) leaves the user's value in place.
    if (Settings::getUserSettings()->keyExists(ctx.arg(0)))
        return ctx.fail(Failed, QStringLiteral("could not reset setting '%1'").arg(ctx.arg(0)));
    const QVariant value = Settings::get(ctx.arg(0));
    return ctx.done(QJsonObject{{ctx.arg(0), QJsonValue::fromVariant(value)}},
                    value.isValid() ? QStringLiteral("reset %1 to its default, %2").arg(ctx.arg(0), render(value))
                                    : QStringLiteral("reset %1; it has no default").arg(ctx.arg(0)));
}

} // namespace

void addSettingsCommands()
{
    commands() << Command{{"settings", "list"}, {}, "List the user's settings and their values.", {}, 0, 0, list}
               << Command{{"settings", "get"}, "KEY", "Print one setting (the default when the user has none).", {},
                          1, 1, get}
               << Command{{"settings", "set"}, "KEY VALUE",
                          "Store a setting. JSON literals (true, 12, null, [..]) keep their type.", {}, 2, 2, set}
               << Command{{"settings", "reset"}, "KEY", "Remove the user's value, so the default shows again.", {},
                          1, 1, reset};
}

} // namespace hvtool
