#include "VMToolsMachine.h"

#include "FileUtils.h"
#include "HwProfileIO.h"
#include "Logging_p.h"
#include "OsImageIO.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace {

const char kConfigDir[] = "/shared/config";
const char kConfigFileName[] = "device.json";
// A device directory is a few levels deep; the bound keeps a hostile tree
// from exhausting descriptors or the stack.
const int kMaxTreeDepth = 32;
const char kSnapshotFileName[] = "snapshot.snap";
const char kTextureFileName[] = "snapshot.stex";
const char kUpgradingFlagFileName[] = "upgrading.flag";

const char kOsImageKey[] = "os_image";
const char kHwProfileKey[] = "hardware_profile";
const char kConfigurationKey[] = "configuration";
const char kRootKey[] = "root";
const char kRootActiveKey[] = "active";
const char kQuickbootKey[] = "quickboot";
const char kGlEsApiLevelKey[] = "gl_es_api_level";
const char kSdCardInsertedKey[] = "sdcard_inserted";
const char kVirtualKeyboardKey[] = "virtual_keyboard";
const char kFullScreenKey[] = "fullscreen";

// A device.json holds one profile and one image: a few kilobytes. Anything
// far larger is not ours, and reading it whole would only cost memory.
const qint64 kMaxConfigFileSize = 16 * 1024 * 1024;

// Default host ports of a device; an engine shifts them by its offset.
const int kAdbPort = 5555;
const int kFrontCameraPort = 24810;
const int kBackCameraPort = 24800;
const int kAudioInputPort = 24297;
const int kAudioOutputPort = 24296;
const int kRedisPort = 6379;
const int kRenderMainPort = 25000;
const int kRenderDataPort = 22468;

} // namespace

VMToolsMachine::ConnectionInfo::ConnectionInfo(ConnectionType type, const QString &name)
    : m_name(name), m_type(type)
{
}

VMToolsMachine::VMToolsMachine(const QString &path) : m_path(path) {}

VMToolsMachine::~VMToolsMachine() = default;

QString VMToolsMachine::getPath() const
{
    return m_path;
}

void VMToolsMachine::setPath(const QString &path)
{
    m_path = path;
}

QString VMToolsMachine::getConfigFilePath() const
{
    return configFilePath(m_path);
}

QString VMToolsMachine::configFilePath(const QString &deviceDir)
{
    return deviceDir + QLatin1String(kConfigDir) + QLatin1Char('/') + QLatin1String(kConfigFileName);
}

bool VMToolsMachine::hasConfigFile() const
{
    return QFile::exists(getConfigFilePath());
}

bool VMToolsMachine::load()
{
    const QString path = getConfigFilePath();
    const QFileInfo info(path);
    if (!info.exists()) {
        qCWarning(hvEngineLog) << "[VMTools]" << "Missing device configuration file" << path;
        return false;
    }
    if (info.size() > kMaxConfigFileSize) {
        qCWarning(hvEngineLog) << "[VMTools]" << "Device configuration file is too large:" << path << info.size();
        return false;
    }
    const QJsonDocument document = FileUtils::loadJson(path);
    if (!document.isObject()) {
        qCWarning(hvEngineLog) << "[VMTools]" << "Device configuration file does not hold a JSON object:" << path;
        return false;
    }
    QJsonObject top = document.object();
    // Checked before anything is taken over, so a broken file leaves the
    // record as it was.
    const QJsonValue configurationValue = top.value(QLatin1String(kConfigurationKey));
    if (!configurationValue.isUndefined() && !configurationValue.isObject()) {
        qCWarning(hvEngineLog) << "[VMTools]" << "Device configuration entry is not an object:" << path;
        return false;
    }

    OsImage image = OsImageIO::load(top.take(QLatin1String(kOsImageKey)).toObject());
    const bool migrated = OsImageIO::migrateV1_0ToV1_1(getName(), &image);
    const HwProfile profile = HwProfileIO::load(top.take(QLatin1String(kHwProfileKey)).toObject());
    // A record that reloads a broken file keeps what it had: the next setter
    // would otherwise save the broken values over the good ones.
    if (!profile.isValid()) {
        qCWarning(hvEngineLog) << "[VMTools]" << "Failed to load hwProfile" << getName() << ", skip device";
        return false;
    }
    setOsImage(image);
    setHwProfile(profile);

    QJsonObject configuration = top.take(QLatin1String(kConfigurationKey)).toObject();
    m_root = configuration.take(QLatin1String(kRootKey)).toObject().toVariantHash();
    m_configuration = configuration.toVariantHash();
    m_extraKeys = top.toVariantHash();

    // A migrated image is written back at once, so the next reader finds the
    // current format.
    if (migrated)
        save();
    return true;
}

bool VMToolsMachine::save() const
{
    if (m_holdingSaves)
        return true;
    const QDir dir(m_path + QLatin1String(kConfigDir));
    if (!FileUtils::makeDirectory(dir.path())) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to create directory:" << dir.absolutePath();
        return false;
    }
    // "root" is rebuilt from scratch: only "active" is ours to keep.
    QJsonObject configuration = QJsonObject::fromVariantHash(m_configuration);
    configuration.insert(QLatin1String(kRootKey),
                         QJsonObject{{QLatin1String(kRootActiveKey), isRootAccessEnabled()}});
    QJsonObject top = QJsonObject::fromVariantHash(m_extraKeys);
    top.insert(QLatin1String(kConfigurationKey), configuration);
    top.insert(QLatin1String(kHwProfileKey), HwProfileIO::toJsonObject(m_hwProfile));
    top.insert(QLatin1String(kOsImageKey), OsImageIO::toJsonObject(m_osImage));

    // A crash or a full disk never leaves a half-written device.json behind.
    if (!FileUtils::saveFile(dir.filePath(QLatin1String(kConfigFileName)), QJsonDocument(top).toJson())) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to save device" << getName();
        return false;
    }
    return true;
}

bool VMToolsMachine::setProperties(const HwProfile &profile, const OsImage &image)
{
    setHwProfile(profile);
    setOsImage(image);
    // Each setter would write the whole file; one write at the end holds the
    // same values.
    m_holdingSaves = true;
    setCpuCount(profile.cpuCount);
    setRamSize(profile.ramSize);
    setSdCardSize(profile.sdCardSize);
    setSdCardInserted(profile.hasSdCard);
    m_holdingSaves = false;
    return save();
}

void VMToolsMachine::setHwProfile(const HwProfile &profile)
{
    m_hwProfile = profile;
}

void VMToolsMachine::setOsImage(const OsImage &image)
{
    m_osImage = image;
    loadCapabilities();
}

HwProfile VMToolsMachine::getHwProfile() const
{
    return m_hwProfile;
}

OsImage VMToolsMachine::getOsImage() const
{
    return m_osImage;
}

int VMToolsMachine::getCapabilities() const
{
    return m_capabilities;
}

void VMToolsMachine::loadCapabilities()
{
    m_capabilities = 0;
    const VersionNumber v = getAndroidVersion();
    // Above 8.0.0: a later minor or patch, or a plain 8.0.0 with a stage and
    // build that add up to at least one.
    const bool above800 = v.major > 8 || (v.major == 8 && v.minor > 0)
        || (v.major == 8 && v.minor == 0 && v.patch > 0)
        || (v.major == 8 && v.minor == 0 && v.patch == 0 && v.patchStatus + v.build >= 1);
    if (above800)
        m_capabilities |= VirtioDisks;
}

// Configuration entries -----------------------------------------------------

bool VMToolsMachine::setConfiguration(const QString &key, const QVariant &value)
{
    m_configuration.insert(key, value);
    return save();
}

QVariant VMToolsMachine::getData(const QString &key, const QVariant &defaultValue) const
{
    const QString text = m_configuration.value(key).toString();
    return text.isEmpty() ? defaultValue : QVariant(text);
}

void VMToolsMachine::setData(const QString &key, const QVariant &value)
{
    setConfiguration(key, value);
}

QString VMToolsMachine::getGlEsApiLevel() const
{
    return m_configuration.value(QLatin1String(kGlEsApiLevelKey)).toString();
}

bool VMToolsMachine::setGlEsApiLevel(const QString &level)
{
    return setConfiguration(QLatin1String(kGlEsApiLevelKey), level);
}

bool VMToolsMachine::isSdCardInserted() const
{
    return m_configuration.value(QLatin1String(kSdCardInsertedKey), false).toBool();
}

bool VMToolsMachine::setSdCardInserted(bool inserted)
{
    return setConfiguration(QLatin1String(kSdCardInsertedKey), inserted);
}

bool VMToolsMachine::isFullScreen() const
{
    return m_configuration.value(QLatin1String(kFullScreenKey), false).toBool();
}

bool VMToolsMachine::setFullScreen(bool fullScreen)
{
    return setConfiguration(QLatin1String(kFullScreenKey), fullScreen);
}

bool VMToolsMachine::isVirtualKeyboardEnabled() const
{
    return m_configuration.value(QLatin1String(kVirtualKeyboardKey), false).toBool();
}

bool VMToolsMachine::setVirtualKeyboardEnabled(bool enabled)
{
    return setConfiguration(QLatin1String(kVirtualKeyboardKey), enabled);
}

bool VMToolsMachine::isQuickbootEnabled() const
{
    return m_configuration.value(QLatin1String(kQuickbootKey), true).toBool();
}

bool VMToolsMachine::setQuickbootEnabled(bool enabled)
{
    return setConfiguration(QLatin1String(kQuickbootKey), enabled);
}

bool VMToolsMachine::isRootAccessEnabled() const
{
    return m_root.value(QLatin1String(kRootActiveKey), false).toBool();
}

bool VMToolsMachine::setRootAccessEnabled(bool enabled)
{
    if (enabled == isRootAccessEnabled())
        return true;
    m_root.insert(QLatin1String(kRootActiveKey), enabled);
    return save();
}

bool VMToolsMachine::isLatestSnapshotExist() const
{
    return m_latestSnapshotExists;
}

void VMToolsMachine::setLatestSnapshotExists(bool exists)
{
    m_latestSnapshotExists = exists;
}

QVariant VMToolsMachine::getExtraKey(const QString &key) const
{
    return m_extraKeys.value(key);
}

void VMToolsMachine::setExtraKey(const QString &key, const QVariant &value)
{
    m_extraKeys.insert(key, value);
}

// Hardware profile properties -----------------------------------------------

long long VMToolsMachine::getRamSize() const
{
    return m_hwProfile.ramSize;
}

bool VMToolsMachine::setRamSize(long long size)
{
    m_hwProfile.ramSize = size;
    return save();
}

long long VMToolsMachine::getVmHeapSize() const
{
    return m_hwProfile.getVmHeapSize();
}

bool VMToolsMachine::setVmHeapSize(long long size)
{
    m_hwProfile.deviceProperties.vmHeapSize = size;
    return save();
}

long long VMToolsMachine::getDataDiskSize() const
{
    return m_hwProfile.dataDiskSize;
}

bool VMToolsMachine::setDataDiskSize(long long size)
{
    m_hwProfile.dataDiskSize = size;
    return save();
}

long long VMToolsMachine::getSdCardSize() const
{
    return m_hwProfile.sdCardSize;
}

bool VMToolsMachine::setSdCardSize(long long size)
{
    m_hwProfile.sdCardSize = size;
    return save();
}

int VMToolsMachine::getCpuCount() const
{
    return m_hwProfile.cpuCount;
}

bool VMToolsMachine::setCpuCount(int count)
{
    m_hwProfile.cpuCount = count;
    return save();
}

HwProfile::FormFactor VMToolsMachine::getFormFactor() const
{
    return m_hwProfile.formFactor;
}

bool VMToolsMachine::setFormFactor(HwProfile::FormFactor formFactor)
{
    m_hwProfile.formFactor = formFactor;
    return save();
}

QString VMToolsMachine::getPlatform() const
{
    return int(m_hwProfile.formFactor) == 1 ? QStringLiteral("tp") : QStringLiteral("p");
}

bool VMToolsMachine::setPlatform(const QString &)
{
    return true;
}

HwProfile::DisplayMode VMToolsMachine::getDisplayMode() const
{
    return m_hwProfile.displaySettings.displayMode;
}

bool VMToolsMachine::setDisplayMode(HwProfile::DisplayMode mode)
{
    if (mode == m_hwProfile.displaySettings.displayMode)
        return true;
    m_hwProfile.displaySettings.displayMode = mode;
    return save();
}

QList<HwProfile::Display> VMToolsMachine::getDisplays() const
{
    return m_hwProfile.displaySettings.displays;
}

bool VMToolsMachine::setDisplays(const QList<HwProfile::Display> &displays)
{
    m_hwProfile.displaySettings.displays = displays;
    return save();
}

bool VMToolsMachine::changeDisplays(bool everyDisplay,
                                    const std::function<void(HwProfile::Display &)> &change)
{
    QList<HwProfile::Display> &displays = m_hwProfile.displaySettings.displays;
    if (displays.isEmpty())
        return true;
    if (everyDisplay) {
        for (HwProfile::Display &display : displays)
            change(display);
    } else {
        change(displays.first());
    }
    return save();
}

QSize VMToolsMachine::getResolution() const
{
    return m_hwProfile.getPrimaryResolution();
}

bool VMToolsMachine::setResolution(const QSize &resolution)
{
    return changeDisplays(false, [&](HwProfile::Display &display) {
        display.width = resolution.width();
        display.height = resolution.height();
    });
}

int VMToolsMachine::getDensity() const
{
    return m_hwProfile.getPrimaryDensity();
}

bool VMToolsMachine::setDensity(int density)
{
    return changeDisplays(false, [&](HwProfile::Display &display) { display.density = density; });
}

int VMToolsMachine::getRoundedBottomCornerRadius() const
{
    const HwProfile::Display *display = m_hwProfile.getPrimaryDisplay();
    return display ? display->bottomCornerRadius : 0;
}

bool VMToolsMachine::setRoundedBottomCornerRadius(int radius)
{
    return changeDisplays(true, [&](HwProfile::Display &display) { display.bottomCornerRadius = radius; });
}

int VMToolsMachine::getRoundedTopCornerRadius() const
{
    const HwProfile::Display *display = m_hwProfile.getPrimaryDisplay();
    return display ? display->topCornerRadius : 0;
}

bool VMToolsMachine::setRoundedTopCornerRadius(int radius)
{
    return changeDisplays(true, [&](HwProfile::Display &display) { display.topCornerRadius = radius; });
}

int VMToolsMachine::getRoundedCornerContentPadding() const
{
    const HwProfile::Display *display = m_hwProfile.getPrimaryDisplay();
    return display ? display->contentPadding : 0;
}

bool VMToolsMachine::setRoundedCornerContentPadding(int padding)
{
    return changeDisplays(true, [&](HwProfile::Display &display) { display.contentPadding = padding; });
}

bool VMToolsMachine::getNavigationBarVisibility() const
{
    // The profile keeps the opposite: whether the device has hardware keys.
    return !m_hwProfile.displaySettings.hwNavigationKeys;
}

bool VMToolsMachine::setNavigationBarVisibility(bool visible)
{
    if (m_hwProfile.displaySettings.displays.isEmpty())
        return true;
    m_hwProfile.displaySettings.hwNavigationKeys = !visible;
    return save();
}

QString VMToolsMachine::getHwProfileUuid() const
{
    return m_hwProfile.uuid;
}

bool VMToolsMachine::setHwProfileUuid(const QString &uuid)
{
    m_hwProfile.uuid = uuid;
    return save();
}

QString VMToolsMachine::getProductName() const
{
    return m_hwProfile.deviceProperties.productName;
}

bool VMToolsMachine::setProductName(const QString &name)
{
    m_hwProfile.deviceProperties.productName = name;
    return save();
}

QString VMToolsMachine::getProductModel() const
{
    return m_hwProfile.deviceProperties.productModel;
}

bool VMToolsMachine::setProductModel(const QString &model)
{
    m_hwProfile.deviceProperties.productModel = model;
    return save();
}

QString VMToolsMachine::getProductManufacturer() const
{
    return m_hwProfile.deviceProperties.productManufacturer;
}

bool VMToolsMachine::setProductManufacturer(const QString &manufacturer)
{
    m_hwProfile.deviceProperties.productManufacturer = manufacturer;
    return save();
}

QString VMToolsMachine::getProductBrand() const
{
    return m_hwProfile.deviceProperties.productBrand;
}

bool VMToolsMachine::setProductBrand(const QString &brand)
{
    m_hwProfile.deviceProperties.productBrand = brand;
    return save();
}

QString VMToolsMachine::getProductBoard() const
{
    return m_hwProfile.deviceProperties.productBoard;
}

bool VMToolsMachine::setProductBoard(const QString &board)
{
    m_hwProfile.deviceProperties.productBoard = board;
    return save();
}

QString VMToolsMachine::getBuildDisplayId() const
{
    return m_hwProfile.deviceProperties.buildDisplayId;
}

bool VMToolsMachine::setBuildDisplayId(const QString &id)
{
    m_hwProfile.deviceProperties.buildDisplayId = id;
    return save();
}

QString VMToolsMachine::getProductDevice() const
{
    return m_hwProfile.deviceProperties.productDevice;
}

bool VMToolsMachine::setProductDevice(const QString &device)
{
    m_hwProfile.deviceProperties.productDevice = device;
    return save();
}

QString VMToolsMachine::getBuildSerial() const
{
    return m_hwProfile.deviceProperties.serialNo;
}

bool VMToolsMachine::setBuildSerial(const QString &serial)
{
    m_hwProfile.deviceProperties.serialNo = serial;
    return save();
}

QString VMToolsMachine::getBuildType() const
{
    return m_hwProfile.deviceProperties.buildType;
}

bool VMToolsMachine::setBuildType(const QString &type)
{
    m_hwProfile.deviceProperties.buildType = type;
    return save();
}

QString VMToolsMachine::getBuildFingerprint() const
{
    return m_hwProfile.deviceProperties.buildFingerprint;
}

bool VMToolsMachine::setBuildFingerprint(const QString &fingerprint)
{
    m_hwProfile.deviceProperties.buildFingerprint = fingerprint;
    return save();
}

QString VMToolsMachine::getBuildTags() const
{
    return m_hwProfile.deviceProperties.buildTags;
}

bool VMToolsMachine::setBuildTags(const QString &tags)
{
    m_hwProfile.deviceProperties.buildTags = tags;
    return save();
}

// OS image properties -------------------------------------------------------

QString VMToolsMachine::getOsImageUuid() const
{
    return m_osImage.uuid;
}

bool VMToolsMachine::setOsImageUuid(const QString &uuid)
{
    m_osImage.uuid = uuid;
    return save();
}

VersionNumber VMToolsMachine::getAndroidVersion() const
{
    return m_osImage.osVersion;
}

bool VMToolsMachine::setAndroidVersion(const VersionNumber &version)
{
    m_osImage.osVersion = version;
    loadCapabilities();
    return save();
}

VersionNumber VMToolsMachine::getHalvistromVersion() const
{
    return m_osImage.imageVersion;
}

bool VMToolsMachine::setHalvistromVersion(const VersionNumber &version)
{
    m_osImage.imageVersion = version;
    return save();
}

int VMToolsMachine::getSdkVersion() const
{
    return m_osImage.getSdkVersion();
}

QString VMToolsMachine::getOsImageArch() const
{
    return m_osImage.getImageArch();
}

QString VMToolsMachine::getReleaseDate() const
{
    return m_osImage.getReleaseDate().toString(QStringLiteral("yyyy.MM.dd"));
}

// Status, ports, files ------------------------------------------------------

int VMToolsMachine::getRunState(QString *reason) const
{
    reason->clear();
    return getStatus();
}

int VMToolsMachine::getOnLoadStatus() const
{
    return m_onLoadStatus;
}

void VMToolsMachine::setOnLoadStatus(int status)
{
    m_onLoadStatus = status;
}

int VMToolsMachine::getAdbPort() const
{
    return kAdbPort;
}

int VMToolsMachine::getFrontCameraPort() const
{
    return kFrontCameraPort;
}

int VMToolsMachine::getBackCameraPort() const
{
    return kBackCameraPort;
}

int VMToolsMachine::getAudioInputPort() const
{
    return kAudioInputPort;
}

int VMToolsMachine::getAudioOutputPort() const
{
    return kAudioOutputPort;
}

int VMToolsMachine::getRedisPort() const
{
    return kRedisPort;
}

int VMToolsMachine::getRenderMainPort() const
{
    return kRenderMainPort;
}

int VMToolsMachine::getRenderDataPort() const
{
    return kRenderDataPort;
}

long long VMToolsMachine::getSizeOnDisk()
{
    if (m_sizeOnDisk == -1)
        computeSizeOnDisk();
    return m_sizeOnDisk;
}

namespace {

// The bytes of the regular files below the directory open as fd, which this
// closes. Symbolic links are neither followed nor counted, so a link cannot
// make a device look as large as what it points at. A listing of a thousand
// devices sums each one's files: the entries' types come with the names, so
// only regular files are examined and a directory costs an open, its reads
// and a close.
long long sizeOfTree(int fd, int depth);

// The bytes of one entry of the directory open as fd.
long long entryBytes(int fd, const struct dirent64 &entry, int depth)
{
    const char *name = entry.d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 || entry.d_type == DT_LNK)
        return 0;
    if (entry.d_type != DT_DIR) {
        // A file, or an entry of a file system that does not give types.
        struct stat st {}; // a file that went away counts nothing
        if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode))
            return S_ISREG(st.st_mode) ? st.st_size : 0;
    }
    const int child = depth < kMaxTreeDepth ? ::openat(fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1;
    return child >= 0 ? sizeOfTree(child, depth + 1) : 0;
}

long long sizeOfTree(int fd, int depth)
{
    std::vector<char> buffer(4096);
    long long total = 0;
    ssize_t length;
    while ((length = ::getdents64(fd, buffer.data(), buffer.size())) > 0) {
        for (ssize_t offset = 0; offset < length;) {
            const auto *entry = reinterpret_cast<const struct dirent64 *>(buffer.data() + offset);
            offset += entry->d_reclen;
            total += entryBytes(fd, *entry, depth);
        }
    }
    ::close(fd);
    return total;
}

} // namespace

long long VMToolsMachine::computeSizeOnDisk()
{
    long long total = 0;
    const int fd = ::open(QFile::encodeName(m_path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0)
        total = sizeOfTree(fd, 0);
    m_sizeOnDisk = total;
    return total;
}

void VMToolsMachine::startTimer()
{
    m_runTimer.start();
}

long long VMToolsMachine::getElapsedTime() const
{
    return m_runTimer.isValid() ? m_runTimer.elapsed() / 1000 : 0;
}

QString VMToolsMachine::snapshotFilename() const
{
    return m_path + QLatin1Char('/') + QLatin1String(kSnapshotFileName);
}

QString VMToolsMachine::textureFilename() const
{
    return m_path + QLatin1Char('/') + QLatin1String(kTextureFileName);
}

QString VMToolsMachine::getUpgradingFlagPath() const
{
    return m_path + QLatin1Char('/') + QLatin1String(kUpgradingFlagFileName);
}

void VMToolsMachine::deleteOpenglSnapshot() const
{
    for (const QString &file : {snapshotFilename(), textureFilename()}) {
        if (QFile::exists(file) && !QFile::remove(file))
            qCWarning(hvEngineLog) << "[VMTools]" << "Cannot remove file" << file;
    }
}

bool VMToolsMachine::isUpgrading() const
{
    return QFile::exists(getUpgradingFlagPath());
}

bool VMToolsMachine::setUpgrading(bool upgrading)
{
    const QString file = getUpgradingFlagPath();
    if (!upgrading) {
        if (!QFile::remove(file)) {
            qCWarning(hvEngineLog) << "[VMTools]" << "Cannot remove file" << file;
            return false;
        }
        qCDebug(hvEngineLog) << "[VMTools]" << "Removed" << file << "flag";
        return true;
    }
    if (!FileUtils::saveFile(file, QByteArrayLiteral("[General]\nupgrading=true\n"))) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to write file:" << file;
        return false;
    }
    qCDebug(hvEngineLog) << "[VMTools]" << "Created" << file << "flag";
    return true;
}

// Names of the enumerations -------------------------------------------------

long long VMToolsMachine::getMinVmHeapSize()
{
    return 16;
}

QString VMToolsMachine::getStatusString(int state)
{
    switch (state) {
    case On:
        return QStringLiteral("On");
    case Off:
        return QStringLiteral("Off");
    case Paused:
        return QStringLiteral("Paused");
    case Process:
        return QStringLiteral("Process");
    case Aborted:
        return QStringLiteral("Aborted");
    default:
        return QStringLiteral("Unknown");
    }
}

QString VMToolsMachine::getAdapterTypeString(int type)
{
    switch (type) {
    case UnknownAdapter:
        return QStringLiteral("unknown");
    case HostOnly:
        return QStringLiteral("hostonly");
    case HostOnlyNet:
        return QStringLiteral("hostonlynet");
    default:
        return QStringLiteral("null");
    }
}

VMToolsMachine::ConnectionInfo VMToolsMachine::createUnknownConnectionInfo()
{
    return ConnectionInfo(UnknownConnection, QString());
}

VMToolsMachine::ConnectionInfo VMToolsMachine::createNatConnectionInfo()
{
    return ConnectionInfo(Nat, QString());
}

VMToolsMachine::ConnectionInfo VMToolsMachine::createBridgedConnectionInfo(const QString &name)
{
    return ConnectionInfo(Bridged, name);
}
