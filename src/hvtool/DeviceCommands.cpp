// hvtool device: create, list, start, stop, snapshot, clone, reset, delete
// and configure virtual devices.
#include "Catalog.h"
#include "Command.h"
#include "Engine.h"
#include "Progress.h"

#include "LockFiles.h"
#include "HwProfileIO.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "Settings.h"
#include "QEMUAudio.h"
#include "QEMUDeviceFiles.h"
#include "QEMUEngine.h"
#include "QEMUMachine.h"
#include "VMToolsCommon.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QPair>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QThread>
#include <QtEndian>

#include <atomic>
#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <thread>

namespace hvtool {
namespace {

constexpr int kAdbBasePort = 6555;
const QString kLatest = VMToolsEngine::latestSnapshotName();

using MachinePtr = std::unique_ptr<QEMUMachine>;

bool isEntryName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") &&
           !name.contains(QLatin1Char('/'));
}

/// The directory of the devices directory that name names; empty when
/// there is none, or when name would reach outside it.
QString deviceDirectory(QEMUEngine *e, const QString &name)
{
    // Only that one directory is looked at: a command naming one device
    // costs the same among a thousand.
    if (!isEntryName(name))
        return QString();
    const QString path = e->getDevicesDirectory().absoluteFilePath(name);
    return QFileInfo(path).isDir() ? path : QString();
}

/// Why the device directory of that name holds no usable device; empty when
/// there is no such directory or the system did not make it.
QString brokenReason(QEMUEngine *e, const QString &name)
{
    const QString path = deviceDirectory(e, name);
    if (path.isEmpty())
        return QString();
    if (MachinePtr machine{e->loadDevice(path)})
        return QString();
    return QEMUEngine::isDeviceDirectory(path, false) ? e->brokenReason(path) : QString();
}

/// What takes the name in the devices directory when the system did not make
/// it (a user's folder or file), in words; empty otherwise.
QString foreignEntry(QEMUEngine *e, const QString &name)
{
    const QFileInfo entry(e->getDevicesDirectory().absoluteFilePath(name));
    if (!isEntryName(name) || (!entry.exists() && !entry.isSymLink()) ||
        QEMUEngine::isDeviceDirectory(entry.absoluteFilePath(), true))
        return QString();
    return QStringLiteral("'%1' was not made by hvtool (it has no '%2' marker)")
        .arg(entry.absoluteFilePath(), QEMUDeviceFiles::markerName());
}

/// What hvtool says of a broken device. Its disks may hold a user's work (a
/// record the guest rewrote is refused, not lost), so the way out it offers
/// says what a delete takes with it.
QString brokenText(const QString &name, const QString &reason)
{
    return QStringLiteral("'%1' is broken: %2; its disks are kept until you mend its record or delete the device "
                          "and its disks with 'hvtool device delete \"%1\" --yes'")
        .arg(name, reason);
}

/// Looks the device up; reports a missing one with exit code 3, a broken one
/// with 4 and what to do about it.
MachinePtr device(Context &ctx, QEMUEngine **engineOut, int *code, const QString &name)
{
    QEMUEngine *e = qemu(engine(ctx, code));
    if (!e)
        return nullptr;
    *engineOut = e;
    MachinePtr machine(qemu(findDevice(e, name)));
    const QString broken = machine ? QString() : brokenReason(e, name);
    if (!broken.isEmpty())
        *code = ctx.fail(Conflict, QStringLiteral("device ") + brokenText(name, broken));
    else if (!machine)
        *code = ctx.fail(NotFound, QStringLiteral("device '%1' does not exist").arg(name));
    else
        machine->reloadVmInfo();
    return machine;
}

/// The engine and the device a command names first, or the exit code that
/// reports why there is none.
struct Target {
    QEMUEngine *engine = nullptr;
    MachinePtr machine;
    int code = Success;
    /// Held to the end of a command that changes the device.
    std::unique_ptr<LockFiles::CommandLock> lock;
};

Target findTarget(Context &ctx)
{
    Target target;
    target.machine = device(ctx, &target.engine, &target.code, ctx.arg(0));
    return target;
}

/// Takes the command lock of the device directory at path for this command:
/// Success, or the exit code that reports why not (the holder of a busy
/// device named).
int lockDevice(Context &ctx, QEMUEngine *e, const QString &path, LockFiles::CommandLock *lock)
{
    const QString name = QFileInfo(path).fileName();
    switch (e->lockDevice(path, ctx.command(), lock)) {
    case LockFiles::CommandLock::Taken:
        return Success;
    case LockFiles::CommandLock::Gone:
        return ctx.fail(NotFound, QStringLiteral("device '%1' does not exist").arg(name));
    case LockFiles::CommandLock::Busy: {
        const LockFiles::LockHolder holder = lock->holder();
        const QString who = holder.pid <= 0 ? QStringLiteral("another command is changing it")
                                            : QStringLiteral("'%1' (pid %2) has been changing it since %3")
                                                  .arg(holder.command)
                                                  .arg(holder.pid)
                                                  .arg(holder.since.toLocalTime().toString(QStringLiteral("HH:mm:ss")));
        return ctx.fail(Conflict, QStringLiteral("device '%1' is busy: %2; try again once it is done").arg(name, who));
    }
    case LockFiles::CommandLock::Failed:
        break;
    }
    return ctx.fail(Failed, QStringLiteral("could not lock device '%1': %2").arg(name, lock->errorString()));
}

/// The device a command that changes it names, locked until the command
/// ends and read afresh under the lock, since the command that held it
/// may have changed it (or deleted it) meanwhile.
Target lockTarget(Context &ctx)
{
    Target target = findTarget(ctx);
    if (!target.machine)
        return target;
    auto lock = std::make_unique<LockFiles::CommandLock>();
    const int locked = lockDevice(ctx, target.engine, target.machine->getPath(), lock.get());
    if (locked != Success) {
        target.machine.reset();
        target.code = locked;
        return target;
    }
    target = findTarget(ctx);
    target.lock = std::move(lock);
    return target;
}

/// Refuses a change that needs the device stopped.
int refuseRunning(Context &ctx, const QEMUMachine &machine)
{
    return ctx.fail(Conflict, QStringLiteral("device '%1' is running; stop it first").arg(machine.getName()));
}

QStringList snapshotNames(QEMUEngine *e, const QEMUMachine &machine)
{
    return e->fetchSnapshotNames(&machine);
}

int portOffset(const QEMUMachine &machine)
{
    return machine.getStatus() == VMToolsMachine::On ? machine.getPortOffset() : -1;
}

QJsonObject describe(QEMUEngine *e, QEMUMachine &machine)
{
    QString reason;
    const int state = machine.getRunState(&reason);
    const bool on = state != VMToolsMachine::Off;
    const int offset = portOffset(machine);
    QJsonObject object{
        {"name", machine.getName()},
        {"uuid", Catalog::bareUuid(machine.getUuid())},
        {"status", machine.getStatusString(state)},
        {"reason", reason.isEmpty() ? QJsonValue() : QJsonValue(reason)},
        {"android_version", machine.getAndroidVersion().toString()},
        {"adb_serial", on ? machine.getAdbSerial() : QString()},
        {"qmp_socket", on ? QJsonValue(machine.getQmpSocketPath()) : QJsonValue()},
        {"port_offset", on ? QJsonValue(offset) : QJsonValue()},
        {"path", QDir(machine.getPath()).absolutePath()},
        {"size_on_disk", double(machine.getSizeOnDisk())},
        {"quickboot", machine.isQuickbootEnabled()},
        {"latest_snapshot", snapshotNames(e, machine).contains(kLatest)},
        {"cpus", machine.getCpuCount()},
        {"ram_mb", double(machine.getRamSize())},
    };
    return object;
}

/// What a device held on a disk error shows, and what to do about it.
QString pausedText(const QString &name, const QString &reason)
{
    return QStringLiteral("'%1' is paused: %2; free space or mend the disk, then 'hvtool device resume \"%1\"'")
        .arg(name, reason);
}

QString sizeText(qint64 bytes)
{
    if (bytes >= (qint64(1) << 30))
        return QString::number(double(bytes) / (1 << 30), 'f', 1) + QStringLiteral("G");
    return QString::number(double(bytes) / (1 << 20), 'f', 1) + QStringLiteral("M");
}

bool validName(const QString &name)
{
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z0-9][A-Za-z0-9._ -]{0,63}$"));
    return pattern.match(name).hasMatch() && !name.contains(QLatin1String(".."));
}

/// Bytes in the files of the given directories, not descending.
qint64 bytesIn(const QStringList &dirs)
{
    qint64 total = 0;
    for (const QString &dir : dirs) {
        for (const QFileInfo &file : QDir(dir).entryInfoList(QDir::Files))
            total += file.size();
    }
    return total;
}

/// Creates the device on a worker thread while this thread shows how much
/// the extraction and conversion have written. The library's blocking steps
/// (unpacking the archive, converting disks) give no progress of their own.
int createWithProgress(QEMUEngine *e, const QString &name, const OsImage &image, const HwProfile &profile)
{
    const QString partial = QEMUEngine::getReferenceDirectory(image) + QStringLiteral(".partial");
    const auto watched = [&] { return QStringList{partial} + e->buildDirectories(name); };
    const qint64 before = bytesIn(watched());
    // The future wakes this thread the moment the creation ends; the tenth
    // of a second is only how often the progress is redrawn.
    std::packaged_task<int()> task([&] { return e->createMachine(name, image, profile); });
    std::future<int> result = task.get_future();
    std::thread worker(std::move(task));
    Progress progress(QStringLiteral("creating device '%1'").arg(name), 0);
    while (result.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready)
        progress.update(qMax<qint64>(0, bytesIn(watched()) - before));
    worker.join();
    progress.finish();
    return result.get();
}

/// Refuses a new device's name that something takes: a broken device, an
/// entry hvtool did not make, a device.
int refuseTakenName(Context &ctx, QEMUEngine *e, const QString &name)
{
    const QString broken = brokenReason(e, name);
    if (!broken.isEmpty())
        return ctx.fail(Conflict, QStringLiteral("device ") + brokenText(name, broken));
    const QString foreign = foreignEntry(e, name);
    if (!foreign.isEmpty())
        return ctx.fail(Conflict, QStringLiteral("the name '%1' is taken: %2").arg(name, foreign));
    if (e->doesMachineExist(name))
        return ctx.fail(Conflict, QStringLiteral("device '%1' already exists").arg(name));
    return Success;
}

int create(Context &ctx)
{
    const QString name = ctx.arg(0);
    if (!validName(name))
        return ctx.fail(Usage, QStringLiteral("'%1' is not a valid device name: use letters, digits, '.', '_', "
                                              "'-' and spaces, at most 64")
                                   .arg(name));
    if (!ctx.isSet(QStringLiteral("image")) || !ctx.isSet(QStringLiteral("profile")))
        return ctx.fail(Usage, QStringLiteral("device create needs --image ID and --profile ID"));

    Stored<OsImage> image;
    bool ambiguous = false;
    if (!Catalog::findImage(ctx.value(QStringLiteral("image")), &image, &ambiguous))
        return ctx.fail(ambiguous ? Usage : NotFound,
                        QStringLiteral("image '%1' %2")
                            .arg(ctx.value(QStringLiteral("image")),
                                 ambiguous ? QStringLiteral("is ambiguous; use its uuid") : QStringLiteral("does not exist")));
    Stored<HwProfile> profile;
    if (!Catalog::findProfile(ctx.value(QStringLiteral("profile")), &profile, &ambiguous))
        return ctx.fail(ambiguous ? Usage : NotFound,
                        QStringLiteral("profile '%1' %2")
                            .arg(ctx.value(QStringLiteral("profile")),
                                 ambiguous ? QStringLiteral("is ambiguous; use its uuid") : QStringLiteral("does not exist")));
    if (!image.value.isImageAvailableLocally())
        return ctx.fail(NotFound, QStringLiteral("the OVA of image '%1' is not on this machine: '%2'")
                                      .arg(image.value.name, image.value.getLocalPath()));

    int code = Success;
    QEMUEngine *e = qemu(engine(ctx, &code));
    if (!e)
        return code;
    if ((code = refuseTakenName(ctx, e, name)) != Success)
        return code;

    QElapsedTimer timer;
    timer.start();
    const int result = createWithProgress(e, name, image.value, profile.value);
    if (result != 0)
        return ctx.fail(Failed, QStringLiteral("could not create device '%1' (code %2)").arg(name).arg(result));

    MachinePtr machine(qemu(findDevice(e, name)));
    if (ctx.json()) {
        ctx.printJson(machine ? describe(e, *machine) : QJsonObject{{"name", name}});
    } else {
        ctx.print(QStringLiteral("created device '%1' in %2 s").arg(name).arg(timer.elapsed() / 1000.0, 0, 'f', 2));
    }
    return Success;
}

/// Calls work(i) for every i below count, spread over the host's cores when
/// there is enough of it: reading and parsing a thousand device.json files is
/// most of a listing's time. (The library itself starts no threads.)
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
QString listLeftovers(Context &ctx, QEMUEngine *e, QJsonArray *array, QList<QStringList> *rows)
{
    int idle = 0;
    qint64 bytes = 0;
    for (const QEMUEngine::Leftover &leftover : e->getLeftovers()) {
        idle += leftover.inProgress ? 0 : 1;
        bytes += leftover.inProgress ? 0 : leftover.bytes;
        if (!ctx.isSet(QStringLiteral("all")))
            continue;
        const QString status = leftover.inProgress ? QStringLiteral("In progress") : QStringLiteral("Leftover");
        array->append(QJsonObject{{"name", leftover.name}, {"status", status}, {"device", leftover.device},
                                  {"operation", leftover.operation}, {"path", leftover.path},
                                  {"pid", leftover.pid > 0 ? QJsonValue(double(leftover.pid)) : QJsonValue()},
                                  {"size_on_disk", double(leftover.bytes)}});
        *rows << QStringList{leftover.name, status, QString(), QString(), QString(), sizeText(leftover.bytes), QString()};
    }
    if (idle == 0)
        return QString();
    return QStringLiteral("%1 interrupted creation(s) or clone(s) left %2 in hidden directories; %3reclaim them "
                          "with 'hvtool device cleanup'")
        .arg(idle)
        .arg(sizeText(bytes), ctx.isSet(QStringLiteral("all")) ? QString()
                                                                : QStringLiteral("see them with 'hvtool device list "
                                                                                 "--all', "));
}

/// Every device of the devices directory described, an empty object for a
/// directory that holds none, in the order of names.
std::vector<QJsonObject> describeAll(QEMUEngine *e, QStringList *names, QStringList *paths)
{
    const QDir dir = e->getDevicesDirectory();
    *names = dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &name : *names)
        *paths << dir.absoluteFilePath(name);
    // Each device is loaded and described on its own: nothing is shared but
    // the engine's read-only settings.
    std::vector<QJsonObject> described(size_t(paths->size()));
    forEachInParallel(paths->size(), [&](int i) {
        if (MachinePtr machine{e->loadDevice(paths->at(i))})
            described[size_t(i)] = describe(e, *machine);
    });
    return described;
}

int list(Context &ctx)
{
    int code = Success;
    QEMUEngine *e = qemu(engine(ctx, &code));
    if (!e)
        return code;
    QStringList names;
    QStringList paths;
    const std::vector<QJsonObject> described = describeAll(e, &names, &paths);

    // A directory that holds no usable device is shown too, with the reason,
    // so that the user sees what takes its name and can remove it.
    QList<QPair<QString, QString>> broken;
    QJsonArray array;
    QList<QStringList> rows;
    for (int i = 0; i < paths.size(); ++i) {
        // A folder the system did not make is no device, broken or not.
        const QJsonObject &object = described[size_t(i)];
        if (object.isEmpty()) {
            if (QEMUEngine::isDeviceDirectory(paths.at(i), false))
                broken.append({names.at(i), e->brokenReason(paths.at(i))});
            continue;
        }
        array.append(object);
        rows << QStringList{object.value("name").toString(), object.value("status").toString(),
                            object.value("android_version").toString(), object.value("adb_serial").toString(),
                            object.value("qmp_socket").toString(),
                            sizeText(qint64(object.value("size_on_disk").toDouble())),
                            object.value("latest_snapshot").toBool() ? QStringLiteral("yes") : QStringLiteral("no")};
    }
    for (const auto &[name, reason] : broken) {
        array.append(QJsonObject{{"name", name}, {"status", "Broken"}, {"reason", reason},
                                 {"path", e->getDevicesDirectory().absoluteFilePath(name)}});
        rows << QStringList{name, QStringLiteral("Broken"), QString(), QString(), QString(), QString(), QString()};
    }
    const QString leftovers = listLeftovers(ctx, e, &array, &rows);
    if (ctx.json()) {
        ctx.printJson(array);
        return Success;
    }
    ctx.printTable({"NAME", "STATUS", "ANDROID", "ADB", "QMP", "SIZE", "LATEST"}, rows);
    for (const QJsonValue &value : array) {
        const QJsonObject object = value.toObject();
        if (object.value("status") == QLatin1String("Paused"))
            ctx.print(pausedText(object.value("name").toString(), object.value("reason").toString()));
    }
    for (const auto &[name, reason] : broken)
        ctx.print(brokenText(name, reason));
    if (!leftovers.isEmpty())
        ctx.print(leftovers);
    return Success;
}

int show(Context &ctx)
{
    Target target = findTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    MachinePtr &machine = target.machine;
    QJsonObject object = describe(e, *machine);
    if (ctx.json()) {
        object.insert("hardware_profile", HwProfileIO::toJsonObject(machine->getHwProfile()));
        object.insert("os_image", OsImageIO::toJsonObject(machine->getOsImage()));
        object.insert("snapshots", QJsonArray::fromStringList(snapshotNames(e, *machine)));
        ctx.printJson(object);
        return Success;
    }
    for (const char *key : {"name", "uuid", "status", "reason", "android_version", "adb_serial", "qmp_socket",
                            "port_offset", "path", "quickboot", "latest_snapshot", "cpus", "ram_mb"}) {
        const QJsonValue value = object.value(key);
        if (value.isNull() && QLatin1String(key) == QLatin1String("reason"))
            continue;
        QString text = value.isBool() ? (value.toBool() ? "yes" : "no")
                                      : (value.isDouble() ? QString::number(qint64(value.toDouble())) : value.toString());
        ctx.print(QStringLiteral("%1 %2").arg(QString::fromLatin1(key) + QLatin1Char(':'), -17).arg(text));
    }
    ctx.print(QStringLiteral("%1 %2").arg("size_on_disk:", -17).arg(sizeText(machine->getSizeOnDisk())));
    ctx.print(QStringLiteral("%1 %2").arg("hardware:", -17).arg(machine->getHwProfile().getName()));
    ctx.print(QStringLiteral("%1 %2").arg("os_image:", -17).arg(machine->getOsImage().name));
    ctx.print(QStringLiteral("%1 %2").arg("snapshots:", -17).arg(snapshotNames(e, *machine).join(", ")));
    return Success;
}

/// Why a start failed, in one line a person can act on, from the start's
/// result code and the emulator's own words in its log.
QString startDiagnosis(QEMUEngine *e, const QEMUMachine &machine, int result)
{
    const QString cause = machine.getStartCause();
    switch (result) {
    case QEMUMachine::KvmFailed:
        return QStringLiteral("KVM cannot run guests on this host (QEMU: \"%1\"); run devices under TCG: %2")
            .arg(cause, QEMUAccelerator::tcgAdvice());
    case QEMUMachine::AudioUnavailable:
        return QStringLiteral("the audio backend is not available (QEMU: \"%1\"); install qemu-system-gui and run a "
                              "sound server, or: hvtool settings set %2 auto")
            .arg(cause, QEMUAudio::settingKey());
    case QEMUMachine::EmulatorMissing:
        return QStringLiteral("the emulator %1 is missing; install it (scripts/setup) or point HV_QEMU_BIN_DIR at it")
            .arg(e->getQemuSystemBinaryPath());
    case 4:
        return QStringLiteral("hardware acceleration is not available on this host");
    case 5:
        return QStringLiteral("a device or resource QEMU needs is busy");
    case 6:
        return QStringLiteral("a system file of the device is used by another process");
    case 7:
        return QStringLiteral("a port the device needs is used by another program");
    case 9:
        return QStringLiteral("the memory size is not supported by QEMU on this host");
    case 10:
        return QStringLiteral("QEMU did not become ready within %1 s and was stopped")
            .arg(QEMUMachine::readyTimeoutMs() / 1000.0);
    case 11:
        return QStringLiteral("QEMU could not load the saved state");
    default:
        return QStringLiteral("QEMU failed to start or exited early");
    }
}

/// Points at the emulator's error output, when this start wrote one: a start
/// refused before the launch (a lock it waited for, a missing disk) leaves
/// none, or only an older run's.
QString logHint(const QEMUMachine &machine, const QDateTime &startedAt)
{
    const QFileInfo log(machine.getLogFilePath());
    if (!log.exists() || log.lastModified() < startedAt)
        return QString();
    return QStringLiteral("; see '%1'").arg(log.absoluteFilePath());
}

/// The connect message an ADB client opens a session with; a guest's adbd
/// answers it, and a guest that speaks first (a banner) needs nothing.
QByteArray adbConnectMessage()
{
    const QByteArray payload("host::\0", 7);
    auto le32 = [](quint32 v) {
        QByteArray b(4, '\0');
        qToLittleEndian(v, b.data());
        return b;
    };
    const quint32 command = 0x4e584e43; // "CNXN"
    quint32 sum = 0;
    for (const char c : payload)
        sum += quint8(c);
    return le32(command) + le32(0x01000000) + le32(4096) + le32(quint32(payload.size())) + le32(sum)
        + le32(command ^ 0xffffffffu) + payload;
}

/// Waits until the guest answers on its forwarded port with data. The
/// user-mode network accepts every connection on the host side and holds it
/// open while the guest is still booting, so a connection that merely stays
/// open proves nothing; the probe speaks first, the way an ADB client does,
/// so a guest's adbd answers too.
bool waitForGuest(const QEMUMachine &machine, quint16 port, int seconds, QByteArray *banner)
{
    QElapsedTimer timer;
    timer.start();
    const qint64 limit = qint64(seconds) * 1000;
    // An emulator that ended, or whose guest KVM stopped, will never answer:
    // stop waiting at once.
    while (timer.elapsed() < limit && machine.isQEMURunning() && machine.kvmFailure().isEmpty()) {
        QTcpSocket socket;
        socket.connectToHost(QStringLiteral("127.0.0.1"), port);
        if (socket.waitForConnected(1000)) {
            socket.write(adbConnectMessage());
            if (socket.waitForReadyRead(1000)) {
                *banner = socket.readAll();
                return true;
            }
        }
        socket.abort();
        QThread::msleep(250);
    }
    return false;
}

/// Refuses a named snapshot the device does not have (exit 3) or cannot load
/// with its present hardware (exit 4); Success when it may be loaded.
int checkNamedSnapshot(Context &ctx, QEMUEngine *e, QEMUMachine &machine, const QString &snapshot)
{
    const QString name = machine.getName();
    if (!snapshotNames(e, machine).contains(snapshot))
        return ctx.fail(NotFound, QStringLiteral("snapshot '%1' of device '%2' does not exist").arg(snapshot, name));
    // The user asked for that state: a state the device cannot take is
    // refused rather than replaced by a cold boot.
    const QString mismatch = e->savedStateMismatch(&machine, snapshot);
    if (!mismatch.isEmpty())
        return ctx.fail(Conflict, QStringLiteral("snapshot '%1' of device '%2' was %3; it cannot be loaded")
                                      .arg(snapshot, name, mismatch));
    return Success;
}

/// Refuses an --accel other than kvm or tcg (a usage error) and settings
/// that hold values the engine does not know. Success, or the exit code.
int checkAcceleration(Context &ctx)
{
    const QString accel = ctx.value(QStringLiteral("accel"));
    if (ctx.isSet(QStringLiteral("accel")) && (accel == QLatin1String("auto") || !QEMUAccelerator::choices().contains(accel)))
        return ctx.fail(Usage, QStringLiteral("--accel takes kvm or tcg, not '%1'").arg(accel));
    const QList<QPair<QString, QStringList>> settings{{QEMUAccelerator::settingKey(), QEMUAccelerator::choices()},
                                                      {QEMUAudio::settingKey(), QEMUAudio::choices()}};
    for (const auto &setting : settings) {
        const QString value = Settings::get(setting.first, QStringLiteral("auto")).toString();
        if (!setting.second.contains(value))
            return ctx.fail(Failed, QStringLiteral("the setting %1 holds '%2', which is none of %3; fix it with: "
                                                   "hvtool settings set %1 auto")
                                        .arg(setting.first, value, setting.second.join(QLatin1String(", "))));
    }
    return Success;
}

/// Shows the lines the engine left about the last start.
void showStartNotes(Context &ctx, QEMUEngine *e)
{
    for (const QString &line : e->takeStartNotes())
        ctx.note(QStringLiteral("hvtool: ") + line);
}

/// After a wait that ended because KVM stopped the guest: under "auto" the
/// device starts again cold under TCG (Success, the wait may go on);
/// otherwise the emulator is stopped and the failure named.
int recoverFromKvmFailure(Context &ctx, QEMUEngine *e, QEMUMachine &machine, const QDateTime &startedAt)
{
    // The start's device lock went once the device ran; starting it again
    // changes it, so the lock is taken again.
    LockFiles::CommandLock lock;
    const int locked = lockDevice(ctx, e, machine.getPath(), &lock);
    if (locked != Success)
        return locked;
    const int result = e->restartAfterKvmFailure(&machine);
    showStartNotes(ctx, e);
    if (result == QEMUMachine::Started) {
        machine.reloadVmInfo();
        return Success;
    }
    if (result == 0)
        machine.forceStop();
    const int code = result == 0 ? int(QEMUMachine::KvmFailed) : result;
    return ctx.fail(Failed, QStringLiteral("could not start device '%1': %2%3")
                                .arg(machine.getName(), startDiagnosis(e, machine, code), logHint(machine, startedAt)));
}

/// Waits for the guest to answer; where KVM stops it under "auto", the
/// device starts again under TCG and the wait goes on. Success, or the exit
/// code of the failure, which is reported.
int awaitGuest(Context &ctx, QEMUEngine *e, QEMUMachine &machine, int seconds, const QDateTime &startedAt,
               QByteArray *banner)
{
    bool answered = waitForGuest(machine, quint16(machine.getAdbPort()), seconds, banner);
    if (!answered && !machine.kvmFailure().isEmpty()) {
        const int recovered = recoverFromKvmFailure(ctx, e, machine, startedAt);
        if (recovered != Success)
            return recovered;
        answered = waitForGuest(machine, quint16(machine.getAdbPort()), seconds, banner);
    }
    if (answered)
        return Success;
    const QString name = machine.getName();
    if (!machine.isQEMURunning()) {
        // The lock file names an emulator that is gone.
        machine.removeLockFile();
        return ctx.fail(Failed, QStringLiteral("device '%1' started but its emulator ended before the guest "
                                               "answered%2")
                                    .arg(name, logHint(machine, startedAt)));
    }
    return ctx.fail(Failed, QStringLiteral("device '%1' started but its guest did not answer on port %2 within %3 s")
                                .arg(name)
                                .arg(machine.getAdbPort())
                                .arg(seconds));
}

/// Says why a start that asks for the quick-boot state will boot cold, as
/// the library decides it; true when the state is expected to resume.
bool noteColdQuickBoot(Context &ctx, QEMUEngine *e, QEMUMachine &machine)
{
    const QString unsaved = e->unsavedSessionReason(&machine);
    if (!unsaved.isEmpty()) {
        ctx.note(QStringLiteral("%1: booting cold, keeping its disk writes").arg(unsaved));
        return false;
    }
    if (!snapshotNames(e, machine).contains(kLatest))
        return false;
    const QString mismatch = e->savedStateMismatch(&machine, kLatest);
    if (mismatch.isEmpty())
        return true;
    // A one-off accelerator that does not fit replaces the state, as every cold boot does.
    ctx.note(QStringLiteral("quick-boot state %1: booting cold%2")
                 .arg(mismatch, ctx.isSet(QStringLiteral("accel"))
                                    ? QStringLiteral("; the cold boot replaces the quick-boot state")
                                    : QString()));
    return false;
}

/// Moves a device of the previous layout onto its image's reference disks;
/// refuses one whose system disk has lost its backing file.
int checkBacking(Context &ctx, QEMUEngine *e, const QEMUMachine &machine)
{
    const QString problem = e->checkReferenceDisks(&machine);
    if (problem.isEmpty())
        return Success;
    return ctx.fail(Failed, QStringLiteral("device '%1' cannot be used: %2").arg(machine.getName(), problem));
}

/// What a start was asked for on its command line, and what it expects.
struct StartRequest {
    QString snapshot;
    int waitSeconds = 0;
    /// Whether the start asks for the quick-boot state.
    bool quickBoot = false;
    /// Whether that state is expected to resume.
    bool expectResume = false;
};

/// Reads --wait, --snapshot and --cold; Success, or the usage failure.
int readStartRequest(Context &ctx, StartRequest *request)
{
    if (ctx.isSet(QStringLiteral("wait"))) {
        bool ok = false;
        request->waitSeconds = ctx.value(QStringLiteral("wait")).toInt(&ok);
        if (!ok || request->waitSeconds <= 0)
            return ctx.fail(Usage, QStringLiteral("--wait needs a number of seconds"));
    }
    request->snapshot = ctx.value(QStringLiteral("snapshot"));
    if (!request->snapshot.isEmpty() && ctx.isSet(QStringLiteral("cold")))
        return ctx.fail(Usage, QStringLiteral("--cold and --snapshot exclude each other"));
    return Success;
}

/// Reads the request and checks what the start will start from and that
/// the host has the memory for it; Success, or the exit code.
int prepareStart(Context &ctx, QEMUEngine *e, QEMUMachine &machine, StartRequest *request)
{
    const int invalid = readStartRequest(ctx, request);
    if (invalid != Success)
        return invalid;
    request->quickBoot =
        request->snapshot.isEmpty() && !ctx.isSet(QStringLiteral("cold")) && machine.isQuickbootEnabled();
    if (!request->snapshot.isEmpty()) {
        const int refused = checkNamedSnapshot(ctx, e, machine, request->snapshot);
        if (refused != Success)
            return refused;
    } else if (request->quickBoot) {
        request->expectResume = noteColdQuickBoot(ctx, e, machine);
    }
    const QString shortfall = ctx.isSet(QStringLiteral("force")) ? QString() : e->memoryShortfall(&machine);
    if (!shortfall.isEmpty())
        return ctx.fail(Conflict, QStringLiteral("device '%1' not started: %2; use --force to start it anyway")
                                      .arg(machine.getName(), shortfall));
    return Success;
}

/// Reports a start that did not bring the device up, or notes a quick boot
/// that booted cold; Success when the device runs.
int reportStartResult(Context &ctx, QEMUEngine *e, QEMUMachine &machine, int result, bool coldInstead,
                      const QDateTime &startedAt)
{
    if (result != 1) {
        const QString why = machine.getStartFailure();
        return ctx.fail(Failed, QStringLiteral("could not start device '%1': %2%3")
                                    .arg(machine.getName(), why.isEmpty() ? startDiagnosis(e, machine, result) : why,
                                         logHint(machine, startedAt)));
    }
    if (coldInstead) {
        // The failed load's own words, when it was stopped rather than ended.
        const QString why = machine.getStateLoadFailure();
        ctx.note(QStringLiteral("the quick-boot state could not be loaded%1: booted cold; the next stop saves a new "
                                "one")
                     .arg(why.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(why)));
    }
    return Success;
}

/// Prints the started device: how it booted, how long it took, where to reach it.
void printStarted(Context &ctx, QEMUEngine *e, QEMUMachine &machine, const QString &how, qint64 startedMs,
                  qint64 readyMs, int waitSeconds, const QByteArray &banner)
{
    if (ctx.json()) {
        QJsonObject object = describe(e, machine);
        object.insert("boot", how);
        object.insert("start_seconds", startedMs / 1000.0);
        if (waitSeconds > 0) {
            object.insert("ready_seconds", readyMs / 1000.0);
            object.insert("banner", QString::fromUtf8(banner).trimmed());
        }
        ctx.printJson(object);
        return;
    }
    ctx.print(QStringLiteral("started '%1' (%2) in %3 s").arg(machine.getName(), how).arg(startedMs / 1000.0, 0, 'f', 2));
    ctx.print(QStringLiteral("adb serial: %1").arg(machine.getAdbSerial()));
    ctx.print(QStringLiteral("qmp socket: %1").arg(machine.getQmpSocketPath()));
    if (waitSeconds > 0)
        ctx.print(QStringLiteral("guest answered after %1 s").arg(readyMs / 1000.0, 0, 'f', 2));
}

int start(Context &ctx)
{
    const int invalid = checkAcceleration(ctx);
    if (invalid != Success)
        return invalid;
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    QEMUMachine &machine = *target.machine;
    if (machine.getStatus() == VMToolsMachine::On)
        return ctx.fail(Conflict, QStringLiteral("device '%1' is already running").arg(machine.getName()));
    if (checkBacking(ctx, e, machine) != Success)
        return Failed;
    e->setOneOffAccelerator(ctx.value(QStringLiteral("accel")));
    StartRequest request;
    int code = prepareStart(ctx, e, machine, &request);
    if (code != Success)
        return code;
    bool quickBoot = request.quickBoot;

    QElapsedTimer timer;
    timer.start();
    const QDateTime startedAt = QDateTime::currentDateTime().addSecs(-1);
    const int result = request.snapshot.isEmpty() ? e->startFromLatestSnapshot(&machine, &quickBoot)
                                                  : e->startMachine(&machine, request.snapshot);
    showStartNotes(ctx, e);
    quickBoot = quickBoot && !e->lastStartFellBackToTcg();
    code = reportStartResult(ctx, e, machine, result,
                             request.expectResume && !quickBoot && !e->lastStartFellBackToTcg(), startedAt);
    if (code != Success)
        return code;
    machine.reloadVmInfo();
    const qint64 startedMs = timer.elapsed();
    // The device runs: waiting for its guest changes nothing, and a stop
    // may come meanwhile.
    target.lock->release();

    QByteArray banner;
    if (request.waitSeconds > 0) {
        code = awaitGuest(ctx, e, machine, request.waitSeconds, startedAt, &banner);
        if (code != Success)
            return code;
        // A start that fell back to TCG while waiting booted cold.
        quickBoot = quickBoot && !e->lastStartFellBackToTcg();
    }
    const QString how = !request.snapshot.isEmpty() && !e->lastStartFellBackToTcg()
        ? QStringLiteral("snapshot")
        : (quickBoot ? QStringLiteral("resumed") : QStringLiteral("cold"));
    printStarted(ctx, e, machine, how, startedMs, timer.elapsed(), request.waitSeconds, banner);
    return Success;
}

/// Says that the state saved as snapshot is there but what it was saved
/// with is not recorded, and why.
void noteUnrecordedState(Context &ctx, const QString &device, const QString &snapshot)
{
    QString cause;
    for (const QString &problem : recentLibraryProblems()) {
        if (problem.contains(QEMUDeviceFiles::savedStatesName()) && problem.startsWith(QLatin1String("Failed to write")))
            cause = QStringLiteral(" (%1)").arg(problem);
    }
    ctx.note(QStringLiteral("saved snapshot '%1' of device '%2', but could not record what it was saved with%3: a "
                            "start tries it, and boots cold if it no longer fits the device")
                 .arg(snapshot, device, cause));
}

/// Waits for the emulator to exit and clears its lock file.
bool waitForExit(QEMUMachine &machine, int seconds)
{
    if (!VMToolsCommon::waitForFinished(machine.loadQEMUPid(), seconds * 1000, machine.loadQEMUStartTime()))
        return false;
    if (QFile::exists(machine.getLockFilePath()))
        machine.removeLockFile();
    return true;
}

int stop(Context &ctx)
{
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    MachinePtr &machine = target.machine;
    const QString name = machine->getName();
    if (machine->getStatus() != VMToolsMachine::On)
        return ctx.fail(Conflict, QStringLiteral("device '%1' is not running").arg(name));

    if (ctx.isSet(QStringLiteral("force"))) {
        if (!machine->forceStop())
            return ctx.fail(Failed, QStringLiteral("could not kill the emulator of device '%1'").arg(name));
        ctx.print(QStringLiteral("killed '%1'").arg(name));
        return Success;
    }

    QElapsedTimer timer;
    timer.start();
    bool saved = false;
    if (machine->isQuickbootEnabled() && !ctx.isSet(QStringLiteral("no-save"))) {
        bool recorded = true;
        saved = e->saveSnapshot(machine.get(), kLatest, &recorded);
        if (!saved)
            return ctx.fail(Failed, QStringLiteral("could not save the quick-boot state of device '%1'; it still runs "
                                                   "(use --no-save to stop without saving)")
                                        .arg(name));
        if (!recorded)
            noteUnrecordedState(ctx, name, kLatest);
    }
    const qint64 savedMs = timer.elapsed();
    e->stopMachine(machine.get());
    if (!waitForExit(*machine, 30)) {
        ctx.note(QStringLiteral("device '%1' did not quit within 30 s; killing it").arg(name));
        machine->forceStop();
        waitForExit(*machine, 5);
    }
    if (ctx.json()) {
        ctx.printJson(QJsonObject{{"name", name}, {"saved", saved}, {"save_seconds", savedMs / 1000.0},
                                  {"stop_seconds", timer.elapsed() / 1000.0}});
        return Success;
    }
    ctx.print(QStringLiteral("stopped '%1'%2 in %3 s")
                  .arg(name, saved ? QStringLiteral(" (quick-boot state saved)") : QString())
                  .arg(timer.elapsed() / 1000.0, 0, 'f', 2));
    return Success;
}

int resume(Context &ctx)
{
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    MachinePtr &machine = target.machine;
    const QString name = machine->getName();
    QString reason;
    const int state = machine->getRunState(&reason);
    if (state != VMToolsMachine::Paused)
        return ctx.fail(Conflict, QStringLiteral("device '%1' is not paused (it is %2)")
                                      .arg(name, VMToolsMachine::getStatusString(state)));
    if (!machine->resumeFromDiskError(&reason))
        return ctx.fail(Conflict, QStringLiteral("device '%1' stays paused: %2").arg(name, reason));
    if (ctx.json())
        ctx.printJson(describe(target.engine, *machine));
    else
        ctx.print(QStringLiteral("resumed '%1'").arg(name));
    return Success;
}

int snapshotList(Context &ctx)
{
    Target target = findTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    MachinePtr &machine = target.machine;
    QJsonArray array;
    QList<QStringList> rows;
    for (const QEMUSnapshotInfo &snapshot : e->fetchSnapshots(machine.get())) {
        const QString mismatch = e->savedStateMismatch(machine.get(), snapshot.name);
        array.append(QJsonObject{{"name", snapshot.name},
                                 {"date", snapshot.date.toUTC().toString(Qt::ISODate)},
                                 {"size", double(snapshot.vmStateSize)},
                                 {"guest_clock_seconds", snapshot.guestClockNs / 1e9},
                                 {"quick_boot", snapshot.name == kLatest},
                                 {"loadable", mismatch.isEmpty()},
                                 {"not_loadable_because", mismatch.isEmpty() ? QJsonValue() : QJsonValue(mismatch)}});
        rows << QStringList{snapshot.name + (snapshot.name == kLatest ? QStringLiteral(" (quick boot)") : QString()),
                            snapshot.date.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                            sizeText(snapshot.vmStateSize), mismatch.isEmpty() ? QStringLiteral("yes") : mismatch};
    }
    if (ctx.json())
        ctx.printJson(array);
    else
        ctx.printTable({"NAME", "DATE", "SIZE", "LOADABLE"}, rows);
    return Success;
}

int snapshotLoad(Context &ctx)
{
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    MachinePtr &machine = target.machine;
    const QString name = machine->getName();
    const QString snapshot = ctx.arg(1);
    if (machine->getStatus() != VMToolsMachine::On)
        return ctx.fail(Conflict, QStringLiteral("device '%1' is not running; start it with --snapshot %2 instead")
                                      .arg(name, snapshot));
    const int refused = checkNamedSnapshot(ctx, e, *machine, snapshot);
    if (refused != Success)
        return refused;
    QElapsedTimer timer;
    timer.start();
    if (!e->loadSnapshot(machine.get(), snapshot))
        return ctx.fail(Failed, QStringLiteral("could not load snapshot '%1' of device '%2'").arg(snapshot, name));
    if (ctx.json())
        ctx.printJson(QJsonObject{{"name", name}, {"snapshot", snapshot}, {"seconds", timer.elapsed() / 1000.0}});
    else
        ctx.print(QStringLiteral("loaded snapshot '%1' in %2 s").arg(snapshot).arg(timer.elapsed() / 1000.0, 0, 'f', 2));
    return Success;
}

int snapshotSave(Context &ctx)
{
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    MachinePtr &machine = target.machine;
    static const QRegularExpression valid(QStringLiteral("^\\w{1,64}$"));
    if (!valid.match(ctx.arg(1)).hasMatch())
        return ctx.fail(Usage, QStringLiteral("'%1' is not a valid snapshot name: use letters, digits and '_'")
                                   .arg(ctx.arg(1)));
    // Saving the quick-boot state ends a session: 'device stop' does it.
    if (ctx.arg(1) == kLatest)
        return ctx.fail(Usage, QStringLiteral("'%1' is the quick-boot state, saved by 'hvtool device stop'; choose "
                                              "another name")
                                   .arg(kLatest));
    if (machine->getStatus() != VMToolsMachine::On)
        return ctx.fail(Conflict, QStringLiteral("device '%1' is not running; start it to save its state")
                                      .arg(machine->getName()));
    QElapsedTimer timer;
    timer.start();
    bool recorded = true;
    if (!e->saveSnapshot(machine.get(), ctx.arg(1), &recorded))
        return ctx.fail(Failed, QStringLiteral("could not save snapshot '%1' of device '%2'")
                                    .arg(ctx.arg(1), machine->getName()));
    if (!recorded)
        noteUnrecordedState(ctx, machine->getName(), ctx.arg(1));
    if (ctx.json())
        ctx.printJson(QJsonObject{{"name", machine->getName()}, {"snapshot", ctx.arg(1)},
                                  {"seconds", timer.elapsed() / 1000.0}});
    else
        ctx.print(QStringLiteral("saved snapshot '%1' in %2 s").arg(ctx.arg(1)).arg(timer.elapsed() / 1000.0, 0, 'f', 2));
    return Success;
}

int snapshotDelete(Context &ctx)
{
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    MachinePtr &machine = target.machine;
    if (machine->getStatus() == VMToolsMachine::On)
        return refuseRunning(ctx, *machine);
    if (!snapshotNames(e, *machine).contains(ctx.arg(1)))
        return ctx.fail(NotFound, QStringLiteral("snapshot '%1' of device '%2' does not exist")
                                      .arg(ctx.arg(1), machine->getName()));
    if (!e->deleteSnapshot(machine.get(), ctx.arg(1)))
        return ctx.fail(Failed, QStringLiteral("could not delete snapshot '%1' of device '%2'")
                                    .arg(ctx.arg(1), machine->getName()));
    return Success;
}

int clone(Context &ctx)
{
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    MachinePtr &machine = target.machine;
    const QString newName = ctx.arg(1);
    if (!validName(newName))
        return ctx.fail(Usage, QStringLiteral("'%1' is not a valid device name").arg(newName));
    if (const int taken = refuseTakenName(ctx, e, newName))
        return taken;
    const bool running = machine->getStatus() == VMToolsMachine::On;
    const bool crashConsistent = ctx.isSet(QStringLiteral("crash-consistent"));
    if (running && !crashConsistent)
        return ctx.fail(Conflict, QStringLiteral("device '%1' is running: its disks change while they are copied; "
                                                 "stop it first, or ask for a crash-consistent copy with "
                                                 "--crash-consistent")
                                      .arg(machine->getName()));
    if (!running && checkBacking(ctx, e, *machine) != Success)
        return Failed;
    if (running)
        ctx.note(QStringLiteral("device '%1' is running: pausing it for a crash-consistent copy (its disks as a power "
                                "cut now would leave them)")
                     .arg(machine->getName()));

    const int result = e->cloneMachine(machine.get(), newName, crashConsistent);
    if (result == 2)
        return ctx.fail(Conflict, QStringLiteral("device '%1' already exists").arg(newName));
    if (result != 0)
        return ctx.fail(Failed, QStringLiteral("could not clone device '%1' to '%2'").arg(machine->getName(), newName));

    if (ctx.json()) {
        MachinePtr cloned(qemu(findDevice(e, newName)));
        QJsonObject object = cloned ? describe(e, *cloned) : QJsonObject{{"name", newName}};
        object.insert("crash_consistent", running);
        ctx.printJson(object);
    } else {
        ctx.print(QStringLiteral("cloned '%1' to '%2'%3")
                      .arg(machine->getName(), newName,
                           running ? QStringLiteral(" (a crash-consistent copy of the running device)") : QString()));
    }
    return Success;
}

int reset(Context &ctx)
{
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    MachinePtr &machine = target.machine;
    const QString name = machine->getName();
    if (machine->getStatus() == VMToolsMachine::On)
        return refuseRunning(ctx, *machine);
    if (checkBacking(ctx, target.engine, *machine) != Success)
        return Failed;
    const QStringList snapshots = snapshotNames(target.engine, *machine);
    if (!snapshots.isEmpty())
        ctx.note(QStringLiteral("resetting '%1' deletes its snapshots: %2").arg(name, snapshots.join(QLatin1String(", "))));
    if (!ctx.confirm(QStringLiteral("Reset device '%1' to its factory state? Its data will be lost.").arg(name)))
        return ctx.fail(Conflict, QStringLiteral("not resetting '%1' without confirmation (use --yes)").arg(name));
    const QEMUEngine::ResetResult result = target.engine->resetDevice(machine.get());
    if (result == QEMUEngine::ResetResult::Unchanged)
        return ctx.fail(Failed, QStringLiteral("could not reset device '%1'; its disks are unchanged").arg(name));
    if (result == QEMUEngine::ResetResult::Pending)
        return ctx.fail(Failed, QStringLiteral("could not finish resetting device '%1': its new disks are complete but "
                                               "not all in place; the next command on it finishes the reset")
                                    .arg(name));
    ctx.print(QStringLiteral("reset '%1' to its factory state").arg(name));
    return Success;
}

/// Deletes a device directory that holds no usable device.
int removeBroken(Context &ctx, QEMUEngine *e, const QString &name, const QString &reason)
{
    if (!ctx.confirm(QStringLiteral("Delete the broken device '%1' (%2) and all its files?").arg(name, reason)))
        return ctx.fail(Conflict, QStringLiteral("not deleting '%1' without confirmation (use --yes)").arg(name));
    if (!e->deleteBrokenMachine(name))
        return ctx.fail(Failed, QStringLiteral("could not delete the broken device '%1'").arg(name));
    ctx.print(QStringLiteral("deleted '%1'").arg(name));
    return Success;
}

/// Removes what interrupted creations and clones left, except what a running
/// process still makes.
int cleanup(Context &ctx)
{
    int code = Success;
    QEMUEngine *e = qemu(engine(ctx, &code));
    if (!e)
        return code;
    QJsonArray reclaimed;
    QStringList failed;
    for (const QEMUEngine::Leftover &leftover : e->getLeftovers()) {
        if (leftover.inProgress) {
            ctx.note(QStringLiteral("'%1' is left as it is: process %2 is still running the %3 of '%4'")
                         .arg(leftover.name)
                         .arg(leftover.pid)
                         .arg(leftover.operation, leftover.device));
        } else if (!e->reclaimLeftover(leftover)) {
            failed << leftover.name;
        } else {
            reclaimed.append(QJsonObject{{"name", leftover.name}, {"size_on_disk", double(leftover.bytes)}});
            if (!ctx.json())
                ctx.print(QStringLiteral("reclaimed '%1' (%2), left by an interrupted %3 of '%4'")
                              .arg(leftover.name, sizeText(leftover.bytes), leftover.operation, leftover.device));
        }
    }
    if (ctx.json())
        ctx.printJson(reclaimed);
    else if (reclaimed.isEmpty() && failed.isEmpty())
        ctx.print(QStringLiteral("nothing to reclaim"));
    if (!failed.isEmpty())
        return ctx.fail(Failed, QStringLiteral("could not remove %1").arg(failed.join(QLatin1String(", "))));
    return Success;
}

int remove(Context &ctx)
{
    int code = Success;
    QEMUEngine *e = qemu(engine(ctx, &code));
    if (!e)
        return code;
    // A folder the system did not make is left as it is, lock file included.
    const QString foreign = foreignEntry(e, ctx.arg(0));
    if (!foreign.isEmpty())
        return ctx.fail(NotFound, QStringLiteral("device '%1' does not exist: %2; it is left as it is")
                                      .arg(ctx.arg(0), foreign));
    // A broken directory is locked too: the command that holds it may be
    // about to make it whole.
    LockFiles::CommandLock lock;
    const QString path = deviceDirectory(e, ctx.arg(0));
    if (!path.isEmpty() && (code = lockDevice(ctx, e, path, &lock)) != Success)
        return code;
    const QString reason = brokenReason(e, ctx.arg(0));
    if (!reason.isEmpty())
        return removeBroken(ctx, e, ctx.arg(0), reason);
    Target target = findTarget(ctx);
    if (!target.machine)
        return target.code;
    MachinePtr &machine = target.machine;
    const QString name = machine->getName();
    if (machine->getStatus() == VMToolsMachine::On)
        return refuseRunning(ctx, *machine);
    if (!ctx.confirm(QStringLiteral("Delete device '%1' and all its data?").arg(name)))
        return ctx.fail(Conflict, QStringLiteral("not deleting '%1' without confirmation (use --yes)").arg(name));
    if (!e->deleteMachine(machine.get()))
        return ctx.fail(Failed, QStringLiteral("could not delete device '%1'; it is unchanged").arg(name));
    ctx.print(QStringLiteral("deleted '%1'").arg(name));
    return Success;
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
    QString key;
    qint64 number = 0;
    bool flag = false;
};

/// Reads KEY=VALUE into change; Success, or the code of the refusal it
/// reported.
int parseChange(Context &ctx, const QString &item, bool running, Change *change)
{
    static const QStringList numbers = {"cpus", "ram", "sdcard-size"};
    static const QStringList flags = {"quickboot", "root", "sdcard", "virtual-keyboard", "fullscreen"};
    static const QStringList hardware = {"cpus", "ram", "sdcard", "sdcard-size"};
    const int eq = item.indexOf(QLatin1Char('='));
    change->key = item.left(eq);
    const QString &key = change->key;
    const QString value = item.mid(eq + 1);
    if (eq <= 0 || !(numbers.contains(key) || flags.contains(key)))
        return ctx.fail(Usage, QStringLiteral("'%1' is not KEY=VALUE with KEY one of %2")
                                   .arg(item, (numbers + flags).join(", ")));
    if (running && hardware.contains(key))
        return ctx.fail(Conflict, QStringLiteral("device '%1' is running; stop it before changing %2").arg(ctx.arg(0), key));
    bool ok = false;
    if (flags.contains(key)) {
        change->flag = parseBool(value, &ok);
        return ok ? Success : ctx.fail(Usage, QStringLiteral("%1 needs true or false, not '%2'").arg(key, value));
    }
    change->number = value.toLongLong(&ok);
    const qint64 minimum = key == "cpus" ? 1 : (key == "ram" ? HwProfile::MinRamSize : 0);
    // device.json keeps the sizes as numbers its reader takes as int.
    const qint64 maximum = key == "cpus" ? HwProfile::MaxCpuCount : HwProfile::MaxRamSize;
    if (!ok || change->number < minimum || change->number > maximum)
        return ctx.fail(Usage, QStringLiteral("%1 needs a whole number from %2 to %3, not '%4'")
                                   .arg(key)
                                   .arg(minimum)
                                   .arg(maximum)
                                   .arg(value));
    return Success;
}

bool applyChange(QEMUMachine &machine, const Change &change)
{
    const QString &key = change.key;
    if (key == "cpus")
        return machine.setCpuCount(int(change.number));
    if (key == "ram")
        return machine.setRamSize(change.number);
    if (key == "sdcard-size")
        return machine.setSdCardSize(change.number);
    if (key == "quickboot")
        return machine.setQuickbootEnabled(change.flag);
    if (key == "root")
        return machine.setRootAccessEnabled(change.flag);
    if (key == "sdcard")
        return machine.setSdCardInserted(change.flag);
    if (key == "virtual-keyboard")
        return machine.setVirtualKeyboardEnabled(change.flag);
    return machine.setFullScreen(change.flag);
}

/// Names, before the changes apply, every snapshot they make unloadable: the
/// snapshots are checked against a copy of the device that has them.
void noteUnloadable(Context &ctx, QEMUEngine *e, QEMUMachine &machine, const QList<Change> &changes)
{
    MachinePtr changed(e->loadDevice(machine.getPath()));
    if (!changed)
        return;
    HwProfile hardware = changed->getHwProfile();
    for (const Change &change : changes) {
        if (change.key == "cpus")
            hardware.cpuCount = int(change.number);
        else if (change.key == "ram")
            hardware.ramSize = change.number;
    }
    changed->setHwProfile(hardware);
    const QString name = machine.getName();
    for (const QString &snapshot : snapshotNames(e, machine)) {
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
    Target target = lockTarget(ctx);
    if (!target.machine)
        return target.code;
    QEMUEngine *e = target.engine;
    MachinePtr &machine = target.machine;
    const QString name = machine->getName();
    const bool running = machine->getStatus() == VMToolsMachine::On;

    // Check everything before changing anything.
    QList<Change> changes;
    for (const QString &item : ctx.args().mid(1)) {
        Change change;
        const int refused = parseChange(ctx, item, running, &change);
        if (refused != Success)
            return refused;
        changes.append(change);
    }
    noteUnloadable(ctx, e, *machine, changes);
    for (const Change &change : changes) {
        if (!applyChange(*machine, change))
            return ctx.fail(Failed, QStringLiteral("could not set %1 of device '%2'").arg(change.key, name));
    }
    if (ctx.json())
        ctx.printJson(describe(e, *machine));
    return Success;
}

} // namespace

void addDeviceCommands()
{
    const QCommandLineOption yes({"yes", "y"}, "Do not ask for confirmation.");
    commands()
        << Command{{"device", "create"}, "NAME", "Create a device from an OS image and a hardware profile.",
                   {{"image", "OS image (uuid, name or record file).", "ID"},
                    {"profile", "Hardware profile (uuid, name or file).", "ID"}},
                   1, 1, create}
        << Command{{"device", "list"}, {}, "List the devices and their state.",
                   {{"all", "Also list what interrupted creations and clones left."}}, 0, 0, list}
        << Command{{"device", "show"}, "NAME", "Show one device, its profile and its image.", {}, 1, 1, show}
        << Command{{"device", "start"}, "NAME",
                   "Start a device: resume its quick-boot state when quick boot is on and its last session ended "
                   "by saving it, else boot cold with the disks as they are. A cold or snapshot start discards the "
                   "quick-boot state.",
                   {{"cold", "Boot cold even when a quick-boot state exists."},
                    {"snapshot", "Start from this named snapshot instead.", "SNAPSHOT"},
                    {"wait", "Return only once the guest answers on its ADB port, waiting at most this long.",
                     "SECONDS"},
                    {"accel", "Run this start under kvm or tcg instead of the setting emulator.accelerator.",
                     "ACCELERATOR"},
                    {"force", "Start even when the host seems short of memory for it."}},
                   1, 1, start}
        << Command{{"device", "resume"}, "NAME",
                   "Let a device that was paused on a full disk or a disk error go on, once the disk is mended.", {},
                   1, 1, resume}
        << Command{{"device", "stop"}, "NAME",
                   "Stop a device gracefully, saving its state first when quick boot is on.",
                   {{"force", "Kill the emulator at once."}, {"no-save", "Do not save the quick-boot state: the next start boots cold and keeps this session's disk "
                                "writes. To return to a known state later, save a named snapshot and start with "
                                "--snapshot NAME."}}, 1, 1,
                   stop}
        << Command{{"device", "snapshot", "list"}, "NAME", "List the device's snapshots.", {}, 1, 1, snapshotList}
        << Command{{"device", "snapshot", "save"}, "NAME SNAPSHOT", "Save the running device's state.", {}, 2, 2,
                   snapshotSave}
        << Command{{"device", "snapshot", "load"}, "NAME SNAPSHOT", "Return the running device to a saved snapshot.", {},
                   2, 2, snapshotLoad}
        << Command{{"device", "snapshot", "delete"}, "NAME SNAPSHOT", "Delete a snapshot of a stopped device.", {}, 2,
                   2, snapshotDelete}
        << Command{{"device", "clone"}, "NAME NEWNAME", "Copy a stopped device under a new name and identity.",
                   {{"crash-consistent", "Copy a running device too: it is paused for the copy, which holds its "
                                         "disks as a power cut at that moment would leave them."}},
                   2, 2, clone}
        << Command{{"device", "reset"}, "NAME", "Reset a stopped device to its factory state.", {yes}, 1, 1, reset}
        << Command{{"device", "delete"}, "NAME", "Delete a stopped device and its disks.", {yes}, 1, 1, remove}
        << Command{{"device", "cleanup"}, {},
                   "Remove what interrupted creations and clones left, unless they are still running.", {}, 0, 0,
                   cleanup}
        << Command{{"device", "set"}, "NAME KEY=VALUE...",
                   "Change settings: cpus, ram, quickboot, root, sdcard, sdcard-size, virtual-keyboard, fullscreen.",
                   {}, 2, -1, set};
}

} // namespace hvtool
