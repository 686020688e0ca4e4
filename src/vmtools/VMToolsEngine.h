#pragma once

#include "BrokenMachine.h"
#include "ConsoleRead.h"
#include "CreateProgress.h"
#include "GuestWait.h"
#include "HwProfile.h"
#include "LockFiles.h"
#include "MachineLeftover.h"
#include "OsImage.h"
#include "SnapshotInfo.h"
#include "StartOutcome.h"
#include "StartRequest.h"
#include "VMToolsHostCheck.h"
#include "VMToolsMachine.h"
#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QDir>
#include <QList>
#include <QPair>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>

class AbstractHwProfileListController;
class QFile;

/// The virtual-machine engine: the one object through which the application
/// creates, starts, stops, clones and deletes virtual devices, manages their
/// disks and snapshots, and learns what the host can do. The concrete engine
/// lives in a plug-in that loadEngine() opens at run time.
///
/// The order of the virtual operations is the plug-in's binary interface:
/// add new ones at the end only.
///
/// Threads: the library starts no threads of its own, and neither the engine
/// nor the machines it hands out may be used from two threads at once. Load
/// the engine, and use it and its machines, from one thread (only
/// creationProgress() may be asked from another while a creation runs). Many operations
/// block that thread while a host program runs or the emulator answers, for
/// the bounds each one states (a start up to about a minute and a half, the
/// first device of an image for minutes). Some of those waits run a nested
/// event loop on the application's main thread, so the program's own events
/// are delivered in the middle of an engine call; others block the thread
/// outright. A program with a user interface therefore loads the engine on a
/// worker thread (a QThread whose object owns the engine), sends it requests
/// as queued calls and gets the results back as signals; the settings facade
/// is read by the engine on that thread, so the program changes settings
/// there too.
///
/// The QEMU engine's time-outs, which the bounds below are made of: a host
/// program run for the engine (qemu-img, the emulator's --version) 30 s
/// ("HV_CALL_TIMEOUT_MS"), a disk conversion or resize 300 s
/// ("HV_CALL_LONG_TIMEOUT_MS"); reaching the emulator's monitor 5 s (connect
/// 2 s, greeting 2 s, capabilities 1 s), then 1 to 2 s per command and, to
/// save or load a snapshot, 10 s and 20 ms per MiB of guest memory.
class HALVISTROM_CORE_EXPORT VMToolsEngine
{
public:
    /// Full runs the engine's hardware-acceleration check while initialising;
    /// any other value skips it.
    enum InitMode {
        Full = 0,
        NoAccelerationCheck = 1,
    };

    /// Status 0 with an empty message on success; status 1 when the engine
    /// cannot work, with a user-facing message.
    using InitResult = QPair<int, QString>;

    /// What loadEngine() hands back. The caller owns engine.
    struct LoadResult {
        /// The initialised engine, or null.
        VMToolsEngine *engine = nullptr;
        /// The status of initialize(), or 0 when it was never reached.
        int status = 0;
        /// The message of initialize(), or empty.
        QString message;
    };

    VMToolsEngine();
    virtual ~VMToolsEngine();

    VMToolsEngine(const VMToolsEngine &) = delete;
    VMToolsEngine &operator=(const VMToolsEngine &) = delete;

    /// Writes diagnostic information about the engine to an open file.
    virtual void dumpInfos(QFile *file) = 0;
    /// The engine's display name.
    virtual QString name() const = 0;
    /// Where the user can obtain the hypervisor.
    virtual QUrl getDownloadUrl() const = 0;
    /// The hypervisor's version text.
    virtual QString versionString() const = 0;
    virtual VersionNumber versionNumber() const = 0;
    virtual VersionNumber minimumVersionNumber() const = 0;
    virtual VersionNumber maximumVersionNumber() const = 0;
    virtual QList<VersionNumber> unsupportedVersionNumbers() const = 0;
    /// Every device; cancel is polled while they are gathered. The caller owns
    /// the machines. Reads each device's record: no host program, no
    /// emulator; the time grows with the number of devices.
    virtual QList<VMToolsMachine *> getMachines(std::function<bool()> cancel) = 0;
    /// The named device, owned by the caller, or null. Reads its record.
    virtual VMToolsMachine *getMachine(const QString &name) = 0;
    /// Whether the hypervisor knows the device or its directory exists.
    virtual bool doesMachineExist(const QString &name) const;
    virtual bool doesMachineExistInHypervisor(const QString &name) const = 0;
    /// Whether a directory of exactly that name is in the devices directory.
    virtual bool doesMachineExistInDir(const QString &name) const;
    /// The host network adapter used for host-only networking.
    virtual QString getAdapterName() const = 0;
    /// Creates a device from an OS image and a hardware profile; 0 on success.
    /// Blocks. The first device of an image unpacks its OVA (no time bound:
    /// the time the archive's size takes) and converts its two disks (300 s
    /// each at most), after waiting up to 30 min for another program that
    /// prepares the same image; every device then gets its own disks: a
    /// qemu-img run for the system disk and one for an SD card (30 s each at
    /// most), and a copy of the data disk (no time bound but its size).
    /// Cannot be cancelled.
    virtual int createMachine(const QString &name, const OsImage &image, const HwProfile &profile) = 0;
    /// Creates a device's disks from an OVA file; 0 on success. Blocks as the
    /// other createMachine().
    virtual int createMachine(const QString &name, const QString &path, int, long long, long long sdCardSize,
                              const VersionNumber &imageVersion, const VersionNumber &osVersion) = 0;
    /// Starts a device, from the named snapshot when it is not empty. The QEMU
    /// engine answers with the machine's start codes: 1 when the device runs.
    /// Blocks until the emulator answers with a running machine, not until
    /// the guest has booted (its ADB port answers later): up to 60 s for
    /// other starts to choose their ports, then up to 30 s
    /// ("HV_QEMU_READY_TIMEOUT_MS") for the emulator, 30 s more per GiB of
    /// saved state loaded; up to three launches when another program takes a
    /// port meanwhile. Under the accelerator "auto" the first start on a host
    /// probes KVM (10 s at most, remembered), and a guest that KVM stops is
    /// started once more under TCG.
    virtual int startMachine(VMToolsMachine *machine, const QString &snapshotName) = 0;
    /// Asks the emulator to quit and waits for it to end: about 5 s to reach
    /// its monitor, up to 15 s for it to write its disks back and end; one it
    /// cannot reach is killed. True once the emulator has taken the request
    /// or was killed; getStatus() tells whether it has ended (it has, unless
    /// writing its disks back took longer than those 15 s).
    ///
    /// Does not save the quick-boot state: a device stopped this way boots
    /// cold on its next startFromLatestSnapshot(), keeping what its disks
    /// hold. To stop with the state kept, call
    /// saveSnapshot(machine, latestSnapshotName()) first (hvtool's stop does).
    virtual bool stopMachine(VMToolsMachine *machine) = 0;
    /// Removes the device's directory (a rename, then the removal of its
    /// files: no host program, no emulator). Stop the device first.
    virtual bool deleteMachine(const VMToolsMachine *machine) const = 0;
    virtual bool isAccelerationSupported() const = 0;
    virtual bool isSnapshotSupported() const = 0;
    /// The device's snapshots; none unless the engine overrides it. The QEMU
    /// engine lists each disk's with qemu-img (30 s each at most).
    virtual QStringList fetchSnapshotNames(const VMToolsMachine *machine) const;
    /// Starts the device, resuming its "latest" snapshot when quickBoot asks
    /// for it, the last session ended by saving it, it exists (looked up
    /// here) and it was saved with the device's present hardware, image and
    /// emulator; otherwise, and when the engine cannot load the state, the
    /// device boots cold (once, with one line saying why), keeping what its
    /// disks hold. quickBoot tells afterwards which start it was. Blocks as
    /// fetchSnapshotNames() and startMachine(), twice over when the state
    /// cannot be loaded and the cold boot follows.
    virtual int startFromLatestSnapshot(VMToolsMachine *machine, bool *quickBoot);
    /// Why the saved state of the snapshot name cannot be resumed on the
    /// device as it is now ("saved with 512 MB of RAM, the device now has
    /// 1024 MB"); empty when it can, or when nothing is known of it.
    virtual QString savedStateMismatch(const VMToolsMachine *machine, const QString &name) const;
    /// Whether a start's result says the saved state could not be loaded.
    virtual bool isStateLoadFailure(int startResult) const;
    /// Succeeds without doing anything unless the engine overrides it. The
    /// QEMU engine saves the running device's state into its disks under
    /// name. Saved as latestSnapshotName(), it is the quick-boot state that
    /// the next startFromLatestSnapshot() resumes, and it ends the session:
    /// the guest stays paused, so that its disks cannot move past the state,
    /// and stopMachine() comes next. Under any other name the guest goes on.
    /// Blocks about 5 s to reach the monitor, 2 s to pause, 1 s to detach
    /// the shared folder, 10 s and 20 ms per MiB of guest memory to save and 2 s
    /// to go on, at most.
    virtual bool saveSnapshot(VMToolsMachine *machine, const QString &name) const;
    /// Succeeds without doing anything unless the engine overrides it. The
    /// QEMU engine deletes it from each disk with qemu-img (30 s each).
    virtual bool deleteSnapshot(const VMToolsMachine *machine, const QString &name) const;
    virtual bool setMachineIdentifiers(VMToolsMachine *machine, const QString &first, const QString &second) = 0;
    /// Copies a device under a new name; 0 on success. Copies its whole
    /// directory: no time bound but the disks' size. A running device is
    /// refused.
    virtual int cloneMachine(VMToolsMachine *machine, const QString &newName) = 0;
    /// A copy takes the time the file's size takes (no other bound); a resize
    /// runs qemu-img (300 s at most); deleting removes the file.
    virtual bool copyDisk(const QString &source, const QString &destination) const = 0;
    virtual bool deleteDisk(const QString &path) const = 0;
    virtual bool resizeDisk(const QString &path, long long size) const = 0;
    virtual QString getDataDiskName() const = 0;
    virtual QString getSDCardDiskName() const = 0;
    /// Refreshes the host interfaces a device can bridge to.
    virtual QStringList fetchBridgeableInterfaces() = 0;
    virtual QStringList getBridgeableInterfaces() const = 0;
    virtual int getHostOnlyNetworkType() const = 0;
    /// Makes the engine usable; called once, by loadEngine(). The QEMU engine
    /// runs the emulator's --version (30 s at most) and, in Full mode, its
    /// KVM probe (10 s at most, "HV_KVM_PROBE_TIMEOUT_MS", remembered per
    /// host and emulator).
    virtual InitResult initialize(InitMode mode) = 0;
    /// Why the device's quick-boot state must not be resumed, whatever it
    /// was saved with: its last session ended without saving one (stopped
    /// without a save, crashed, killed, a power loss), so its disks are newer
    /// than any saved state. Empty when the last session ended with the
    /// save, or when the engine keeps no record of sessions.
    virtual QString unsavedSessionReason(const VMToolsMachine *machine) const;
    /// Why the disk at path, of an OS image's OVA, must not become a
    /// reference disk, naming it (it names a host file, or is not of the
    /// format it claims); empty when it may. An engine that does not look
    /// into disks accepts them. The QEMU engine runs qemu-img (300 s at most).
    virtual QString inspectDisk(const QString &path, const QString &format) const;
    /// Removes an image's reference disks unless a device uses them (their
    /// names then in users) or a creation from them is under way (*creating
    /// then set). True, with nothing done, for an engine without reference disks.
    /// Waits up to 30 min for a program that is preparing the same disks.
    virtual bool removeReferenceDisks(const OsImage &image, QStringList *users, bool *creating);
    /// What the engine finds of the host it runs devices on: its programs and
    /// their version, the accelerator and sound settings and what "auto"
    /// picks for them here. It may probe the host for a few seconds (the
    /// engine says how long at most); note is told first what is probed.
    /// None unless the engine overrides it. The QEMU engine runs its
    /// programs (30 s each at most) and its KVM probe (10 s at most).
    virtual QList<VMToolsHostCheck> checkHost(const std::function<void(const QString &)> &note);
    /// The values a setting of the engine's with a fixed set of them allows
    /// ("emulator.accelerator": "auto", "kvm", "tcg"); empty for other keys.
    virtual QStringList settingChoices(const QString &key) const;
    /// Why dir must not become the devices directory, in words: it holds
    /// entries and none of them is the engine's. Empty when it may; an
    /// engine that does not override it takes any directory. Lists dir.
    virtual QString foreignDevicesDirectoryReason(const QString &dir) const;

    // What a program needs to run devices without knowing the engine: each
    // has a base that answers as an engine without that capability would.

    /// Every device, owned by the caller; the directories that the system
    /// made for a device and that hold none it can load go into broken.
    /// Reads the records, as getMachines() does.
    virtual QList<VMToolsMachine *> getMachines(std::function<bool()> cancel, QList<BrokenMachine> *broken);
    /// Why the directory of the device name holds no device that loads, in
    /// words; empty when it loads, when there is no such directory, or when
    /// the system did not make it. Reads its record.
    virtual QString brokenMachineReason(const QString &name) const;
    /// Removes the directory of the device name that holds no device that
    /// loads; refused while an emulator recorded in it runs. Blocks as
    /// deleteMachine().
    virtual bool deleteBrokenMachine(const QString &name) const;
    /// What takes the name in the devices directory when the system did not
    /// make it (someone's folder or file), in words; empty otherwise.
    virtual QString foreignEntryReason(const QString &name) const;
    /// Takes the command lock of the device name for command (the user's
    /// words: "hvtool device start"), waiting 5 s at most. Every
    /// command that changes a device holds it from its first check to its
    /// last write, so two never interleave.
    virtual LockFiles::CommandLock::Result lockMachine(const QString &name, const QString &command,
                                                       LockFiles::CommandLock *lock) const;
    /// What interrupted creations, clones and deletions left in the devices
    /// directory, by name. Lists the directory.
    virtual QList<MachineLeftover> getLeftovers() const;
    /// Removes a leftover whose process no longer runs; false, logged, when
    /// it still runs or cannot be removed. No time bound but its size.
    virtual bool reclaimLeftover(const MachineLeftover &leftover) const;
    /// The device's snapshots with what the engine knows of each. The QEMU
    /// engine reads the system disk's snapshot table: no host program.
    virtual QList<SnapshotInfo> fetchSnapshots(const VMToolsMachine *machine) const;
    /// Returns the running device to its snapshot name: about 5 s to reach
    /// the emulator's monitor, 1 s to detach the shared folder, 10 s and
    /// 20 ms per MiB of guest memory to load, at most.
    virtual bool loadSnapshot(VMToolsMachine *machine, const QString &name) const;
    /// saveSnapshot(), with its bounds; recorded tells whether what the state
    /// was saved with could be recorded beside it.
    virtual bool saveSnapshot(VMToolsMachine *machine, const QString &name, bool *recorded) const;
    /// cloneMachine(); a running source is copied only when crashConsistent,
    /// paused for the copy (30 s at most each to pause it and let it go on).
    virtual int cloneMachine(VMToolsMachine *machine, const QString &newName, bool crashConsistent);
    /// What a factory reset did.
    enum class ResetResult {
        Done,
        /// Refused, or failed before any disk was replaced: the device is as it was.
        Unchanged,
        /// The new disks are complete but could not all take their names:
        /// the next command on the device finishes the reset.
        Pending,
    };
    /// Rebuilds the device's disks from its image; the caller holds its lock.
    /// Refused while its emulator runs. One qemu-img run (30 s at most) and
    /// a copy of the image's data disk (no time bound but its size).
    virtual ResetResult resetDevice(const VMToolsMachine *machine) const;
    /// Why the device's disks cannot be used (a system disk whose image
    /// disks are gone), after moving them off an older layout; empty when
    /// they can. A move waits up to 30 min for a program that prepares the
    /// same image's disks.
    virtual QString checkReferenceDisks(const VMToolsMachine *machine) const;
    /// Starts the device as request asks, after checking what it starts
    /// from and that the host has room for it; the caller holds its lock.
    /// The outcome tells how it came up and why, or why it did not. Blocks as
    /// startFromLatestSnapshot(), or startMachine() for a named snapshot or
    /// a cold boot.
    virtual StartOutcome startDevice(VMToolsMachine *machine, const StartRequest &request);
    /// Waits at most timeoutMs until the guest of the started device is
    /// ready, polling cancel: until its debug bridge answers and then says
    /// its boot completed, or, when the bridge does not let the wait in (or
    /// the guest speaks no bridge), until it answers. reached, when set, is
    /// called with each further phase as the wait gets there. A guest the
    /// engine's accelerator cannot run may be started again under another
    /// one on the way (a startMachine(), then timeoutMs more). Each probe of
    /// the guest takes up to 4 s, so the wait may end that much after
    /// timeoutMs.
    virtual GuestWait waitForGuest(VMToolsMachine *machine, int timeoutMs, const std::function<bool()> &cancel,
                                   const std::function<void(GuestWait::Phase)> &reached = {});
    /// createMachine() that polls cancel between its steps: a creation
    /// cancelled or refused leaves nothing behind. An image or profile
    /// that would not load back from the device's record is refused before
    /// any disk is made. 0 on success; on failure error says why. Blocks as
    /// the other createMachine().
    virtual int createMachine(const QString &name, const OsImage &image, const HwProfile &profile,
                              const std::function<bool()> &cancel, QString *error);
    /// How far the creation of the device name from image has come; may be
    /// asked from another thread while it runs. Reads files: no wait.
    virtual CreateProgress creationProgress(const QString &name, const OsImage &image) const;
    /// Makes the reference disks of the OVA in directory (the image's
    /// ReferenceDisks directory), once and whole; the directory, or an empty
    /// string on failure. Blocks for the extraction (and conversion), waiting for
    /// another program's preparation of the same disks (30 min at most); the
    /// QEMU engine's conversions take 300 s each at most, the extraction has
    /// no time bound but the archive's size. The default extracts the OVA's
    /// disks as they are.
    virtual QString prepareReferenceDisks(const QString &ovaPath, const QString &directory) const;
    /// The names in the devices directory that may hold a device, in order,
    /// without reading any record. A program that lists many devices loads
    /// them on threads of its own: getMachine() and brokenMachineReason() may
    /// be called from several threads at once. The default loads them all.
    virtual QStringList getMachineNames() const;
    /// Sets the wall clock of the running device's guest to the host's,
    /// through its debug bridge, within timeoutMs (a guest resumed from a
    /// saved state keeps the time it was saved at). True with *movedMs how
    /// far the guest's clock moved (negative: back); false with *failure
    /// saying why. The default cannot reach a guest.
    virtual bool setGuestClock(VMToolsMachine *machine, int timeoutMs, qint64 *movedMs, QString *failure);
    /// Writes the running device's screen to file as a PNG image, whole or
    /// not at all. False, with why in error, when it cannot: the device does
    /// not run, the emulator cannot write PNG images, file cannot be written.
    /// The QEMU engine asks the emulator (about 15 s at most).
    virtual bool saveScreenshot(VMToolsMachine *machine, const QString &file, QString *error) const;
    /// What the device's guest wrote on its console from position from on
    /// (0: all that is kept): the current run's while the device runs, else
    /// the last run's. The QEMU engine asks a running emulator (2 s at most).
    /// Not available unless the engine keeps the console.
    virtual ConsoleRead readConsole(VMToolsMachine *machine, qint64 from) const;
    /// Where the device's logs are: the guest's console, or the emulator's
    /// own output when emulator is true; empty when the engine keeps none.
    virtual QString logPath(const VMToolsMachine *machine, bool emulator) const;

    /// Loads the engine the setting "hypervisor" names ("qemu" when it names
    /// none that is known) and stores that name back after a load whose
    /// status is 0. Blocks as initialize(). The thread that calls it is the
    /// one to use the engine from.
    static LoadResult loadEngine(InitMode mode);
    /// Loads the plug-in of the named engine ("qemu" or "virtualbox") from the
    /// "plugins" directory beside the application and initialises the engine.
    static LoadResult loadEngine(const QString &name, InitMode mode);

    /// Whether the processor offers VMX or SVM, as read at construction or by
    /// the last updateCPUVirtualizationAvailability().
    bool isCPUVirtualizationAvailable() const;
    /// Reads the VMX/SVM flag from the processor again.
    void updateCPUVirtualizationAvailability();
    /// The host's hardware threads; 0 when unknown.
    static int getMaxCpuCount();
    /// The names of the directories under the deployed-devices path.
    static QSet<QString> getDevicesNamesSetFromDir();
    /// Keeps the controller (not owned) for the migration work.
    void initMigration(AbstractHwProfileListController *controller);
    /// "latest": the snapshot that holds a device's quick-boot state.
    static QString latestSnapshotName();
    /// Sets the machine's flag that tells whether its snapshot "latest"
    /// exists. Does nothing for a null machine.
    void checkLatestSnapshotExists(VMToolsMachine *machine) const;
    /// Makes the reference disks of the OVA of those versions in their own
    /// directory (ReferenceDisks), unless they are complete there already:
    /// extracted beside it, never in place, and named only when whole. No
    /// time bound but the archive's size.
    bool extractOva(const QString &ovaPath, const VersionNumber &imageVersion,
                    const VersionNumber &osVersion) const;
    /// The same for the image's local OVA.
    bool extractOva(const OsImage &image) const;
    /// Why the OVA at ovaPath must not become an OS image: it cannot be
    /// unpacked, or inspectDisk() refuses one of its reference disks. Empty
    /// when it may; what is unpacked to look is removed again. No time bound
    /// but the archive's size, then inspectDisk() for each disk.
    QString inspectOsImage(const QString &ovaPath) const;

    /// The 12-character CPUID vendor identification ("GenuineIntel").
    QString getCpuVendor() const;
    /// The directory that holds the devices, fixed at construction.
    QDir getDevicesDirectory() const;
    /// The setting "virtual_devices.directory", or the deployed directory
    /// (with a warning) when the setting is not an absolute path.
    static QString getDevicesDirectorySetting();
    /// "virtual_devices.directory": the setting that names the devices directory.
    static QString devicesDirectoryKey();

private:
    /// Closes each device directory in a devices directory outside the data
    /// tree that other users can still enter, with everything in it.
    void closeOpenDevices() const;

protected:
    QString m_text;
    AbstractHwProfileListController *m_migrationController = nullptr;
    QDir m_devicesDirectory;
    QString m_cpuVendor;
    bool m_cpuVirtualizationAvailable = false;
};
