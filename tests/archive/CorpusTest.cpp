#include "Archive.h"
#include "mtar.h"

#include "MessageCapture.h"
#include "TarRecords.h"

#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <iostream>
#include <memory>

namespace {

using hvtest::MessageCapture;
using namespace tarrecords;

// Archives that other tools wrote (other archivers' test suites, GNU tar and
// Python's tarfile), kept beside the repository; MANIFEST says where each
// one comes from.
const QString kCorpus = QStringLiteral(HV_TAR_CORPUS_DIR);
constexpr int kCorpusSize = 89;

// What the extraction skips, by the type byte of the member's header.
QString kindOf(uint32_t type)
{
    switch (type) {
    case MTAR_TLNK: return "hard link";
    case MTAR_TSYM: return "symbolic link";
    case MTAR_TCHR:
    case MTAR_TBLK: return "device";
    case MTAR_TFIFO: return "FIFO";
    case 0: return "NUL-typed";
    default: return QString("type '%1'").arg(QChar(type));
    }
}

void countSkipped(const QString &archive, QMap<QString, int> *kinds)
{
    mtar_t tar;
    if (mtar_open(&tar, QFile::encodeName(archive).constData(), "r") != MTAR_ESUCCESS)
        return;
    auto h = std::make_unique<mtar_header_t>();
    while (mtar_read_header(&tar, h.get()) == MTAR_ESUCCESS) {
        if (h->type != MTAR_TREG && h->type != MTAR_TCONT && h->type != MTAR_TDIR)
            ++(*kinds)[kindOf(h->type)];
        if (mtar_next(&tar) != MTAR_ESUCCESS)
            break;
    }
    mtar_close(&tar);
}

int runGnuTar(const QString &archive, const QString &into)
{
    QDir().mkpath(into);
    QProcess tar;
    tar.start("tar", {"-xf", archive, "-C", into, "--no-same-owner", "--no-same-permissions"});
    if (!tar.waitForFinished(60000)) {
        tar.kill();
        tar.waitForFinished();
        return -1;
    }
    return tar.exitStatus() == QProcess::NormalExit ? tar.exitCode() : -1;
}

// Every archive of the corpus goes through GNU tar and through the reader.
// Where both extract, every regular file GNU tar writes comes out of the
// reader byte for byte (or its member was skipped with a warning: links,
// devices, FIFOs, NUL-typed), and the reader writes nothing else. Where the
// reader refuses, GNU tar refuses too, or the archive has an escaping or
// absolute member, or a name that is not UTF-8. Nothing is ever written
// outside the destination.
TEST(TarCorpus, extractsWhatGnuTarExtractsOrRefusesWithReason)
{
    ASSERT_TRUE(QFileInfo(kCorpus + "/MANIFEST").isFile())
        << "the tar corpus is missing: expected it at " << kCorpus.toStdString();
    QStringList archives = QDir(kCorpus).entryList(QDir::Files, QDir::Name);
    archives.removeAll("MANIFEST");
    archives.removeAll("make-generated.sh");
    ASSERT_EQ(archives.size(), kCorpusSize);

    const QRegularExpression skippedLine("^Skipping file '(.*)' of (unsupported|unknown) type$");
    const QRegularExpression escapeLine("^Encountered path escape \"(.*)\"$");
    int extracted = 0, identical = 0, refusedEscape = 0, refusedNotUtf8 = 0, refusedWithGnu = 0;
    QMap<QString, int> skippedKinds;

    for (const QString &name : archives) {
        SCOPED_TRACE(name.toStdString());
        const QString archive = kCorpus + "/" + name;
        QTemporaryDir root;
        ASSERT_TRUE(root.isValid());
        ASSERT_TRUE(writeFile(root.filePath("outside/keep"), "keep"));
        ASSERT_TRUE(QDir().mkpath(root.filePath("sandbox")));
        const QString gnu = root.filePath("gnu"), dest = root.filePath("sandbox/dest");
        const auto outsideDestination = [&root] {
            return listTree(root.path()).filter(QRegularExpression("^(?!gnu/|sandbox/dest/)"));
        };
        const QStringList before = outsideDestination();

        const int gnuExit = runGnuTar(archive, gnu);
        MessageCapture cap;
        const Archive::Result result = Archive::untar(archive, dest);

        EXPECT_EQ(outsideDestination(), before);
        for (const QString &line : cap.texts(QtWarningMsg)) {
            const QString target = escapeLine.match(line).captured(1);
            if (!target.isEmpty() && !target.startsWith(root.path())) {
                EXPECT_FALSE(QFileInfo::exists(target)) << target.toStdString();
            }
        }

        if (result != Archive::Success) {
            if (result == Archive::PathEscape)
                ++refusedEscape;
            else if (result == Archive::NameNotUtf8)
                ++refusedNotUtf8;
            else if (gnuExit != 0)
                ++refusedWithGnu;
            else
                ADD_FAILURE() << "refused an archive GNU tar extracts: " << cap.texts(QtCriticalMsg).join(" | ").toStdString();
            continue;
        }
        EXPECT_EQ(gnuExit, 0) << "extracted an archive GNU tar refuses";
        ++extracted;

        QStringList skipped;
        for (const QString &line : cap.texts(QtWarningMsg)) {
            const QRegularExpressionMatch m = skippedLine.match(line);
            if (m.hasMatch())
                skipped << QDir::cleanPath(m.captured(1));
        }
        countSkipped(archive, &skippedKinds);
        const QStringList ours = regularFiles(dest);
        for (const QString &file : regularFiles(gnu)) {
            if (!ours.contains(file)) {
                EXPECT_TRUE(skipped.contains(file)) << "missing without a warning: " << file.toStdString();
                continue;
            }
            EXPECT_TRUE(sameContent(gnu + "/" + file, dest + "/" + file)) << file.toStdString();
            ++identical;
        }
        for (const QString &file : ours)
            EXPECT_TRUE(QFileInfo(gnu + "/" + file).isFile()) << "not extracted by GNU tar: " << file.toStdString();
    }

    QStringList kinds;
    for (auto it = skippedKinds.cbegin(); it != skippedKinds.cend(); ++it)
        kinds << QString("%1 %2").arg(it.value()).arg(it.key());
    std::cout << "tar corpus: " << archives.size() << " archives; " << extracted << " extracted with " << identical
              << " files byte-identical to GNU tar's; refused: " << refusedEscape << " (escaping or absolute member), "
              << refusedNotUtf8 << " (name not UTF-8), " << refusedWithGnu << " (GNU tar refuses too); skipped members: "
              << kinds.join(", ").toStdString() << std::endl;
}

} // namespace
