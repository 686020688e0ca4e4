// hvtool settings: list, get, set and reset the user's settings.
#include "Command.h"

#include "JsonSettings.h"
#include "Paths.h"
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

const SettingKey *findKey(const QString &key)
{
    for (const SettingKey &known : settingKeys()) {
        if (known.key == key)
            return &known;
    }
    return nullptr;
}

/// Refuses a key hvtool does not know (exit 2), naming those it does.
int checkKey(Context &ctx)
{
    if (findKey(ctx.arg(0)))
        return Success;
    QStringList keys;
    for (const SettingKey &known : settingKeys())
        keys << known.key;
    return ctx.fail(Usage, QStringLiteral("unknown setting '%1'; the settings are %2").arg(ctx.arg(0), keys.join(", ")));
}

/// Where the value of key comes from: "user" for the user's own, else
/// "default", or "environment" for a default that HV_HOME decides.
QString sourceOf(const QString &key, const QVariant &value)
{
    // The devices directory is written into the user's file on first use,
    // as the directory below the home.
    const bool machineDefault =
        key == VMToolsEngine::devicesDirectoryKey() && value.toString() == Paths::getDeployedPath();
    if (Settings::getUserSettings()->keyExists(key) && !machineDefault)
        return QStringLiteral("user");
    return machineDefault && !qEnvironmentVariableIsEmpty("HV_HOME") ? QStringLiteral("environment")
                                                                      : QStringLiteral("default");
}

int list(Context &ctx)
{
    Output output;
    QJsonArray array;
    for (const SettingKey &known : settingKeys()) {
        const QVariant value = Settings::get(known.key);
        const QString source = sourceOf(known.key, value);
        array.append(QJsonObject{{"key", known.key}, {"value", QJsonValue::fromVariant(value)},
                                 {"source", source}, {"description", known.description}});
        output.lines << QStringLiteral("%1 = %2  (%3)").arg(known.key, render(value), source)
                     << QStringLiteral("    ") + known.description;
    }
    output.json = array;
    return ctx.show(output);
}

int get(Context &ctx)
{
    const QString key = ctx.arg(0);
    const QVariant value = Settings::get(key);
    if (!value.isValid())
        return ctx.fail(NotFound, QStringLiteral("setting '%1' is not set and has no default").arg(key));
    return ctx.show({QJsonObject{{"key", key}, {"value", QJsonValue::fromVariant(value)},
                                 {"source", sourceOf(key, value)}},
                     {},
                     {},
                     {render(value)}});
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
    const bool directory = key == VMToolsEngine::devicesDirectoryKey();
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
    const SettingKey *known = findKey(key);
    const QString wrong = known->refuse ? known->refuse(ctx.arg(1)) : QString();
    if (!wrong.isEmpty())
        return ctx.fail(Usage, QStringLiteral("setting '%1' cannot be '%2': %3").arg(key, ctx.arg(1), wrong));
    const int refused = checkWithEngine(ctx, key, value);
    if (refused != Success)
        return refused;
    Settings::set(key, value);
    // The store refuses some writes (a leaf over an object); read it back.
    if (Settings::get(key) != value)
        return ctx.fail(Failed, QStringLiteral("could not store setting '%1'").arg(key));
    return ctx.done(QJsonObject{{"key", key}, {"value", QJsonValue::fromVariant(value)}, {"source", "user"}},
                    QStringLiteral("%1 = %2").arg(key, render(value)));
}

int reset(Context &ctx)
{
    const QString key = ctx.arg(0);
    Settings::remove(key);
    // A write that failed (a full disk) leaves the user's value in place.
    if (Settings::getUserSettings()->keyExists(key))
        return ctx.fail(Failed, QStringLiteral("could not reset setting '%1'").arg(key));
    const QVariant value = Settings::get(key);
    return ctx.done(QJsonObject{{"key", key}, {"value", QJsonValue::fromVariant(value)}, {"source", "default"}},
                    value.isValid() ? QStringLiteral("reset %1 to its default, %2").arg(key, render(value))
                                    : QStringLiteral("reset %1; it has no default").arg(key));
}

QString refuseRelativePath(const QString &text)
{
    return QDir::isAbsolutePath(text) ? QString() : QStringLiteral("it must be an absolute path");
}

QString refusePositive(const QString &text)
{
    bool ok = false;
    return text.toInt(&ok) >= 1 && ok ? QString() : QStringLiteral("it must be a whole number of 1 or more");
}

/// The engine a name loads, or why none does.
QString refuseUnknownEngine(const QString &text)
{
    const VMToolsEngine::LoadResult loaded = VMToolsEngine::loadEngine(text, VMToolsEngine::NoAccelerationCheck);
    const std::unique_ptr<VMToolsEngine> e(loaded.engine);
    return e ? QString() : QStringLiteral("no engine of that name can be used here");
}

} // namespace

QList<SettingKey> &settingKeys()
{
    static QList<SettingKey> all;
    return all;
}

void addSettingsCommands()
{
    settingKeys() << SettingKey{"hypervisor", "the engine that runs the devices: qemu", refuseUnknownEngine}
                  << SettingKey{"emulator.accelerator", "how guests run: auto (kvm when it works, else tcg), kvm or tcg"}
                  << SettingKey{"emulator.audio", "the guests' sound: auto (pa when a sound server answers), none or "
                                                  "pa"}
                  << SettingKey{VMToolsEngine::devicesDirectoryKey(),
                                "the directory that holds the devices (an absolute path)", refuseRelativePath}
                  << SettingKey{"images.catalogue_url", "the address of the catalogue 'image available' and 'image "
                                                        "pull' read"}
                  << SettingKey{"downloads.ca_file", "a PEM file of certificate authorities trusted for downloads "
                                                     "beside the system's; empty for none"}
                  << SettingKey{"downloads.stall_timeout", "seconds without a byte after which a download is "
                                                           "abandoned (its part kept to resume), 1 or more",
                                refusePositive};
    const QString keysHelp = QStringLiteral("'hvtool settings list' shows the settings, their values and what they do.");
    commands() << Command{{"settings", "list"}, {}, "List the settings, their values, where each comes from and what "
                                                    "it does.", {}, 0, 0, list}
                          .withExample("hvtool settings list")
               << Command{{"settings", "get"}, "KEY", "Print one setting (the default when the user has none).", {},
                          1, 1, get, DeviceUse::None, DeviceState::Any, {}, checkKey}
                          .withDetails(keysHelp)
                          .withExample("hvtool settings get emulator.accelerator")
               << Command{{"settings", "set"}, "KEY VALUE", "Change a setting.", {}, 2, 2, set, DeviceUse::None,
                          DeviceState::Any, {}, checkKey}
                          .withDetails(keysHelp)
                          .withExample("hvtool settings set emulator.accelerator tcg")
               << Command{{"settings", "reset"}, "KEY", "Remove the user's value, so the default shows again.", {},
                          1, 1, reset, DeviceUse::None, DeviceState::Any, {}, checkKey}
                          .withExample("hvtool settings reset emulator.accelerator");
}

} // namespace hvtool
