#include "Archive.h"

#include "MessageCapture.h"
#include "TarRecords.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

using hvtest::LogLine;
using hvtest::MessageCapture;
using namespace tarrecords;

// Every test works below one private root: the archive in "input/", the
// destination at "sandbox/dest", and "outside/" as the target that hostile
// names aim at. Whatever the archive says, the tree outside the destination
// must come out of an extraction exactly as it went in.
class ArchiveTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_root.isValid());
        ASSERT_TRUE(QDir().mkpath(m_root.filePath("input")));
        ASSERT_TRUE(QDir().mkpath(m_root.filePath("sandbox")));
        ASSERT_TRUE(QDir().mkpath(m_root.filePath("outside")));
        ASSERT_TRUE(writeFile(m_root.filePath("outside/keep.txt"), "keep"));
    }

    QString root() const { return m_root.path(); }
    QString tarPath() const { return m_root.filePath("input/image.ova"); }
    QString dest() const { return m_root.filePath("sandbox/dest"); }

    QStringList treeOutsideDestination() const
    {
        QStringList tree;
        for (const QString &entry : listTree(root())) {
            if (!entry.startsWith("sandbox/dest/"))
                tree << entry;
        }
        return tree;
    }

    /// Replaces the placeholders for the root, the archive and the
    /// destination in an expected log line.
    QString expand(QString text) const
    {
        return text.replace("%TAR%", tarPath()).replace("%DEST%", dest()).replace("%ROOT%", root());
    }

    QList<LogLine> expandAll(const QList<LogLine> &lines) const
    {
        QList<LogLine> out;
        for (const LogLine &line : lines)
            out.append({line.type, expand(line.text)});
        return out;
    }

    QTemporaryDir m_root;
};

struct Case {
    const char *name;
    /// The archive's bytes; absolute names need the test's root.
    QByteArray (*archive)(const QByteArray &root);
    Archive::Result result;
    QList<LogLine> log;
    QStringList extracted;
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

class ArchiveCaseTest : public ArchiveTest, public ::testing::WithParamInterface<Case>
{
};

TEST_P(ArchiveCaseTest, extractsOnlyInsideTheDestination)
{
    const Case &c = GetParam();
    ASSERT_TRUE(writeFile(tarPath(), c.archive(QFile::encodeName(root()))));
    const QStringList before = treeOutsideDestination();

    MessageCapture cap;
    EXPECT_EQ(Archive::untar(tarPath(), dest()), c.result);
    EXPECT_EQ(cap.lines(), expandAll(c.log));
    EXPECT_EQ(Archive::isOk(Archive::untar(tarPath(), dest())), c.result == Archive::Success);

    EXPECT_EQ(treeOutsideDestination(), before);
    EXPECT_EQ(readFile(m_root.filePath("outside/keep.txt")), "keep");
    EXPECT_EQ(listTree(dest()), c.extracted);
}

QByteArray corruptedChecksum(QByteArray entry)
{
    entry[150] = entry.at(150) == '7' ? '6' : '7';
    return entry;
}

// The bytes of a case's archive; root is there for absolute names.
#define ARCHIVE(...) [](const QByteArray &root) { Q_UNUSED(root); return QByteArray(__VA_ARGS__); }

const QString kEscape = QStringLiteral("Encountered path escape \"%1\"");
const LogLine kRecordFailed{QtCriticalMsg, "Failed to process tar archive record."};

const Case kCases[] = {
    {"dotDotName", ARCHIVE(file("ok", "1") + file("../x", "evil") + end()), Archive::PathEscape,
     {{QtWarningMsg, kEscape.arg("%ROOT%/sandbox/x")}, kRecordFailed}, {"ok 1"}},
    {"dotDotInsideName", ARCHIVE(dir("a/") + file("a/../../x", "evil") + end()), Archive::PathEscape,
     {{QtWarningMsg, kEscape.arg("%ROOT%/sandbox/x")}, kRecordFailed}, {"a/"}},
    {"dotDotDirectory", ARCHIVE(dir("../escaped/") + end()), Archive::PathEscape,
     {{QtWarningMsg, kEscape.arg("%ROOT%/sandbox/escaped")}, kRecordFailed}, {}},
    {"absoluteName", ARCHIVE(file(root + "/outside/abs.txt", "evil") + end()), Archive::PathEscape,
     {{QtWarningMsg, kEscape.arg("%ROOT%/outside/abs.txt")}, kRecordFailed}, {}},
    {"absoluteDirectory", ARCHIVE(dir(root + "/outside/made/") + end()), Archive::PathEscape,
     {{QtWarningMsg, kEscape.arg("%ROOT%/outside/made")}, kRecordFailed}, {}},
    {"resourceName", ARCHIVE(file(":x", "evil") + end()), Archive::PathEscape,
     {{QtWarningMsg, kEscape.arg(":x")}, kRecordFailed}, {}},
    {"dotDotThatStaysInside", ARCHIVE(dir("a/") + file("a/../b", "bee") + end()), Archive::Success, {},
     {"a/", "b 3"}},
    {"symbolicLink", ARCHIVE(header("link", '2', 0, "../../outside/keep.txt") + file("after", "a") + end()),
     Archive::Success, {{QtWarningMsg, "Skipping file 'link' of unsupported type"}}, {"after 1"}},
    {"otherUnsupportedTypes",
     ARCHIVE(header("hard", '1', 0, "after") + header("chr", '3', 0) + header("blk", '4', 0)
             + header("fifo", '6', 0) + end()),
     Archive::Success,
     {{QtWarningMsg, "Skipping file 'hard' of unsupported type"},
      {QtWarningMsg, "Skipping file 'chr' of unsupported type"},
      {QtWarningMsg, "Skipping file 'blk' of unsupported type"},
      {QtWarningMsg, "Skipping file 'fifo' of unsupported type"}},
     {}},
    {"oldStyleNulType", ARCHIVE(header("old", '\0', 3) + padded("old") + header("pax", 'x', 0) + end()),
     Archive::Success,
     {{QtWarningMsg, "Skipping file 'old' of unknown type"}, {QtWarningMsg, "Skipping file 'pax' of unknown type"}},
     {}},
    {"truncatedData", ARCHIVE(file("whole", "w") + file("cut", noise(4097, 5)).left(512 + 1000)),
     Archive::ReadDataFailed, {{QtCriticalMsg, "Result calling mtar_read_data(): ret = -3"}, kRecordFailed},
     {"cut 0", "whole 1"}},
    {"truncatedHeader", ARCHIVE(file("whole", "w") + header("next", '0', 0).left(100)), Archive::NextRecordFailed,
     {{QtWarningMsg, "Skipping file '' of unknown type"},
      {QtCriticalMsg, "Failed to iterate to next tar archive record ret= -3"}},
     {"whole 1"}},
    {"badChecksum", ARCHIVE(file("whole", "w") + corruptedChecksum(file("next", "n")) + end()),
     Archive::NextRecordFailed,
     {{QtWarningMsg, "Skipping file '' of unknown type"},
      {QtCriticalMsg, "Failed to iterate to next tar archive record ret= -6"}},
     {"whole 1"}},
    {"noNullRecords", ARCHIVE(file("whole", "w") + file("last", "l")), Archive::NextRecordFailed,
     {{QtWarningMsg, "Skipping file '' of unknown type"},
      {QtCriticalMsg, "Failed to iterate to next tar archive record ret= -3"}},
     {"last 1", "whole 1"}},
    {"parentWithoutEntry", ARCHIVE(file("d/f", "f") + end()), Archive::OutputOpenFailed,
     {{QtCriticalMsg, "Failed to open QFile: '%DEST%/d/f'"}, kRecordFailed}, {}},
    {"directoryOverFile", ARCHIVE(file("d", "f") + dir("d/sub/") + end()), Archive::CreateDirectoryFailed,
     {{QtCriticalMsg, "Destination directory cannot be created or is not accessible: '%DEST%/d/sub'."},
      kRecordFailed},
     {"d 1"}},
    {"emptyFileAndNesting",
     ARCHIVE(dir("a/") + dir("a/b/") + file("a/b/empty", QByteArray()) + file("a/x", "x") + end()),
     Archive::Success, {}, {"a/", "a/b/", "a/b/empty 0", "a/x 1"}},
};

INSTANTIATE_TEST_SUITE_P(Archives, ArchiveCaseTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case> &info) { return std::string(info.param.name); });

// Failures before the first entry: what the caller passed is unusable.
struct Refusal {
    const char *name;
    const char *tar;  // relative to the root
    const char *dest; // relative to the root
    QByteArray bytes; // written to tar when not null
    Archive::Result result;
    LogLine log;
};

void PrintTo(const Refusal &r, std::ostream *os) { *os << r.name; }

class ArchiveRefusalTest : public ArchiveTest, public ::testing::WithParamInterface<Refusal>
{
};

TEST_P(ArchiveRefusalTest, refusesWithItsCode)
{
    const Refusal &r = GetParam();
    const QString tar = m_root.filePath(r.tar);
    const QString destination = m_root.filePath(r.dest);
    if (!r.bytes.isNull()) {
        ASSERT_TRUE(writeFile(tar, r.bytes));
    }
    const QStringList before = listTree(root());

    MessageCapture cap;
    EXPECT_EQ(Archive::untar(tar, destination), r.result);
    QString expected = r.log.text;
    expected.replace("%TAR%", tar).replace("%DEST%", destination);
    EXPECT_EQ(cap.lines(), QList<LogLine>({{r.log.type, expected}}));
    EXPECT_FALSE(Archive::isOk(r.result));
    QStringList after = listTree(root());
    after.removeAll(QString(r.dest) + "/");
    EXPECT_EQ(after, before);
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, ArchiveRefusalTest,
    ::testing::Values(
        Refusal{"missingTar", "input/none.ova", "sandbox/dest", QByteArray(), Archive::TarNotReadable,
                {QtCriticalMsg, "Tar is not accessible and readable: '%TAR%'."}},
        Refusal{"tarIsDirectory", "input", "sandbox/dest", QByteArray(), Archive::TarNotReadable,
                {QtCriticalMsg, "Tar is not accessible and readable: '%TAR%'."}},
        Refusal{"emptyTar", "input/empty.ova", "sandbox/dest", QByteArray(""), Archive::OpenFailed,
                {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -3 ."}},
        Refusal{"notATar", "input/text.ova", "sandbox/dest", QByteArray("just text\n").repeated(100),
                Archive::OpenFailed, {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -6 ."}},
        Refusal{"onlyNullRecords", "input/blank.ova", "sandbox/dest", QByteArray(1024, '\0'), Archive::OpenFailed,
                {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -7 ."}},
        Refusal{"destinationUnderFile", "input/ok.ova", "outside/keep.txt/dest", file("a", "a") + end(),
                Archive::CreateDirectoryFailed,
                {QtCriticalMsg, "Destination directory cannot be created or is not accessible: '%DEST%'."}}),
    [](const ::testing::TestParamInfo<Refusal> &info) { return std::string(info.param.name); });

// A full disk, reached through a link the test planted in the destination:
// small entries fail when flushed, larger ones while their chunks are written.
struct FullDisk {
    int size;
    Archive::Result result;
    QStringList log;
};

class ArchiveFullDiskTest : public ArchiveTest, public ::testing::WithParamInterface<FullDisk>
{
};

TEST_P(ArchiveFullDiskTest, reportsWriteFailures)
{
    ASSERT_TRUE(QDir().mkpath(dest()));
    ASSERT_TRUE(QFile::link("/dev/full", dest() + "/full"));
    ASSERT_TRUE(writeFile(tarPath(), file("full", noise(GetParam().size, 9)) + end()));
    MessageCapture cap;
    EXPECT_EQ(Archive::untar(tarPath(), dest()), GetParam().result);
    // Qt adds a warning of its own: an append-mode open seeks, and the device
    // cannot; only the extraction's own lines are checked.
    EXPECT_EQ(cap.texts(QtCriticalMsg), GetParam().log);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ArchiveFullDiskTest,
    ::testing::Values(FullDisk{1000, Archive::OutputFlushFailed,
                               {"Got an error while flushing file.", kRecordFailed.text}},
                      FullDisk{64 * 1024, Archive::OutputWriteFailed,
                               {"Got an error while writing file chunk to disk: \"No space left on device\"",
                                "Result calling writeFileChunk().", kRecordFailed.text}}));

// Archives written by independent writers come out byte for byte.
class ArchiveInteropTest : public ArchiveTest, public ::testing::WithParamInterface<const char *>
{
};

TEST_P(ArchiveInteropTest, extractsIdenticalFiles)
{
    const QString source = m_root.filePath("source");
    ASSERT_TRUE(QDir().mkpath(source + "/data/sub/deeper"));
    const QList<QPair<QString, QByteArray>> files = {
        {"data/empty", QByteArray()},
        {"data/block", noise(512, 21)},
        {"data/odd", noise(4097, 22)},
        {"data/sub/large.vmdk", noise(6 * 1024 * 1024 + 321, 23)},
        {"data/sub/deeper/image.ovf", QByteArray("<Envelope/>\n")},
    };
    for (const auto &f : files)
        ASSERT_TRUE(writeFile(source + "/" + f.first, f.second));

    QProcess writer;
    if (QString(GetParam()) == "gnuTar") {
        writer.start("tar", {"--format=ustar", "-cf", tarPath(), "-C", source, "data"});
    } else {
        writer.start("python3", {"-c",
                                 "import sys, tarfile\n"
                                 "with tarfile.open(sys.argv[1], 'w', format=tarfile.USTAR_FORMAT) as t:\n"
                                 "    t.add(sys.argv[2], arcname='data')\n",
                                 tarPath(), source + "/data"});
    }
    ASSERT_TRUE(writer.waitForFinished(60000));
    ASSERT_EQ(writer.exitCode(), 0) << writer.readAllStandardError().toStdString();

    MessageCapture cap;
    EXPECT_EQ(Archive::untar(tarPath(), dest()), Archive::Success);
    EXPECT_TRUE(cap.noneAtOrAbove(QtWarningMsg));
    EXPECT_EQ(listTree(dest()), listTree(source));
    for (const auto &f : files)
        EXPECT_EQ(readFile(dest() + "/" + f.first), f.second) << f.first.toStdString();
}

INSTANTIATE_TEST_SUITE_P(Writers, ArchiveInteropTest, ::testing::Values("gnuTar", "pythonTarfile"));

} // namespace
