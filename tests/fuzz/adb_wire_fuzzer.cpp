// The guest daemon's framing of the debug bridge: hostile bytes split into
// messages, sync requests and shell packets. Every message taken must lie
// within the input, and a parser must not take bytes it was not given.
#include "adb_wire.h"

#include <cstdlib>

namespace {

void check(bool ok)
{
    if (!ok)
        std::abort();
}

void parseAll(const uint8_t *data, size_t size, int checkSum)
{
    struct adb_header header;
    size_t used = 0;
    const char *why = nullptr;
    for (size_t at = 0; at < size;) {
        const int r = adb_parse(data + at, size - at, 256 * 1024, checkSum, &header, &used, &why);
        if (r != WIRE_WHOLE)
            return;
        check(used >= ADB_HEADER_SIZE && used <= size - at && used - ADB_HEADER_SIZE == header.length);
        at += used;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    parseAll(data, size, 0);
    parseAll(data, size, 1);
    uint32_t id = 0, arg = 0;
    size_t used = 0;
    const char *why = nullptr;
    for (size_t at = 0; at < size && sync_parse(data + at, size - at, &id, &arg, &used, &why) == WIRE_WHOLE;
         at += used)
        check(used >= 8 && used <= size - at && (id == SYNC_DONE || used - 8 == arg));
    uint8_t shellId = 0;
    for (size_t at = 0;
         at < size && shell_parse(data + at, size - at, 64 * 1024, &shellId, &arg, &used, &why) == WIRE_WHOLE;
         at += used)
        check(used == SHELL_HEADER_SIZE + arg && used <= size - at && shellId <= SHELL_WINDOW);
    return 0;
}
