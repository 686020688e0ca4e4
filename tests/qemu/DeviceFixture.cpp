#include "DeviceFixture.h"

#include "Paths.h"
#include "ScopedEnv.h"
#include "TestEnvironment.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QUrl>
#include <QUuid>

#include <gtest/gtest.h>

namespace devicefixture {

bool run(const QString &program, const QStringList &arguments, QByteArray *output)
{
    QProcess process;
    process.start(program, arguments);
    const bool finished = process.waitForFinished(120000);
    if (!finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    if (output)
        *output = process.readAllStandardOutput();
    const bool ok = finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    EXPECT_TRUE(ok) << program.toStdString() << " " << arguments.join(' ').toStdString() << " failed: "
                    << process.readAllStandardError().toStdString();
    return ok;
}

QString makeOva(const QString &name, int sizeMiB)
{
    const QString dir = hvtest::testRoot() + "/ova-" + QUuid::createUuid().toString(QUuid::WithoutBraces);
    QDir().mkpath(dir);
    for (const QString disk : {"system", "data"}) {
        run("qemu-img", {"create", "-f", "raw", dir + "/" + disk + ".raw", QString::number(sizeMiB) + "M"});
        run("qemu-img", {"convert", "-O", "vmdk", dir + "/" + disk + ".raw", dir + "/" + disk + ".vmdk"});
    }
    run("tar", {"--format=ustar", "-C", dir, "-cf", dir + "/" + name, "system.vmdk", "data.vmdk"});
    return dir + "/" + name;
}

OsImage makeImage(const QString &ovaPath, const QString &androidVersion, const QString &imageVersion)
{
    OsImage image;
    image.uuid = QUuid::createUuid().toString();
    image.name = "Test image " + androidVersion;
    image.osVersion = VersionNumber::fromString(androidVersion);
    image.imageVersion = VersionNumber::fromString(imageVersion);
    image.arch = "x86_64";
    image.imageUri = QUrl::fromLocalFile(ovaPath).toString();
    image.imageHash = "0";
    image.imageSizeBytes = QFileInfo(ovaPath).size();
    image.supportedFormFactors = {HwProfile::FormFactor::PHONE};
    image.buildDate = QDateTime::fromString("2024-01-02T00:00:00Z", Qt::ISODate);
    return image;
}

HwProfile makeProfile(long long sdCardSizeMiB)
{
    HwProfile profile;
    profile.uuid = QUuid::createUuid().toString();
    profile.cpuCount = 1;
    profile.ramSize = 256;
    profile.dataDiskSize = 16;
    profile.sdCardSize = sdCardSizeMiB;
    profile.hasSdCard = sdCardSizeMiB != 0;
    return profile;
}

QByteArray fileHash(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result().toHex() : QByteArray();
}

QString deployed(const QString &name)
{
    return QDir(Paths::getDeployedPath()).absoluteFilePath(name);
}

std::unique_ptr<QEMUEngine> makeEngine()
{
    auto engine = std::make_unique<QEMUEngine>();
    const VMToolsEngine::InitResult result = engine->initialize(VMToolsEngine::NoAccelerationCheck);
    EXPECT_EQ(result.first, 0) << result.second.toStdString();
    return engine;
}

std::unique_ptr<QEMUEngine> makeEngineWithFailingImageTool(const QString &message)
{
    const QString bin = hvtest::testRoot() + "/failing-bin-" + QUuid::createUuid().toString(QUuid::WithoutBraces);
    QDir().mkpath(bin);
    QFile tool(bin + "/qemu-img");
    EXPECT_TRUE(tool.open(QIODevice::WriteOnly));
    tool.write(QString("#!/bin/sh\necho '%1' >&2\nexit 1\n").arg(message).toUtf8());
    tool.close();
    tool.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", bin.toLocal8Bit()); // taken when the engine is constructed
    return std::make_unique<QEMUEngine>();
}

} // namespace devicefixture
