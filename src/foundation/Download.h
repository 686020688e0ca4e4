#pragma once

#include "halvistromcore_export.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <functional>

/// Fetching from http(s) addresses. A file is fetched into place through a
/// ".part" file beside it that outlives an interruption (a kill, a dropped
/// connection, a time-out) and is resumed with a range request when the
/// server allows it; its sha-256 is computed as the bytes arrive and checked
/// before the file takes its name. Two programs fetching the same file share
/// one download: the second waits for the first. Calls wait in a local event
/// loop on the calling thread, which needs no event loop of its own running.
class HALVISTROM_CORE_EXPORT Download
{
public:
    struct Options {
        /// A PEM file of certificate authorities trusted beside the
        /// system's (a private mirror's); none when empty.
        QString caFile;
        /// A transfer that receives nothing for this long is abandoned.
        int stallTimeoutMs = 30000;
        /// Redirects followed before the address is refused.
        int maxRedirects = 5;
        /// Added to the message of a TLS connection that fails: where the
        /// user names a certificate authority.
        QString tlsHint;
    };
    /// What to fetch and where it goes.
    struct File {
        QUrl url;
        QString target;
        /// The size the file must have; -1 when unknown.
        qint64 size = -1;
        /// The sha-256 (hex) the file must have; not checked when empty.
        QString sha256;
    };
    /// Told as bytes arrive: how many the file has of total (-1 when unknown).
    using Progress = std::function<void(qint64 done, qint64 total)>;
    /// Asked several times a second; true ends the download, keeping what
    /// arrived for a later one to resume from.
    using Cancelled = std::function<bool()>;

    struct Result {
        enum class Outcome { Done, Cancelled, Failed };
        Outcome outcome = Outcome::Failed;
        /// Why it failed or what was kept, naming the address or file.
        QString error;
        /// The file's sha-256; empty when another program fetched it.
        QString sha256;
        qint64 size = 0;
        /// Bytes that an earlier, interrupted download had fetched.
        qint64 resumedFrom = 0;
        /// Bytes received over the network by this call.
        qint64 fetched = 0;
        /// The file was there when the call began, or another program
        /// fetched it while this one waited.
        bool alreadyThere = false;
    };

    /// Fetches file.url to file.target, refusing a server that sends more
    /// than file.size or a file whose size or checksum is not the declared
    /// one (its partial file is then removed).
    static Result fetchFile(const File &file, const Options &options, const Progress &progress = {},
                            const Cancelled &cancelled = {});
    /// The whole document at url (http, https or file), at most maxBytes;
    /// empty with *error set on failure.
    static QByteArray fetch(const QUrl &url, qint64 maxBytes, const Options &options, QString *error);
    /// Where the bytes of target gather until they are complete and checked.
    static QString partPath(const QString &target);
};
