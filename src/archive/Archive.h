#pragma once

#include "halvistromcore_export.h"

#include <QString>

/// Extraction of tar archives (OS images arrive as OVA files, which are tar
/// archives) into a directory, refusing every entry that would land outside
/// it.
class HALVISTROM_CORE_EXPORT Archive
{
public:
    /// The outcome of an extraction; only Success (0) is a success.
    enum Result {
        Success = 0,
        TarNotReadable = 1,
        OpenFailed = 2,
        ReadDataFailed = 3,
        NextRecordFailed = 4,
        CloseFailed = 5,
        OutputOpenFailed = 6,
        OutputFlushFailed = 7,
        PathEscape = 8,
        CreateDirectoryFailed = 9,
        OutputWriteFailed = 11,
        NameNotUtf8 = 12
    };

    /// Unpacks the archive at tarPath into destDir, creating destDir when
    /// needed. Regular files (sparse ones too) and directories are extracted,
    /// with the parent directories they need; links, devices, FIFOs and
    /// unknown types are skipped with a warning. An entry with an absolute
    /// name or one leading out of destDir stops the extraction with
    /// PathEscape, a name that is not UTF-8 with NameNotUtf8. A truncated or
    /// corrupt archive is an error naming the member and the byte position,
    /// never a success. Files extracted before a failure stay in place.
    /// Memory use does not depend on entry size.
    static Result untar(const QString &tarPath, const QString &destDir);

    /// True only for Success.
    static bool isOk(Result result);
};
