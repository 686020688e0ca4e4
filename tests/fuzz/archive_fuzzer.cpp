// Feeds arbitrary bytes to Archive::untar as an OVA file. Beyond the
// sanitizers' memory checks, every run verifies that extraction created
// nothing next to the destination, and a hang shows up as a time-out.

#include "Archive.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QStringList>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

void discardMessages(QtMsgType, const QMessageLogContext &, const QString &)
{
}

// The archive lives in "input/", extraction goes to "sandbox/dest"; both
// the root and "sandbox" must hold nothing else afterwards.
struct Workspace {
    QTemporaryDir root;
    QString tarPath;
    QString destDir;

    Workspace()
    {
        if (!root.isValid() || !QDir().mkpath(root.filePath("input")) || !QDir().mkpath(root.filePath("sandbox"))) {
            std::fprintf(stderr, "archive_fuzzer: cannot create the workspace\n");
            std::abort();
        }
        tarPath = root.filePath("input/fuzzed.ova");
        destDir = root.filePath("sandbox/dest");
    }
};

QStringList entries(const QString &dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
}

void expectOnly(const QString &dir, const QStringList &allowed)
{
    const QStringList found = entries(dir);
    for (const QString &name : found) {
        if (!allowed.contains(name)) {
            std::fprintf(stderr, "archive_fuzzer: extraction escaped to %s/%s\n", qPrintable(dir), qPrintable(name));
            std::abort();
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Workspace *workspace = [] {
        qInstallMessageHandler(discardMessages);
        return new Workspace;
    }();

    QFile tar(workspace->tarPath);
    if (!tar.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || tar.write(reinterpret_cast<const char *>(data), static_cast<qint64>(size)) != static_cast<qint64>(size)) {
        std::fprintf(stderr, "archive_fuzzer: cannot write the input\n");
        std::abort();
    }
    tar.close();

    const Archive::Result result = Archive::untar(workspace->tarPath, workspace->destDir);
    if (Archive::isOk(result) != (result == Archive::Success))
        std::abort();

    expectOnly(workspace->root.path(), {"input", "sandbox"});
    expectOnly(workspace->root.filePath("input"), {"fuzzed.ova"});
    expectOnly(workspace->root.filePath("sandbox"), {"dest"});
    QDir(workspace->destDir).removeRecursively();
    return 0;
}
