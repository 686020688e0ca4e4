#include "QEMUEngine.h"

#include "EnvVars.h"
#include "FileUtils.h"
#include "QEMUDeviceFiles.h"
#include "QEMUErrorDiagnosis.h"
#include "QEMUHostCache_p.h"
#include "Paths.h"
#include "QEMULogging_p.h"
#include "TriggerError.h"
#include "VMToolsCommon.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>

namespace {

// A version override is read the first time it is needed and then kept for
// the life of the process, so that a running program sees one answer.
QString versionOverride(const char *name)
{
    return EnvVars::getString(name);
}

// Asking the emulator for its version costs tens of milliseconds on every
// start-up of every program, so the answer is kept per binary. The binary is
// known by what changes when it is replaced or upgraded: its size, its
// modification time and its inode (an upgrade that renames a new file over
// the old one keeps size and time at worst, never the inode).
const char kVersionCacheFile[] = "qemu-version.json";

QString cachedVersion(const QString &binary, const QJsonObject &identity)
{
    if (identity.isEmpty())
        return QString();
    const QJsonObject entry = QEMUHostCache::read(QLatin1String(kVersionCacheFile)).value(binary).toObject();
    if (entry.value(QStringLiteral("identity")).toObject() != identity)
        return QString();
    return entry.value(QStringLiteral("version")).toString();
}

void storeVersion(const QString &binary, const QJsonObject &identity, const QString &version)
{
    if (identity.isEmpty() || version.isEmpty())
        return;
    QEMUHostCache::store(QLatin1String(kVersionCacheFile), binary,
                         QJsonObject{{QStringLiteral("identity"), identity}, {QStringLiteral("version"), version}});
}

// Where the QEMU programs are looked for, in order: only the directory that
// "HV_QEMU_BIN_DIR" names when it is set; otherwise the bundled directory
// beside the application, then PATH, then Debian's own directory for them.
QStringList qemuDirectories()
{
    // Decoded up to the first zero byte, as the variable reaches us.
    const QString override = QString::fromLatin1(EnvVars::getByteArray("HV_QEMU_BIN_DIR").constData());
    if (!override.isEmpty())
        return {override};
    QStringList directories{Paths::getQEmuBinDirPath()};
    directories += QString::fromLocal8Bit(qgetenv("PATH")).split(QLatin1Char(':'), Qt::SkipEmptyParts);
    directories << QStringLiteral("/usr/bin");
    return directories;
}

// The first program of that name in those directories; when there is none,
// where it would be in the first of them.
QString findQemuProgram(const QString &name)
{
    const QStringList directories = qemuDirectories();
    for (const QString &directory : directories) {
        const QFileInfo program(QDir(directory), name);
        if (program.isFile() && program.isExecutable())
            return program.absoluteFilePath();
    }
    return QFileInfo(QDir(directories.first()), name).absoluteFilePath();
}

// What a person reads when a QEMU program is missing: the program, where it
// was looked for and the Debian package that provides it.
QString missingProgramMessage(const QString &name, const QString &package)
{
    const QStringList directories = qemuDirectories();
    const QString places = directories.size() == 1
        ? directories.first() + QStringLiteral(" (HV_QEMU_BIN_DIR)")
        : directories.first() + QStringLiteral(", the directories on PATH and /usr/bin");
    return QStringLiteral("QEMU's %1 was not found in %2: install the Debian package %3").arg(name, places, package);
}

// Each question about an emulator's error output is logged, then answered
// from the whole file.
QEMUErrorDiagnosis::Code classifyFor(const QString &logPath, const char *question)
{
    qCDebug(hvQemuLog).noquote() << "[VMTools]" << QStringLiteral("Checking if %1...").arg(QLatin1String(question));
    return QEMUErrorDiagnosis::classify(logPath);
}

} // namespace

QEMUEngine::QEMUEngine()
{
    m_qemuSystemBinaryPath = findQemuProgram(getQemuSystemBinaryName());
    m_qemuImgBinaryPath = findQemuProgram(getQemuImgBinaryName());

    // A missing level leaves the directory where it was; the firmware is only
    // needed on hosts that ship it.
    QDir firmware = QFileInfo(m_qemuSystemBinaryPath).absoluteDir();
    firmware.cdUp();
    firmware.cd(QStringLiteral("share"));
    firmware.cd(QStringLiteral("qemu"));
    m_firmwareDirPath = firmware.absolutePath();

    qCDebug(hvQemuLog) << "[VMTools]" << "QEMU path:" << m_qemuSystemBinaryPath;
}

QEMUEngine::~QEMUEngine() = default;

void QEMUEngine::dumpInfos(QFile *)
{
}

QString QEMUEngine::name() const
{
    return QStringLiteral("QEMU");
}

QUrl QEMUEngine::getDownloadUrl() const
{
    return QUrl(QStringLiteral("https://www.qemu.org/download/"));
}

QString QEMUEngine::versionString() const
{
    return m_versionString;
}

VersionNumber QEMUEngine::versionNumber() const
{
    static const QString override = versionOverride("HV_QEMU_VERSION");
    return VersionNumber::fromString(override.isEmpty() ? m_versionString : override);
}

VersionNumber QEMUEngine::minimumVersionNumber() const
{
    static const QString override = versionOverride("HV_QEMU_MIN_VERSION");
    return override.isEmpty() ? VersionNumber(6, 2, 0, VersionNumber::Release, 0) : VersionNumber::fromString(override);
}

VersionNumber QEMUEngine::maximumVersionNumber() const
{
    static const QString override = versionOverride("HV_QEMU_MAX_VERSION");
    // Major -1 means there is no upper bound.
    return override.isEmpty() ? VersionNumber(-1, 0, 0, 0, 0) : VersionNumber::fromString(override);
}

QList<VersionNumber> QEMUEngine::unsupportedVersionNumbers() const
{
    return QList<VersionNumber>();
}

QString QEMUEngine::getAdapterName() const
{
    return QString();
}

bool QEMUEngine::isAccelerationSupported() const
{
    if (TriggerError::hypervhaxmError())
        return false;
    return m_accelerationSupported;
}

bool QEMUEngine::isSnapshotSupported() const
{
    return true;
}

QString QEMUEngine::getDataDiskName() const
{
    return QString();
}

QString QEMUEngine::getSDCardDiskName() const
{
    return QEMUDeviceFiles::sdCardName();
}

QStringList QEMUEngine::fetchBridgeableInterfaces()
{
    return QStringList();
}

QStringList QEMUEngine::getBridgeableInterfaces() const
{
    return QStringList();
}

int QEMUEngine::getHostOnlyNetworkType() const
{
    return 0;
}

VMToolsEngine::InitResult QEMUEngine::initialize(InitMode mode)
{
    if (mode == Full)
        checkAcceleration();
    // The version is read even when a program is missing; a failure there is
    // only logged.
    initVersionString();

    QString missing;
    QString message;
    if (TriggerError::qemuNotInstalled() || !QFile::exists(m_qemuImgBinaryPath)) {
        missing = m_qemuImgBinaryPath;
        message = missingProgramMessage(getQemuImgBinaryName(), QStringLiteral("qemu-utils"));
    } else if (!QFile::exists(m_qemuSystemBinaryPath)) {
        missing = m_qemuSystemBinaryPath;
        message = missingProgramMessage(getQemuSystemBinaryName(), QStringLiteral("qemu-system-x86"));
    }
    if (missing.isEmpty())
        return InitResult(0, QString());

    qCWarning(hvQemuLog) << "[VMTools]" << "Could not find" << missing;
    return InitResult(1, message);
}

QString QEMUEngine::getQemuSystemBinaryName()
{
    return QStringLiteral("qemu-system-x86_64");
}

QString QEMUEngine::getQemuImgBinaryName()
{
    return QStringLiteral("qemu-img");
}

QString QEMUEngine::parseVersion(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral(".* version ([a-zA-Z0-9.-]*).*"));
    const QRegularExpressionMatch match = pattern.match(text);
    return match.hasMatch() ? match.captured(1) : QString();
}

void QEMUEngine::checkAcceleration()
{
    // Whether the host can accelerate shows only when a start fails; the
    // start-failure diagnosis reports it then.
    m_accelerationSupported = true;
}

void QEMUEngine::initVersionString()
{
    const QJsonObject identity = QEMUHostCache::fileIdentity(m_qemuSystemBinaryPath);
    const QString cached = cachedVersion(m_qemuSystemBinaryPath, identity);
    if (!cached.isEmpty()) {
        m_versionString = cached;
        qCDebug(hvQemuLog) << "[VMTools]" << "QEMU version string :" << m_versionString;
        return;
    }
    const VMToolsCommon::CallResult result =
        VMToolsCommon::call(m_qemuSystemBinaryPath, {QStringLiteral("--version")});
    // A program that did not run to its end (missing, hung) printed no version.
    if (!result.finished || result.returnCode != 0) {
        qCCritical(hvQemuLog) << "[VMTools]" << m_qemuSystemBinaryPath << "--version failed.";
        return;
    }
    m_versionString = parseVersion(result.output);
    qCDebug(hvQemuLog) << "[VMTools]" << "QEMU version string :" << m_versionString;
    storeVersion(m_qemuSystemBinaryPath, identity, m_versionString);
}

QString QEMUEngine::getQemuSystemBinaryPath() const
{
    return m_qemuSystemBinaryPath;
}

QString QEMUEngine::getQemuImgBinaryPath() const
{
    return m_qemuImgBinaryPath;
}

QString QEMUEngine::getFirmwareDirPath() const
{
    return m_firmwareDirPath;
}

bool QEMUEngine::isResourceBusy(const QString &logPath) const
{
    return classifyFor(logPath, "device or resource is busy") == QEMUErrorDiagnosis::Code::ResourceBusy;
}

bool QEMUEngine::isSystemFileUsedByAnotherProcess(const QString &logPath) const
{
    return classifyFor(logPath, "another process is using a system file of QEMU")
        == QEMUErrorDiagnosis::Code::SystemFileLocked;
}

bool QEMUEngine::isPortUsedByAnotherProcess(const QString &logPath) const
{
    return classifyFor(logPath, "another process is using the port of QEMU") == QEMUErrorDiagnosis::Code::PortTaken;
}

bool QEMUEngine::isMemorySupported(const QString &logPath) const
{
    return classifyFor(logPath, "memory size not supported on machine")
        != QEMUErrorDiagnosis::Code::MemoryNotSupported;
}
