#include "Archive.h"

#include "MessageCapture.h"
#include "ScopedTmpfs.h"
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
    {"oldStyleNulType", ARCHIVE(header("old", '\0', 3) + padded("old") + file("new", "n") + end()), Archive::Success,
     {{QtWarningMsg, "Skipping file 'old' of unknown type"}}, {"new 1"}},
    // Where an archive stops short, the message names the archive, the member
    // and the byte where the file ends.
    {"truncatedData", ARCHIVE(file("whole", "w") + file("cut", noise(4097, 5)).left(512 + 1000)),
     Archive::ReadDataFailed,
     {{QtCriticalMsg, "Archive '%TAR%' is truncated at byte 2536, in member 'cut'."}, kRecordFailed},
     {"cut 0", "whole 1"}},
    {"truncatedHeader", ARCHIVE(file("whole", "w") + header("next", '0', 0).left(100)), Archive::NextRecordFailed,
     {{QtCriticalMsg, "Archive '%TAR%' is truncated at byte 1124, after member 'whole'."}}, {"whole 1"}},
    {"truncatedSkippedMember", ARCHIVE(file("whole", "w") + header("old", '\0', 5000) + QByteArray(600, 'o')),
     Archive::NextRecordFailed,
     {{QtWarningMsg, "Skipping file 'old' of unknown type"},
      {QtCriticalMsg, "Archive '%TAR%' is truncated at byte 2136, after member 'old'."}},
     {"whole 1"}},
    {"truncatedInExtendedHeader", ARCHIVE(file("whole", "w") + pax({{"path", QByteArray(600, 'p')}}).left(1000)),
     Archive::NextRecordFailed,
     {{QtCriticalMsg, "Archive '%TAR%' is truncated at byte 2024, after member 'whole'."}}, {"whole 1"}},
    // A member over 8 GiB whose data is missing: once read as size 0, which
    // took the disk's first sector for the end of the archive.
    {"base256SizeCut", ARCHIVE(base256Header("disk.vmdk", 9ull << 30) + padded(QByteArray(512, '\0')) + end()),
     Archive::ReadDataFailed,
     {{QtCriticalMsg, "Archive '%TAR%' is truncated at byte 2048, in member 'disk.vmdk'."}, kRecordFailed},
     {"disk.vmdk 0"}},
    {"badChecksum", ARCHIVE(file("whole", "w") + corruptedChecksum(file("next", "n")) + end()),
     Archive::NextRecordFailed,
     {{QtCriticalMsg, "Archive '%TAR%' has a bad header at byte 1024, after member 'whole': bad checksum."}},
     {"whole 1"}},
    {"sizeNotANumber", ARCHIVE(file("whole", "w") + resealed(header("next", '0', 0).replace(124, 3, "9x9")) + end()),
     Archive::NextRecordFailed,
     {{QtCriticalMsg, "Archive '%TAR%' has a bad header at byte 1024, after member 'whole': bad header."}},
     {"whole 1"}},
    {"malformedPaxRecord", ARCHIVE(file("whole", "w") + header("x", 'x', 12) + padded("99 path=a\n") + file("a", "a") + end()),
     Archive::NextRecordFailed,
     {{QtCriticalMsg, "Archive '%TAR%' has a bad header at byte 1024, after member 'whole': bad header."}},
     {"whole 1"}},
    {"nameNotUtf8", ARCHIVE(file("ok", "1") + file("caf\xe9", "latin-1") + end()), Archive::NameNotUtf8,
     {{QtCriticalMsg, "Archive '%TAR%' has a member name that is not UTF-8 at byte 1024: 'caf%E9'."}, kRecordFailed},
     {"ok 1"}},
    {"noNullRecords", ARCHIVE(file("whole", "w") + file("last", "l")), Archive::Success, {}, {"last 1", "whole 1"}},
    {"oneNullRecord", ARCHIVE(file("whole", "w") + QByteArray(512, '\0')), Archive::Success, {}, {"whole 1"}},
    {"blankArchive", ARCHIVE(end()), Archive::Success, {}, {}},
    {"parentWithoutEntry", ARCHIVE(file("d/e/f", "f") + end()), Archive::Success, {}, {"d/", "d/e/", "d/e/f 1"}},
    {"parentOverFile", ARCHIVE(file("d", "f") + file("d/e", "e") + end()), Archive::CreateDirectoryFailed,
     {{QtCriticalMsg, "Destination directory cannot be created or is not accessible: '%DEST%/d'."}, kRecordFailed},
     {"d 1"}},
    {"directoryOverFile", ARCHIVE(file("d", "f") + dir("d/sub/") + end()), Archive::CreateDirectoryFailed,
     {{QtCriticalMsg, "Destination directory cannot be created or is not accessible: '%DEST%/d/sub'."},
      kRecordFailed},
     {"d 1"}},
    // Names longer than the 100-byte field: from the ustar prefix, a GNU
    // long-name record, pax "path" (over a long name), a global pax record
    // that only sets times; UTF-8 names as they are.
    {"longNames",
     ARCHIVE(resealed(header(QByteArray(100, 'n'), '0', 1).replace(345, 10, "prefix/dir")) + padded("p")
             + gnuLongName("gnu/" + QByteArray(150, 'g')) + file("gnu/ggg", "gnu")
             + gnuLongName("ignored") + pax({{"path", "pax/" + QByteArray(200, 'x')}, {"mtime", "1"}})
             + file("pax/short", "pax") + pax({{"mtime", "5"}}, 'g') + file("caf\xc3\xa9", "utf8") + end()),
     Archive::Success, {},
     {"caf\u00e9 4", "gnu/", "gnu/" + QString(150, 'g') + " 3", "pax/", "pax/" + QString(200, 'x') + " 3",
      "prefix/", "prefix/dir/", "prefix/dir/" + QString(100, 'n') + " 1"}},
    // A pax size record wins over the header's; a link's size field is not
    // followed by data.
    {"sizesFromRecords",
     ARCHIVE(pax({{"size", "700"}}) + header("big", '0', 0) + padded(noise(700, 3)) + header("hard", '1', 4000, "big")
             + file("after", "a") + end()),
     Archive::Success, {{QtWarningMsg, "Skipping file 'hard' of unsupported type"}}, {"after 1", "big 700"}},
    {"escapeThroughPaxPath", ARCHIVE(pax({{"path", "../evil"}}) + file("harmless", "x") + end()), Archive::PathEscape,
     {{QtWarningMsg, kEscape.arg("%ROOT%/sandbox/evil")}, kRecordFailed}, {}},
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
         {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -3 (could not read at byte 0)."}},
        {"input/text.ova", "sandbox/dest", QByteArray("just text\n").repeated(100), Archive::OpenFailed,
         {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -6 (bad checksum at byte 0)."}},
        {"input/cut.ova", "sandbox/dest", header("a", '0', 0).left(500), Archive::OpenFailed,
         {QtCriticalMsg, "Fail to open archive '%TAR%' with mtar_open(), ret = -9 (truncated archive at byte 500)."}},
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

// A full disk (a small tmpfs) is reported; a link planted in the destination
// is neither written through nor has its target's mode changed.
TEST_F(ArchiveTest, reportsWriteFailures)
{
    hvtest::ScopedTmpfs tmpfs(dest(), 64);
    if (!tmpfs.isMounted())
        GTEST_SKIP() << tmpfs.skipReason();
    ASSERT_TRUE(QFile::link("/dev/full", dest() + "/link"));
    ASSERT_TRUE(writeFile(tarPath(), file("link", noise(1000, 9)) + file("full", noise(128 * 1024, 9)) + end()));
    MessageCapture cap;
    EXPECT_EQ(Archive::untar(tarPath(), dest()), Archive::OutputOpenFailed);
    EXPECT_TRUE(cap.has(QtCriticalMsg, "Failed to open output file '" + dest() + "/link': Too many levels of symbolic links"));
    EXPECT_EQ(QFileInfo("/dev/full").permissions() & QFile::WriteOther, QFile::WriteOther);
    QFile::remove(dest() + "/link");
    EXPECT_EQ(Archive::untar(tarPath(), dest()), Archive::OutputWriteFailed);
    EXPECT_TRUE(cap.has(QtCriticalMsg, "Got an error while writing file chunk to disk: '" + dest() + "/full': No space left on device"));
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
