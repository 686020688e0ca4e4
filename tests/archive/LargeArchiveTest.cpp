#include "Archive.h"
#include "mtar.h"

#include "MessageCapture.h"
#include "TarRecords.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/statvfs.h>

#include <iostream>
#include <memory>

namespace {

using hvtest::MessageCapture;
using namespace tarrecords;

constexpr quint64 kGiB = quint64(1) << 30;
// OS images of 4.5 and 9 GiB, with sizes that do not end on a record.
constexpr quint64 kMedium = 4 * kGiB + kGiB / 2 + 333;
constexpr quint64 kLarge = 9 * kGiB + 333;

// Where a size or position held in 32 bits, or in the 11 octal digits of a
// ustar header, would go wrong: data at the start, around 4 GiB and 8 GiB,
// and at the end. Everything else is a hole, so the file costs no disk.
bool makeSparseSource(const QString &path, quint64 size, quint32 seed)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || !file.resize(qint64(size)))
        return false;
    for (const quint64 at : {quint64(0), 4 * kGiB - 2048, 8 * kGiB - 2048, size - 3000}) {
        if (at + 4096 > size && at != size - 3000)
            continue;
        const QByteArray data = noise(at == size - 3000 ? 3000 : 4096, seed++);
        if (!file.seek(qint64(at)) || file.write(data) != data.size())
            return false;
    }
    return true;
}

bool run(const QString &program, const QStringList &args, QString *error)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(20 * 60 * 1000) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        *error = program + " " + args.join(' ') + ": " + QString::fromLocal8Bit(process.readAllStandardError());
        process.kill();
        process.waitForFinished();
        return false;
    }
    return true;
}

quint64 freeBytes(const QString &dir)
{
    struct statvfs st;
    return statvfs(QFile::encodeName(dir).constData(), &st) == 0 ? quint64(st.f_bavail) * st.f_frsize : 0;
}

struct Case {
    const char *name;
    QList<quint64> sizes;   // one member per size
    QStringList tarOptions; // GNU tar's format options
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

class LargeArchiveTest : public ::testing::TestWithParam<Case>
{
};

// Archives of 4.5 and 9 GiB from GNU tar, in each format that can hold them
// (ustar sizes stop below 8 GiB; GNU writes larger ones in base-256, pax in
// a size record; with -S GNU tar writes sparse members), extract whole.
TEST_P(LargeArchiveTest, extractsWhatGnuTarWrote)
{
    const Case &c = GetParam();
    QTemporaryDir root;
    ASSERT_TRUE(root.isValid());
    const QString source = root.filePath("source"), archive = root.filePath("image.ova");
    ASSERT_TRUE(QDir().mkpath(source));
    quint64 total = 0;
    QStringList members;
    for (int i = 0; i < c.sizes.size(); ++i) {
        members << QString("disk%1.vmdk").arg(i + 1);
        total += c.sizes[i];
        ASSERT_TRUE(makeSparseSource(source + "/" + members.last(), c.sizes[i], quint32(i + 1) * 10));
    }
    ASSERT_GT(freeBytes(root.path()), total + 2 * kGiB) << "not enough disk space for a " << total << "-byte archive";

    QElapsedTimer timer;
    timer.start();
    QString error;
    ASSERT_TRUE(run("tar", c.tarOptions + QStringList{"-cf", archive, "-C", source} + members, &error))
        << error.toStdString();
    const qint64 written = timer.restart();

    MessageCapture cap;
    EXPECT_EQ(Archive::untar(archive, root.filePath("dest")), Archive::Success);
    EXPECT_TRUE(cap.noneAtOrAbove(QtWarningMsg));
    const qint64 extracted = timer.restart();
    for (const QString &member : members)
        EXPECT_TRUE(sameContent(source + "/" + member, root.filePath("dest/") + member)) << member.toStdString();
    std::cout << c.name << ": archive of " << QFileInfo(archive).size() << " bytes written by GNU tar in " << written
              << " ms, extracted in " << extracted << " ms" << std::endl;
}

const Case kCases[] = {
    {"ustar4_5GiB", {kMedium}, {"--format=ustar"}},
    {"gnu4_5GiB", {kMedium}, {"--format=gnu"}},
    {"pax4_5GiB", {kMedium}, {"--format=posix"}},
    {"ustarTwoMembers9GiB", {kMedium, kMedium}, {"--format=ustar"}},
    {"gnu9GiB", {kLarge}, {"--format=gnu"}},
    {"pax9GiB", {kLarge}, {"--format=posix"}},
    {"gnuSparse9GiB", {kLarge}, {"--format=gnu", "--sparse"}},
    {"paxSparse0_0_9GiB", {kLarge}, {"--format=posix", "--sparse", "--sparse-version=0.0"}},
    {"paxSparse0_1_9GiB", {kLarge}, {"--format=posix", "--sparse", "--sparse-version=0.1"}},
    {"paxSparse1_0_9GiB", {kLarge}, {"--format=posix", "--sparse", "--sparse-version=1.0"}},
};

INSTANTIATE_TEST_SUITE_P(Archives, LargeArchiveTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case> &info) { return std::string(info.param.name); });

// The writer's own 9 GiB member (a base-256 size) under a name too long for
// the ustar fields: GNU tar lists it and extracts it byte for byte.
TEST(LargeArchiveWriter, gnuTarReadsALargeMemberMtarWrote)
{
    QTemporaryDir root;
    ASSERT_TRUE(root.isValid());
    const QString source = root.filePath("source.vmdk"), archive = root.filePath("image.ova");
    ASSERT_TRUE(makeSparseSource(source, kLarge, 7));
    ASSERT_GT(freeBytes(root.path()), kLarge + 2 * kGiB);
    const QByteArray name = "images/" + QByteArray(130, 'x') + ".vmdk";

    mtar_t tar;
    ASSERT_EQ(mtar_open(&tar, QFile::encodeName(archive).constData(), "w"), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_write_file_header(&tar, name.constData(), kLarge), MTAR_ESUCCESS);
    QFile in(source);
    ASSERT_TRUE(in.open(QIODevice::ReadOnly));
    QByteArray chunk(1 << 20, '\0');
    for (quint64 done = 0; done < kLarge;) {
        const qint64 n = in.read(chunk.data(), qint64(qMin<quint64>(quint64(chunk.size()), kLarge - done)));
        ASSERT_GT(n, 0);
        ASSERT_EQ(mtar_write_data(&tar, chunk.constData(), uint32_t(n)), MTAR_ESUCCESS);
        done += quint64(n);
    }
    ASSERT_EQ(mtar_finalize(&tar), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_close(&tar), MTAR_ESUCCESS);

    QProcess list;
    list.start("tar", {"-tvf", archive});
    ASSERT_TRUE(list.waitForFinished(10 * 60 * 1000));
    EXPECT_EQ(list.exitCode(), 0) << list.readAllStandardError().toStdString();
    const QString listing = QString::fromUtf8(list.readAllStandardOutput());
    EXPECT_TRUE(listing.contains(QString(" %1 ").arg(kLarge)) && listing.trimmed().endsWith(QString::fromUtf8(name)))
        << listing.toStdString();

    // GNU tar writes the member to a pipe; it is compared as it comes.
    QProcess extract;
    extract.start("tar", {"-xOf", archive, QString::fromUtf8(name)});
    ASSERT_TRUE(extract.waitForStarted());
    in.seek(0);
    quint64 compared = 0;
    bool same = true;
    while (extract.state() != QProcess::NotRunning || extract.bytesAvailable() > 0) {
        if (extract.bytesAvailable() == 0 && !extract.waitForReadyRead(60000))
            continue;
        const QByteArray got = extract.read(1 << 20);
        same = same && in.read(got.size()) == got;
        compared += quint64(got.size());
    }
    EXPECT_EQ(extract.exitCode(), 0) << extract.readAllStandardError().toStdString();
    EXPECT_EQ(compared, kLarge);
    EXPECT_TRUE(same);
}

} // namespace
