#include "mtar.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

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
constexpr Field kMagic{257, 8};
constexpr Field kPrefix{345, 155};
// The old GNU sparse header: four map entries in the member's header, more
// in extension records of 21 entries each that follow it.
constexpr unsigned kGnuSparseOffset = 386;
constexpr unsigned kGnuSparseEntries = 4;
constexpr unsigned kGnuIsExtended = 482;
constexpr Field kGnuRealSize{483, 12};
constexpr unsigned kGnuExtensionEntries = 21;
constexpr unsigned kGnuExtensionIsExtended = 504;

const char kUstarMagic[] = "ustar\0" "00";
const char kGnuMagic[] = "ustar  ";

// Hostile sizes are capped before anything is allocated for them.
constexpr uint64_t kMaxExtendedHeader = 64u << 20;
constexpr uint64_t kMaxSparseEntries = 1u << 20;
// Larger sizes would overflow positions; no real archive comes close.
constexpr uint64_t kMaxSize = uint64_t(1) << 62;

using PaxRecords = std::vector<std::pair<std::string, std::string>>;
using PaxMap = std::map<std::string, std::string>;

// What the reader keeps between headers.
struct State {
    PaxMap globals;
    std::vector<mtar_sparse_t> sparse;
};

State &stateOf(mtar_t *tar)
{
    if (!tar->state)
        tar->state = new State;
    return *static_cast<State *>(tar->state);
}

int fileRead(mtar_t *tar, void *data, uint32_t size)
{
    FILE *file = static_cast<FILE *>(tar->stream);
    const size_t n = std::fread(data, 1, size, file);
    if (n == size)
        return MTAR_ESUCCESS;
    if (std::ferror(file))
        return MTAR_EREADFAIL;
    // Short of an I/O error, a short read is the end of the file: say where
    // it is, which may lie before the current position after a seek past it.
    uint64_t end = tar->offset + n;
    struct stat st;
    if (fstat(fileno(file), &st) == 0 && uint64_t(st.st_size) < end)
        end = uint64_t(st.st_size);
    tar->error_offset = end;
    return MTAR_ETRUNCATED;
}

int fileWrite(mtar_t *tar, const void *data, uint32_t size)
{
    const size_t n = std::fwrite(data, 1, size, static_cast<FILE *>(tar->stream));
    return n == size ? MTAR_ESUCCESS : MTAR_EWRITEFAIL;
}

int fileSeek(mtar_t *tar, uint64_t pos)
{
    if (pos > uint64_t(INT64_MAX))
        return MTAR_ESEEKFAIL;
    const int rc = fseeko(static_cast<FILE *>(tar->stream), static_cast<off_t>(pos), SEEK_SET);
    return rc == 0 ? MTAR_ESUCCESS : MTAR_ESEEKFAIL;
}

int fileClose(mtar_t *tar)
{
    if (tar->stream)
        std::fclose(static_cast<FILE *>(tar->stream));
    tar->stream = nullptr;
    return MTAR_ESUCCESS;
}

// 256 stands for the eight checksum bytes, which count as spaces. Some old
// writers summed signed chars; both sums are accepted when reading.
uint32_t checksum(const unsigned char *record, bool asSigned = false)
{
    int64_t sum = 256;
    for (unsigned i = 0; i < kRecordSize; ++i) {
        if (i >= kChecksumOffset && i < kChecksumOffset + kChecksumSize)
            continue;
        sum += asSigned ? int64_t(static_cast<signed char>(record[i])) : int64_t(record[i]);
    }
    return static_cast<uint32_t>(sum);
}

bool isZeroRecord(const unsigned char *record)
{
    return std::all_of(record, record + kRecordSize, [](unsigned char c) { return c == 0; });
}

// A number field: octal text (after at most one leading NUL and any spaces,
// the digits end at a NUL, a space or the field's end; what follows is not
// read, as GNU tar does not), or GNU base-256 when the first byte has its top
// bit set. Negative and out-of-range values are refused, never wrapped.
bool parseNumber(const unsigned char *record, Field field, uint64_t *value)
{
    const unsigned char *p = record + field.offset;
    const unsigned char *end = p + field.size;
    uint64_t v = 0;
    if (*p & 0x80) {
        if (*p & 0x40)
            return false; // negative
        v = *p & 0x3f;
        for (++p; p < end; ++p) {
            if (v > (kMaxSize >> 8))
                return false;
            v = (v << 8) | *p;
        }
        *value = v;
        return true;
    }
    if (*p == '\0')
        ++p;
    while (p < end && *p == ' ')
        ++p;
    for (; p < end && *p >= '0' && *p <= '7'; ++p) {
        v = v * 8 + uint64_t(*p - '0');
        if (v > kMaxSize)
            return false;
    }
    if (p < end && *p != ' ' && *p != '\0')
        return false;
    *value = v;
    return true;
}

// Fields the extraction does not use (mode, owner, time) are read leniently.
uint64_t lenientNumber(const unsigned char *record, Field field)
{
    uint64_t value = 0;
    return parseNumber(record, field, &value) ? value : 0;
}

bool parseDecimal(const std::string &text, uint64_t *value)
{
    if (text.empty() || text.size() > 19)
        return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + uint64_t(c - '0');
    }
    if (v > kMaxSize)
        return false;
    *value = v;
    return true;
}

// Pax records: "LENGTH KEY=VALUE\n", LENGTH counting the whole record.
bool parsePax(const std::string &data, PaxRecords *records)
{
    size_t pos = 0;
    while (pos < data.size()) {
        if (data[pos] == '\0')
            break; // padding some writers leave after the last record
        const size_t space = data.find(' ', pos);
        if (space == std::string::npos)
            return false;
        uint64_t length = 0;
        if (!parseDecimal(data.substr(pos, space - pos), &length) || length > data.size() - pos
            || length <= space - pos + 1 || data[pos + length - 1] != '\n')
            return false;
        const std::string record = data.substr(space + 1, pos + length - 1 - (space + 1));
        const size_t equals = record.find('=');
        if (equals == std::string::npos || equals == 0)
            return false;
        records->emplace_back(record.substr(0, equals), record.substr(equals + 1));
        pos += length;
    }
    return true;
}

// Later records win; an empty value removes the keyword, so that a member
// falls back on the global record or its header field.
void applyPax(const PaxRecords &records, PaxMap *into)
{
    for (const auto &record : records) {
        if (record.second.empty())
            into->erase(record.first);
        else
            (*into)[record.first] = record.second;
    }
}

const std::string *paxValue(const PaxMap &records, const char *key)
{
    const auto it = records.find(key);
    return it == records.end() ? nullptr : &it->second;
}

uint64_t roundUpToRecord(uint64_t size)
{
    return (size + kRecordSize - 1) / kRecordSize * kRecordSize;
}

int tread(mtar_t *tar, void *data, uint32_t size)
{
    tar->error_offset = tar->offset;
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

// The data of an extended header record, read whole (it is capped).
int readRecordData(mtar_t *tar, uint64_t size, std::string *out)
{
    out->assign(size, '\0');
    uint64_t done = 0;
    while (done < size) {
        const uint32_t chunk = uint32_t(std::min<uint64_t>(size - done, 1u << 20));
        const int err = tread(tar, &(*out)[done], chunk);
        if (err)
            return err;
        done += chunk;
    }
    return mtar_seek(tar, tar->offset + roundUpToRecord(size) - size);
}

void copyName(char *to, const std::string &name)
{
    std::memcpy(to, name.data(), name.size());
    to[name.size()] = '\0';
}

std::string fieldText(const unsigned char *record, Field field)
{
    const char *p = reinterpret_cast<const char *>(record + field.offset);
    return std::string(p, strnlen(p, field.size));
}

// A map is valid when its stretches lie in order inside the file and the
// member holds their data (GNU tar ignores data beyond the map's, and so does
// the reader).
bool validSparseMap(const std::vector<mtar_sparse_t> &map, uint64_t realSize, uint64_t dataSize)
{
    uint64_t end = 0, total = 0;
    for (const mtar_sparse_t &s : map) {
        if (s.offset < end || s.offset > realSize || s.size > realSize - s.offset)
            return false;
        end = s.offset + s.size;
        total += s.size;
    }
    return total <= dataSize;
}

bool addSparse(std::vector<mtar_sparse_t> *map, uint64_t offset, uint64_t size)
{
    if (map->size() >= kMaxSparseEntries)
        return false;
    map->push_back({offset, size});
    return true;
}

// Old GNU sparse members: map entries in the header, then in extension
// records while the "is extended" byte is set.
int readGnuSparseMap(mtar_t *tar, const unsigned char *header, std::vector<mtar_sparse_t> *map)
{
    const auto readEntries = [map](const unsigned char *record, unsigned first, unsigned count) {
        for (unsigned i = 0; i < count; ++i) {
            uint64_t offset = 0, size = 0;
            const unsigned at = first + i * 24;
            if (record[at] == '\0')
                return true;
            if (!parseNumber(record, {at, 12}, &offset) || !parseNumber(record, {at + 12, 12}, &size)
                || !addSparse(map, offset, size))
                return false;
        }
        return true;
    };
    if (!readEntries(header, kGnuSparseOffset, kGnuSparseEntries))
        return MTAR_EBADHEADER;
    bool extended = header[kGnuIsExtended] != 0;
    unsigned char record[kRecordSize];
    while (extended) {
        const uint64_t at = tar->offset;
        const int err = tread(tar, record, kRecordSize);
        if (err)
            return err;
        if (!readEntries(record, 0, kGnuExtensionEntries)) {
            tar->error_offset = at;
            return MTAR_EBADHEADER;
        }
        extended = record[kGnuExtensionIsExtended] != 0;
    }
    return MTAR_ESUCCESS;
}

// Pax sparse format 1.0 keeps its map at the start of the member's data:
// decimal numbers, one a line (the count, then offset and size pairs),
// padded to a whole record.
int readPaxSparseData(mtar_t *tar, std::vector<mtar_sparse_t> *map, uint64_t *mapBytes)
{
    std::vector<uint64_t> numbers;
    uint64_t count = 0;
    std::string line;
    char record[kRecordSize];
    *mapBytes = 0;
    for (;;) {
        const int err = tread(tar, record, kRecordSize);
        if (err)
            return err;
        *mapBytes += kRecordSize;
        for (char c : record) {
            if (c != '\n') {
                if (line.size() > 20)
                    return MTAR_EBADHEADER;
                line += c;
                continue;
            }
            uint64_t value = 0;
            if (!parseDecimal(line, &value))
                return MTAR_EBADHEADER;
            line.clear();
            if (numbers.empty() && count == 0 && map->empty()) {
                if (value > kMaxSparseEntries)
                    return MTAR_EBADHEADER;
                count = value;
                numbers.push_back(value);
                if (count == 0)
                    return MTAR_ESUCCESS;
                continue;
            }
            numbers.push_back(value);
            if (numbers.size() == 3) {
                map->push_back({numbers[1], numbers[2]});
                numbers.resize(1);
                if (map->size() == count)
                    return MTAR_ESUCCESS;
            }
        }
    }
}

// Pax sparse formats 0.0 (repeated offset and size records) and 0.1 (one
// comma-separated map record) keep the map in the extended header.
bool readPaxSparseRecords(const PaxMap &pax, const PaxRecords &records, std::vector<mtar_sparse_t> *map)
{
    if (const std::string *text = paxValue(pax, "GNU.sparse.map")) {
        std::vector<uint64_t> numbers;
        size_t pos = 0;
        while (pos <= text->size()) {
            size_t comma = text->find(',', pos);
            if (comma == std::string::npos)
                comma = text->size();
            uint64_t value = 0;
            if (!parseDecimal(text->substr(pos, comma - pos), &value))
                return false;
            numbers.push_back(value);
            if (numbers.size() == 2) {
                if (!addSparse(map, numbers[0], numbers[1]))
                    return false;
                numbers.clear();
            }
            pos = comma + 1;
        }
        return numbers.empty();
    }
    bool haveOffset = false;
    uint64_t offset = 0;
    for (const auto &record : records) {
        uint64_t value = 0;
        if (record.first == "GNU.sparse.offset") {
            if (haveOffset || !parseDecimal(record.second, &value))
                return false;
            offset = value;
            haveOffset = true;
        } else if (record.first == "GNU.sparse.numbytes") {
            if (!haveOffset || !parseDecimal(record.second, &value) || !addSparse(map, offset, value))
                return false;
            haveOffset = false;
        }
    }
    return !haveOffset;
}

bool isSparseKeyword(const std::string &key)
{
    return key.compare(0, 11, "GNU.sparse.") == 0;
}

bool hasSparseRecords(const PaxMap &pax)
{
    const auto it = pax.lower_bound("GNU.sparse.");
    return it != pax.end() && isSparseKeyword(it->first);
}

// Applies a member's pax sparse records: its map, real size and name.
int applyPaxSparse(mtar_t *tar, const PaxMap &pax, const PaxRecords &memberRecords, mtar_header_t *h,
                   std::vector<mtar_sparse_t> *map)
{
    const std::string *major = paxValue(pax, "GNU.sparse.major");
    const std::string *minor = paxValue(pax, "GNU.sparse.minor");
    uint64_t realSize = 0;
    if (major && *major == "1" && minor && *minor == "0") {
        const std::string *real = paxValue(pax, "GNU.sparse.realsize");
        if (!real || !parseDecimal(*real, &realSize))
            return MTAR_EBADHEADER;
        uint64_t mapBytes = 0;
        const int err = readPaxSparseData(tar, map, &mapBytes);
        if (err)
            return err;
        if (mapBytes > h->size)
            return MTAR_EBADHEADER;
        h->data_offset += mapBytes;
        h->size -= mapBytes;
    } else if (!major) {
        const std::string *real = paxValue(pax, "GNU.sparse.size");
        if (!real || !parseDecimal(*real, &realSize) || !readPaxSparseRecords(pax, memberRecords, map))
            return MTAR_EBADHEADER;
    } else {
        return MTAR_EUNSUPPORTED;
    }
    if (const std::string *name = paxValue(pax, "GNU.sparse.name")) {
        if (name->size() > MTAR_NAME_MAX)
            return MTAR_ENAMETOOLONG;
        copyName(h->name, *name);
    }
    h->real_size = realSize;
    return MTAR_ESUCCESS;
}

// What the extended header records before a member say about it.
struct Chain {
    PaxMap pax;
    PaxRecords memberRecords; // sparse records in order, repeated ones kept (format 0.0)
    uint64_t extendedBytes = 0; // all extended records of this member, capped
    std::string longName, longLink;
    bool haveLongName = false, haveLongLink = false;
};

bool isExtendedType(unsigned char type)
{
    return type == 'x' || type == 'X' || type == 'g' || type == 'L' || type == 'K';
}

// Reads one header record at the current position and checks its checksum;
// *size gets its size field.
int readRecord(mtar_t *tar, uint64_t start, unsigned char *record, uint64_t *size)
{
    const uint64_t at = tar->offset;
    const int err = tread(tar, record, kRecordSize);
    if (err == MTAR_ETRUNCATED && at == start && tar->error_offset == start)
        return MTAR_ENULLRECORD; // the file ends between members
    if (err)
        return err;
    tar->error_offset = at;
    // Also after extended header records: an archive of only a global
    // record is an empty archive to GNU tar.
    if (isZeroRecord(record))
        return MTAR_ENULLRECORD;
    uint64_t sum = 0;
    if (!parseNumber(record, kChecksum, &sum) || (sum != checksum(record) && sum != checksum(record, true)))
        return MTAR_EBADCHKSUM;
    return parseNumber(record, kSize, size) ? MTAR_ESUCCESS : MTAR_EBADHEADER;
}

// Takes in an extended header record of type with its data of size bytes.
int readExtended(mtar_t *tar, State &state, unsigned char type, uint64_t size, Chain *chain)
{
    const uint64_t at = tar->error_offset;
    if (size > kMaxExtendedHeader || (chain->extendedBytes += size) > kMaxExtendedHeader)
        return type == 'L' || type == 'K' ? MTAR_ENAMETOOLONG : MTAR_EBADHEADER;
    std::string data;
    if (const int err = readRecordData(tar, size, &data))
        return err;
    if (type == 'L' || type == 'K') {
        data.resize(strnlen(data.c_str(), data.size()));
        if (data.size() > MTAR_NAME_MAX) {
            tar->error_offset = at;
            return MTAR_ENAMETOOLONG;
        }
        (type == 'L' ? chain->longName : chain->longLink) = data;
        (type == 'L' ? chain->haveLongName : chain->haveLongLink) = true;
        return MTAR_ESUCCESS;
    }
    PaxRecords records;
    if (!parsePax(data, &records)) {
        tar->error_offset = at;
        return MTAR_EBADHEADER;
    }
    if (type == 'g')
        applyPax(records, &state.globals);
    applyPax(records, &chain->pax);
    if (type != 'g')
        std::copy_if(records.begin(), records.end(), std::back_inserter(chain->memberRecords),
                     [](const auto &r) { return isSparseKeyword(r.first); });
    return MTAR_ESUCCESS;
}

// Fills h from the member's own header record and what the chain says.
int readMemberHeader(mtar_t *tar, const unsigned char *record, uint64_t size, const Chain &chain, mtar_header_t *h)
{
    const unsigned char type = record[kTypeOffset];
    std::memset(h, 0, sizeof *h);
    h->mode = uint32_t(lenientNumber(record, kMode));
    h->owner = uint32_t(lenientNumber(record, kOwner));
    h->mtime = int64_t(lenientNumber(record, kMtime));
    h->type = type;
    // Links have no data, whatever their size field says (old writers put
    // the target's size there).
    h->size = (type == MTAR_TLNK || type == MTAR_TSYM) ? 0 : size;

    std::string name = fieldText(record, kName);
    if (std::memcmp(record + kMagic.offset, kUstarMagic, 6) == 0 && record[kPrefix.offset] != '\0')
        name = fieldText(record, kPrefix) + "/" + name;
    if (chain.haveLongName)
        name = chain.longName;
    if (const std::string *path = paxValue(chain.pax, "path"))
        name = *path;
    std::string link = chain.haveLongLink ? chain.longLink : fieldText(record, kLinkname);
    if (const std::string *path = paxValue(chain.pax, "linkpath"))
        link = *path;
    if (name.size() > MTAR_NAME_MAX || link.size() > MTAR_NAME_MAX)
        return MTAR_ENAMETOOLONG;
    copyName(h->name, name);
    copyName(h->linkname, link);
    if (const std::string *text = paxValue(chain.pax, "size")) {
        if (!parseDecimal(*text, &h->size))
            return MTAR_EBADHEADER;
    }
    h->data_offset = tar->offset;
    h->real_size = h->size;
    return MTAR_ESUCCESS;
}

// Reads the sparse map of a sparse member (GNU or pax) into the state and
// makes h describe the file it extracts to.
int readSparseMember(mtar_t *tar, State &state, const unsigned char *record, const Chain &chain, mtar_header_t *h)
{
    const uint64_t at = tar->error_offset;
    int err = MTAR_ESUCCESS;
    if (h->type == MTAR_TGNU_SPARSE) {
        if (!parseNumber(record, kGnuRealSize, &h->real_size))
            return MTAR_EBADHEADER;
        if ((err = readGnuSparseMap(tar, record, &state.sparse)))
            return err;
        h->data_offset = tar->offset;
        h->type = MTAR_TREG;
    } else if ((err = applyPaxSparse(tar, chain.pax, chain.memberRecords, h, &state.sparse))) {
        return err;
    }
    if (!validSparseMap(state.sparse, h->real_size, h->size)) {
        tar->error_offset = at;
        return MTAR_EBADHEADER;
    }
    // The file ends where its last stretch ends (a file that ends in a hole
    // has a last stretch of no data there), as GNU tar extracts it.
    h->real_size = state.sparse.empty() ? 0 : state.sparse.back().offset + state.sparse.back().size;
    h->sparse_count = state.sparse.size();
    return MTAR_ESUCCESS;
}

// Reads the member header at the current position and the extended header
// records that precede it; the stream ends up after the last record read.
int readHeaderChain(mtar_t *tar, mtar_header_t *h)
{
    State &state = stateOf(tar);
    state.sparse.clear();
    const uint64_t start = tar->offset;
    Chain chain;
    chain.pax = state.globals;
    unsigned char record[kRecordSize];
    for (;;) {
        uint64_t size = 0;
        int err = readRecord(tar, start, record, &size);
        if (err)
            return err;
        const unsigned char type = record[kTypeOffset];
        if (isExtendedType(type)) {
            if ((err = readExtended(tar, state, type, size, &chain)))
                return err;
            continue;
        }
        if ((err = readMemberHeader(tar, record, size, chain, h)))
            return err;
        const bool sparse =
            type == MTAR_TGNU_SPARSE || (hasSparseRecords(chain.pax) && (type == MTAR_TREG || type == '\0'));
        return sparse ? readSparseMember(tar, state, record, chain, h) : MTAR_ESUCCESS;
    }
}

// Where a header field that does not fit goes: sizes from 8 GiB on in
// base-256, the other numbers are dropped to what their field holds.
void writeNumber(unsigned char *record, Field field, uint64_t value)
{
    char text[32];
    const int length = std::snprintf(text, sizeof text, "%llo", static_cast<unsigned long long>(value));
    if (static_cast<unsigned>(length) < field.size) {
        std::memcpy(record + field.offset, text, static_cast<size_t>(length));
        return;
    }
    record[field.offset] = 0x80;
    for (unsigned i = field.size - 1; i > 0; --i, value >>= 8)
        record[field.offset + i] = static_cast<unsigned char>(value & 0xff);
}

void copyText(unsigned char *record, Field field, const char *text)
{
    std::memcpy(record + field.offset, text, strnlen(text, field.size));
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

void sealRecord(unsigned char *record)
{
    char text[kChecksumSize];
    std::snprintf(text, sizeof text, "%06o", checksum(record));
    std::memcpy(record + kChecksumOffset, text, 7);
    record[kChecksumOffset + 7] = ' ';
}

// A GNU long-name ('L') or long-link ('K') record and its data.
int writeLongRecord(mtar_t *tar, char type, const char *text)
{
    unsigned char record[kRecordSize];
    std::memset(record, 0, sizeof record);
    const size_t length = std::strlen(text) + 1;
    copyText(record, kName, "././@LongLink");
    writeNumber(record, kMode, 0644);
    writeNumber(record, kOwner, 0);
    writeNumber(record, kSize, length);
    writeNumber(record, kMtime, 0);
    record[kTypeOffset] = static_cast<unsigned char>(type);
    std::memcpy(record + kMagic.offset, kGnuMagic, 8);
    sealRecord(record);
    int err = twrite(tar, record, kRecordSize);
    if (err)
        return err;
    for (size_t done = 0; done < length; done += kRecordSize) {
        unsigned char block[kRecordSize];
        std::memset(block, 0, sizeof block);
        std::memcpy(block, text + done, std::min<size_t>(kRecordSize, length - done));
        if ((err = twrite(tar, block, kRecordSize)))
            return err;
    }
    return MTAR_ESUCCESS;
}

// Where a long name splits into a ustar prefix and name: the position of
// the '/' between them, or 0 when no split fits.
size_t prefixSplit(const char *name, size_t length)
{
    for (size_t i = 1; i < length && i <= kPrefix.size; ++i) {
        if (name[i] == '/' && length - i - 1 <= kName.size && length - i - 1 > 0)
            return i;
    }
    return 0;
}

int writeNamedHeader(mtar_t *tar, const char *name, uint64_t size, uint32_t type, uint32_t mode)
{
    if (std::strlen(name) > MTAR_NAME_MAX)
        return MTAR_ENAMETOOLONG;
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
    case MTAR_ETRUNCATED: return "truncated archive";
    case MTAR_EBADHEADER: return "bad header";
    case MTAR_ENAMETOOLONG: return "name too long";
    case MTAR_EUNSUPPORTED: return "unsupported member";
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
        // An empty file is no archive; one that starts with a null record is
        // an archive without members.
        mtar_header_t *h = new mtar_header_t;
        int err = mtar_read_header(tar, h);
        delete h;
        if (err == MTAR_ENULLRECORD) {
            unsigned char first;
            err = tread(tar, &first, 1) == MTAR_ESUCCESS ? MTAR_ESUCCESS : MTAR_EREADFAIL;
            mtar_seek(tar, 0);
        }
        if (err) {
            mtar_close(tar);
            return err;
        }
    }
    return MTAR_ESUCCESS;
}

int mtar_close(mtar_t *tar)
{
    delete static_cast<State *>(tar->state);
    tar->state = nullptr;
    return tar->close(tar);
}

int mtar_seek(mtar_t *tar, uint64_t pos)
{
    const int err = tar->seek(tar, pos);
    tar->offset = pos;
    return err;
}

int mtar_rewind(mtar_t *tar)
{
    tar->remaining = 0;
    if (tar->state)
        stateOf(tar).globals.clear();
    return mtar_seek(tar, 0);
}

int mtar_read_header(mtar_t *tar, mtar_header_t *h)
{
    const uint64_t start = tar->offset;
    tar->header_offset = start;
    const int err = readHeaderChain(tar, h);
    // A header read never moves the stream.
    const int seekErr = mtar_seek(tar, start);
    return err ? err : seekErr;
}

const mtar_sparse_t *mtar_sparse_map(mtar_t *tar, uint64_t *count)
{
    const State &state = stateOf(tar);
    *count = state.sparse.size();
    return state.sparse.data();
}

int mtar_next(mtar_t *tar)
{
    mtar_header_t *h = new mtar_header_t;
    int err = mtar_read_header(tar, h);
    if (!err)
        err = mtar_seek(tar, h->data_offset + roundUpToRecord(h->size));
    delete h;
    return err;
}

int mtar_find(mtar_t *tar, const char *name, mtar_header_t *h)
{
    int err = mtar_rewind(tar);
    if (err)
        return err;
    mtar_header_t *header = new mtar_header_t;
    while ((err = mtar_read_header(tar, header)) == MTAR_ESUCCESS) {
        if (std::strcmp(header->name, name) == 0) {
            if (h)
                *h = *header;
            break;
        }
        err = mtar_next(tar);
        if (err)
            break;
    }
    delete header;
    return err == MTAR_ENULLRECORD ? MTAR_ENOTFOUND : err;
}

int mtar_read_data(mtar_t *tar, void *ptr, uint32_t size)
{
    if (tar->remaining == 0) {
        mtar_header_t *h = new mtar_header_t;
        int err = mtar_read_header(tar, h);
        const uint64_t dataOffset = h->data_offset, dataSize = h->size;
        delete h;
        if (err)
            return err;
        err = mtar_seek(tar, dataOffset);
        if (err)
            return err;
        tar->remaining = dataSize;
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
    writeNumber(record, kMode, h->mode);
    writeNumber(record, kOwner, h->owner);
    writeNumber(record, kSize, h->size);
    writeNumber(record, kMtime, uint64_t(std::max<int64_t>(h->mtime, 0)));
    record[kTypeOffset] = static_cast<unsigned char>(h->type ? h->type : uint32_t(MTAR_TREG));

    // Long names: a ustar prefix where the name splits into one, otherwise
    // a GNU long-name record, which GNU tar and other readers understand.
    const size_t nameLength = strnlen(h->name, sizeof h->name);
    const size_t linkLength = strnlen(h->linkname, sizeof h->linkname);
    if (nameLength > MTAR_NAME_MAX || linkLength > MTAR_NAME_MAX)
        return MTAR_ENAMETOOLONG;
    const size_t split = nameLength > kName.size ? prefixSplit(h->name, nameLength) : 0;
    int err = MTAR_ESUCCESS;
    if (split) {
        std::memcpy(record + kPrefix.offset, h->name, split);
        copyText(record, kName, h->name + split + 1);
        std::memcpy(record + kMagic.offset, kUstarMagic, 8);
    } else {
        copyText(record, kName, h->name);
    }
    if (nameLength > kName.size && !split && (err = writeLongRecord(tar, 'L', h->name)))
        return err;
    if (linkLength > kLinkname.size && (err = writeLongRecord(tar, 'K', h->linkname)))
        return err;
    if ((nameLength > kName.size && !split) || linkLength > kLinkname.size)
        std::memcpy(record + kMagic.offset, kGnuMagic, 8);
    copyText(record, kLinkname, h->linkname);
    sealRecord(record);

    tar->remaining = h->size;
    return twrite(tar, record, kRecordSize);
}

int mtar_write_file_header(mtar_t *tar, const char *name, uint64_t size)
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
        return writeNullBytes(tar, uint32_t((kRecordSize - tar->offset % kRecordSize) % kRecordSize));
    return MTAR_ESUCCESS;
}

int mtar_finalize(mtar_t *tar)
{
    return writeNullBytes(tar, kRecordSize * 2);
}
