#include "Archive.h"

#include "MessageCapture.h"
#include "TarRecords.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
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
        for (const char *dir : {"input", "sandbox", "outside"})
            ASSERT_TRUE(QDir().mkpath(m_root.filePath(dir)));
        ASSERT_TRUE(writeFile(m_root.filePath("outside/keep.txt"), "keep"));
    }

    QString root() const { return m_root.path(); }
    QString tarPath() const { return m_root.filePath("input/image.ova"); }
    QString dest() const { return m_root.filePath("sandbox/dest"); }
    QStringList treeOutsideDestination() const
    {
        return listTree(root()).filter(QRegularExpression("^(?!sandbox/dest/)"));
    }

    /// Fills in the root, the archive and the destination in expected lines.
    QList<LogLine> expand(QList<LogLine> lines, const QString &tar, const QString &destination) const
    {
        for (LogLine &line : lines)
            line.text.replace("%TAR%", tar).replace("%DEST%", destination).replace("%ROOT%", root());
        return lines;
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
    EXPECT_EQ(cap.lines(), expand(c.log, tarPath(), dest()));
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

// Failures before the first entry: what the caller passed is unusable, and
// nothing but the destination directory may appear.
TEST_F(ArchiveTest, refusesUnusableInputWithItsCode)
{
    const struct {
        const char *tar, *dest; // relative to the root
        QByteArray bytes;       // written to tar when not null
        Archive::Result result;
        LogLine log;
    } cases[] = {
        {"input/none.ova", "sandbox/dest", QByteArray(), Archive::TarNotReadable,
         {QtCriticalMsg, "Tar is not accessible and readable: '%TAR%'."}},
        {"input", "sandbox/dest", QByteArray(), Archive::TarNotReadable,
         {QtCriticalMsg, "Tar is not accessible and readable: '%TAR%'."}},
        {"input/empty.ova", "sandbox/dest", QByteArray(""), Archive::OpenFailed,
         {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -3 ."}},
        {"input/text.ova", "sandbox/dest", QByteArray("just text\n").repeated(100), Archive::OpenFailed,
         {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -6 ."}},
        {"input/blank.ova", "sandbox/dest", end(), Archive::OpenFailed,
         {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -7 ."}},
        {"input/ok.ova", "outside/keep.txt/dest", file("a", "a") + end(), Archive::CreateDirectoryFailed,
         {QtCriticalMsg, "Destination directory cannot be created or is not accessible: '%DEST%'."}},
    };
    for (const auto &c : cases) {
        const QString tar = m_root.filePath(c.tar), destination = m_root.filePath(c.dest);
        if (!c.bytes.isNull()) {
            ASSERT_TRUE(writeFile(tar, c.bytes));
        }
        const QRegularExpression notDest("^(?!sandbox/dest/$)");
        const QStringList before = listTree(root()).filter(notDest);
        MessageCapture cap;
        EXPECT_EQ(Archive::untar(tar, destination), c.result) << c.tar;
        EXPECT_EQ(cap.lines(), expand({c.log}, tar, destination));
        EXPECT_FALSE(Archive::isOk(c.result));
        EXPECT_EQ(listTree(root()).filter(notDest), before) << c.tar;
    }
}

// A full disk, reached through a link the test planted in the destination:
// small entries fail when flushed, larger ones while their chunks are written.
TEST_F(ArchiveTest, reportsWriteFailures)
{
    ASSERT_TRUE(QDir().mkpath(dest()));
    ASSERT_TRUE(QFile::link("/dev/full", dest() + "/full"));
    const struct {
        int size;
        Archive::Result result;
        QStringList log;
    } cases[] = {{1000, Archive::OutputFlushFailed, {"Got an error while flushing file.", kRecordFailed.text}},
                 {64 * 1024, Archive::OutputWriteFailed,
                  {"Got an error while writing file chunk to disk: \"No space left on device\"",
                   "Result calling writeFileChunk().", kRecordFailed.text}}};
    for (const auto &c : cases) {
        ASSERT_TRUE(writeFile(tarPath(), file("full", noise(c.size, 9)) + end()));
        MessageCapture cap;
        EXPECT_EQ(Archive::untar(tarPath(), dest()), c.result);
        // Qt adds a warning of its own (an append-mode open seeks, and the
        // device cannot): only the extraction's own lines are checked.
        EXPECT_EQ(cap.texts(QtCriticalMsg), c.log);
    }
}

// Archives written by independent writers come out byte for byte.
TEST_F(ArchiveTest, extractsWhatOtherWritersWrote)
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
    const std::pair<QString, QStringList> writers[] = {
        {"tar", {"--format=ustar", "-cf", tarPath(), "-C", source, "data"}},
        {"python3", {"-c", "import sys, tarfile\n"
                           "with tarfile.open(sys.argv[1], 'w', format=tarfile.USTAR_FORMAT) as t:\n"
                           "    t.add(sys.argv[2], arcname='data')\n",
                     tarPath(), source + "/data"}}};
    for (const auto &[program, args] : writers) {
        QDir(dest()).removeRecursively();
        QProcess writer;
        writer.start(program, args);
        ASSERT_TRUE(writer.waitForFinished(60000));
        ASSERT_EQ(writer.exitCode(), 0) << writer.readAllStandardError().toStdString();

        MessageCapture cap;
        EXPECT_EQ(Archive::untar(tarPath(), dest()), Archive::Success) << program.toStdString();
        EXPECT_TRUE(cap.noneAtOrAbove(QtWarningMsg));
        EXPECT_EQ(listTree(dest()), listTree(source));
        for (const auto &f : files)
            EXPECT_EQ(readFile(dest() + "/" + f.first), f.second) << f.first.toStdString();
    }
}

} // namespace
