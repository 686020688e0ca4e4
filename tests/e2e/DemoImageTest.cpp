// The demo OS image as the library sees it: its records load as valid OS
// images that point at the archive, and the archive unpacks with the
// library's own tar reader into the two disks that device creation converts.

#include "Archive.h"
#include "MessageCapture.h"
#include "OsImageIO.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using hvtest::MessageCapture;

namespace {

QString imageDir()
{
    return qEnvironmentVariable("HV_TEST_DEMO_IMAGE_DIR");
}

QString ovaPath()
{
    return QFileInfo(QDir(imageDir()), "halvistrom-demo.ova").absoluteFilePath();
}

struct RecordCase {
    const char *file;
    const char *osVersion;
    int sdkVersion;
    const char *arch;
};

void PrintTo(const RecordCase &c, std::ostream *os)
{
    *os << c.file;
}

class DemoImageRecord : public ::testing::TestWithParam<RecordCase>
{
};

TEST_P(DemoImageRecord, loadsAsAValidImageOfTheArchive)
{
    const RecordCase c = GetParam();
    QFile ova(ovaPath());
    ASSERT_TRUE(ova.open(QIODevice::ReadOnly)) << qPrintable(ovaPath());
    QCryptographicHash hash(QCryptographicHash::Sha256);
    ASSERT_TRUE(hash.addData(&ova));

    MessageCapture capture;
    const OsImage image = OsImageIO::loadFromFile(QDir(imageDir()).filePath(c.file), HwProfile::Source::USER);
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
    ASSERT_TRUE(image.isValid());
    EXPECT_EQ(image.getLocalPath().toStdString(), ovaPath().toStdString());
    EXPECT_TRUE(image.isImageAvailableLocally());
    EXPECT_EQ(image.getSize(), ova.size());
    EXPECT_EQ(image.imageHash.toStdString(), hash.result().toHex().toStdString());
    EXPECT_EQ(image.getOsVersion().toStdString(), c.osVersion);
    EXPECT_EQ(image.getSdkVersion(), c.sdkVersion);
    EXPECT_EQ(image.getImageArch().toStdString(), c.arch);
    EXPECT_EQ(image.getImageVersion().toStdString(), "1.0.0");
    EXPECT_TRUE(image.supportedFormFactors.contains(HwProfile::FormFactor::PHONE));
    EXPECT_FALSE(image.uuid.isEmpty());
    EXPECT_TRUE(image.getReleaseDate().isValid());
}

INSTANTIATE_TEST_SUITE_P(Records, DemoImageRecord,
                         ::testing::Values(RecordCase{"demo-android-11.0.json", "11.0.0", 30, "x86_64"},
                                           RecordCase{"demo-android-7.1.json", "7.1.0", 25, "x86"}));

TEST(DemoImageRecords, theTwoRecordsAreDistinctImagesOfOneArchive)
{
    const QDir dir(imageDir());
    const OsImage eleven = OsImageIO::loadFromFile(dir.filePath("demo-android-11.0.json"), HwProfile::Source::USER);
    const OsImage seven = OsImageIO::loadFromFile(dir.filePath("demo-android-7.1.json"), HwProfile::Source::USER);
    EXPECT_NE(eleven.uuid, seven.uuid);
    EXPECT_NE(eleven.name, seven.name);
    EXPECT_EQ(eleven.getLocalPath().toStdString(), seven.getLocalPath().toStdString());
    EXPECT_EQ(eleven.imageHash.toStdString(), seven.imageHash.toStdString());
}

// The first sector of a disk image, read through the image tool as raw.
QByteArray firstSector(const QString &disk, const QString &scratch)
{
    const QString raw = QDir(scratch).filePath(QFileInfo(disk).completeBaseName() + ".raw");
    QProcess tool;
    tool.start("qemu-img", {"convert", "-O", "raw", disk, raw});
    if (!tool.waitForFinished(60000) || tool.exitCode() != 0) {
        tool.kill();
        tool.waitForFinished(5000);
        ADD_FAILURE() << "qemu-img convert of " << qPrintable(disk) << " failed: "
                      << tool.readAllStandardError().toStdString();
        return {};
    }
    QFile file(raw);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.read(512);
}

TEST(DemoImageArchive, unpacksIntoTheDescriptorAndTwoBootableDisks)
{
    QTemporaryDir out;
    ASSERT_TRUE(out.isValid());
    MessageCapture capture;
    ASSERT_EQ(Archive::untar(ovaPath(), out.path()), Archive::Success);
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));

    const QStringList entries = QDir(out.path()).entryList(QDir::Files, QDir::Name);
    EXPECT_EQ(entries, QStringList({"data.vmdk", "halvistrom-demo.ovf", "system.vmdk"}));

    QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    // The system disk is a FAT volume whose boot sector the BIOS starts.
    const QByteArray system = firstSector(QDir(out.path()).filePath("system.vmdk"), scratch.path());
    ASSERT_EQ(system.size(), 512);
    EXPECT_EQ(system.mid(510, 2), QByteArray("\x55\xaa", 2));
    EXPECT_EQ(system.mid(43, 8), QByteArray("HVSYSTEM"));
    // A fresh data disk has counted no boot yet.
    const QByteArray data = firstSector(QDir(out.path()).filePath("data.vmdk"), scratch.path());
    ASSERT_EQ(data.size(), 512);
    EXPECT_TRUE(data.startsWith("HALVISTROM-DATA 0\n")) << data.left(32).toStdString();
    EXPECT_EQ(data.mid(18), QByteArray(512 - 18, '\0'));
}

} // namespace
