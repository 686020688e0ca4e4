#include "QEMUEngine.h"

#include "QEMUAccelerator.h"
#include "QEMUAudio.h"
#include "QEMUErrorDiagnosis.h"
#include "Paths.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "SystemQemu.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QLocalServer>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

using hvtest::LogLine;
using hvtest::MessageCapture;

namespace {

QString bundledDir()
{
    return QCoreApplication::applicationDirPath() + "/qemu/x86_64/bin";
}

TEST(QEMUEngine, parseVersionTakesTheWordAfterVersion)
{
    const QList<QPair<QString, QString>> rows = {
        {"QEMU emulator version 7.2.22 (Debian 1:7.2+dfsg-7+deb12u18+b3)\nCopyright (c) 2003-2022\n", "7.2.22"},
        {"QEMU emulator version 8.2.1-rc2.vendor-3 (build 7)", "8.2.1-rc2.vendor-3"},
        {"QEMU emulator version 9.0.0+git20240101", "9.0.0"},
        {"no version here", "here"},
        {"version 7.2.0", ""},
        {"banner\nQEMU emulator version 5.1.0\n", "5.1.0"},
        {"QEMU emulator version ", ""},
        {"", ""}};
    for (const auto &row : rows)
        EXPECT_EQ(QEMUEngine::parseVersion(row.first), row.second) << row.first.toStdString();
}

TEST(QEMUEngine, findsTheBundledProgramsAndReadsTheRealVersion)
{
    const QString expected = hvtest::systemQemuVersion();
    ASSERT_FALSE(expected.isEmpty());
    hvtest::ScopedEnv emptyBinDir("HV_QEMU_BIN_DIR", ""); // empty means the bundled programs
    MessageCapture cap;
    QEMUEngine engine;
    EXPECT_EQ(engine.getQemuSystemBinaryPath(), bundledDir() + "/qemu-system-x86_64");
    EXPECT_EQ(engine.getQemuImgBinaryPath(), bundledDir() + "/qemu-img");
    // The bundled directory links to the system's own programs.
    for (const QString program : {"qemu-system-x86_64", "qemu-img"}) {
        const QFileInfo link(bundledDir() + '/' + program);
        EXPECT_TRUE(link.isSymLink()) << program.toStdString();
        EXPECT_EQ(link.canonicalFilePath(), QFileInfo(QStandardPaths::findExecutable(program)).canonicalFilePath());
    }
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] QEMU path: \"" + bundledDir() + "/qemu-system-x86_64\""));
    EXPECT_EQ(engine.versionString(), QString());
    cap.clear();
    const VMToolsEngine::InitResult result = engine.initialize(VMToolsEngine::Full);
    EXPECT_EQ(result, VMToolsEngine::InitResult(0, QString()));
    EXPECT_EQ(engine.versionString(), expected);
    EXPECT_EQ(engine.versionNumber(), VersionNumber::fromString(expected));
    EXPECT_EQ(cap.lines(), (QList<LogLine>{
                               {QtDebugMsg, "[VMTools] Call: (\"--version\")"},
                               {QtDebugMsg, "[VMTools] Return code: 0"},
                               {QtDebugMsg, "[VMTools] QEMU version string : \"" + expected + "\""},
                           }));
    EXPECT_TRUE(engine.isAccelerationSupported());
    hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", "hypervhaxmerror");
    EXPECT_FALSE(engine.isAccelerationSupported());
}

TEST(QEMUEngine, firmwareDirectoryIsShareQemuBesideTheBinaries)
{
    QTemporaryDir root;
    ASSERT_TRUE(QDir(root.path()).mkpath("bin"));
    hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFile::encodeName(root.filePath("bin")));
    // A missing level leaves the directory where the walk stopped.
    EXPECT_EQ(QEMUEngine().getFirmwareDirPath(), root.path());
    ASSERT_TRUE(QDir(root.path()).mkpath("share/qemu"));
    EXPECT_EQ(QEMUEngine().getFirmwareDirPath(), root.filePath("share/qemu"));
}

// Initialisation names the first missing program (the image tool first),
// also when the trigger plays a missing installation.
TEST(QEMUEngine, initializeNamesTheMissingProgram)
{
    const struct {
        bool withImageTool, withEmulator;
        QByteArray trigger;
        QString missing, package;
    } rows[] = {{false, false, "", "qemu-img", "qemu-utils"},
                {false, true, "", "qemu-img", "qemu-utils"},
                {true, false, "", "qemu-system-x86_64", "qemu-system-x86"},
                {true, true, "noip qemunotinstalled", "qemu-img", "qemu-utils"}};
    for (const auto &row : rows) {
        QTemporaryDir dir;
        for (const QString program : {"qemu-img", "qemu-system-x86_64"}) {
            if (program == "qemu-img" ? row.withImageTool : row.withEmulator) {
                ASSERT_TRUE(QFile::link(QStandardPaths::findExecutable(program), dir.filePath(program)));
            }
        }
        hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFile::encodeName(dir.path()));
        hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", row.trigger);
        QEMUEngine engine;
        MessageCapture cap;
        const VMToolsEngine::InitResult result = engine.initialize(VMToolsEngine::NoAccelerationCheck);
        const QString missing = dir.filePath(row.missing);
        EXPECT_EQ(result.first, 1);
        EXPECT_EQ(result.second, "QEMU's " + row.missing + " was not found in " + dir.path()
                                     + " (HV_QEMU_BIN_DIR): install the Debian package " + row.package);
        EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] Could not find \"" + missing + "\""));
        EXPECT_EQ(cap.texts(QtWarningMsg).size(), row.withEmulator ? 1 : 2); // plus the failed --version run
        if (!row.withEmulator) {
            EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] \"" + dir.filePath("qemu-system-x86_64") + "\" --version failed."));
        }
        EXPECT_EQ(engine.versionString().isEmpty(), !row.withEmulator);
    }
}

// The emulator is asked for its version once per binary; a binary replaced
// (even by a file of the same size and time) or rewritten is asked again.
TEST(QEMUEngine, versionIsAskedOncePerBinary)
{
    QTemporaryDir dir;
    const QString emulator = dir.filePath("qemu-system-x86_64");
    const auto writeEmulator = [&](const QString &path, const char *version) {
        ASSERT_TRUE(hvtest::writeFile(path, QByteArray("#!/bin/sh\necho 'QEMU emulator version ") + version + "'\n"));
        ASSERT_TRUE(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    };
    writeEmulator(emulator, "7.1.0");
    ASSERT_TRUE(QFile::link(QStandardPaths::findExecutable("qemu-img"), dir.filePath("qemu-img")));
    hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFile::encodeName(dir.path()));
    const auto initialize = [](bool *asked) {
        MessageCapture cap;
        QEMUEngine engine;
        engine.initialize(VMToolsEngine::NoAccelerationCheck);
        *asked = cap.has(QtDebugMsg, "[VMTools] Call: (\"--version\")");
        return engine.versionString();
    };
    bool asked = false;
    EXPECT_EQ(initialize(&asked), "7.1.0");
    EXPECT_TRUE(asked);
    EXPECT_EQ(initialize(&asked), "7.1.0");
    EXPECT_FALSE(asked);

    // A new file renamed over the old one, with the old one's time.
    struct stat old;
    ASSERT_EQ(::stat(QFile::encodeName(emulator).constData(), &old), 0);
    const QString replacement = dir.filePath("new");
    writeEmulator(replacement, "8.1.0");
    const struct timespec times[2] = {old.st_atim, old.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(replacement).constData(), times, 0), 0);
    ASSERT_EQ(::rename(QFile::encodeName(replacement).constData(), QFile::encodeName(emulator).constData()), 0);
    EXPECT_EQ(initialize(&asked), "8.1.0");
    EXPECT_TRUE(asked);

    // Rewritten in place: same inode, a new time.
    ASSERT_TRUE(hvtest::writeFile(emulator, "#!/bin/sh\necho 'QEMU emulator version 9.1.0'\n"));
    const struct timespec later[2] = {{old.st_atim.tv_sec + 5, 0}, {old.st_mtim.tv_sec + 5, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(emulator).constData(), later, 0), 0);
    EXPECT_EQ(initialize(&asked), "9.1.0");
    EXPECT_TRUE(asked);
}

// A stand-in emulator for the KVM probe and "-audiodev help": a shell script
// that notes each run in "runs" beside it.
void writeEmulator(const QString &path, const QByteArray &body)
{
    const QString runs = QFileInfo(path).dir().filePath("runs");
    ASSERT_TRUE(hvtest::writeFile(path, "#!/bin/sh\necho run >> '" + QFile::encodeName(runs) + "'\n" + body));
    ASSERT_TRUE(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

int runsOf(const QString &emulator)
{
    return hvtest::readFile(QFileInfo(emulator).dir().filePath("runs")).count('\n');
}

// This host's emulator under KVM, as captured: the MSR write fails, then the
// assertion aborts it.
const QByteArray kMsrFailure = "echo 'qemu-system-x86_64: error: failed to set MSR 0x10a to 0x69' >&2\n"
                               "echo 'qemu-system-x86_64: ../../target/i386/kvm/kvm.c:3183: kvm_buf_set_msrs: "
                               "Assertion failed.' >&2\nkill -ABRT $$\n";
const QString kMsrLine = "qemu-system-x86_64: error: failed to set MSR 0x10a to 0x69";

TEST(QEMUAccelerator, kvmIsProbedOncePerKernelBootAndEmulatorBinary)
{
    QTemporaryDir dir;
    const QString emulator = dir.filePath("qemu-system-x86_64");
    writeEmulator(emulator, kMsrFailure);
    const QEMUAccelerator accelerator(emulator);
    const QEMUAccelerator::Choice tcg = accelerator.choose("auto");
    EXPECT_EQ(QStringList({tcg.accelerator, tcg.cpuModel}), QStringList({"tcg", "max"}));
    EXPECT_TRUE(tcg.automatic);
    EXPECT_EQ(tcg.note, "KVM cannot run guests on this host (" + kMsrLine
                            + "): running under TCG; to make it permanent: hvtool settings set "
                              "emulator.accelerator tcg");
    EXPECT_EQ(accelerator.choose("auto").note, tcg.note);
    EXPECT_EQ(runsOf(emulator), 1);

    // A verdict learned under another kernel release is probed again.
    const QString cache = Paths::getHalvistromCachePath() + "kvm-verdict.json";
    QByteArray text = hvtest::readFile(cache);
    ASSERT_TRUE(text.contains(QByteArray("\"kernel\":\"")));
    ASSERT_TRUE(hvtest::writeFile(cache, text.replace("\"kernel\":\"", "\"kernel\":\"older-")));
    EXPECT_EQ(accelerator.verdict().state, QEMUAccelerator::Verdict::Fails);
    EXPECT_EQ(runsOf(emulator), 2);

    // So is one learned for another emulator binary: this one reaches the
    // probe guest's end, so "auto" takes KVM with the host's CPU model.
    writeEmulator(emulator, "exit 3\n");
    const QEMUAccelerator::Choice kvm = accelerator.choose("auto");
    EXPECT_EQ(QStringList({kvm.accelerator, kvm.cpuModel, kvm.note}), QStringList({"kvm", "host", ""}));
    EXPECT_EQ(runsOf(emulator), 3);
    EXPECT_EQ(accelerator.choose("tcg").accelerator, "tcg");
    EXPECT_EQ(accelerator.choose("fast").note,
              "unknown value 'fast' for the setting emulator.accelerator: choose one of auto, kvm, tcg");
}

TEST(QEMUAccelerator, aProbeThatHangsEndsAtItsTimeOutAndTeachesNothing)
{
    QTemporaryDir dir;
    const QString emulator = dir.filePath("qemu-system-x86_64");
    writeEmulator(emulator, "exec sleep 60\n");
    hvtest::ScopedEnv timeout("HV_KVM_PROBE_TIMEOUT_MS", "300");
    MessageCapture capture;
    QElapsedTimer timer;
    timer.start();
    const QEMUAccelerator::Choice choice = QEMUAccelerator(emulator).choose("auto");
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_EQ(choice.accelerator, "tcg");
    EXPECT_EQ(choice.note, "KVM could not be checked (the probe did not finish within 0.3 s): running under TCG "
                           "this time");
    EXPECT_LOG(capture, QtWarningMsg, "[VMTools] The KVM probe did not finish within 0.3 s; it was stopped");
    EXPECT_EQ(QEMUAccelerator(emulator).cachedVerdict().state, QEMUAccelerator::Verdict::Unknown);
}

// The real emulator on this host: the probe decides from what its guest did,
// so two probes agree (this machine's nested KVM fails them both).
TEST(QEMUAccelerator, theRealProbeGivesOneVerdict)
{
    const QEMUAccelerator accelerator(QStandardPaths::findExecutable("qemu-system-x86_64"));
    const QEMUAccelerator::Verdict first = accelerator.probe();
    ASSERT_NE(first.state, QEMUAccelerator::Verdict::Unknown) << first.reason.toStdString();
    EXPECT_EQ(accelerator.probe().state, first.state);
    if (first.state == QEMUAccelerator::Verdict::Fails) {
        EXPECT_FALSE(QEMUErrorDiagnosis::kvmFailureLine(first.reason.toUtf8()).isEmpty()) << first.reason.toStdString();
    }
}

// "-audiodev help" of QEMU 7.2 as captured here, without and with the
// PulseAudio module (package qemu-system-gui), error output included.
const char kHelpWithoutPulse[] =
    "Available audio drivers:\nnone\nalsa\n"
    "qemu: module audio-audio-coreaudio not found, do you want to install qemu-system-gui package?\ndbus\n"
    "qemu: module audio-audio-dsound not found, do you want to install qemu-system-gui package?\n"
    "qemu: module audio-audio-jack not found, do you want to install qemu-system-gui package?\noss\n"
    "qemu: module audio-audio-pa not found, do you want to install qemu-system-gui package?\n"
    "qemu: module audio-audio-sdl not found, do you want to install qemu-system-gui package?\nsndio\nspice\nwav\n";
const char kHelpWithPulse[] =
    "Available audio drivers:\nnone\nalsa\n"
    "qemu: module audio-audio-coreaudio not found, do you want to install qemu-system-gui package?\ndbus\n"
    "qemu: module audio-audio-dsound not found, do you want to install qemu-system-gui package?\n"
    "jack\noss\npa\nsdl\nsndio\nspice\nwav\n";

TEST(QEMUAudio, autoTakesPulseAudioOnlyWhenTheEmulatorHasItAndAServerAnswers)
{
    EXPECT_EQ(QEMUAudio::parseBackends(kHelpWithoutPulse),
              QStringList({"none", "alsa", "dbus", "oss", "sndio", "spice", "wav"}));
    EXPECT_TRUE(QEMUAudio::parseBackends(kHelpWithPulse).contains("pa"));

    QTemporaryDir dir;
    const QString emulator = dir.filePath("bin/qemu-system-x86_64");
    const QString modules = dir.filePath("lib/x86_64-linux-gnu/qemu");
    ASSERT_TRUE(QDir().mkpath(modules));
    ASSERT_TRUE(hvtest::writeFile(dir.filePath("help"), kHelpWithoutPulse));
    writeEmulator(emulator, "cat '" + QFile::encodeName(dir.filePath("help")) + "'\n");
    QLocalServer server;
    ASSERT_TRUE(server.listen(dir.filePath("pulse-native")));
    hvtest::ScopedEnv pulse("PULSE_SERVER", QFile::encodeName("unix:" + server.fullServerName()));

    const QEMUAudio audio(emulator);
    EXPECT_EQ(QStringList({audio.choose("auto").backend, audio.choose("auto").note}),
              QStringList({"none", "the emulator has no PulseAudio backend (package qemu-system-gui)"}));
    EXPECT_EQ(runsOf(emulator), 1);
    // Installing the backend adds a module file: the emulator is asked again.
    ASSERT_TRUE(hvtest::writeFile(dir.filePath("help"), kHelpWithPulse));
    ASSERT_TRUE(hvtest::writeFile(modules + "/audio-pa.so", "module"));
    EXPECT_EQ(audio.choose("auto").backend, "pa");
    EXPECT_EQ(runsOf(emulator), 2);
    server.close();
    EXPECT_EQ(QStringList({audio.choose("auto").backend, audio.choose("auto").note}),
              QStringList({"none", "no sound server answers"}));
    EXPECT_EQ(audio.choose("pa").backend, "pa");
    EXPECT_EQ(audio.choose("loud").note, "unknown value 'loud' for the setting emulator.audio: choose one of auto, "
                                         "none, pa");
}

// Without overrides (this entry runs without the variables): the built-in
// bounds, read once per process.
TEST(QEMUEngineVersionDefaults, builtInBoundsAreKeptForTheProcess)
{
    ASSERT_TRUE(qgetenv("HV_QEMU_MIN_VERSION").isEmpty());
    QEMUEngine engine;
    EXPECT_EQ(engine.minimumVersionNumber(), VersionNumber(6, 2, 0, VersionNumber::Release, 0));
    EXPECT_EQ(engine.maximumVersionNumber(), VersionNumber(-1, 0, 0, 0, 0));
    hvtest::ScopedEnv min("HV_QEMU_MIN_VERSION", "9.9.9");
    hvtest::ScopedEnv max("HV_QEMU_MAX_VERSION", "9.9.9");
    hvtest::ScopedEnv version("HV_QEMU_VERSION", "9.9.9");
    EXPECT_EQ(engine.minimumVersionNumber(), VersionNumber(6, 2, 0));
    EXPECT_EQ(QEMUEngine().maximumVersionNumber().major, -1);
    EXPECT_EQ(engine.versionNumber(), VersionNumber::fromString(QString()));
}

// With overrides, in an entry of its own that sets HV_QEMU_VERSION=7.0.0,
// HV_QEMU_MIN_VERSION=7.1 and HV_QEMU_MAX_VERSION=8.0.0-beta2.
TEST(QEMUEngineVersionOverrides, environmentReplacesTheBoundsOnce)
{
    QEMUEngine engine;
    ASSERT_EQ(engine.initialize(VMToolsEngine::NoAccelerationCheck).first, 0);
    EXPECT_EQ(engine.versionString(), hvtest::systemQemuVersion());
    const auto expectOverrides = [](const QEMUEngine &e) {
        EXPECT_EQ(e.versionNumber(), VersionNumber(7, 0, 0));
        EXPECT_EQ(e.minimumVersionNumber(), VersionNumber(7, 1, 0));
        EXPECT_EQ(e.maximumVersionNumber(), VersionNumber(8, 0, 0, VersionNumber::Beta, 2));
    };
    expectOverrides(engine);
    qputenv("HV_QEMU_VERSION", "5.0.0");
    qputenv("HV_QEMU_MIN_VERSION", "1.0");
    qunsetenv("HV_QEMU_MAX_VERSION");
    expectOverrides(QEMUEngine());
}

} // namespace
