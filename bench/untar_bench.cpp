// Extracts one archive with Archive::untar, the way an OS image is unpacked
// when its first device is created. scripts/bench times it against tar.
//
//   hv_untar_bench ARCHIVE DESTINATION
#include "Archive.h"

#include <QString>

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: hv_untar_bench ARCHIVE DESTINATION\n");
        return 2;
    }
    const Archive::Result result = Archive::untar(QString::fromLocal8Bit(argv[1]), QString::fromLocal8Bit(argv[2]));
    if (!Archive::isOk(result)) {
        std::fprintf(stderr, "hv_untar_bench: extraction failed with code %d\n", int(result));
        return 1;
    }
    return 0;
}
