// hv-untar TAR DEST: extracts one archive with Archive::untar and exits with
// its result code. Used to measure extraction from outside a test process,
// e.g. the peak resident size under /usr/bin/time -v.

#include "Archive.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    if (args.size() != 3) {
        std::fprintf(stderr, "usage: hv-untar TAR DEST\n");
        return 2;
    }
    return Archive::untar(args.at(1), args.at(2));
}
