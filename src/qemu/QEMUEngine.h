#pragma once

#include "LockFiles.h"
#include "OsImage.h"
#include "QEMUAccelerator.h"
#include "QEMUSnapshotTable.h"
#include "VMToolsEngine.h"

#include <QFileInfo>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QSet>
#include <QString>

#include <memory>
#include <mutex>

class QDateTime;
class QEMUDeviceFiles;
class QEMUMachine;
namespace QEMULaunch {
struct Request;
}

/// The engine that runs devices with the QEMU emulator. It finds
/// qemu-system-x86_64 and qemu-img in "HV_QEMU_BIN_DIR" when it is set,
/// else in the bundled directory beside the application, on PATH or in
/// /usr/bin, and accepts QEMU 6.2 and later.
class QEMUEngine : public VMToolsEngine
{
public:
    class DirectoryCleaner;

    QEMUEngine();
    ~QEMUEngine() override;

    void dumpInfos(QFile *file) override;
    QString name() const override;
    QUrl getDownloadUrl() const override;
    QString versionString() const override;
    /// "HV_QEMU_VERSION" when set (read once per process), else the version read from QEMU.
    VersionNumber versionNumber() const override;
    /// "HV_QEMU_MIN_VERSION" when set (read once per process), else 6.2.0.
    VersionNumber minimumVersionNumber() const override;
    /// "HV_QEMU_MAX_VERSION" when set (read once per process), else major -1: no upper bound.
    VersionNumber maximumVersionNumber() const override;
    QList<VersionNumber> unsupportedVersionNumbers() const override;
    QList<VMToolsMachine *> getMachines(std::function<bool()> cancel) override;
    VMToolsMachine *getMachine(const QString &name) override;
    bool doesMachineExistInHypervisor(const QString &name) const override;
    QString getAdapterName() const override;
    int createMachine(const QString &name, const OsImage &image, const HwProfile &profile) override;
    int createMachine(const QString &name, const QString &path, int, long long, long long sdCardSize,
                      const VersionNumber &imageVersion, const VersionNumber &osVersion) override;
    int startMachine(VMToolsMachine *machine, const QString &snapshotName) override;
    bool stopMachine(VMToolsMachine *machine) override;
    bool deleteMachine(const VMToolsMachine *machine) const override;
    /// True unless the "hypervhaxmerror" trigger is active; the host is not probed.
    bool isAccelerationSupported() const override;
    bool isSnapshotSupported() const override;
    /// The names of the snapshots of the device's system disk, read from the
    /// image itself; empty when they cannot be listed.
    QStringList fetchSnapshotNames(const VMToolsMachine *machine) const override;
    /// Deletes the snapshot from the device's system disk and, only when that
    /// worked, from its data disk and SD card. True when there is no such snapshot.
    bool deleteSnapshot(const VMToolsMachine *machine, const QString &name) const override;
    bool setMachineIdentifiers(VMToolsMachine *machine, const QString &first, const QString &second) override;
    /// Refuses a source that runs (see the overload).
    int cloneMachine(VMToolsMachine *machine, const QString &newName) override;
    /// Copies the device under a new name and identity. A source that runs is
    /// refused unless crashConsistent: its guest is then paused (its disks
    /// flushed) for the copy and goes on after it, so the clone has the disks
    /// a power cut at that moment would have left.
    int cloneMachine(VMToolsMachine *machine, const QString &newName, bool crashConsistent) override;
    /// Copies an image; an existing destination is never overwritten.
    bool copyDisk(const QString &source, const QString &destination) const override;
    /// Removes an image; true when none is left at the path.
    bool deleteDisk(const QString &path) const override;
    /// Resizes the image at path to size MiB; false, silently, when there is no image.
    bool resizeDisk(const QString &path, long long size) const override;
    QString getDataDiskName() const override;
    QString getSDCardDiskName() const override;
    QStringList fetchBridgeableInterfaces() override;
    QStringList getBridgeableInterfaces() const override;
    int getHostOnlyNetworkType() const override;
    /// Reads QEMU's version and checks that both programs exist: status 1
    /// with a message naming the missing one (qemu-img first) otherwise.
    InitResult initialize(InitMode mode) override;
    QList<VMToolsMachine *> getMachines(std::function<bool()> cancel, QList<BrokenMachine> *broken) override;
    QString brokenMachineReason(const QString &name) const override;
    QStringList getMachineNames() const override;
    /// "'PATH' was not made by hvtool (it has no 'MARKER' marker)".
    QString foreignEntryReason(const QString &name) const override;
    /// lockDevice() on the device's directory; Gone when there is none.
    LockFiles::CommandLock::Result lockMachine(const QString &name, const QString &command,
                                               LockFiles::CommandLock *lock) const override;
    StartOutcome startDevice(VMToolsMachine *machine, const StartRequest &request) override;
    /// Speaks first on the guest's forwarded ADB port, the way a debugger
    /// does, until the guest answers: the user-mode network takes every
    /// connection while the guest still boots, so a connection alone proves
    /// nothing. A guest that KVM stops under "auto" is started again cold
    /// under TCG (under its command lock) and waited for again.
    GuestWait waitForGuest(VMToolsMachine *machine, int timeoutMs, const std::function<bool()> &cancel,
                           const std::function<void(GuestWait::Phase)> &reached = {}) override;
    bool setGuestClock(VMToolsMachine *machine, int timeoutMs, qint64 *movedMs, QString *failure) override;
    int createMachine(const QString &name, const OsImage &image, const HwProfile &profile,
                      const std::function<bool()> &cancel, QString *error) override;
    /// Bytes in the image's unfinished reference directory (the OVA's size
    /// the total), then in the device's build directory.
    CreateProgress creationProgress(const QString &name, const OsImage &image) const override;

    static QString getQemuSystemBinaryName();
    static QString getQemuImgBinaryName();
    /// The version in QEMU's "--version" output, or an empty string.
    static QString parseVersion(const QString &text);

    /// Marks acceleration as supported; the host is not probed.
    void checkAcceleration();
    /// Reads the version text by running the emulator with "--version".
    void initVersionString();

    /// Points the qcow2 overlay disk at another backing file holding the
    /// same data; the overlay's data is not touched.
    bool rebaseDisk(const QString &disk, const QString &backing) const;
    /// Creates target as a qcow2 overlay of the qcow2 image backing; true
    /// when the tool finished successfully and the target exists.
    bool createDisk(const QFileInfo &backing, const QFileInfo &target) const;
    /// Converts source (its format named by its suffix, "vmdk" or "qcow2")
    /// into the qcow2 image target, after inspectDisk() has let it pass. The
    /// source is removed only once the tool has finished successfully and
    /// the target exists.
    bool convertDisk(const QFileInfo &source, const QFileInfo &target) const;
    /// Inspects one disk of an OS image with the tool told its format:
    /// empty when it is a self-contained image of that format, else why it
    /// is refused, naming the disk (a backing file, an external data file,
    /// an extent in another file, another format, an unreadable image).
    QString inspectDisk(const QString &path, const QString &format) const override;
    /// Creates the SD card image (getSDCardDiskName()) of sizeMiB MiB in directory.
    bool createSDCard(const QString &directory, long long sizeMiB) const;
    /// Deletes the snapshot from one image.
    bool deleteSnapshot(const QFileInfo &disk, const QString &name) const;

    /// Makes a device's disks from an OVA: the image's reference disks are
    /// extracted and converted once, the device gets an overlay of the system
    /// disk, a copy of the data disk and, when sdCardSize is not 0, an SD
    /// card. 0 on success, 1 when refused or failed before the disk work, 2
    /// when the disk work failed; nothing is left behind on failure.
    int createMachine(const QString &name, const QString &ovaPath, long long sdCardSize,
                      const VersionNumber &imageVersion, const VersionNumber &osVersion) const;
    /// Rebuilds the device's system and data disks from the reference disks
    /// and drops the records of its saved states; the caller holds the
    /// device's lock. The new disks are made beside the old ones, flushed to
    /// disk, marked complete ("reset.pending") and only then renamed over
    /// them: a kill at any step leaves the old device or one that the next
    /// command finishes resetting (finishInterruptedReset()).
    ResetResult resetDevice(const VMToolsMachine *machine) const override;
    /// resetDevice() is Done.
    bool resetFactory(const VMToolsMachine *machine) const;
    /// Finishes a factory reset of the device that a killed command left
    /// half-way: forward when its new disks were marked complete, else back
    /// (the unfinished new disks are removed). The caller holds the lock.
    /// False, logged, when a step failed.
    bool finishInterruptedReset(const QString &devicePath) const;

    /// The directory of an image's reference disks (ReferenceDisks).
    static QString getReferenceDirectory(const OsImage &image);
    /// Makes the image's reference disks once and whole (ReferenceDisks):
    /// the OVA's disks are extracted and converted to qcow2 in the partial
    /// directory. The directory, or an empty string on failure.
    QString prepareReferenceDisks(const QString &ovaPath, const QString &directory) const override;
    /// The emulator writes the screen inside the device directory (it
    /// needs QEMU 7.1 for PNG); the image is then moved into place.
    bool saveScreenshot(VMToolsMachine *machine, const QString &file, QString *error) const override;
    /// Takes what the running emulator holds of the console into
    /// "console.log" first (QEMUConsoleLog).
    ConsoleRead readConsole(VMToolsMachine *machine, qint64 from) const override;
    QString logPath(const VMToolsMachine *machine, bool emulator) const override;
    /// Registers a creation from the OVA as a user of the reference
    /// directory, under the image's lock; it stays one until the result is
    /// destroyed. Null, logged, when the locks cannot be taken.
    std::unique_ptr<LockFiles::SharedLock> useReference(const QString &ovaPath, const QString &directory) const;
    /// The reference directory the device's system disk is backed by, when
    /// it is one of its image's; else its image's.
    QString getDeviceReference(const VMToolsMachine *machine) const;
    /// Moves a device whose system disk is backed by the reference disks of
    /// the previous layout (directly in the image's versions directory) onto
    /// the checksum-named directory, under the image's lock: the old disks
    /// are linked there (or the OVA prepared) and the overlay rebased. The
    /// old disks are removed once no disk in the devices directory uses
    /// them. True when the device needs no move or was moved.
    bool migrateDevice(const VMToolsMachine *machine) const;
    /// Moves the device off the previous layout when it is on it; then
    /// empty when its system disk's backing file exists, else why not.
    QString checkReferenceDisks(const VMToolsMachine *machine) const override;
    /// Whether the directory holds reference disks that were completed.
    static bool isReferenceComplete(const QString &directory);
    /// Removes an image's reference disks unless a device uses them (the
    /// devices that do are put in users) or a creation from them is under
    /// way (*creating is then set).
    bool removeReferenceDisks(const OsImage &image, QStringList *users, bool *creating) override;
    /// The devices made from the image or backed by its reference disks.
    QStringList getMachinesUsingImage(const OsImage &image);
    /// The image registered under uuid among the user's OS image records
    /// (read once per engine); an image without uuid when none is.
    OsImage getRegisteredImage(const QString &uuid) const;
    /// The directories of the devices directory that hold no loadable
    /// device, each with the reason in words.
    QList<QPair<QString, QString>> getBrokenMachines() const;
    /// Every device of the devices directory, loaded once, owned by the
    /// caller; when broken is given, the directories that hold none are put
    /// there with the reason in words.
    QList<QEMUMachine *> scanMachines(QList<QPair<QString, QString>> *broken) const;
    /// The loaded record of the device directory at path, owned by the
    /// caller, or null when it holds no QEMU device. It touches nothing the
    /// engine shares, so several threads may load devices at once.
    QEMUMachine *loadDevice(const QString &path) const;
    /// Why the directory at path holds no loadable device, in words.
    QString brokenReason(const QString &path) const;
    /// Removes a device directory whose device cannot be loaded; refused
    /// while an emulator recorded in it runs.
    bool deleteBrokenMachine(const QString &name) const override;
    /// Removes the directory recursively; true when it does not exist.
    static bool cleanDirectory(const QString &path);
    /// Whether the system made the directory at path for a device: it
    /// carries the device marker (QEMUDeviceFiles), or it holds a loadable
    /// device record that an earlier version made without one, and then it
    /// is marked (adopted) when adopt is true. Never a symbolic link.
    static bool isDeviceDirectory(const QString &path, bool adopt);
    /// Why dir must not become the devices directory, in words: it holds
    /// entries and none of them is the system's (a device directory, a
    /// leftover, the engine's own files). Empty when it may: missing, empty
    /// or already holding the system's devices.
    QString foreignDevicesDirectoryReason(const QString &dir) const override;
    /// QEMU's programs and version, /dev/kvm, the accelerator (probing KVM
    /// with a tiny guest for at most QEMUAccelerator::probeTimeoutMs(), its
    /// verdict then kept for the starts) and the audio backend.
    QList<VMToolsHostCheck> checkHost(const std::function<void(const QString &)> &note) override;
    /// The choices of "emulator.accelerator" and "emulator.audio".
    QStringList settingChoices(const QString &key) const override;

    /// A hidden directory in which a device is built or removed.
    using Leftover = MachineLeftover;
    /// The build directories of the devices directory, sorted by name.
    QList<Leftover> getLeftovers() const override;
    /// Removes a leftover whose process no longer runs; false, logged, when
    /// it still runs or cannot be removed.
    bool reclaimLeftover(const Leftover &leftover) const override;
    /// The build directories of the named device, being made now or left over.
    QStringList buildDirectories(const QString &name) const;
    /// How long a command on a device waits for another one on it to end
    /// before it gives up as busy.
    static int deviceLockWaitMs();
    /// Takes the device's command lock for command (the user's words, "hvtool
    /// device start"), waiting at most deviceLockWaitMs(). Every command that
    /// changes a device holds it from its first check to its last write, so
    /// two never interleave. Once it is taken, a factory reset that a killed
    /// command left half-way is finished or undone.
    LockFiles::CommandLock::Result lockDevice(const QString &devicePath, const QString &command,
                                              LockFiles::CommandLock *lock) const;
    /// The first port offset whose forwarded host ports are all free and that
    /// no running emulator holds in the port table; -1 when none is left.
    int computePortOffset() const;
    /// The same, passing over the offsets in skip, and preferred first when
    /// it qualifies (a device's last offset, so its ports stay; -1: none).
    int computePortOffset(const QSet<int> &skip, int preferred) const;
    /// The inter-process lock held from choosing a device's port offset until
    /// its emulator has bound the ports and the port table records it.
    QString getPortOffsetLockPath() const;
    /// "port-offsets.json" beside that lock: the offsets (and memory) of the
    /// emulators the programs of this devices directory started.
    QString getPortTablePath() const;
    /// Why starting the device would leave the host short of memory, with the
    /// numbers (MemAvailable of the meminfo file, less what running devices
    /// may still take of their RAM); empty when it fits.
    QString memoryShortfall(const VMToolsMachine *machine, const QString &meminfoPath = "/proc/meminfo") const;
    /// The name of that lock file in the devices directory.
    static QString portOffsetLockName();
    /// Saves an internal snapshot of the running device over QMP; the
    /// writable shared-folder drive is detached first when it is attached.
    bool saveSnapshot(VMToolsMachine *machine, const QString &name) const override;
    /// The same; recorded (when given) tells whether what the state was saved
    /// with could be recorded. When not, no record of it is left: a start
    /// then tries it, and the emulator refuses a state that does not fit.
    bool saveSnapshot(VMToolsMachine *machine, const QString &name, bool *recorded) const override;
    /// Returns the running device to its internal snapshot name, over QMP.
    bool loadSnapshot(VMToolsMachine *machine, const QString &name) const override;
    /// The snapshots of the device's system disk with their dates, sizes and
    /// guest clocks, read from the image itself (also while it runs).
    QList<QEMUSnapshotInfo> fetchSnapshots(const VMToolsMachine *machine) const override;
    /// Records beside the device's disks what the state saved as name
    /// depends on: RAM, CPUs, disk interface, OS image and emulator version.
    /// When that cannot be written, the records are removed rather than left
    /// stale; false.
    bool recordSavedState(VMToolsMachine *machine, const QString &name) const;
    QString savedStateMismatch(const VMToolsMachine *machine, const QString &name) const override;
    /// Set when the last session ended with the quick-boot save; a device
    /// whose sessions were never recorded (made by an earlier version) is
    /// taken as having saved.
    QString unsavedSessionReason(const VMToolsMachine *machine) const override;
    /// A start that ended while the emulator loaded its saved state.
    bool isStateLoadFailure(int startResult) const override;

    /// The accelerator the following starts use instead of the setting
    /// "emulator.accelerator" ("kvm" or "tcg"); empty: the setting's.
    void setOneOffAccelerator(const QString &accelerator);
    /// The value of "emulator.accelerator" the next start goes by: the
    /// one-off accelerator when one is set.
    QString configuredAccelerator() const;
    /// The accelerator and CPU model the next start uses; "auto" probes KVM
    /// when nothing is known of it yet.
    QEMUAccelerator::Choice chooseAccelerator() const;
    /// The lines the last start left for the user (why "auto" chose TCG or
    /// no sound, a KVM failure it fell back from), cleared by the call.
    QStringList takeStartNotes();
    /// Whether the last start met a KVM failure under "auto" and booted cold
    /// under TCG instead of the start it was asked for.
    bool lastStartFellBackToTcg() const;
    /// For a device whose emulator "auto" started under KVM and whose guest
    /// KVM then stopped (qemu.log tells): records that KVM cannot run guests
    /// here, stops the emulator and starts the device again cold under TCG.
    /// The start's result; 0 when there was no such failure to recover from.
    int restartAfterKvmFailure(VMToolsMachine *machine);

    /// Questions about an emulator's error output at logPath (its
    /// "qemu.log"), each answered from a fresh reading of the whole file
    /// (QEMUErrorDiagnosis). A start reads it once and asks none of them.
    bool isResourceBusy(const QString &logPath) const;
    /// Whether another process holds the write lock of one of its disks.
    bool isSystemFileUsedByAnotherProcess(const QString &logPath) const;
    /// Whether another process uses one of the device's ports.
    bool isPortUsedByAnotherProcess(const QString &logPath) const;
    /// False only when QEMU reported a memory size the host cannot address
    /// (or the memory error trigger is active); an unreadable file answers true.
    bool isMemorySupported(const QString &logPath) const;

    QString getQemuSystemBinaryPath() const;
    QString getQemuImgBinaryPath() const;
    /// "share/qemu" beside the binaries' directory.
    QString getFirmwareDirPath() const;

protected:
    QString m_versionString;
    QString m_qemuSystemBinaryPath;
    QString m_qemuImgBinaryPath;
    QString m_firmwareDirPath;
    bool m_accelerationSupported = true;
    QString m_oneOffAccelerator;
    QStringList m_startNotes;
    bool m_fellBackToTcg = false;
    /// The following starts show the emulator's window.
    bool m_windowRequested = false;

private:
    /// What a state saved now would depend on, with the accelerator and CPU
    /// model it runs under.
    QJsonObject describeSavedState(VMToolsMachine *machine, const QString &accelerator,
                                   const QString &cpuModel) const;
    /// One start of the device under the configured accelerator ("auto",
    /// "kvm", "tcg"); the machine's start codes.
    int launchMachine(VMToolsMachine *machine, const QString &snapshotName, const QString &accelerator);
    /// Whether the host runs the device's OS image architecture; logged when not.
    static bool canStart(const VMToolsMachine *machine);
    /// Fills in what the start takes from the device record; false, logged,
    /// when its control socket path is too long to bind.
    bool composeRequest(QEMUMachine *machine, const QString &snapshotName, QEMULaunch::Request *request) const;
    /// Whether the SD card the request attaches can be read and written; logged when not.
    bool checkSdCard(const QEMULaunch::Request &request) const;
    /// Fills in the accelerator, CPU model and audio backend of a start;
    /// false, logged, when a setting holds a value that is not known.
    bool chooseHostSetup(const QString &accelerator, QEMULaunch::Request *request);
    /// Records that KVM cannot run guests here (failure, in QEMU's words)
    /// and starts the device cold under TCG.
    int fallBackToTcg(VMToolsMachine *machine, const QString &failure);
    /// Chooses a free offset (not one of tried, to which it adds it) and
    /// launches the emulator on it under the port lock, which it holds until
    /// the emulator has bound its ports. The offset goes into request.
    int launchOnFreeOffset(QEMUMachine *machine, QEMULaunch::Request &request, QSet<int> *tried) const;
    /// Adds the launched emulator to the port table; the caller holds the lock.
    void recordPortOffset(const QEMUMachine *machine, int offset) const;
    mutable std::once_flag m_registryRead;
    mutable QList<OsImage> m_registeredImages;

    /// Called before each launch: a start from anything but the quick-boot
    /// state discards that state (it would later resume onto newer disks),
    /// and every session counts as unsaved until the quick-boot save ends it.
    bool openSession(VMToolsMachine *machine, const QString &snapshotName) const;
    /// Deletes the snapshot "latest" and its saved-state record.
    bool discardQuickBootState(VMToolsMachine *machine) const;
    /// Records whether the device's session ended with the quick-boot save.
    bool recordSessionEnd(const VMToolsMachine *machine, bool endedWithSave) const;
    /// Converts the OVA's disks extracted in partial into the reference
    /// disks; false, logged, on failure.
    bool convertOva(const QString &ovaPath, const QString &partial) const;
    /// Makes the checksum-named directory from the previous layout's disks.
    bool adoptOldReference(const QString &oldDirectory, const QString &directory) const;
    /// Removes the previous layout's disks once no disk uses them.
    void reclaimOldReference(const QString &oldDirectory) const;
    /// Makes a device's disks in the directory devicePath over the reference
    /// directory (prepared first when needed); the codes of the disk-level
    /// createMachine.
    int createDevice(const QString &devicePath, const QString &ovaPath, const QString &reference,
                     long long sdCardSize, const std::function<bool()> &cancelled = {}) const;
    /// The creation from an OS image, polling cancelled between its steps.
    int createFromImage(const QString &name, const OsImage &image, const HwProfile &profile,
                        const std::function<bool()> &cancelled) const;
    /// Why a device record of image and profile would not load back; empty
    /// when it would.
    QString recordRefusal(const OsImage &image, const HwProfile &profile) const;
    /// Why a start of the device would be refused before it is tried: an
    /// accelerator that is not known, a setting holding a value that is
    /// not, a host short of memory. An outcome without failure when none.
    StartOutcome refuseStart(const VMToolsMachine *machine, const StartRequest &request) const;
    /// Whether the device has the snapshot and can load it as it is now;
    /// when not, outcome says why.
    bool checkNamedSnapshot(const VMToolsMachine *machine, const QString &snapshot, StartOutcome *outcome) const;
    /// Whether a start asking for the quick-boot state is expected to
    /// resume it; when not, notes says why, unless there is none.
    bool expectQuickBoot(const VMToolsMachine *machine, bool oneOffAccelerator, QStringList *notes) const;
    /// Why the start of machine that gave result failed, in one line a
    /// person can act on, pointing at the error output it wrote.
    QString startFailureText(const QEMUMachine &machine, int result, const QDateTime &startedAt) const;
    QString startDiagnosis(const QEMUMachine &machine, int result) const;
    /// After KVM stopped the guest: starts the device again under TCG,
    /// under its command lock, and waits for the guest again.
    GuestWait restartAndWait(QEMUMachine *machine, int timeoutMs, const std::function<bool()> &cancel,
                             const std::function<void(GuestWait::Phase)> &reached);
    /// The path of the device name when it names one entry of the devices
    /// directory, which may not exist; else empty.
    QString deviceEntryPath(const QString &name) const;
    /// The same when that entry is a directory; else empty.
    QString existingDevicePath(const QString &name) const;
    /// Builds the device name in a build directory that carries the marker
    /// first, then renames it into place whole, never over an existing name.
    /// build's code on its failure, 1 when the directory cannot be made or
    /// renamed; nothing is left behind.
    int buildDevice(const QString &name, const std::function<int(const QString &)> &build) const;
    /// Marks a device directory made by an earlier version as the system's.
    static void adoptDirectory(const QString &path);
    /// The leftover that entry is, without its size or whether it is in
    /// progress; pid -1 when entry is no build directory the system made.
    static Leftover parseLeftover(const QFileInfo &entry);
    /// Renames a build directory to the device directory target, never over
    /// an existing entry: 0, or the errno (EEXIST when the name is taken).
    static int moveIntoPlace(const QString &buildPath, const QString &target);
    /// Makes the new disks of a factory reset under their temporary names
    /// and flushes them and the directory; nothing is left on failure.
    bool makeResetDisks(const QDir &reference, const QEMUDeviceFiles &files) const;
    bool discardResetDisks(const QEMUDeviceFiles &files) const;
    /// Gives the marked new disks of a reset their names and drops the
    /// stale records and the marker; each step may be run again.
    bool completeReset(const QEMUDeviceFiles &files) const;
    /// Copies the source's directory into buildPath, without the files that
    /// describe its emulator; see cloneMachine() for a running source.
    bool copyDevice(VMToolsMachine *source, const QString &buildPath, bool crashConsistent) const;
    /// The loaded record of the device directory at path, owned by the
    /// caller, or null when it holds no QEMU device.
    QEMUMachine *loadMachine(const QString &path) const;
    QList<QEMUMachine *> loadMachines(const std::function<bool()> &cancel) const;
};
