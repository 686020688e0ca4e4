#include "mtar.h"

#include "TarRecords.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

using namespace tarrecords;

TEST(Mtar, strerrorNamesEveryCode)
{
    const char *texts[] = {"success",        "failure",           "could not open", "could not read",
                           "could not write", "could not seek",   "bad checksum",   "null record",
                           "file not found",  "truncated archive", "bad header",     "name too long",
                           "unsupported member", "unknown error"};
    for (int code = 0; code >= -13; --code)
        EXPECT_STREQ(mtar_strerror(code), texts[-code]) << code;
    EXPECT_STREQ(mtar_strerror(1), "unknown error");
    EXPECT_STREQ(mtar_strerror(-100), "unknown error");
}

class MtarTest : public ::testing::Test
{
protected:
    QString path(const QString &name) const { return m_dir.filePath(name); }
    QByteArray local(const QString &name) const { return QFile::encodeName(path(name)); }

    QTemporaryDir m_dir;
};

// The record another tool expects for a file header written by mtar: octal
// numbers without padding, group left as zeros, no magic.
QByteArray expectedRecord(const char *name, const char *mode, const char *size, char type)
{
    QByteArray r(512, '\0');
    std::memcpy(r.data(), name, std::strlen(name));
    std::memcpy(r.data() + 100, mode, std::strlen(mode));
    r[108] = '0';
    std::memcpy(r.data() + 124, size, std::strlen(size));
    r[136] = '0';
    r[156] = type;
    const QByteArray sum = QByteArray::number(checksum(r), 8).rightJustified(6, '0');
    std::memcpy(r.data() + 148, sum.constData(), 6);
    r[155] = ' ';
    return r;
}

TEST_F(MtarTest, writesHeaderRecordsByteForByte)
{
    mtar_t tar;
    ASSERT_EQ(mtar_open(&tar, local("h.tar").constData(), "w"), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_write_file_header(&tar, "docs/hello.txt", 4097), MTAR_ESUCCESS);
    EXPECT_EQ(tar.offset, 512u);
    EXPECT_EQ(tar.remaining, 4097u);
    tar.remaining = 0; // no data: only the header records are checked here
    ASSERT_EQ(mtar_write_dir_header(&tar, "docs/"), MTAR_ESUCCESS);
    mtar_header_t typeless;
    std::memset(&typeless, 0, sizeof typeless);
    std::strcpy(typeless.name, "plain");
    typeless.mode = 0600;
    typeless.size = 7;
    ASSERT_EQ(mtar_write_header(&tar, &typeless), MTAR_ESUCCESS);
    // The largest size octal holds, and the first one that takes base-256.
    ASSERT_EQ(mtar_write_file_header(&tar, "octal", (quint64(8) << 30) - 1), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_write_file_header(&tar, "binary", quint64(8) << 30), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_close(&tar), MTAR_ESUCCESS);

    const QByteArray bytes = readFile(path("h.tar"));
    ASSERT_EQ(bytes.size(), 5 * 512);
    EXPECT_EQ(bytes.mid(0, 512), expectedRecord("docs/hello.txt", "664", "10001", '0'));
    EXPECT_EQ(bytes.mid(512, 512), expectedRecord("docs/", "775", "0", '5'));
    EXPECT_EQ(bytes.mid(1024, 512), expectedRecord("plain", "600", "7", '0'));
    EXPECT_EQ(bytes.mid(1536, 512), expectedRecord("octal", "664", "77777777777", '0'));
    EXPECT_EQ(bytes.mid(2048, 512),
              resealed(expectedRecord("binary", "664", "", '0').replace(124, 12, QByteArray("\x80\0\0\0\0\0\0\x02\0\0\0\0", 12))));
}

TEST_F(MtarTest, refusesWhatDoesNotFit)
{
    const std::string fits(MTAR_NAME_MAX, 'n'), tooLong(MTAR_NAME_MAX + 1, 'n');
    mtar_t tar;
    EXPECT_EQ(mtar_open(&tar, local("missing.tar").constData(), "r"), MTAR_EOPENFAIL);
    EXPECT_EQ(mtar_open(&tar, local("no/such/dir.tar").constData(), "w"), MTAR_EOPENFAIL);
    ASSERT_EQ(mtar_open(&tar, local("n.tar").constData(), "w"), MTAR_ESUCCESS);
    EXPECT_EQ(mtar_write_file_header(&tar, tooLong.c_str(), 0), MTAR_ENAMETOOLONG);
    EXPECT_EQ(mtar_write_dir_header(&tar, tooLong.c_str()), MTAR_ENAMETOOLONG);
    EXPECT_EQ(tar.offset, 0u);
    ASSERT_EQ(mtar_write_file_header(&tar, "f", 2), MTAR_ESUCCESS);
    EXPECT_EQ(mtar_write_data(&tar, "abc", 3), MTAR_EFAILURE) << "more than the announced size";
    EXPECT_EQ(tar.offset, 512u);
    ASSERT_EQ(mtar_write_data(&tar, "ab", 2), MTAR_ESUCCESS);
    EXPECT_EQ(mtar_write_file_header(&tar, fits.c_str(), 0), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_finalize(&tar), MTAR_ESUCCESS);
    mtar_close(&tar);

    ASSERT_EQ(mtar_open(&tar, local("n.tar").constData(), "r"), MTAR_ESUCCESS);
    auto h = std::make_unique<mtar_header_t>();
    EXPECT_EQ(mtar_find(&tar, fits.c_str(), h.get()), MTAR_ESUCCESS);
    EXPECT_EQ(std::string(h->name), fits);
    mtar_close(&tar);
}

TEST_F(MtarTest, readsEntriesOfAnIndependentWriter)
{
    const QByteArray big = noise(9000, 3);
    ASSERT_TRUE(writeFile(path("r.tar"), dir("d/") + file("d/a.txt", "alpha") + file("d/big.bin", big)
                                              + header("d/link", '2', 0, "a.txt") + end()));
    mtar_t tar;
    ASSERT_EQ(mtar_open(&tar, local("r.tar").constData(), "r"), MTAR_ESUCCESS);

    mtar_header_t h;
    ASSERT_EQ(mtar_find(&tar, "d/big.bin", &h), MTAR_ESUCCESS);
    EXPECT_EQ(h.size, 9000u);
    EXPECT_EQ(h.type, uint32_t('0'));
    EXPECT_EQ(h.mode, 0644u);
    EXPECT_EQ(h.owner, 1000u);
    EXPECT_EQ(h.mtime, 1700000000u);
    QByteArray data(9000, '\0');
    ASSERT_EQ(mtar_read_data(&tar, data.data(), 5000), MTAR_ESUCCESS);
    EXPECT_EQ(tar.remaining, 4000u);
    EXPECT_EQ(mtar_read_data(&tar, data.data() + 5000, 4001), MTAR_EFAILURE);
    ASSERT_EQ(mtar_read_data(&tar, data.data() + 5000, 4000), MTAR_ESUCCESS);
    EXPECT_EQ(data, big);
    // A finished entry leaves the stream at its header again.
    EXPECT_EQ(tar.offset, tar.header_offset);

    ASSERT_EQ(mtar_find(&tar, "d/link", &h), MTAR_ESUCCESS);
    EXPECT_EQ(h.type, uint32_t('2'));
    EXPECT_STREQ(h.linkname, "a.txt");
    EXPECT_EQ(mtar_find(&tar, "d/a", nullptr), MTAR_ENOTFOUND);
    EXPECT_EQ(mtar_find(&tar, "d/a.txt", nullptr), MTAR_ESUCCESS);
    mtar_close(&tar);
}

TEST_F(MtarTest, openValidatesTheFirstHeader)
{
    const auto corrupted = [](QByteArray bytes, int at) {
        bytes[at] = static_cast<char>(bytes.at(at) ^ 0x20);
        return bytes;
    };
    const std::pair<QByteArray, int> cases[] = {
        {file("a", "x") + end(), MTAR_ESUCCESS},
        {QByteArray(), MTAR_EREADFAIL},
        {header("a", '0', 0).left(300), MTAR_ETRUNCATED},
        {end(), MTAR_ESUCCESS}, // an archive without members
        {corrupted(file("abc", "x") + end(), 1), MTAR_EBADCHKSUM},   // in the name
        {corrupted(file("abc", "x") + end(), 134), MTAR_EBADCHKSUM}, // in the size
        {QByteArray("not an archive\n").repeated(64), MTAR_EBADCHKSUM},
    };
    for (const auto &[bytes, result] : cases) {
        ASSERT_TRUE(writeFile(path("x.tar"), bytes));
        mtar_t tar;
        EXPECT_EQ(mtar_open(&tar, local("x.tar").constData(), "r"), result) << bytes.size();
        if (result == MTAR_ESUCCESS)
            mtar_close(&tar);
        else
            EXPECT_EQ(tar.stream, nullptr);
    }
}

// Sizes past 4 GiB are whole; stepping over a member whose data the file
// does not hold finds the end of the file, never an earlier header.
TEST_F(MtarTest, hugeEntrySizesReachTheEndOfTheFile)
{
    for (const quint64 size : {quint64(0xFFFFFE00u), quint64(0xFFFFFFFFu), quint64(077777777777)}) {
        ASSERT_TRUE(writeFile(path("huge.tar"), header("h", '0', size) + end()));
        mtar_t tar;
        ASSERT_EQ(mtar_open(&tar, local("huge.tar").constData(), "r"), MTAR_ESUCCESS);
        auto h = std::make_unique<mtar_header_t>();
        ASSERT_EQ(mtar_read_header(&tar, h.get()), MTAR_ESUCCESS);
        EXPECT_EQ(h->size, size);
        EXPECT_EQ(mtar_next(&tar), MTAR_ESUCCESS) << size;
        EXPECT_EQ(mtar_read_header(&tar, h.get()), MTAR_ETRUNCATED) << size;
        EXPECT_EQ(tar.error_offset, 3u * 512);
        mtar_close(&tar);
    }
}

// GNU tar is the reference reader: it must list and extract what mtar writes.
TEST_F(MtarTest, gnuTarListsAndExtractsWhatMtarWrites)
{
    struct Entry {
        const char *name;
        QByteArray data;
    };
    // Long names: one that splits into a ustar prefix, one whose last part
    // alone is over 100 bytes (a GNU long-name record), one over 255 bytes.
    const QByteArray prefixed = "top/sub/" + QByteArray(90, 'p') + "/" + QByteArray(60, 'q');
    const QByteArray longLeaf = "top/" + QByteArray(120, 'l');
    const QByteArray veryLong = "top/sub/" + QByteArray(200, 'v') + "/" + QByteArray(200, 'w');
    const Entry files[] = {{"top/empty", QByteArray()},
                           {"top/one", QByteArray("1")},
                           {"top/block", noise(512, 11)},
                           {"top/sub/odd", noise(4097, 12)},
                           {"top/sub/large", noise(3 * 1024 * 1024 + 5, 13)},
                           {prefixed.constData(), QByteArray("prefix")},
                           {longLeaf.constData(), QByteArray("gnu")},
                           {veryLong.constData(), QByteArray("long")}};

    mtar_t tar;
    ASSERT_EQ(mtar_open(&tar, local("w.tar").constData(), "w"), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_write_dir_header(&tar, "top/"), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_write_dir_header(&tar, "top/sub"), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_write_dir_header(&tar, ("top/sub/" + QByteArray(200, 'v')).constData()), MTAR_ESUCCESS);
    for (const Entry &e : files) {
        ASSERT_EQ(mtar_write_file_header(&tar, e.name, static_cast<uint32_t>(e.data.size())), MTAR_ESUCCESS);
        // Written in uneven pieces, as a caller streaming from elsewhere would.
        for (int at = 0; at < e.data.size(); at += 1000) {
            const int n = qMin(1000, e.data.size() - at);
            ASSERT_EQ(mtar_write_data(&tar, e.data.constData() + at, static_cast<uint32_t>(n)), MTAR_ESUCCESS);
        }
    }
    ASSERT_EQ(mtar_finalize(&tar), MTAR_ESUCCESS);
    ASSERT_EQ(mtar_close(&tar), MTAR_ESUCCESS);

    QProcess list;
    list.start("tar", {"-tf", path("w.tar")});
    ASSERT_TRUE(list.waitForFinished(30000));
    EXPECT_EQ(list.exitCode(), 0) << list.readAllStandardError().toStdString();
    EXPECT_EQ(list.readAllStandardOutput().toStdString(),
              "top/\ntop/sub\ntop/sub/" + std::string(200, 'v') + "\ntop/empty\ntop/one\ntop/block\ntop/sub/odd\n"
                  "top/sub/large\n" + (prefixed + "\n" + longLeaf + "\n" + veryLong + "\n").toStdString());

    ASSERT_TRUE(QDir().mkpath(path("out")));
    QProcess extract;
    extract.start("tar", {"-xf", path("w.tar"), "-C", path("out")});
    ASSERT_TRUE(extract.waitForFinished(30000));
    EXPECT_EQ(extract.exitCode(), 0) << extract.readAllStandardError().toStdString();
    for (const Entry &e : files)
        EXPECT_EQ(readFile(path("out/") + e.name), e.data) << e.name;
    EXPECT_EQ(listTree(path("out")).size(), 12);
}

} // namespace
