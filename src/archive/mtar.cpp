#include "mtar.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kRecordSize = 512;
constexpr unsigned kChecksumOffset = 148;
constexpr unsigned kChecksumSize = 8;

// Offsets and sizes of the fields of the on-disk header record.
struct Field {
    unsigned offset;
    unsigned size;
};
constexpr Field kName{0, 100};
constexpr Field kMode{100, 8};
constexpr Field kOwner{108, 8};
constexpr Field kSize{124, 12};
constexpr Field kMtime{136, 12};
constexpr Field kChecksum{kChecksumOffset, kChecksumSize};
constexpr unsigned kTypeOffset = 156;
constexpr Field kLinkname{157, 100};

int fileRead(mtar_t *tar, void *data, uint32_t size)
{
    const size_t n = std::fread(data, 1, size, static_cast<FILE *>(tar->stream));
    return n == size ? MTAR_ESUCCESS : MTAR_EREADFAIL;
}

int fileWrite(mtar_t *tar, const void *data, uint32_t size)
{
    const size_t n = std::fwrite(data, 1, size, static_cast<FILE *>(tar->stream));
    return n == size ? MTAR_ESUCCESS : MTAR_EWRITEFAIL;
}

int fileSeek(mtar_t *tar, uint32_t pos)
{
    const int rc = std::fseek(static_cast<FILE *>(tar->stream), static_cast<long>(pos), SEEK_SET);
    return rc == 0 ? MTAR_ESUCCESS : MTAR_ESEEKFAIL;
}

int fileClose(mtar_t *tar)
{
    if (tar->stream)
        std::fclose(static_cast<FILE *>(tar->stream));
    tar->stream = nullptr;
    return MTAR_ESUCCESS;
}

// 256 stands for the eight checksum bytes, which count as spaces.
uint32_t checksum(const unsigned char *record)
{
    uint32_t sum = 256;
    for (unsigned i = 0; i < kRecordSize; ++i) {
        if (i >= kChecksumOffset && i < kChecksumOffset + kChecksumSize)
            continue;
        sum += record[i];
    }
    return sum;
}

// Octal text confined to its field: a field that uses all of its bytes has
// no terminator, so the parser never looks past the field's end. Values that
// do not fit 32 bits saturate; the reader then fails on the impossible size
// instead of wrapping to a small one.
uint32_t parseOctal(const unsigned char *record, Field field)
{
    const unsigned char *p = record + field.offset;
    const unsigned char *end = p + field.size;
    while (p < end && *p == ' ')
        ++p;
    uint64_t value = 0;
    for (; p < end && *p >= '0' && *p <= '7'; ++p) {
        value = value * 8 + static_cast<uint64_t>(*p - '0');
        if (value > UINT32_MAX)
            return UINT32_MAX;
    }
    return static_cast<uint32_t>(value);
}

void writeOctal(unsigned char *record, Field field, uint32_t value)
{
    // The field keeps a terminating NUL; digits beyond its room are dropped.
    char text[16];
    const int length = std::snprintf(text, sizeof text, "%o", value);
    std::memcpy(record + field.offset, text, std::min<size_t>(static_cast<size_t>(length), field.size - 1));
}

void copyText(unsigned char *record, Field field, const char *text)
{
    std::memcpy(record + field.offset, text, strnlen(text, field.size));
}

// Entry sizes rounded up to whole records, in 64 bits so that a hostile size
// cannot wrap the position back onto an earlier header.
uint64_t roundUpToRecord(uint64_t size)
{
    return (size + kRecordSize - 1) / kRecordSize * kRecordSize;
}

int tread(mtar_t *tar, void *data, uint32_t size)
{
    const int err = tar->read(tar, data, size);
    if (err == MTAR_ESUCCESS)
        tar->offset += size;
    return err;
}

int twrite(mtar_t *tar, const void *data, uint32_t size)
{
    const int err = tar->write(tar, data, size);
    if (err == MTAR_ESUCCESS)
        tar->offset += size;
    return err;
}

int writeNullBytes(mtar_t *tar, uint32_t count)
{
    const char nul = '\0';
    for (uint32_t i = 0; i < count; ++i) {
        const int err = twrite(tar, &nul, 1);
        if (err)
            return err;
    }
    return MTAR_ESUCCESS;
}

int writeNamedHeader(mtar_t *tar, const char *name, uint32_t size, uint32_t type, uint32_t mode)
{
    if (std::strlen(name) > sizeof(mtar_header_t::name))
        return MTAR_EFAILURE;
    mtar_header_t h;
    std::memset(&h, 0, sizeof h);
    std::memcpy(h.name, name, std::strlen(name));
    h.size = size;
    h.type = type;
    h.mode = mode;
    return mtar_write_header(tar, &h);
}

} // namespace

const char *mtar_strerror(int err)
{
    switch (err) {
    case MTAR_ESUCCESS: return "success";
    case MTAR_EFAILURE: return "failure";
    case MTAR_EOPENFAIL: return "could not open";
    case MTAR_EREADFAIL: return "could not read";
    case MTAR_EWRITEFAIL: return "could not write";
    case MTAR_ESEEKFAIL: return "could not seek";
    case MTAR_EBADCHKSUM: return "bad checksum";
    case MTAR_ENULLRECORD: return "null record";
    case MTAR_ENOTFOUND: return "file not found";
    default: return "unknown error";
    }
}

int mtar_open(mtar_t *tar, const char *filename, const char *mode)
{
    std::memset(tar, 0, sizeof *tar);
    tar->read = fileRead;
    tar->write = fileWrite;
    tar->seek = fileSeek;
    tar->close = fileClose;

    const bool reading = std::strchr(mode, 'r') != nullptr;
    if (reading)
        mode = "rb";
    else if (std::strchr(mode, 'w'))
        mode = "wb";
    else if (std::strchr(mode, 'a'))
        mode = "ab";
    tar->stream = std::fopen(filename, mode);
    if (!tar->stream)
        return MTAR_EOPENFAIL;

    if (reading) {
        mtar_header_t h;
        const int err = mtar_read_header(tar, &h);
        if (err) {
            mtar_close(tar);
            return err;
        }
    }
    return MTAR_ESUCCESS;
}

int mtar_close(mtar_t *tar)
{
    return tar->close(tar);
}

int mtar_seek(mtar_t *tar, uint32_t pos)
{
    const int err = tar->seek(tar, pos);
    tar->offset = pos;
    return err;
}

int mtar_rewind(mtar_t *tar)
{
    tar->remaining = 0;
    return mtar_seek(tar, 0);
}

int mtar_read_header(mtar_t *tar, mtar_header_t *h)
{
    unsigned char record[kRecordSize];
    tar->header_offset = tar->offset;
    int err = tread(tar, record, kRecordSize);
    if (err)
        return err;
    err = mtar_seek(tar, tar->header_offset);
    if (err)
        return err;

    if (record[kChecksumOffset] == '\0')
        return MTAR_ENULLRECORD;
    if (checksum(record) != parseOctal(record, kChecksum))
        return MTAR_EBADCHKSUM;

    h->mode = parseOctal(record, kMode);
    h->owner = parseOctal(record, kOwner);
    h->size = parseOctal(record, kSize);
    h->mtime = parseOctal(record, kMtime);
    h->type = record[kTypeOffset];
    std::memcpy(h->name, record + kName.offset, kName.size);
    std::memcpy(h->linkname, record + kLinkname.offset, kLinkname.size);
    return MTAR_ESUCCESS;
}

int mtar_next(mtar_t *tar)
{
    mtar_header_t h;
    const int err = mtar_read_header(tar, &h);
    if (err)
        return err;
    const uint64_t next = uint64_t(tar->header_offset) + kRecordSize + roundUpToRecord(h.size);
    if (next > UINT32_MAX)
        return MTAR_ESEEKFAIL;
    return mtar_seek(tar, static_cast<uint32_t>(next));
}

int mtar_find(mtar_t *tar, const char *name, mtar_header_t *h)
{
    int err = mtar_rewind(tar);
    if (err)
        return err;
    mtar_header_t header;
    while ((err = mtar_read_header(tar, &header)) == MTAR_ESUCCESS) {
        if (strnlen(header.name, sizeof header.name) == std::strlen(name)
            && std::memcmp(header.name, name, std::strlen(name)) == 0) {
            if (h)
                *h = header;
            return MTAR_ESUCCESS;
        }
        err = mtar_next(tar);
        if (err)
            break;
    }
    return err == MTAR_ENULLRECORD ? MTAR_ENOTFOUND : err;
}

int mtar_read_data(mtar_t *tar, void *ptr, uint32_t size)
{
    if (tar->remaining == 0) {
        mtar_header_t h;
        int err = mtar_read_header(tar, &h);
        if (err)
            return err;
        if (uint64_t(tar->header_offset) + kRecordSize > UINT32_MAX)
            return MTAR_ESEEKFAIL;
        err = mtar_seek(tar, tar->header_offset + kRecordSize);
        if (err)
            return err;
        tar->remaining = h.size;
    }
    if (size > tar->remaining)
        return MTAR_EFAILURE;
    const int err = tread(tar, ptr, size);
    if (err)
        return err;
    tar->remaining -= size;
    if (tar->remaining == 0)
        return mtar_seek(tar, tar->header_offset);
    return MTAR_ESUCCESS;
}

int mtar_write_header(mtar_t *tar, const mtar_header_t *h)
{
    unsigned char record[kRecordSize];
    std::memset(record, 0, sizeof record);
    writeOctal(record, kMode, h->mode);
    writeOctal(record, kOwner, h->owner);
    writeOctal(record, kSize, h->size);
    writeOctal(record, kMtime, h->mtime);
    record[kTypeOffset] = static_cast<unsigned char>(h->type ? h->type : uint32_t(MTAR_TREG));
    copyText(record, kName, h->name);
    copyText(record, kLinkname, h->linkname);

    char text[kChecksumSize];
    std::snprintf(text, sizeof text, "%06o", checksum(record));
    std::memcpy(record + kChecksumOffset, text, 7);
    record[kChecksumOffset + 7] = ' ';

    tar->remaining = h->size;
    return twrite(tar, record, kRecordSize);
}

int mtar_write_file_header(mtar_t *tar, const char *name, uint32_t size)
{
    return writeNamedHeader(tar, name, size, MTAR_TREG, 0664);
}

int mtar_write_dir_header(mtar_t *tar, const char *name)
{
    return writeNamedHeader(tar, name, 0, MTAR_TDIR, 0775);
}

int mtar_write_data(mtar_t *tar, const void *data, uint32_t size)
{
    if (size > tar->remaining)
        return MTAR_EFAILURE;
    const int err = twrite(tar, data, size);
    if (err)
        return err;
    tar->remaining -= size;
    if (tar->remaining == 0)
        return writeNullBytes(tar, (kRecordSize - tar->offset % kRecordSize) % kRecordSize);
    return MTAR_ESUCCESS;
}

int mtar_finalize(mtar_t *tar)
{
    return writeNullBytes(tar, kRecordSize * 2);
}
