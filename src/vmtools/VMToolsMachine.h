#pragma once

#include "HwProfile.h"
#include "MachineRunInfo.h"
#include "OsImage.h"
#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QElapsedTimer>
#include <QList>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantHash>

#include <functional>

class QFile;

/// The record of one virtual device: its directory, its own copies of the
/// hardware profile and the OS image, a free-form configuration, and the
/// device configuration file "shared/config/device.json" that holds all of
/// it. Property setters write the file at once, so the file always reflects
/// the last change; a setter's result is the result of that write. The
/// engine's machine class supplies the run-time side (name, uuid, status,
/// IP address, ports).
///
/// A machine belongs to the thread of the engine that handed it out (see
/// VMToolsEngine). Its record operations read or write device.json and wait
/// for nothing else; the operations that wait longer say so.
class HALVISTROM_CORE_EXPORT VMToolsMachine
{
public:
    enum State { Unknown = 0, On = 1, Off = 2, Paused = 3, Process = 4, Aborted = 5 };
    enum AdapterType { Null = 0, UnknownAdapter = 1, HostOnly = 2, HostOnlyNet = 3 };
    enum ConnectionType { UnknownConnection = 0, Nat = 1, Bridged = 2 };

    /// How the device reaches the network: a type and, for a bridge, the
    /// host interface's name.
    class HALVISTROM_CORE_EXPORT ConnectionInfo
    {
    public:
        ConnectionInfo() = default;
        ConnectionInfo(ConnectionType type, const QString &name);
        QString name() const { return m_name; }
        ConnectionType type() const { return m_type; }

    private:
        QString m_name;
        ConnectionType m_type = UnknownConnection;
    };

    /// Capability bits of the device's OS image.
    enum Capability {
        /// Android above 8.0.0: disks are attached as virtio devices.
        VirtioDisks = 1,
    };

    explicit VMToolsMachine(const QString &path);
    VMToolsMachine(const VMToolsMachine &) = delete;
    VMToolsMachine &operator=(const VMToolsMachine &) = delete;
    virtual ~VMToolsMachine();

    /// Writes device.json (profile, image, configuration, extra keys).
    virtual bool save() const;
    /// Reads device.json. False for a missing or malformed file or an invalid
    /// profile; the record then keeps what it had read up to that point. An
    /// image of format 1.0.0 is migrated and the file rewritten at once.
    virtual bool load();
    /// Takes profile and image, applies the profile's CPU, RAM and SD card
    /// values, and saves.
    virtual bool setProperties(const HwProfile &profile, const OsImage &image);
    virtual void dumpInfos(QFile *file) = 0;
    virtual bool reloadProperties() = 0;
    virtual void reloadVmInfo() = 0;

    /// Sizes in MB.
    virtual long long getRamSize() const;
    virtual bool setRamSize(long long size);
    virtual long long getVmHeapSize() const;
    virtual bool setVmHeapSize(long long size);
    /// The primary display's values (0 without a display). The setters
    /// change every display and do nothing (true) without a display.
    virtual int getRoundedBottomCornerRadius() const;
    virtual bool setRoundedBottomCornerRadius(int radius);
    virtual int getRoundedTopCornerRadius() const;
    virtual bool setRoundedTopCornerRadius(int radius);
    virtual int getRoundedCornerContentPadding() const;
    virtual bool setRoundedCornerContentPadding(int padding);
    /// "gl_es_api_level"; empty when unset.
    virtual QString getGlEsApiLevel() const;
    virtual bool setGlEsApiLevel(const QString &level);
    virtual long long getSdCardSize() const;
    virtual bool setSdCardSize(long long size);
    /// "sdcard_inserted"; false when unset.
    virtual bool isSdCardInserted() const;
    virtual bool setSdCardInserted(bool inserted);
    virtual int getCpuCount() const;
    virtual bool setCpuCount(int count);
    virtual QString getName() const = 0;
    virtual bool setName(const QString &name) = 0;
    virtual QString getUuid() const = 0;
    virtual bool setUuid(const QString &uuid) = 0;
    /// Bytes of all files below the device directory, computed once: the
    /// first call walks the directory.
    virtual long long getSizeOnDisk();
    /// The QEMU machine answers at once with its forwarded address.
    virtual QString waitForIP(std::function<bool()> cancel) = 0;
    /// Whether the emulator runs, from its lock file and the process table:
    /// no wait.
    virtual int getStatus() const = 0;
    /// The state as the running machine itself tells it: Paused, with the
    /// reason, when the hypervisor holds the guest (on a disk error, say);
    /// otherwise getStatus() and an empty reason. May ask the hypervisor, so
    /// it costs more than getStatus(): on the QEMU engine about 5 s at most
    /// to reach the emulator's monitor and 1 s per question.
    virtual int getRunState(QString *reason) const;
    virtual int getOnLoadStatus() const;
    virtual QString getOsImageArch() const;
    virtual VersionNumber getAndroidVersion() const;
    virtual int getSdkVersion() const;
    virtual bool setAndroidVersion(const VersionNumber &version);
    /// The product version the OS image was built for.
    virtual VersionNumber getHalvistromVersion() const;
    virtual bool setHalvistromVersion(const VersionNumber &version);
    /// "tp" for a tablet, "p" otherwise.
    virtual QString getPlatform() const;
    /// The platform follows the form factor; does nothing.
    virtual bool setPlatform(const QString &platform);
    virtual int getDensity() const;
    /// Changes the primary display; does nothing (true) without a display.
    virtual bool setDensity(int density);
    virtual QSize getResolution() const;
    virtual HwProfile::DisplayMode getDisplayMode() const;
    /// Saves only when the mode changes.
    virtual bool setDisplayMode(HwProfile::DisplayMode mode);
    virtual QList<HwProfile::Display> getDisplays() const;
    virtual bool setDisplays(const QList<HwProfile::Display> &displays);
    virtual HwProfile getHwProfile() const;
    virtual bool setHwProfileUuid(const QString &uuid);
    virtual QString getHwProfileUuid() const;
    virtual bool setOsImageUuid(const QString &uuid);
    virtual OsImage getOsImage() const;
    virtual QString getOsImageUuid() const;
    virtual bool setDataDiskSize(long long size);
    virtual long long getDataDiskSize() const;
    /// The image's release date as "yyyy.MM.dd".
    virtual QString getReleaseDate() const;
    /// Changes the primary display; does nothing (true) without a display.
    virtual bool setResolution(const QSize &resolution);
    /// "fullscreen"; false when unset.
    virtual bool isFullScreen() const;
    virtual bool setFullScreen(bool fullScreen);
    /// The opposite of the profile's hardware navigation keys.
    virtual bool getNavigationBarVisibility() const;
    /// Does nothing (true) without a display.
    virtual bool setNavigationBarVisibility(bool visible);
    /// "virtual_keyboard"; false when unset.
    virtual bool isVirtualKeyboardEnabled() const;
    virtual bool setVirtualKeyboardEnabled(bool enabled);
    virtual QString getIPAddress() const = 0;
    virtual QString getAdbSerial() const = 0;
    virtual int getAdbPort() const;
    virtual int getFrontCameraPort() const;
    virtual int getBackCameraPort() const;
    virtual int getAudioInputPort() const;
    virtual int getAudioOutputPort() const;
    virtual int getRedisPort() const;
    virtual int getRenderMainPort() const;
    virtual int getRenderDataPort() const;
    virtual AdapterType getAdapterType(unsigned int adapter) const = 0;
    virtual bool setAdapterType(unsigned int adapter, AdapterType type, const QString &name) = 0;
    virtual bool createFactoryBackup() = 0;
    /// Gives the stopped device fresh disks over its image's reference
    /// disks: on the QEMU engine two qemu-img runs, 30 s each at most.
    virtual bool resetFactory() = 0;
    /// The configuration entry as text; defaultValue when absent or textless.
    virtual QVariant getData(const QString &key, const QVariant &defaultValue = QVariant()) const;
    /// Stores the configuration entry and saves.
    virtual void setData(const QString &key, const QVariant &value);
    /// Blocks as the engine's createMachine() for an image's first device.
    virtual bool upgradeSystemDisk(const OsImage &image) const = 0;
    virtual QString getProductName() const;
    virtual bool setProductName(const QString &name);
    virtual HwProfile::FormFactor getFormFactor() const;
    virtual bool setFormFactor(HwProfile::FormFactor formFactor);
    virtual QString getProductModel() const;
    virtual bool setProductModel(const QString &model);
    virtual QString getProductManufacturer() const;
    virtual bool setProductManufacturer(const QString &manufacturer);
    virtual QString getProductBrand() const;
    virtual bool setProductBrand(const QString &brand);
    virtual QString getProductBoard() const;
    virtual bool setProductBoard(const QString &board);
    virtual QString getBuildDisplayId() const;
    virtual bool setBuildDisplayId(const QString &id);
    virtual QString getProductDevice() const;
    virtual bool setProductDevice(const QString &device);
    virtual bool setBuildSerial(const QString &serial);
    virtual QString getBuildSerial() const;
    virtual bool setBuildType(const QString &type);
    virtual QString getBuildType() const;
    virtual bool setBuildFingerprint(const QString &fingerprint);
    virtual QString getBuildFingerprint() const;
    virtual bool setBuildTags(const QString &tags);
    virtual QString getBuildTags() const;
    /// "quickboot"; true when unset. Saves even when unchanged.
    virtual bool setQuickbootEnabled(bool enabled);
    virtual bool isQuickbootEnabled() const;
    virtual bool isLatestSnapshotExist() const;
    /// Remembered only, not saved.
    virtual void setLatestSnapshotExists(bool exists);
    /// "root"/"active"; saves only when the value changes.
    virtual bool setRootAccessEnabled(bool enabled);
    virtual bool isRootAccessEnabled() const;
    virtual ConnectionInfo fetchConnectionInfo() = 0;
    virtual ConnectionInfo getConnectionInfo() const = 0;
    virtual bool setConnectionInfo(const ConnectionInfo &info) = 0;

    // The run-time side a program shows and acts on without knowing the
    // engine; the base answers as a machine without an emulator would.

    /// The state, and while the emulator runs its process and where to
    /// reach it. Asks the emulator like getRunState().
    virtual MachineRunInfo getRunInfo() const;
    /// Kills the emulator at once and clears what recorded it; false when
    /// nothing was stopped. No wait beyond the kill.
    virtual bool forceStop();
    /// Waits at most timeoutMs for the emulator to end after a stop, then
    /// clears what recorded it; true when it ended.
    virtual bool waitForStop(int timeoutMs);
    /// Lets a guest held on a disk error go on; false, with the reason, when
    /// it cannot or is held again at once. About 5 s at most to reach the
    /// emulator's monitor, then half a second to see whether it holds.
    virtual bool resumeFromDiskError(QString *reason) const;
    /// Removes the record of an emulator that no longer runs (its lock
    /// file); true when none is left.
    virtual bool clearDeadEmulator() const;

    /// The device directory.
    QString getPath() const;
    void setHwProfile(const HwProfile &profile);
    /// Also recomputes the capabilities.
    void setOsImage(const OsImage &image);
    int getCapabilities() const;
    void loadCapabilities();
    /// Whether device.json exists.
    bool hasConfigFile() const;
    /// Path of device.json.
    QString getConfigFilePath() const;
    /// Path of device.json of the device whose directory is deviceDir.
    static QString configFilePath(const QString &deviceDir);
    /// The content of the device record at path, when it is a regular file of
    /// a sane size (never waiting on a FIFO in its place); empty, with *why,
    /// otherwise.
    static QByteArray readConfigFile(const QString &path, QString *why);
    bool isUpgrading() const;
    /// Writes or removes the marker of an unfinished system upgrade.
    bool setUpgrading(bool upgrading);
    void startTimer();
    /// Whole seconds since startTimer(); 0 before.
    long long getElapsedTime() const;
    QString snapshotFilename() const;
    QString textureFilename() const;
    QString getUpgradingFlagPath() const;
    /// Removes the quick-boot snapshot and texture files that exist.
    void deleteOpenglSnapshot() const;
    /// Walks the device directory again and caches the byte count: no time
    /// bound but the number of files.
    long long computeSizeOnDisk();

    static long long getMinVmHeapSize();
    static QString getStatusString(int state);
    static QString getAdapterTypeString(int type);
    static ConnectionInfo createUnknownConnectionInfo();
    static ConnectionInfo createNatConnectionInfo();
    static ConnectionInfo createBridgedConnectionInfo(const QString &name);

protected:
    /// Points the record at another directory (after a rename).
    void setPath(const QString &path);
    void setOnLoadStatus(int status);
    /// Top-level keys of device.json that this class does not interpret.
    QVariant getExtraKey(const QString &key) const;
    void setExtraKey(const QString &key, const QVariant &value);

private:
    /// Stores value under key in the configuration and saves.
    bool setConfiguration(const QString &key, const QVariant &value);
    /// Applies change to the primary display (or every display) and saves;
    /// true without saving when the profile has no display.
    bool changeDisplays(bool everyDisplay, const std::function<void(HwProfile::Display &)> &change);

    QString m_path;
    int m_onLoadStatus = Unknown;
    HwProfile m_hwProfile;
    QVariantHash m_configuration;
    QVariantHash m_extraKeys;
    QVariantHash m_root;
    QElapsedTimer m_runTimer;
    long long m_sizeOnDisk = -1;
    OsImage m_osImage;
    int m_capabilities = 0;
    bool m_latestSnapshotExists = false;
    // Set while setProperties() calls the setters, which then do not write.
    bool m_holdingSaves = false;
};
