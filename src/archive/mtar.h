#pragma once

#include "halvistromcore_export.h"

#include <cstdint>

// A small tar reader and writer over a stream descriptor with four I/O
// operations. Archives use the POSIX ustar header record; positions are
// 32-bit, so entries and archives are limited to 4 GiB. Every function
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
    MTAR_ENOTFOUND = -8
};

/// Entry types, as stored in the header's type byte.
enum {
    MTAR_TREG = '0',
    MTAR_TLNK = '1',
    MTAR_TSYM = '2',
    MTAR_TCHR = '3',
    MTAR_TBLK = '4',
    MTAR_TDIR = '5',
    MTAR_TFIFO = '6'
};

/// An entry header. name and linkname hold up to 100 bytes and are not
/// NUL-terminated when they use all of them.
struct mtar_header_t {
    uint32_t mode;
    uint32_t owner;
    uint32_t size;
    uint32_t mtime;
    uint32_t type;
    char name[100];
    char linkname[100];
};

struct mtar_t;

/// A tar stream: the four operations, the stream handle (a FILE* for file
/// archives) and the positions the reader and writer keep.
struct mtar_t {
    int (*read)(mtar_t *tar, void *data, uint32_t size);
    int (*write)(mtar_t *tar, const void *data, uint32_t size);
    int (*seek)(mtar_t *tar, uint32_t pos);
    int (*close)(mtar_t *tar);
    void *stream;
    uint32_t offset;
    uint32_t remaining;
    uint32_t header_offset;
};

/// The text for an error code; "unknown error" for codes outside the table.
HALVISTROM_CORE_EXPORT const char *mtar_strerror(int err);

/// Opens a file archive. A mode containing 'r' reads and validates the first
/// header; 'w' creates or truncates; 'a' appends.
HALVISTROM_CORE_EXPORT int mtar_open(mtar_t *tar, const char *filename, const char *mode);
HALVISTROM_CORE_EXPORT int mtar_close(mtar_t *tar);

/// Moves to an absolute position; offset follows even when the seek fails.
HALVISTROM_CORE_EXPORT int mtar_seek(mtar_t *tar, uint32_t pos);
HALVISTROM_CORE_EXPORT int mtar_rewind(mtar_t *tar);
/// Reads the header at the current record without moving the stream.
/// MTAR_ENULLRECORD marks the end of the archive.
HALVISTROM_CORE_EXPORT int mtar_read_header(mtar_t *tar, mtar_header_t *h);
/// Steps past the current entry's header and data.
HALVISTROM_CORE_EXPORT int mtar_next(mtar_t *tar);
/// Finds the entry with exactly this name from the start of the archive;
/// h, when given, receives its header.
HALVISTROM_CORE_EXPORT int mtar_find(mtar_t *tar, const char *name, mtar_header_t *h);
/// Reads the next size bytes of the current entry's data. Asking for more
/// than the entry has left fails with MTAR_EFAILURE.
HALVISTROM_CORE_EXPORT int mtar_read_data(mtar_t *tar, void *ptr, uint32_t size);

/// Writes a header record; the entry's data must follow with mtar_write_data.
HALVISTROM_CORE_EXPORT int mtar_write_header(mtar_t *tar, const mtar_header_t *h);
/// A regular file entry, mode 0664. A name longer than 100 bytes does not fit
/// the record and fails with MTAR_EFAILURE.
HALVISTROM_CORE_EXPORT int mtar_write_file_header(mtar_t *tar, const char *name, uint32_t size);
/// A directory entry, mode 0775. Names longer than 100 bytes fail as above.
HALVISTROM_CORE_EXPORT int mtar_write_dir_header(mtar_t *tar, const char *name);
/// Writes entry data; once the entry is complete, pads it to a whole record.
/// Writing more than the header announced fails with MTAR_EFAILURE.
HALVISTROM_CORE_EXPORT int mtar_write_data(mtar_t *tar, const void *data, uint32_t size);
/// Writes the two null records that end an archive.
HALVISTROM_CORE_EXPORT int mtar_finalize(mtar_t *tar);
