/* The framing of the debug bridge as the guest's daemon reads it: the
 * 24-byte message header, the sync requests and the shell packets. Pure
 * functions over byte buffers, so that hostile input can be fed to them
 * without a socket. */
#ifndef DEMO_GUEST_ADB_WIRE_H
#define DEMO_GUEST_ADB_WIRE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ADB_FOURCC(a, b, c, d) \
    ((uint32_t)(a) | ((uint32_t)(b) << 8) | ((uint32_t)(c) << 16) | ((uint32_t)(d) << 24))

enum {
    ADB_CNXN = ADB_FOURCC('C', 'N', 'X', 'N'),
    ADB_AUTH = ADB_FOURCC('A', 'U', 'T', 'H'),
    ADB_OPEN = ADB_FOURCC('O', 'P', 'E', 'N'),
    ADB_OKAY = ADB_FOURCC('O', 'K', 'A', 'Y'),
    ADB_CLSE = ADB_FOURCC('C', 'L', 'S', 'E'),
    ADB_WRTE = ADB_FOURCC('W', 'R', 'T', 'E'),
};

enum {
    SYNC_STAT = ADB_FOURCC('S', 'T', 'A', 'T'),
    SYNC_LIST = ADB_FOURCC('L', 'I', 'S', 'T'),
    SYNC_SEND = ADB_FOURCC('S', 'E', 'N', 'D'),
    SYNC_RECV = ADB_FOURCC('R', 'E', 'C', 'V'),
    SYNC_DATA = ADB_FOURCC('D', 'A', 'T', 'A'),
    SYNC_DONE = ADB_FOURCC('D', 'O', 'N', 'E'),
    SYNC_QUIT = ADB_FOURCC('Q', 'U', 'I', 'T'),
    SYNC_DENT = ADB_FOURCC('D', 'E', 'N', 'T'),
    SYNC_OKAY = ADB_FOURCC('O', 'K', 'A', 'Y'),
    SYNC_FAIL = ADB_FOURCC('F', 'A', 'I', 'L'),
};

/* The first version whose peers neither compute nor check the data sum. */
#define ADB_VERSION_NO_CHECKSUM 0x01000001u
#define ADB_VERSION_MIN 0x01000000u
#define ADB_HEADER_SIZE 24
/* The largest file chunk of a sync transfer, and the longest path. */
#define SYNC_MAX_CHUNK (64 * 1024)
#define SYNC_MAX_PATH 1024
/* Shell packets: one id byte, then the payload's length. */
#define SHELL_HEADER_SIZE 5

enum { SHELL_STDIN = 0, SHELL_STDOUT = 1, SHELL_STDERR = 2, SHELL_EXIT = 3, SHELL_CLOSE_STDIN = 4, SHELL_WINDOW = 5 };

/* What a parser made of the bytes it was given. */
enum wire_result { WIRE_BAD = -1, WIRE_MORE = 0, WIRE_WHOLE = 1 };

struct adb_header {
    uint32_t command, arg0, arg1, length, check, magic;
};

uint32_t wire_le32(const uint8_t *p);
void wire_put_le32(uint8_t *p, uint32_t v);
uint32_t adb_checksum(const uint8_t *data, size_t len);

/* One message from buf: WIRE_WHOLE with *used the header and payload
 * length, WIRE_MORE until the message is complete, WIRE_BAD (and *why)
 * for an unknown command, a magic that does not match, a payload over
 * max_payload or, when check_sum is set, a wrong data sum. */
int adb_parse(const uint8_t *buf, size_t len, uint32_t max_payload, int check_sum, struct adb_header *h,
              size_t *used, const char **why);
/* Writes a message header for the payload into out. */
void adb_put_header(uint8_t *out, uint32_t command, uint32_t arg0, uint32_t arg1, const uint8_t *data,
                    uint32_t len);

/* One sync request from buf: its id and length field, the body at
 * buf + 8 (none for DONE, whose length is the file's time). WIRE_BAD for
 * an unknown id, a path over SYNC_MAX_PATH or a chunk over SYNC_MAX_CHUNK. */
int sync_parse(const uint8_t *buf, size_t len, uint32_t *id, uint32_t *arg, size_t *used, const char **why);

/* One shell packet from buf; the payload follows the 5-byte header.
 * WIRE_BAD for an unknown id or a payload over max_payload. */
int shell_parse(const uint8_t *buf, size_t len, uint32_t max_payload, uint8_t *id, uint32_t *payload,
                size_t *used, const char **why);

#ifdef __cplusplus
}
#endif

#endif
