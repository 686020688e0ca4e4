#include "QEMUSnapshotTable.h"

#include "TestEnvironment.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace {

QString qemuImg()
{
    return QStandardPaths::findExecutable("qemu-img");
}

void run(const QStringList &args)
{
    QProcess p;
    p.start(qemuImg(), args);
    ASSERT_TRUE(p.waitForFinished(30000));
    ASSERT_EQ(p.exitCode(), 0) << p.readAllStandardError().toStdString();
}

TEST(Qcow2SnapshotTable, readsTheNamesQemuImgWrote)
{
    const QString disk = hvtest::testRoot() + "/snap.qcow2";
    run({"create", "-q", "-f", "qcow2", disk, "16M"});
    QStringList names;
    QString error;
    ASSERT_TRUE(QEMUSnapshotTable::readNames(disk, &names, &error)) << error.toStdString();
    EXPECT_TRUE(names.isEmpty());

    // Names of different lengths exercise the eight-byte entry padding.
    for (const char *name : {"latest", "a", "before_update_2", "x1234567"})
        run({"snapshot", "-c", name, disk});
    run({"snapshot", "-d", "a", disk});
    ASSERT_TRUE(QEMUSnapshotTable::readNames(disk, &names, &error)) << error.toStdString();
    EXPECT_EQ(names, (QStringList{"latest", "before_update_2", "x1234567"}));
}

struct Damage {
    const char *name;
    QByteArray content;
    const char *error;
};

class Qcow2Damaged : public ::testing::TestWithParam<Damage>
{
};

TEST_P(Qcow2Damaged, refusesWithAReason)
{
    const QString path = hvtest::testRoot() + "/damaged-" + GetParam().name;
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(GetParam().content);
    file.close();
    QStringList names{"stale"};
    QString error;
    EXPECT_FALSE(QEMUSnapshotTable::readNames(path, &names, &error));
    EXPECT_EQ(error, GetParam().error);
    EXPECT_TRUE(names.isEmpty());
}

QByteArray header(quint32 count, quint64 offset, int size = 72)
{
    QByteArray h(size, '\0');
    h.replace(0, 4, "QFI\xfb");
    for (int i = 0; i < 4; ++i)
        h[60 + i] = char(count >> (24 - 8 * i));
    for (int i = 0; i < 8; ++i)
        h[64 + i] = char(offset >> (56 - 8 * i));
    return h;
}

INSTANTIATE_TEST_SUITE_P(
    Files, Qcow2Damaged,
    ::testing::Values(Damage{"empty", QByteArray(), "not a qcow2 image"},
                      Damage{"text", QByteArray(100, 'x'), "not a qcow2 image"},
                      Damage{"tooMany", header(70000, 72), "damaged snapshot table"},
                      Damage{"offsetPastEnd", header(1, 1 << 20), "damaged snapshot table"},
                      Damage{"truncatedEntry", header(1, 72) + QByteArray(20, '\0'), "truncated snapshot table"},
                      Damage{"hugeExtra", header(1, 72) + QByteArray(36, '\0') + QByteArray("\x7f\xff\xff\xff", 4),
                             "damaged snapshot table"}),
    [](const ::testing::TestParamInfo<Damage> &info) { return std::string(info.param.name); });

} // namespace
