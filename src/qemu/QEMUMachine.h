#pragma once

#include "QEMUDeviceFiles.h"
#include "VMToolsMachine.h"

#include <QString>
#include <QStringList>
#include <QVector>

class QEMUEngine;
struct QEMULockRecord;

/// A device of the QEMU engine: the machine record plus one emulator process.
/// The emulator runs detached, so it outlives the program that started it;
/// the lock file "qemu.lock" in the device directory ties its pid and the
/// device's port offset to the device, so any later process can find, check
/// and stop it.
class QEMUMachine : public VMToolsMachine
{
public:
    /// Result codes of start().
    enum StartResult {
        StartFailed = 0,
        Started = 1,
        AccelerationNotSupported = 4,
        ResourceBusy = 5,
        SystemFileUsed = 6,
        PortUsed = 7,
        MemoryNotSupported = 9,
        /// The emulator neither ended nor became ready in time; it was stopped.
        NotReady = 10,
        /// The emulator ended because it could not load the saved state.
        StateNotLoaded = 11,
        /// The emulator was still loading the saved state when its time ran
        /// out; it was stopped.
        StateLoadTimedOut = 12,
        /// What answered on the control socket did not speak QMP; the
        /// emulator was stopped.
        ProtocolError = 13,
        /// The emulator did not bind its forwarded ports in time; it was
        /// stopped.
        PortsNotBound = 14,
        /// KVM cannot run the guest on this host: the emulator ended on a KVM
        /// failure or stopped the guest on a KVM internal error.
        KvmFailed = 15,
        /// The audio backend is missing or has no sound server.
        AudioUnavailable = 16,
        /// There is no emulator program at the path given.
        EmulatorMissing = 17,
    };

    /// The record of an existing device directory; reads the port offset from
    /// the lock file. The engine is not owned.
    QEMUMachine(QEMUEngine *engine, const QString &path);
    /// The record of a new device: takes image and profile, gets a fresh uuid
    /// and the "QEMU" virtualizer tag. Nothing is written until save().
    QEMUMachine(QEMUEngine *engine, const QString &path, const OsImage &image, const HwProfile &profile);
    ~QEMUMachine() override;

    /// Warns when the emulator runs (the file lives in the folder the guest
    /// sees), then writes device.json.
    bool save() const override;
    /// True when device.json loads, belongs to a QEMU device and passes
    /// recordProblem().
    bool load() override;
    /// Why the fields read back from device.json cannot be used, in words;
    /// empty when they can. The file lies in the folder the guest writes, so
    /// they are checked against what the guest cannot change: RAM and
    /// processors against the bounds a device may have, the image against
    /// its registration, and the image versions it names against the
    /// reference disks its system disk is backed by.
    QString recordProblem() const;
    bool reloadProperties() override;
    void reloadVmInfo() override;
    void dumpInfos(QFile *file) override;

    /// The directory name.
    QString getName() const override;
    /// Renames the device directory inside its parent and follows it.
    bool setName(const QString &name) override;
    QString getUuid() const override;
    bool setUuid(const QString &uuid) override;
    /// Gives the device a newly created uuid and saves.
    bool changeUuid();
    /// On while the emulator runs, else Off.
    int getStatus() const override;
    /// Asks the running emulator: Paused, with the disk errors that stopped
    /// it, when it holds the guest on an I/O error or a full disk.
    int getRunState(QString *reason) const override;
    /// Lets a guest held on a disk error go on; false, with the reason, when
    /// the emulator cannot be asked or holds it again at once.
    bool resumeFromDiskError(QString *reason) const override;
    QString getIPAddress() const override;
    /// The address at once: the guest is reached through forwarded ports.
    QString waitForIP(std::function<bool()> cancel) override;
    QString getAdbSerial() const override;
    AdapterType getAdapterType(unsigned int adapter) const override;
    /// QEMU devices have no configurable adapters: false.
    bool setAdapterType(unsigned int adapter, AdapterType type, const QString &name) override;
    bool createFactoryBackup() override;
    bool resetFactory() override;
    ConnectionInfo fetchConnectionInfo() override;
    ConnectionInfo getConnectionInfo() const override;
    bool setConnectionInfo(const ConnectionInfo &info) override;
    /// Lays a new system disk over the image's reference disk (converted from
    /// its "system.vmdk" first when needed); the old disk stays on failure.
    bool upgradeSystemDisk(const OsImage &image) const override;
    /// Inserting creates the SD card image of getSdCardSize() MiB when there
    /// is none; without an image the card is not recorded as inserted.
    bool setSdCardInserted(bool inserted) override;
    /// Resizes an existing SD card image, then saves the size.
    bool setSdCardSize(long long size) override;

    /// Ports: the defaults shifted by the port offset, in 16 bits (they wrap
    /// at 65536). ADB adds 1000 more and does not wrap.
    int getAdbPort() const override;
    int getFrontCameraPort() const override;
    int getBackCameraPort() const override;
    int getAudioInputPort() const override;
    int getAudioOutputPort() const override;
    int getRedisPort() const override;
    int getRenderMainPort() const override;
    int getRenderDataPort() const override;
    /// The emulator's QMP socket: the one the lock file records while a lock
    /// file exists, else where the next start puts it (QEMUDeviceFiles).
    QString getQmpSocketPath() const;
    /// The offset of the running emulator; -1 when unknown.
    int getPortOffset() const;
    /// Re-reads the offset from the lock file (-1 without one).
    void refreshPortOffset();

    /// The files of the device directory.
    QEMUDeviceFiles files() const;
    QString getLockFilePath() const;
    /// "qemu.log" in the device directory: the emulator's error output.
    QString getLogFilePath() const;
    /// Records pid, its start time and offset; refused while the recorded
    /// emulator runs.
    bool createLockFile(unsigned short offset, long long pid) const;
    /// The same, also recording whether the emulator has the writable
    /// shared-folder drive (1 yes, 0 no, -1 not known) and the accelerator
    /// and CPU model it runs with.
    bool createLockFile(unsigned short offset, long long pid, int writableSharedDrive,
                        const QString &accelerator = QString(), const QString &cpuModel = QString()) const;
    /// The accelerator and CPU model the running emulator was started with,
    /// as its lock file records them; empty when not recorded.
    QString runningAccelerator() const;
    QString runningCpuModel() const;
    /// The line of the emulator's error output that shows KVM stopped the
    /// guest or could not run it; empty when there is none.
    QString kvmFailure() const;
    bool removeLockFile() const;
    /// Whether the running emulator has the writable shared-folder drive, as
    /// its lock file records. A lock file without that record (an emulator
    /// started by an older program) falls back on the disk interface: IDE
    /// devices are the ones started with it.
    bool hasWritableSharedDrive() const;
    /// Records in the lock file that the drive is attached or detached. False
    /// when there is no lock file or it cannot be written.
    bool setWritableSharedDrive(bool attached) const;
    /// The recorded pid; 0 when there is none (or it is not a valid pid).
    long long loadQEMUPid() const;
    /// The recorded start time of that pid; 0 when the lock file has none.
    long long loadQEMUStartTime() const;
    /// Whether the recorded pid is the emulator the lock file recorded: alive
    /// (not a zombie), started at the recorded time, of the emulator binary.
    bool isQEMURunning() const;

    /// Starts the emulator detached with its error output in qemu.log, records
    /// it in the lock file and waits until its monitor reports a running
    /// machine (at most readyTimeoutMs() of the state its "-loadvm" names; an
    /// emulator still not ready then is stopped). An emulator that ends first
    /// is diagnosed from its error output. Returns a StartResult; Started also
    /// when it was already running.
    int start(const QString &program, const QStringList &arguments, unsigned short offset);
    /// The first half of start(): launches the emulator and records it in the
    /// lock file. Started when it was launched.
    int launch(const QString &program, const QStringList &arguments, unsigned short offset);
    /// Waits until the launched emulator listens on every one of ports, at
    /// most the base ready time-out; stops it when it does not.
    int waitForPorts(const QVector<int> &ports);
    /// The second half of start(): waits until the launched emulator's monitor
    /// reports a running machine, loading snapshotName (empty for a cold
    /// boot) first; stops it when it does not.
    int waitUntilReady(const QString &snapshotName);
    /// The launched emulator's pid (0 before a launch).
    long long launchedPid() const { return m_launchedPid; }
    /// What went wrong in the last start, when the emulator was stopped (a
    /// time-out, a protocol error), in words; empty otherwise.
    QString getStartFailure() const { return m_startFailure; }
    /// The line of the emulator's error output that the last start's KVM or
    /// audio failure rests on, as its one reading of "qemu.log" found it;
    /// empty for other outcomes.
    QString getStartCause() const { return m_startCause; }
    /// Why the last load of a saved state by this record was stopped; kept
    /// across later starts, so that a quick boot that fell back on a cold
    /// boot tells why.
    QString getStateLoadFailure() const { return m_stateLoadFailure; }
    /// The base time a start waits for the emulator to become ready, in ms
    /// ("HV_QEMU_READY_TIMEOUT_MS", by default 30 s).
    static int readyTimeoutMs();
    /// The ready time-out of a start that loads a saved state of stateBytes:
    /// the base, grown with the state's size.
    static int readyTimeoutMs(qint64 stateBytes);
    /// Kills and reaps the recorded emulator and removes the lock file. A lock
    /// file naming any other process is removed without touching that process
    /// (and the result is false: nothing was stopped).
    bool forceStop() override;
    /// Waits up to a second for the recorded emulator to end; when it has, the
    /// lock file is removed. True when it ended.
    bool waitForFinished();
    MachineRunInfo getRunInfo() const override;
    bool waitForStop(int timeoutMs) override;
    bool clearDeadEmulator() const override;

    /// Whether the lock names a live process of the emulator binary, started
    /// at the recorded time.
    static bool isRecordedEmulator(const QEMULockRecord &lock);

private:
    QString imageProblem() const;
    QString referenceProblem() const;
    /// Takes group and other access away from the control socket and the
    /// directory it lies in.
    static void makeSocketPrivate(const QString &socketPath);
    /// Closes the device directory, everything in it and its control socket
    /// to other users.
    void makeDevicePrivate() const;
    /// Whether pid is a live process whose executable name is a prefix of the
    /// emulator's binary name.
    static bool isEmulatorProcess(long long pid);
    /// Before a launch: the control socket's directory made, the device
    /// directory closed to others, the previous run's console kept aside.
    bool prepareDirectories() const;
    /// Why the launched emulator ended, from its error output.
    int diagnoseEnd();
    /// Records why the start failed, stops the launched emulator and removes
    /// its lock file; returns result.
    int abandonLaunch(int result, const QString &failure);
    /// Stops the launched emulator and removes its lock file.
    void stopLaunched();
    /// Bytes of the saved state snapshotName on the device's disks.
    qint64 savedStateBytes(const QString &snapshotName) const;
    QEMULockRecord readLock() const;
    QString getSdCardPath() const;

    QEMUEngine *m_engine;
    int m_portOffset = -1;
    long long m_launchedPid = 0;
    long long m_launchedStartTime = 0;
    unsigned short m_launchedOffset = 0;
    QString m_startFailure;
    QString m_startCause;
    QString m_stateLoadFailure;
};
