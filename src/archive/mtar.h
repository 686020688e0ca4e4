#pragma once

#include "halvistromcore_export.h"

#include <cstdint>

// A small tar reader and writer over a stream descriptor with four I/O
// operations. Positions and sizes are 64-bit. The reader understands the
// ustar, GNU and pax headers that real archivers write: sizes in octal, in
// GNU base-256 or from a pax "size" record; names from the ustar prefix
// field, GNU long-name records or pax "path"; pax global records; GNU sparse
// members (old GNU format and pax formats 0.0, 0.1 and 1.0). Every function
// returns one of the mtar error codes unless said otherwise.

/// Error codes returned by the mtar functions.
enum {
    MTAR_ESUCCESS = 0,
    MTAR_EFAILURE = -1,
    MTAR_EOPENFAIL = -2,
    MTAR_EREADFAIL = -3,
    MTAR_EWRITEFAIL = -4,
    MTAR_ESEEKFAIL = -5,
    MTAR_EBADCHKSUM = -6,
    MTAR_ENULLRECORD = -7,
    MTAR_ENOTFOUND = -8,
    /// The archive ends inside a header or a member's data.
    MTAR_ETRUNCATED = -9,
    /// A header field or an extended header record that cannot be read.
    MTAR_EBADHEADER = -10,
    /// A name or link name longer than MTAR_NAME_MAX bytes.
    MTAR_ENAMETOOLONG = -11,
    /// A member the reader cannot represent (an unknown sparse format).
    MTAR_EUNSUPPORTED = -12
};

/// Entry types, as stored in the header's type byte.
enum {
    MTAR_TREG = '0',
    MTAR_TLNK = '1',
    MTAR_TSYM = '2',
    MTAR_TCHR = '3',
    MTAR_TBLK = '4',
    MTAR_TDIR = '5',
    MTAR_TFIFO = '6',
    /// A contiguous file: a regular file for every reader but its origin.
    MTAR_TCONT = '7',
    /// An old GNU sparse member; mtar_read_header reports it as MTAR_TREG
    /// with its sparse map.
    MTAR_TGNU_SPARSE = 'S'
};

/// Longest name or link name the reader accepts, in bytes.
#define MTAR_NAME_MAX 4096

/// An entry header as the reader resolves it from its records. name and
/// linkname are NUL-terminated.
struct mtar_header_t {
    uint32_t mode;
    uint32_t owner;
    /// Bytes of data the member holds in the archive.
    uint64_t size;
    int64_t mtime;
    uint32_t type;
    char name[MTAR_NAME_MAX + 1];
    char linkname[MTAR_NAME_MAX + 1];
    /// Position of the member's first data byte.
    uint64_t data_offset;
    /// Size of the file the member stands for: size, unless it is sparse;
    /// then the end of its last stretch, as GNU tar extracts it.
    uint64_t real_size;
    /// Number of sparse map entries (mtar_sparse_map); 0 for a member whose
    /// data is the file's content as it is.
    uint64_t sparse_count;
};

/// One stretch of a sparse member's data: size bytes of the archive data
/// belong at offset in the file; everything between stretches is a hole.
struct mtar_sparse_t {
    uint64_t offset;
    uint64_t size;
};

struct mtar_t;

/// A tar stream: the four operations, the stream handle (a FILE* for file
/// archives) and the positions the reader and writer keep.
struct mtar_t {
    int (*read)(mtar_t *tar, void *data, uint32_t size);
    int (*write)(mtar_t *tar, const void *data, uint32_t size);
    int (*seek)(mtar_t *tar, uint64_t pos);
    int (*close)(mtar_t *tar);
    void *stream;
    uint64_t offset;
    uint64_t remaining;
    /// Position of the first record of the last header read (the first of
    /// its extended header records, if it has any).
    uint64_t header_offset;
    /// Where the last failure was found: for MTAR_ETRUNCATED the end of the
    /// archive, for a bad header the position of the record at fault.
    uint64_t error_offset;
    /// Reader state across headers (pax global records, the sparse map);
    /// owned by the descriptor and freed by mtar_close.
    void *state;
};

/// The text for an error code; "unknown error" for codes outside the table.
HALVISTROM_CORE_EXPORT const char *mtar_strerror(int err);

/// Opens a file archive. A mode containing 'r' reads and validates the first
/// header (an archive that starts with a null record has no members and is
/// valid); 'w' creates or truncates; 'a' appends.
HALVISTROM_CORE_EXPORT int mtar_open(mtar_t *tar, const char *filename, const char *mode);
HALVISTROM_CORE_EXPORT int mtar_close(mtar_t *tar);

/// Moves to an absolute position; offset follows even when the seek fails.
HALVISTROM_CORE_EXPORT int mtar_seek(mtar_t *tar, uint64_t pos);
HALVISTROM_CORE_EXPORT int mtar_rewind(mtar_t *tar);
/// Reads the member header at the current position, with the extended
/// header records before it, without moving the stream. MTAR_ENULLRECORD
/// marks the end of the archive: a record of zeros, or the end of the file
/// exactly where a header would start.
HALVISTROM_CORE_EXPORT int mtar_read_header(mtar_t *tar, mtar_header_t *h);
/// The sparse map of the last header read; count entries, in file order.
HALVISTROM_CORE_EXPORT const mtar_sparse_t *mtar_sparse_map(mtar_t *tar, uint64_t *count);
/// Steps past the current entry's header and data.
HALVISTROM_CORE_EXPORT int mtar_next(mtar_t *tar);
/// Finds the entry with exactly this name from the start of the archive;
/// h, when given, receives its header.
HALVISTROM_CORE_EXPORT int mtar_find(mtar_t *tar, const char *name, mtar_header_t *h);
/// Reads the next size bytes of the current entry's data. Asking for more
/// than the entry has left fails with MTAR_EFAILURE.
HALVISTROM_CORE_EXPORT int mtar_read_data(mtar_t *tar, void *ptr, uint32_t size);

/// Writes a header record; the entry's data must follow with mtar_write_data.
/// A name over 100 bytes goes into the ustar prefix field when it splits at
/// a '/' into at most 155 and 100 bytes, otherwise into a GNU long-name
/// record before the header; sizes from 8 GiB on are written in base-256.
HALVISTROM_CORE_EXPORT int mtar_write_header(mtar_t *tar, const mtar_header_t *h);
/// A regular file entry, mode 0664. Names longer than MTAR_NAME_MAX bytes
/// fail with MTAR_ENAMETOOLONG.
HALVISTROM_CORE_EXPORT int mtar_write_file_header(mtar_t *tar, const char *name, uint64_t size);
/// A directory entry, mode 0775. Names are limited as above.
HALVISTROM_CORE_EXPORT int mtar_write_dir_header(mtar_t *tar, const char *name);
/// Writes entry data; once the entry is complete, pads it to a whole record.
/// Writing more than the header announced fails with MTAR_EFAILURE.
HALVISTROM_CORE_EXPORT int mtar_write_data(mtar_t *tar, const void *data, uint32_t size);
/// Writes the two null records that end an archive.
HALVISTROM_CORE_EXPORT int mtar_finalize(mtar_t *tar);
