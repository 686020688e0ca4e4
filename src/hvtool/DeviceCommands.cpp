// hvtool device: create, list, start, stop, snapshot, clone, reset, delete
// and configure virtual devices, through the engine interface.
#include "Catalog.h"
#include "AdbCommands.h"
#include "Command.h"
#include "Engine.h"
#include "InterruptGuard.h"
#include "ProfileFields.h"
#include "Progress.h"
#include "PullCommands.h"
#include "WaitCommand.h"

#include "HwProfileIO.h"
#include "OsImageIO.h"
#include "VMToolsEngine.h"
#include "VMToolsMachine.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace hvtool {
namespace {

const QString kLatest = VMToolsEngine::latestSnapshotName();

using MachinePtr = std::unique_ptr<VMToolsMachine>;

QString secondsText(qint64 ms)
{
    return QString::number(ms / 1000.0, 'f', 2);
}

bool validName(const QString &name)
{
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z0-9][A-Za-z0-9._ -]{0,63}$"));
    return pattern.match(name).hasMatch() && !name.contains(QLatin1String(".."));
}

QJsonValue orNull(bool present, const QJsonValue &value)
{
    return present ? value : QJsonValue();
}

/// A value 'device set' changes: what it is, what it takes, and how the
/// device keeps it. Flags take true or false (on/off, yes/no, 1/0).
struct DeviceKey {
    const char *key;      ///< as 'device set' and 'device show' spell it
    const char *json;     ///< as the JSON output spells it
    const char *unit;     ///< empty for a flag
    qint64 minimum;
    qint64 maximum;
    bool hardware;        ///< changed only while the device is stopped
    const char *what;
    qint64 (*read)(const VMToolsMachine &);
    bool (*write)(VMToolsMachine &, qint64);
};

// device.json keeps the sizes as numbers its reader takes as int.
const DeviceKey kDeviceKeys[] = {
    {"cpus", "cpus", "CPUs", 1, HwProfile::MaxCpuCount, true, "virtual CPUs",
     [](const VMToolsMachine &m) { return qint64(m.getCpuCount()); },
     [](VMToolsMachine &m, qint64 v) { return m.setCpuCount(int(v)); }},
    {"ram", "ram_mb", "MB", HwProfile::MinRamSize, HwProfile::MaxRamSize, true, "guest memory",
     [](const VMToolsMachine &m) { return qint64(m.getRamSize()); },
     [](VMToolsMachine &m, qint64 v) { return m.setRamSize(v); }},
    {"sdcard-size", "sdcard_size_mb", "MB", 0, HwProfile::MaxRamSize, true, "size of the SD card",
     [](const VMToolsMachine &m) { return qint64(m.getSdCardSize()); },
     [](VMToolsMachine &m, qint64 v) { return m.setSdCardSize(v); }},
    {"sdcard", "sdcard", "", 0, 1, true, "whether the SD card is inserted",
     [](const VMToolsMachine &m) { return qint64(m.isSdCardInserted()); },
     [](VMToolsMachine &m, qint64 v) { return m.setSdCardInserted(v != 0); }},
    {"quickboot", "quickboot", "", 0, 1, false, "save the state at stop and resume it at start",
     [](const VMToolsMachine &m) { return qint64(m.isQuickbootEnabled()); },
     [](VMToolsMachine &m, qint64 v) { return m.setQuickbootEnabled(v != 0); }},
    {"root", "root", "", 0, 1, false, "root access in the guest",
     [](const VMToolsMachine &m) { return qint64(m.isRootAccessEnabled()); },
     [](VMToolsMachine &m, qint64 v) { return m.setRootAccessEnabled(v != 0); }},
    {"virtual-keyboard", "virtual_keyboard", "", 0, 1, false, "the on-screen keyboard",
     [](const VMToolsMachine &m) { return qint64(m.isVirtualKeyboardEnabled()); },
     [](VMToolsMachine &m, qint64 v) { return m.setVirtualKeyboardEnabled(v != 0); }},
    {"fullscreen", "fullscreen", "", 0, 1, false, "the window fills the screen",
     [](const VMToolsMachine &m) { return qint64(m.isFullScreen()); },
     [](VMToolsMachine &m, qint64 v) { return m.setFullScreen(v != 0); }},
};

const DeviceKey *findDeviceKey(const QString &key)
{
    for (const DeviceKey &k : kDeviceKeys) {
        if (key == QLatin1String(k.key))
            return &k;
    }
    return nullptr;
}

bool isFlag(const DeviceKey &key)
{
    return !*key.unit;
}

/// What 'device set --help' says of each key.
QString deviceKeysHelp()
{
    QString text = QStringLiteral("Keys (hardware keys only while the device is stopped):\n");
    for (const DeviceKey &k : kDeviceKeys) {
        const QString values = isFlag(k) ? QStringLiteral("true or false")
                                         : QStringLiteral("%1 to %2 %3").arg(k.minimum).arg(k.maximum).arg(k.unit);
        text += QStringLiteral("  %1 %2, %3%4\n")
                    .arg(QString::fromLatin1(k.key), -17)
                    .arg(QString::fromLatin1(k.what), values,
                         k.hardware ? QStringLiteral(" (hardware)") : QString());
    }
    return text.trimmed();
}

/// A key's value as 'device show' prints it.
QString deviceKeyText(const DeviceKey &key, qint64 value)
{
    if (isFlag(key))
        return value ? QStringLiteral("true") : QStringLiteral("false");
    return key.unit == QLatin1String("MB") ? QStringLiteral("%1 MB").arg(value) : QString::number(value);
}

QJsonObject describe(VMToolsEngine *e, VMToolsMachine &machine)
{
    const MachineRunInfo run = machine.getRunInfo();
    const bool on = run.state != VMToolsMachine::Off;
    QJsonObject object{
        {"name", machine.getName()},
        {"uuid", Catalog::bareUuid(machine.getUuid())},
        {"status", VMToolsMachine::getStatusString(run.state)},
        {"reason", orNull(!run.reason.isEmpty(), run.reason)},
        {"android_version", machine.getAndroidVersion().toString()},
        {"adb_serial", run.adbSerial},
        {"qmp_socket", orNull(on, run.controlSocket)},
        {"port_offset", orNull(on, run.portOffset)},
        {"pid", orNull(on && run.pid > 0, double(run.pid))},
        {"path", QDir(machine.getPath()).absolutePath()},
        {"size_on_disk", double(machine.getSizeOnDisk())},
        {"latest_snapshot", e->fetchSnapshotNames(&machine).contains(kLatest)},
        {"console_log", e->logPath(&machine, false)},
        {"emulator_log", e->logPath(&machine, true)},
    };
    for (const DeviceKey &key : kDeviceKeys) {
        const qint64 value = key.read(machine);
        object.insert(QLatin1String(key.json), isFlag(key) ? QJsonValue(value != 0) : QJsonValue(double(value)));
    }
    return object;
}

/// The device a command that made it names, described; its name alone when
/// it cannot be read back.
QJsonObject describeByName(VMToolsEngine *e, const QString &name)
{
    MachinePtr machine(findDevice(e, name));
    return machine ? describe(e, *machine) : QJsonObject{{"name", name}};
}

/// What a device held on a disk error shows, and what to do about it.
QString pausedText(const QString &name, const QString &reason)
{
    return QStringLiteral("'%1' is paused: %2; free space or mend the disk, then 'hvtool device resume \"%1\"'")
        .arg(name, reason);
}

/// Refuses a new device's name that something takes: a broken device, an
/// entry hvtool did not make, a device.
int refuseTakenName(Context &ctx, VMToolsEngine *e, const QString &name)
{
    const QString broken = e->brokenMachineReason(name);
    if (!broken.isEmpty())
        return ctx.fail(Conflict, QStringLiteral("device ") + brokenText(name, broken));
    const QString foreign = e->foreignEntryReason(name);
    if (!foreign.isEmpty())
        return ctx.fail(Conflict, QStringLiteral("the name '%1' is taken: %2").arg(name, foreign));
    if (e->doesMachineExist(name))
        return ctx.fail(Conflict, QStringLiteral("device '%1' already exists").arg(name));
    return Success;
}

QString phaseText(CreateProgress::Phase phase)
{
    switch (phase) {
    case CreateProgress::PreparingImage:
        return QStringLiteral("unpacking the image");
    case CreateProgress::CheckingImage:
        return QStringLiteral("checking the image");
    case CreateProgress::ConvertingImage:
        return QStringLiteral("converting the image's disks");
    case CreateProgress::MakingDisks:
        return QStringLiteral("making its disks");
    case CreateProgress::Waiting:
        break;
    }
    return QString();
}

/// Creates the device on a worker thread while this thread shows how far
/// the library says it has come, and cancels it on an interrupt.
int createWithProgress(VMToolsEngine *e, const QString &name, const OsImage &image, const HwProfile &profile,
                       QString *error)
{
    InterruptGuard guard;
    // The future wakes this thread the moment the creation ends; the tenth
    // of a second is only how often the progress is redrawn.
    std::packaged_task<int()> task(
        [&] { return e->createMachine(name, image, profile, [] { return InterruptGuard::interrupted(); }, error); });
    std::future<int> result = task.get_future();
    std::thread worker(std::move(task));
    Progress progress(QStringLiteral("creating device '%1'").arg(name), 0);
    while (result.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        const CreateProgress now = e->creationProgress(name, image);
        progress.update(now.done, now.total, phaseText(now.phase));
    }
    worker.join();
    progress.finish();
    return result.get();
}

/// Whether a is a newer image than b: a later Android, then a later image
/// version, then a later build.
bool newerImage(const OsImage &a, const OsImage &b)
{
    if (a.osVersion != b.osVersion)
        return b.osVersion < a.osVersion;
    if (a.imageVersion != b.imageVersion)
        return b.imageVersion < a.imageVersion;
    return a.buildDate > b.buildDate;
}

QString imageText(const OsImage &image)
{
    return QStringLiteral("'%1' (Android %2, %3)")
        .arg(image.name, image.osVersion.toString(), Catalog::bareUuid(image.uuid));
}

/// The image a create without --image uses: the only one, else the newest,
/// which it names; Usage when two are equally new, NotFound when none.
int defaultImage(Context &ctx, Stored<OsImage> *image)
{
    QList<Stored<OsImage>> all = OsImageRegistry::images();
    if (all.isEmpty())
        return ctx.fail(NotFound, QStringLiteral("there is no OS image yet: add one with 'hvtool image add FILE'"));
    std::stable_sort(all.begin(), all.end(),
                     [](const Stored<OsImage> &a, const Stored<OsImage> &b) { return newerImage(a.value, b.value); });
    if (all.size() > 1 && !newerImage(all.at(0).value, all.at(1).value))
        return ctx.fail(Usage, QStringLiteral("images %1 and %2 are equally new; name one with --image")
                                   .arg(imageText(all.at(0).value), imageText(all.at(1).value)));
    *image = all.first();
    ctx.note(all.size() == 1 ? QStringLiteral("using image %1, the only one").arg(imageText(image->value))
                             : QStringLiteral("using image %1, the newest of %2; another one with --image ID")
                                   .arg(imageText(image->value))
                                   .arg(all.size()));
    return Success;
}

/// The image a create uses: the one --image names, else the default one;
/// Success, or the exit code of the failure it reported.
int chooseImage(Context &ctx, Stored<OsImage> *image)
{
    const QString id = ctx.value(QStringLiteral("image"));
    const int code = ctx.isSet(QStringLiteral("image")) ? Catalog::findOne(ctx, QStringLiteral("image"), id,
                                                                           OsImageRegistry::find(id), image)
                                                        : defaultImage(ctx, image);
    return code;
}

/// The profile a create uses: the one --profile names, else the built-in
/// phone; with --cpus, --ram, --data-disk and --sdcard applied.
int chooseProfile(Context &ctx, HwProfile *profile)
{
    if (ctx.isSet(QStringLiteral("profile"))) {
        const QString id = ctx.value(QStringLiteral("profile"));
        Stored<HwProfile> found;
        const int code = Catalog::findOne(ctx, QStringLiteral("profile"), id, HwProfileRegistry::find(id), &found);
        if (code != Success)
            return code;
        *profile = found.value;
    } else {
        *profile = HwProfileRegistry::defaultProfile();
    }
    for (const ProfileFields::Field &field : ProfileFields::all()) {
        const QString key = QString::fromLatin1(field.key);
        const QString refusal = field.device && ctx.isSet(key) ? ProfileFields::apply(key, ctx.value(key), profile)
                                                               : QString();
        if (!refusal.isEmpty())
            return ctx.fail(Usage, QStringLiteral("--") + refusal);
    }
    return Success;
}

/// Says which profile a create took when none was named.
void noteDefaultProfile(Context &ctx, const HwProfile &profile)
{
    if (!ctx.isSet(QStringLiteral("profile")))
        ctx.note(QStringLiteral("using profile '%1' (CPUs %2, memory %3); another one with --profile ID")
                     .arg(profile.getModel())
                     .arg(profile.cpuCount)
                     .arg(sizeText(profile.ramSize << 20)));
}

int create(Context &ctx)
{
    const QString name = ctx.arg(0);
    if (!validName(name))
        return ctx.fail(Usage, QStringLiteral("'%1' is not a valid device name: use letters, digits, '.', '_', "
                                              "'-' and spaces, at most 64")
                                   .arg(name));
    Stored<OsImage> image;
    HwProfile profile;
    // A wrong option is refused before anything is looked up, a taken name
    // before an image is chosen for it.
    int code = chooseProfile(ctx, &profile);
    VMToolsEngine *e = code == Success ? engine(ctx, &code) : nullptr;
    if (!e || (code = refuseTakenName(ctx, e, name)) != Success || (code = chooseImage(ctx, &image)) != Success)
        return code;
    noteDefaultProfile(ctx, profile);
    if ((code = ensureOva(ctx, image.value)) != Success)
        return code;
    QElapsedTimer timer;
    timer.start();
    QString error;
    if (createWithProgress(e, name, image.value, profile, &error) != 0)
        return ctx.fail(Failed, QStringLiteral("could not create device '%1': %2").arg(name, error));
    return ctx.done(describeByName(e, name),
                    QStringLiteral("created device '%1' in %2 s").arg(name, secondsText(timer.elapsed())));
}

/// Calls work(i) for every i below count, spread over the host's cores when
/// there is enough of it: describing a thousand devices is most of a
/// listing's time. (The library itself starts no threads.)
void forEachInParallel(int count, const std::function<void(int)> &work)
{
    std::atomic<int> next{0};
    const auto worker = [&] {
        for (int i = next++; i < count; i = next++)
            work(i);
    };
    // Below a few dozen items a thread costs more than it saves.
    const int workers = count < 64 ? 1 : qBound(1, QThread::idealThreadCount(), 4);
    std::vector<std::thread> threads;
    for (int i = 1; i < workers; ++i)
        threads.emplace_back(worker);
    worker();
    for (std::thread &thread : threads)
        thread.join();
}

/// The directories that interrupted creations and clones left: each one as a
/// row with --all, else one line saying what they take.
QString listLeftovers(Context &ctx, VMToolsEngine *e, Output *output)
{
    int idle = 0;
    qint64 bytes = 0;
    const bool all = ctx.isSet(QStringLiteral("all"));
    QJsonArray array = output->json.toArray();
    for (const MachineLeftover &leftover : e->getLeftovers()) {
        idle += leftover.inProgress ? 0 : 1;
        bytes += leftover.inProgress ? 0 : leftover.bytes;
        if (!all)
            continue;
        const QString status = leftover.inProgress ? QStringLiteral("In progress") : QStringLiteral("Leftover");
        array.append(QJsonObject{{"name", leftover.name}, {"status", status}, {"device", leftover.device},
                                 {"operation", leftover.operation}, {"path", leftover.path},
                                 {"pid", orNull(leftover.pid > 0, double(leftover.pid))},
                                 {"size_on_disk", double(leftover.bytes)}});
        output->rows << QStringList{leftover.name, status, QString(), QString(), sizeText(leftover.bytes), QString()};
    }
    output->json = array;
    if (idle == 0)
        return QString();
    return QStringLiteral("%1 interrupted creation(s) or clone(s) left %2 in hidden directories; %3reclaim them "
                          "with 'hvtool device cleanup'")
        .arg(idle)
        .arg(sizeText(bytes),
             all ? QString() : QStringLiteral("see them with 'hvtool device list --all', "));
}

/// Every device described, in the order of names, then the broken ones with
/// their reasons.
Output listDevices(VMToolsEngine *e)
{
    // Each device is loaded and described on its own: nothing is shared but
    // the engine's read-only settings.
    const QStringList names = e->getMachineNames();
    std::vector<QJsonObject> described(size_t(names.size()));
    std::vector<QString> broken(size_t(names.size()));
    forEachInParallel(names.size(), [&](int i) {
        if (MachinePtr machine{e->getMachine(names[i])})
            described[size_t(i)] = describe(e, *machine);
        else
            broken[size_t(i)] = e->brokenMachineReason(names[i]);
    });
    Output output;
    QJsonArray array;
    for (const QJsonObject &object : described) {
        if (object.isEmpty())
            continue;
        array.append(object);
        output.rows << QStringList{object.value("name").toString(), object.value("status").toString(),
                                   object.value("android_version").toString(), object.value("adb_serial").toString(),
                                   sizeText(qint64(object.value("size_on_disk").toDouble())),
                                   object.value("latest_snapshot").toBool() ? QStringLiteral("yes") : QStringLiteral("no")};
        if (object.value("status") == QLatin1String("Paused"))
            output.lines << pausedText(object.value("name").toString(), object.value("reason").toString());
    }
    // A directory that holds no usable device is shown too, with the
    // reason, so that the user sees what takes its name and can remove it.
    for (int i = 0; i < names.size(); ++i) {
        const QString &reason = broken[size_t(i)];
        if (reason.isEmpty())
            continue;
        array.append(QJsonObject{{"name", names[i]}, {"status", "Broken"}, {"reason", reason},
                                 {"path", e->getDevicesDirectory().absoluteFilePath(names[i])}});
        output.rows << QStringList{names[i], QStringLiteral("Broken"), QString(), QString(), QString(), QString()};
        output.lines << brokenText(names[i], reason);
    }
    output.json = array;
    return output;
}

int list(Context &ctx)
{
    int code = Success;
    VMToolsEngine *e = engine(ctx, &code);
    if (!e)
        return code;
    Output output = listDevices(e);
    // The control socket's long path is in 'device show': the table fits
    // 80 columns.
    output.header = QStringList{"NAME", "STATUS", "ANDROID", "ADB", "SIZE", "LATEST"};
    const QString leftovers = listLeftovers(ctx, e, &output);
    if (!leftovers.isEmpty())
        output.lines << leftovers;
    return ctx.show(output);
}

/// The device's snapshots as 'snapshot list' shows them: a JSON array, and
/// a table.
Output snapshotTable(VMToolsEngine *e, VMToolsMachine &machine)
{
    Output output{QJsonValue(), {"NAME", "DATE", "SIZE", "LOADABLE"}, {}, {}};
    QJsonArray array;
    for (const SnapshotInfo &snapshot : e->fetchSnapshots(&machine)) {
        const QString mismatch = e->savedStateMismatch(&machine, snapshot.name);
        array.append(QJsonObject{{"name", snapshot.name},
                                 {"date", snapshot.date.toUTC().toString(Qt::ISODate)},
                                 {"size", double(snapshot.vmStateSize)},
                                 {"guest_clock_seconds", snapshot.guestClockNs / 1e9},
                                 {"quick_boot", snapshot.name == kLatest},
                                 {"loadable", mismatch.isEmpty()},
                                 {"not_loadable_because", orNull(!mismatch.isEmpty(), mismatch)}});
        output.rows << QStringList{snapshot.name + (snapshot.name == kLatest ? QStringLiteral(" (quick boot)") : QString()),
                                   snapshot.date.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                                   sizeText(snapshot.vmStateSize), mismatch.isEmpty() ? QStringLiteral("yes") : mismatch};
    }
    output.json = array;
    return output;
}

int snapshotList(Context &ctx)
{
    return ctx.show(snapshotTable(ctx.engine(), *ctx.device()));
}

/// One "key: value" line of 'device show'.
QString showLine(const QString &key, const QString &value)
{
    return QStringLiteral("%1 %2").arg(key + QLatin1Char(':'), -17).arg(value);
}

int show(Context &ctx)
{
    VMToolsEngine *e = ctx.engine();
    VMToolsMachine &machine = *ctx.device();
    QJsonObject object = describe(e, machine);
    Output output;
    for (const char *key : {"name", "uuid", "status", "reason", "android_version", "adb_serial", "qmp_socket",
                            "port_offset", "pid", "path", "console_log", "emulator_log"}) {
        const QJsonValue value = object.value(key);
        if (!value.isNull())
            output.lines << showLine(key, value.isDouble() ? QString::number(qint64(value.toDouble())) : value.toString());
    }
    output.lines << showLine("size_on_disk", sizeText(machine.getSizeOnDisk()))
                 << showLine("hardware", machine.getHwProfile().getName())
                 << showLine("os_image", machine.getOsImage().name);
    // Every value 'device set' changes, under the name it takes there.
    for (const DeviceKey &key : kDeviceKeys)
        output.lines << showLine(key.key, deviceKeyText(key, key.read(machine)));
    const Output snapshots = snapshotTable(e, machine);
    output.lines << showLine("snapshots", snapshots.rows.isEmpty() ? QStringLiteral("none") : QString()).trimmed();
    if (!snapshots.rows.isEmpty()) {
        for (const QString &line : tableLines(snapshots.header, snapshots.rows))
            output.lines << QStringLiteral("  ") + line;
    }
    object.insert("hardware_profile", HwProfileIO::toJsonObject(machine.getHwProfile()));
    object.insert("os_image", OsImageIO::toJsonObject(machine.getOsImage()));
    object.insert("snapshots", snapshots.json);
    output.json = object;
    return ctx.show(output);
}

/// Refuses a named snapshot the device does not have (exit 3) or cannot load
/// with its present hardware (exit 4); Success when it may be loaded.
int checkNamedSnapshot(Context &ctx, VMToolsEngine *e, VMToolsMachine &machine, const QString &snapshot)
{
    const QString name = machine.getName();
    if (!e->fetchSnapshotNames(&machine).contains(snapshot))
        return ctx.fail(NotFound, QStringLiteral("snapshot '%1' of device '%2' does not exist").arg(snapshot, name));
    // The user asked for that state: a state the device cannot take is
    // refused rather than replaced by a cold boot.
    const QString mismatch = e->savedStateMismatch(&machine, snapshot);
    if (!mismatch.isEmpty())
        return ctx.fail(Conflict, QStringLiteral("snapshot '%1' of device '%2' was %3; it cannot be loaded")
                                      .arg(snapshot, name, mismatch));
    return Success;
}

/// Moves a device of the previous layout onto its image's reference disks;
/// refuses one whose system disk has lost its backing file.
int checkBacking(Context &ctx, VMToolsEngine *e, const VMToolsMachine &machine)
{
    const QString problem = e->checkReferenceDisks(&machine);
    if (problem.isEmpty())
        return Success;
    return ctx.fail(Failed, QStringLiteral("device '%1' cannot be used: %2").arg(machine.getName(), problem));
}

void showNotes(Context &ctx, const QStringList &notes)
{
    for (const QString &line : notes)
        ctx.note(line);
}

/// Reads --wait, --snapshot, --cold, --accel, --force and --window into request;
/// Success, or the usage failure.
int readStartRequest(Context &ctx, StartRequest *request, int *waitSeconds)
{
    if (ctx.isSet(QStringLiteral("wait"))) {
        bool ok = false;
        *waitSeconds = ctx.value(QStringLiteral("wait")).toInt(&ok);
        if (!ok || *waitSeconds <= 0)
            return ctx.fail(Usage, QStringLiteral("--wait needs a number of seconds"));
    }
    request->snapshot = ctx.value(QStringLiteral("snapshot"));
    request->cold = ctx.isSet(QStringLiteral("cold"));
    if (!request->snapshot.isEmpty() && request->cold)
        return ctx.fail(Usage, QStringLiteral("--cold and --snapshot exclude each other"));
    request->accelerator = ctx.value(QStringLiteral("accel"));
    if (ctx.isSet(QStringLiteral("accel")) && request->accelerator.isEmpty())
        return ctx.fail(Usage, QStringLiteral("--accel needs an accelerator"));
    request->ignoreMemory = ctx.isSet(QStringLiteral("force"));
    request->window = ctx.isSet(QStringLiteral("window"));
    return Success;
}

int checkStartArguments(Context &ctx)
{
    StartRequest request;
    int waitSeconds = 0;
    return readStartRequest(ctx, &request, &waitSeconds);
}

/// Reports a start that did not bring the device up, with the exit code its
/// cause calls for.
int reportStartFailure(Context &ctx, const VMToolsMachine &machine, const StartOutcome &outcome)
{
    const QString name = machine.getName();
    switch (outcome.result) {
    case StartOutcome::BadRequest:
        return ctx.fail(Usage, QStringLiteral("--accel %1").arg(outcome.failure));
    case StartOutcome::NoSuchSnapshot:
        return ctx.fail(NotFound, outcome.failure);
    case StartOutcome::SnapshotUnloadable:
        return ctx.fail(Conflict, outcome.failure);
    case StartOutcome::ShortOfMemory:
        return ctx.fail(Conflict, QStringLiteral("device '%1' not started: %2; use --force to start it anyway")
                                      .arg(name, outcome.failure));
    default:
        return ctx.fail(Failed, QStringLiteral("could not start device '%1': %2").arg(name, outcome.failure));
    }
}

/// The started device: how it booted, how long it took, where to reach it.
Output startedOutput(Context &ctx, VMToolsMachine &machine, const StartOutcome &outcome, qint64 startedMs,
                     qint64 readyMs, const GuestWait *wait)
{
    static const char *const boots[] = {"cold", "resumed", "snapshot"};
    const QString how = QString::fromLatin1(boots[outcome.boot]);
    const MachineRunInfo run = machine.getRunInfo();
    QJsonObject object = describe(ctx.engine(), machine);
    object.insert("boot", how);
    object.insert("start_seconds", startedMs / 1000.0);
    QStringList lines{QStringLiteral("started '%1' (%2) in %3 s").arg(machine.getName(), how, secondsText(startedMs)),
                      QStringLiteral("adb serial: %1").arg(run.adbSerial),
                      QStringLiteral("qmp socket: %1").arg(run.controlSocket)};
    if (wait) {
        object.insert("ready_seconds", readyMs / 1000.0);
        object.insert("banner", QString::fromUtf8(wait->banner).trimmed());
        lines << (wait->bootAwaited ? QStringLiteral("guest booted after %1 s") : QStringLiteral("guest answered after %1 s"))
                     .arg(secondsText(readyMs));
    }
    return Output{object, {}, {}, lines};
}

int start(Context &ctx)
{
    StartRequest request;
    int waitSeconds = 0;
    readStartRequest(ctx, &request, &waitSeconds);
    VMToolsEngine *e = ctx.engine();
    VMToolsMachine &machine = *ctx.device();
    int code = checkBacking(ctx, e, machine);
    if (code != Success)
        return code;
    QElapsedTimer timer;
    timer.start();
    StartOutcome outcome = ticking(QStringLiteral("starting '%1'").arg(machine.getName()),
                                   [&] { return e->startDevice(&machine, request); });
    showNotes(ctx, outcome.notes);
    if (!outcome.started())
        return reportStartFailure(ctx, machine, outcome);
    const qint64 startedMs = timer.elapsed();
    // The device runs: waiting for its guest changes nothing, and a stop
    // may come meanwhile.
    ctx.releaseDevice();
    GuestWait wait;
    if (waitSeconds > 0 && (code = awaitGuest(ctx, machine, waitSeconds, &wait)) != Success)
        return code;
    // A restart on the way leaves the boot cold.
    if (wait.restartedCold)
        outcome.boot = StartOutcome::Cold;
    Output output = startedOutput(ctx, machine, outcome, startedMs, timer.elapsed(), waitSeconds > 0 ? &wait : nullptr);
    const bool resumed = outcome.boot != StartOutcome::Cold;
    afterStart(ctx, machine, resumed, resumed || waitSeconds > 0, &output);
    return ctx.show(output);
}

/// Says that the state saved as snapshot is there but what it was saved
/// with is not recorded, and why.
void noteUnrecordedState(Context &ctx, const QString &device, const QString &snapshot)
{
    QString cause;
    for (const QString &problem : recentLibraryProblems()) {
        if (problem.startsWith(QLatin1String("Failed to write")))
            cause = QStringLiteral(" (%1)").arg(problem);
    }
    ctx.note(QStringLiteral("saved snapshot '%1' of device '%2', but could not record what it was saved with%3: a "
                            "start tries it, and boots cold if it no longer fits the device")
                 .arg(snapshot, device, cause));
}

/// Saves the state snapshot of the running device; Success, or the exit
/// code of the failure reported with what follows it.
int saveState(Context &ctx, VMToolsMachine &machine, const QString &snapshot, const QString &consequence)
{
    bool recorded = true;
    const QString what =
        snapshot == kLatest ? QStringLiteral("the quick-boot state") : QStringLiteral("snapshot '%1'").arg(snapshot);
    if (!ticking(QStringLiteral("saving %1 of '%2'").arg(what, machine.getName()),
                 [&] { return ctx.engine()->saveSnapshot(&machine, snapshot, &recorded); }))
        return ctx.fail(Failed,
                        QStringLiteral("could not save %1 of device '%2'%3").arg(what, machine.getName(), consequence));
    if (!recorded)
        noteUnrecordedState(ctx, machine.getName(), snapshot);
    return Success;
}

int stop(Context &ctx)
{
    VMToolsMachine &machine = *ctx.device();
    const QString name = machine.getName();
    // What the user asked for is already so: a script that stops its
    // devices goes on.
    if (machine.getStatus() != VMToolsMachine::On)
        return ctx.done(QJsonObject{{"name", name}, {"was_running", false}},
                        QStringLiteral("device '%1' is not running; nothing to stop").arg(name));
    if (ctx.isSet(QStringLiteral("force"))) {
        if (!machine.forceStop())
            return ctx.fail(Failed, QStringLiteral("could not kill the emulator of device '%1'").arg(name));
        return ctx.done(QJsonObject{{"name", name}, {"was_running", true}, {"killed", true}},
                        QStringLiteral("killed '%1'").arg(name));
    }
    QElapsedTimer timer;
    timer.start();
    const bool save = machine.isQuickbootEnabled() && !ctx.isSet(QStringLiteral("no-save"));
    if (save) {
        const int code = saveState(ctx, machine, kLatest, QStringLiteral("; it still runs (use --no-save to stop "
                                                                         "without saving)"));
        if (code != Success)
            return code;
    }
    const qint64 savedMs = timer.elapsed();
    beforeStop(machine);
    const bool quit = ticking(QStringLiteral("stopping '%1'").arg(name), [&] {
        ctx.engine()->stopMachine(&machine);
        return machine.waitForStop(30000);
    });
    if (!quit) {
        ctx.note(QStringLiteral("device '%1' did not quit within 30 s; killing it").arg(name));
        machine.forceStop();
        machine.waitForStop(5000);
    }
    return ctx.show({QJsonObject{{"name", name}, {"was_running", true}, {"saved", save}, {"save_seconds", savedMs / 1000.0},
                                 {"stop_seconds", timer.elapsed() / 1000.0}},
                     {},
                     {},
                     {QStringLiteral("stopped '%1'%2 in %3 s")
                          .arg(name, save ? QStringLiteral(" (quick-boot state saved)") : QString(),
                               secondsText(timer.elapsed()))}});
}

int resume(Context &ctx)
{
    VMToolsMachine &machine = *ctx.device();
    QString reason;
    if (!machine.resumeFromDiskError(&reason))
        return ctx.fail(Conflict, QStringLiteral("device '%1' stays paused: %2").arg(machine.getName(), reason));
    return ctx.show({describe(ctx.engine(), machine), {}, {}, {QStringLiteral("resumed '%1'").arg(machine.getName())}});
}

/// What a snapshot command that took seconds shows.
int showSnapshotDone(Context &ctx, const QString &verb, qint64 ms)
{
    return ctx.show({QJsonObject{{"name", ctx.device()->getName()}, {"snapshot", ctx.arg(1)}, {"seconds", ms / 1000.0}},
                     {},
                     {},
                     {QStringLiteral("%1 snapshot '%2' in %3 s").arg(verb, ctx.arg(1), secondsText(ms))}});
}

int snapshotLoad(Context &ctx)
{
    VMToolsMachine &machine = *ctx.device();
    const QString snapshot = ctx.arg(1);
    const int refused = checkNamedSnapshot(ctx, ctx.engine(), machine, snapshot);
    if (refused != Success)
        return refused;
    QElapsedTimer timer;
    timer.start();
    if (!ticking(QStringLiteral("loading snapshot '%1' of '%2'").arg(snapshot, machine.getName()),
                 [&] { return ctx.engine()->loadSnapshot(&machine, snapshot); }))
        return ctx.fail(Failed, QStringLiteral("could not load snapshot '%1' of device '%2'")
                                    .arg(snapshot, machine.getName()));
    return showSnapshotDone(ctx, QStringLiteral("loaded"), timer.elapsed());
}

/// Refuses a name a snapshot cannot be saved under.
int checkSnapshotName(Context &ctx)
{
    static const QRegularExpression valid(QStringLiteral("^\\w{1,64}$"));
    if (!valid.match(ctx.arg(1)).hasMatch())
        return ctx.fail(Usage, QStringLiteral("'%1' is not a valid snapshot name: use letters, digits and '_'")
                                   .arg(ctx.arg(1)));
    // Saving the quick-boot state ends a session: 'device stop' does it.
    if (ctx.arg(1) == kLatest)
        return ctx.fail(Usage, QStringLiteral("'%1' is the quick-boot state, saved by 'hvtool device stop'; choose "
                                              "another name")
                                   .arg(kLatest));
    return Success;
}

int snapshotSave(Context &ctx)
{
    QElapsedTimer timer;
    timer.start();
    const int code = saveState(ctx, *ctx.device(), ctx.arg(1), QString());
    return code != Success ? code : showSnapshotDone(ctx, QStringLiteral("saved"), timer.elapsed());
}

int snapshotDelete(Context &ctx)
{
    VMToolsMachine &machine = *ctx.device();
    if (!ctx.engine()->fetchSnapshotNames(&machine).contains(ctx.arg(1)))
        return ctx.fail(NotFound, QStringLiteral("snapshot '%1' of device '%2' does not exist")
                                      .arg(ctx.arg(1), machine.getName()));
    if (!ctx.engine()->deleteSnapshot(&machine, ctx.arg(1)))
        return ctx.fail(Failed, QStringLiteral("could not delete snapshot '%1' of device '%2'")
                                    .arg(ctx.arg(1), machine.getName()));
    return ctx.done(QJsonObject{{"name", machine.getName()}, {"snapshot", ctx.arg(1)}, {"deleted", true}},
                    QStringLiteral("deleted snapshot '%1' of device '%2'").arg(ctx.arg(1), machine.getName()));
}

/// Refuses a clone whose new name is taken or whose source cannot be copied
/// as it is; Success when it may go ahead.
int checkClone(Context &ctx, const QString &newName, bool running, bool crashConsistent)
{
    VMToolsMachine &machine = *ctx.device();
    if (!validName(newName))
        return ctx.fail(Usage, QStringLiteral("'%1' is not a valid device name").arg(newName));
    if (const int taken = refuseTakenName(ctx, ctx.engine(), newName))
        return taken;
    if (running && !crashConsistent)
        return ctx.fail(Conflict, QStringLiteral("device '%1' is running: its disks change while they are copied; "
                                                 "stop it first, or ask for a crash-consistent copy with "
                                                 "--crash-consistent")
                                      .arg(machine.getName()));
    if (running)
        ctx.note(QStringLiteral("device '%1' is running: pausing it for a crash-consistent copy (its disks as a power "
                                "cut now would leave them)")
                     .arg(machine.getName()));
    return running ? Success : checkBacking(ctx, ctx.engine(), machine);
}

int clone(Context &ctx)
{
    VMToolsMachine &machine = *ctx.device();
    const QString newName = ctx.arg(1);
    const bool running = machine.getStatus() == VMToolsMachine::On;
    const bool crashConsistent = ctx.isSet(QStringLiteral("crash-consistent"));
    const int refused = checkClone(ctx, newName, running, crashConsistent);
    if (refused != Success)
        return refused;
    const int result = ticking(QStringLiteral("copying '%1' to '%2'").arg(machine.getName(), newName),
                               [&] { return ctx.engine()->cloneMachine(&machine, newName, crashConsistent); });
    if (result == 2)
        return ctx.fail(Conflict, QStringLiteral("device '%1' already exists").arg(newName));
    if (result != 0)
        return ctx.fail(Failed, QStringLiteral("could not clone device '%1' to '%2'").arg(machine.getName(), newName));
    QJsonObject object = describeByName(ctx.engine(), newName);
    object.insert("crash_consistent", running);
    return ctx.show({object, {}, {}, {QStringLiteral("cloned '%1' to '%2'%3")
                                          .arg(machine.getName(), newName,
                                               running ? QStringLiteral(" (a crash-consistent copy of the running device)")
                                                       : QString())}});
}

int reset(Context &ctx)
{
    VMToolsMachine &machine = *ctx.device();
    const QString name = machine.getName();
    if (checkBacking(ctx, ctx.engine(), machine) != Success)
        return Failed;
    const QStringList snapshots = ctx.engine()->fetchSnapshotNames(&machine);
    if (!snapshots.isEmpty())
        ctx.note(QStringLiteral("resetting '%1' deletes its snapshots: %2").arg(name, snapshots.join(QLatin1String(", "))));
    if (const int refused = ctx.confirm(QStringLiteral("Reset device '%1' to its factory state? Its data will be lost.")
                                            .arg(name),
                                        QStringLiteral("device '%1' not reset").arg(name)))
        return refused;
    const VMToolsEngine::ResetResult result = ticking(QStringLiteral("resetting '%1'").arg(name),
                                                      [&] { return ctx.engine()->resetDevice(&machine); });
    if (result == VMToolsEngine::ResetResult::Unchanged)
        return ctx.fail(Failed, QStringLiteral("could not reset device '%1'; its disks are unchanged").arg(name));
    if (result == VMToolsEngine::ResetResult::Pending)
        return ctx.fail(Failed, QStringLiteral("could not finish resetting device '%1': its new disks are complete but "
                                               "not all in place; the next command on it finishes the reset")
                                    .arg(name));
    return ctx.show({QJsonObject{{"name", name}, {"reset", true}}, {}, {},
                     {QStringLiteral("reset '%1' to its factory state").arg(name)}});
}

/// What a leftover left by a process that runs is, in words.
QString inProgressText(const MachineLeftover &leftover)
{
    return QStringLiteral("'%1' is left as it is: process %2 is still running the %3 of '%4'")
        .arg(leftover.name)
        .arg(leftover.pid)
        .arg(leftover.operation, leftover.device);
}

/// Removes what interrupted creations and clones left, except what a running
/// process still makes.
int cleanup(Context &ctx)
{
    int code = Success;
    VMToolsEngine *e = engine(ctx, &code);
    if (!e)
        return code;
    Output output;
    QJsonArray reclaimed;
    QStringList failed;
    for (const MachineLeftover &leftover : e->getLeftovers()) {
        if (leftover.inProgress) {
            ctx.note(inProgressText(leftover));
        } else if (!e->reclaimLeftover(leftover)) {
            failed << leftover.name;
        } else {
            reclaimed.append(QJsonObject{{"name", leftover.name}, {"size_on_disk", double(leftover.bytes)}});
            output.lines << QStringLiteral("reclaimed '%1' (%2), left by an interrupted %3 of '%4'")
                                .arg(leftover.name, sizeText(leftover.bytes), leftover.operation, leftover.device);
        }
    }
    if (reclaimed.isEmpty() && failed.isEmpty())
        output.lines << QStringLiteral("nothing to reclaim");
    output.json = reclaimed;
    ctx.show(output);
    if (!failed.isEmpty())
        return ctx.fail(Failed, QStringLiteral("could not remove %1").arg(failed.join(QLatin1String(", "))));
    return Success;
}

/// Deletes a device directory that holds no usable device.
int removeBroken(Context &ctx, VMToolsEngine *e, const QString &name, const QString &reason)
{
    if (const int refused = ctx.confirm(QStringLiteral("Delete the broken device '%1' (%2) and all its files?")
                                            .arg(name, reason),
                                        QStringLiteral("device '%1' not deleted").arg(name)))
        return refused;
    if (!e->deleteBrokenMachine(name))
        return ctx.fail(Failed, QStringLiteral("could not delete the broken device '%1'").arg(name));
    return ctx.show({QJsonObject{{"name", name}, {"deleted", true}}, {}, {}, {QStringLiteral("deleted device '%1'").arg(name)}});
}

/// Deletes the device, which the command holds locked.
int removeDevice(Context &ctx, VMToolsEngine *e, const QString &name)
{
    MachinePtr machine(findDevice(e, name));
    if (!machine)
        return ctx.fail(NotFound, QStringLiteral("device '%1' does not exist").arg(name));
    if (machine->getStatus() == VMToolsMachine::On)
        return ctx.fail(Conflict, QStringLiteral("device '%1' is running; stop it first").arg(name));
    if (const int refused = ctx.confirm(QStringLiteral("Delete device '%1' and all its data?").arg(name),
                                        QStringLiteral("device '%1' not deleted").arg(name)))
        return refused;
    if (!ticking(QStringLiteral("deleting '%1'").arg(name), [&] { return e->deleteMachine(machine.get()); }))
        return ctx.fail(Failed, QStringLiteral("could not delete device '%1'; it is unchanged").arg(name));
    return ctx.show({QJsonObject{{"name", name}, {"deleted", true}}, {}, {}, {QStringLiteral("deleted device '%1'").arg(name)}});
}

int remove(Context &ctx)
{
    int code = Success;
    VMToolsEngine *e = engine(ctx, &code);
    if (!e)
        return code;
    const QString name = ctx.arg(0);
    // A folder the system did not make is left as it is, lock file included.
    const QString foreign = e->foreignEntryReason(name);
    if (!foreign.isEmpty())
        return ctx.fail(NotFound, QStringLiteral("device '%1' does not exist: %2; it is left as it is").arg(name, foreign));
    // A broken directory is locked too: the command that holds it may be
    // about to make it whole.
    LockFiles::CommandLock lock;
    if ((code = lockDevice(ctx, e, name, &lock)) != Success)
        return code;
    const QString reason = e->brokenMachineReason(name);
    return reason.isEmpty() ? removeDevice(ctx, e, name) : removeBroken(ctx, e, name, reason);
}

bool parseBool(const QString &text, bool *ok)
{
    const QString t = text.toLower();
    *ok = true;
    if (t == "true" || t == "on" || t == "yes" || t == "1")
        return true;
    if (t == "false" || t == "off" || t == "no" || t == "0")
        return false;
    *ok = false;
    return false;
}

/// One change of 'device set', checked before any is applied.
struct Change {
    const DeviceKey *key = nullptr;
    qint64 value = 0;
};

/// Reads KEY=VALUE into change; Success, or the code of the refusal it
/// reported.
int parseChange(Context &ctx, const QString &item, bool running, Change *change)
{
    const int eq = item.indexOf(QLatin1Char('='));
    change->key = eq > 0 ? findDeviceKey(item.left(eq)) : nullptr;
    if (!change->key) {
        QStringList keys;
        for (const DeviceKey &k : kDeviceKeys)
            keys << QString::fromLatin1(k.key);
        return ctx.fail(Usage, QStringLiteral("'%1' is not KEY=VALUE with KEY one of %2").arg(item, keys.join(", ")));
    }
    const DeviceKey &key = *change->key;
    const QString value = item.mid(eq + 1);
    if (running && key.hardware)
        return ctx.fail(Conflict,
                        QStringLiteral("device '%1' is running; stop it before changing %2").arg(ctx.arg(0), key.key));
    bool ok = false;
    if (isFlag(key)) {
        change->value = parseBool(value, &ok);
        return ok ? Success : ctx.fail(Usage, QStringLiteral("%1 needs true or false, not '%2'").arg(key.key, value));
    }
    change->value = value.toLongLong(&ok);
    if (!ok || change->value < key.minimum || change->value > key.maximum)
        return ctx.fail(Usage, QStringLiteral("%1 needs a whole number from %2 to %3, not '%4'")
                                   .arg(key.key)
                                   .arg(key.minimum)
                                   .arg(key.maximum)
                                   .arg(value));
    return Success;
}

/// Names, before the changes apply, every snapshot they make unloadable: the
/// snapshots are checked against a copy of the device that has them.
void noteUnloadable(Context &ctx, VMToolsEngine *e, VMToolsMachine &machine, const QList<Change> &changes)
{
    MachinePtr changed(findDevice(e, machine.getName()));
    if (!changed)
        return;
    HwProfile hardware = changed->getHwProfile();
    for (const Change &change : changes) {
        if (change.key == findDeviceKey(QStringLiteral("cpus")))
            hardware.cpuCount = int(change.value);
        else if (change.key == findDeviceKey(QStringLiteral("ram")))
            hardware.ramSize = change.value;
    }
    changed->setHwProfile(hardware);
    const QString name = machine.getName();
    for (const QString &snapshot : e->fetchSnapshotNames(&machine)) {
        const QString mismatch = e->savedStateMismatch(changed.get(), snapshot);
        if (mismatch.isEmpty() || !e->savedStateMismatch(&machine, snapshot).isEmpty())
            continue;
        if (snapshot == kLatest)
            ctx.note(QStringLiteral("the quick-boot state of '%1' becomes unloadable: %2; the next start boots cold "
                                    "and discards it")
                         .arg(name, mismatch));
        else
            ctx.note(QStringLiteral("snapshot '%1' of '%2' becomes unloadable: %3; it loads again once the "
                                    "device has its old settings")
                         .arg(snapshot, name, mismatch));
    }
}

int set(Context &ctx)
{
    VMToolsMachine &machine = *ctx.device();
    const bool running = machine.getStatus() == VMToolsMachine::On;
    // Check everything before changing anything.
    QList<Change> changes;
    for (const QString &item : ctx.args().mid(1)) {
        Change change;
        const int refused = parseChange(ctx, item, running, &change);
        if (refused != Success)
            return refused;
        changes.append(change);
    }
    noteUnloadable(ctx, ctx.engine(), machine, changes);
    for (const Change &change : changes) {
        if (!change.key->write(machine, change.value))
            return ctx.fail(Failed,
                            QStringLiteral("could not set %1 of device '%2'").arg(change.key->key, machine.getName()));
    }
    QStringList changed;
    for (const Change &change : changes)
        changed << QStringLiteral("%1 = %2").arg(change.key->key, deviceKeyText(*change.key, change.value));
    return ctx.done(describe(ctx.engine(), machine),
                    QStringLiteral("set %1 of device '%2'").arg(changed.join(QLatin1String(", ")), machine.getName()));
}

/// A verb of the noun "device".
Command deviceCommand(const QStringList &verb, const QString &arguments, const QString &summary,
                      const QList<QCommandLineOption> &options, int minArgs, int maxArgs,
                      const std::function<int(Context &)> &run, DeviceUse use = DeviceUse::Read,
                      DeviceState state = DeviceState::Any, const QString &refusal = QString(),
                      const std::function<int(Context &)> &checkArguments = {})
{
    return Command{QStringList{"device"} + verb, arguments, summary, options, minArgs, maxArgs, run, use, state, refusal,
                   checkArguments};
}

void addSnapshotCommands()
{
    commands()
        << deviceCommand({"snapshot", "list"}, "NAME", "List the device's snapshots.", {}, 1, 1, snapshotList)
               .withExample("hvtool device snapshot list pixel")
        << deviceCommand({"snapshot", "save"}, "NAME SNAPSHOT", "Save the running device's state.", {}, 2, 2,
                         snapshotSave, DeviceUse::Change, DeviceState::Running,
                         "device '%1' is not running; start it to save its state", checkSnapshotName)
               .withExample("hvtool device snapshot save pixel before_update")
        << deviceCommand({"snapshot", "load"}, "NAME SNAPSHOT", "Return the running device to a saved snapshot.", {},
                         2, 2, snapshotLoad, DeviceUse::Change, DeviceState::Running,
                         "device '%1' is not running; start it with --snapshot %2 instead")
               .withExample("hvtool device snapshot load pixel before_update")
        << deviceCommand({"snapshot", "delete"}, "NAME SNAPSHOT", "Delete a snapshot of a stopped device.", {}, 2, 2,
                         snapshotDelete, DeviceUse::Change, DeviceState::Stopped)
               .withExample("hvtool device snapshot delete pixel before_update");
}

/// The verbs that start, resume and stop a device.
void addRunCommands()
{
    commands()
        << deviceCommand({"start"}, "NAME",
                         "Start a device: resume its quick-boot state when quick boot is on and its last session "
                         "ended by saving it, else boot cold with the disks as they are. A cold or snapshot start "
                         "discards the quick-boot state.",
                         {{"cold", "Boot cold even when a quick-boot state exists."},
                          {"snapshot", "Start from this named snapshot instead.", "SNAPSHOT"},
                          {"wait", QStringLiteral("Return only once the guest answers, waiting at most this long "
                                                  "(%1 s when SECONDS is left out); 'hvtool device wait' waits again.")
                                       .arg(kDefaultWaitSeconds),
                           "SECONDS"},
                          {"accel", "Run this start under kvm or tcg instead of the setting emulator.accelerator.",
                           "ACCELERATOR"},
                          {"force", "Start even when the host seems short of memory for it."},
                          {"window", "Show the device's screen in the emulator's window (needs a display; "
                                     "closing the window does not stop the device)."}},
                         1, 1, start, DeviceUse::Change, DeviceState::Stopped, "device '%1' is already running",
                         checkStartArguments)
               .withOptionalValue("wait", QString::number(kDefaultWaitSeconds))
               .withExample("hvtool device start pixel --wait")
        << deviceCommand({"resume"}, "NAME",
                         "Let a device that was paused on a full disk or a disk error go on, once the disk is mended.",
                         {}, 1, 1, resume, DeviceUse::Change, DeviceState::Paused)
               .withExample("hvtool device resume pixel")
        << deviceCommand({"stop"}, "NAME", "Stop a device gracefully, saving its state first when quick boot is on.",
                         {{"force", "Kill the emulator at once."},
                          {"no-save", "Do not save the quick-boot state: the next start boots cold and keeps this "
                                      "session's disk writes. To return to a known state later, save a named snapshot "
                                      "and start with --snapshot NAME."}},
                         1, 1, stop, DeviceUse::Change)
               .withExample("hvtool device stop pixel");
    addWaitCommand();
}

/// The options of 'device create': what it is made from, and the sizes that
/// override its profile's.
QList<QCommandLineOption> createOptions()
{
    QList<QCommandLineOption> options = {
        {"image", "OS image (name, uuid or record file); by default the only one, or the newest.", "ID"},
        {"profile", "Hardware profile (name, uuid or file); by default the built-in 'phone'.", "ID"},
        {"pull", "Download the image's OVA first when it is not on this machine."}};
    for (const ProfileFields::Field &field : ProfileFields::all()) {
        if (field.device)
            options << QCommandLineOption(QString::fromLatin1(field.key),
                                          ProfileFields::help(field) + QStringLiteral(" Overrides the profile's."),
                                          QString::fromLatin1(field.valueName));
    }
    return options;
}

} // namespace

void addDeviceCommands()
{
    const QCommandLineOption yes({"yes", "y"}, "Go ahead without asking (needed when stdin is not a terminal).");
    commands()
        << deviceCommand({"create"}, "NAME",
                         "Create a device from an OS image and a hardware profile, saying which it took by default.",
                         createOptions(), 1, 1, create, DeviceUse::None)
               .withExample("hvtool device create pixel")
        << deviceCommand({"list"}, {}, "List the devices and their state.",
                         {{"all", "Also list what interrupted creations and clones left."}}, 0, 0, list,
                         DeviceUse::None)
               .withExample("hvtool device list")
        << deviceCommand({"show"}, "NAME", "Show one device: its state, its settings, its snapshots, its profile "
                                           "and its image.", {}, 1, 1, show)
               .withExample("hvtool device show pixel");
    addRunCommands();
    addSnapshotCommands();
    commands()
        << deviceCommand({"clone"}, "NAME NEWNAME", "Copy a stopped device under a new name and identity.",
                         {{"crash-consistent", "Copy a running device too: it is paused for the copy, which holds "
                                               "its disks as a power cut at that moment would leave them."}},
                         2, 2, clone, DeviceUse::Change)
               .withExample("hvtool device clone pixel pixel-2")
        << deviceCommand({"reset"}, "NAME", "Reset a stopped device to its factory state.", {yes}, 1, 1, reset,
                         DeviceUse::Change, DeviceState::Stopped)
               .withExample("hvtool device reset pixel --yes")
        << deviceCommand({"delete"}, "NAME", "Delete a stopped device and its disks.", {yes}, 1, 1, remove,
                         DeviceUse::None)
               .withExample("hvtool device delete pixel --yes")
        << deviceCommand({"cleanup"}, {},
                         "Remove what interrupted creations and clones left, unless they are still running.", {}, 0,
                         0, cleanup, DeviceUse::None)
               .withExample("hvtool device cleanup")
        << deviceCommand({"set"}, "NAME KEY=VALUE...", "Change the device's settings; 'device show' shows them.", {},
                         2, -1, set, DeviceUse::Change)
               .withDetails(deviceKeysHelp())
               .withExample("hvtool device set pixel ram=4096 quickboot=false");
}

} // namespace hvtool
