#include "adb_wire.h"

uint32_t wire_le32(const uint8_t *p)
{
    return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}

void wire_put_le32(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
    p[2] = (uint8_t)(v >> 16);
    p[3] = (uint8_t)(v >> 24);
}

uint32_t adb_checksum(const uint8_t *data, size_t len)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < len; i++)
        sum += data[i];
    return sum;
}

static int known_command(uint32_t command)
{
    switch (command) {
    case ADB_CNXN: case ADB_AUTH: case ADB_OPEN: case ADB_OKAY: case ADB_CLSE: case ADB_WRTE:
        return 1;
    default:
        return 0;
    }
}

int adb_parse(const uint8_t *buf, size_t len, uint32_t max_payload, int check_sum, struct adb_header *h,
              size_t *used, const char **why)
{
    if (len < ADB_HEADER_SIZE)
        return WIRE_MORE;
    h->command = wire_le32(buf);
    h->arg0 = wire_le32(buf + 4);
    h->arg1 = wire_le32(buf + 8);
    h->length = wire_le32(buf + 12);
    h->check = wire_le32(buf + 16);
    h->magic = wire_le32(buf + 20);
    if (!known_command(h->command)) {
        *why = "unknown command";
        return WIRE_BAD;
    }
    if (h->magic != (h->command ^ 0xffffffffu)) {
        *why = "bad magic";
        return WIRE_BAD;
    }
    if (h->length > max_payload) {
        *why = "payload too large";
        return WIRE_BAD;
    }
    if (len - ADB_HEADER_SIZE < h->length)
        return WIRE_MORE;
    if (check_sum && adb_checksum(buf + ADB_HEADER_SIZE, h->length) != h->check) {
        *why = "bad data sum";
        return WIRE_BAD;
    }
    *used = ADB_HEADER_SIZE + (size_t)h->length;
    return WIRE_WHOLE;
}

void adb_put_header(uint8_t *out, uint32_t command, uint32_t arg0, uint32_t arg1, const uint8_t *data,
                    uint32_t len)
{
    wire_put_le32(out, command);
    wire_put_le32(out + 4, arg0);
    wire_put_le32(out + 8, arg1);
    wire_put_le32(out + 12, len);
    wire_put_le32(out + 16, data ? adb_checksum(data, len) : 0);
    wire_put_le32(out + 20, command ^ 0xffffffffu);
}

int sync_parse(const uint8_t *buf, size_t len, uint32_t *id, uint32_t *arg, size_t *used, const char **why)
{
    if (len < 8)
        return WIRE_MORE;
    *id = wire_le32(buf);
    *arg = wire_le32(buf + 4);
    size_t body;
    switch (*id) {
    case SYNC_DONE:
        body = 0;
        break;
    case SYNC_DATA:
        if (*arg > SYNC_MAX_CHUNK) {
            *why = "chunk too large";
            return WIRE_BAD;
        }
        body = *arg;
        break;
    case SYNC_STAT: case SYNC_LIST: case SYNC_SEND: case SYNC_RECV: case SYNC_QUIT:
        if (*arg > SYNC_MAX_PATH) {
            *why = "path too long";
            return WIRE_BAD;
        }
        body = *arg;
        break;
    default:
        *why = "unknown sync request";
        return WIRE_BAD;
    }
    if (len - 8 < body)
        return WIRE_MORE;
    *used = 8 + body;
    return WIRE_WHOLE;
}

int shell_parse(const uint8_t *buf, size_t len, uint32_t max_payload, uint8_t *id, uint32_t *payload,
                size_t *used, const char **why)
{
    if (len < SHELL_HEADER_SIZE)
        return WIRE_MORE;
    *id = buf[0];
    *payload = wire_le32(buf + 1);
    if (*id > SHELL_WINDOW) {
        *why = "unknown shell packet";
        return WIRE_BAD;
    }
    if (*payload > max_payload) {
        *why = "shell packet too large";
        return WIRE_BAD;
    }
    if (len - SHELL_HEADER_SIZE < *payload)
        return WIRE_MORE;
    *used = SHELL_HEADER_SIZE + (size_t)*payload;
    return WIRE_WHOLE;
}
