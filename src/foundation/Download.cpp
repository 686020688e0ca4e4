#include "Download.h"

#include "FileUtils.h"
#include "LockFiles.h"
#include "Logging_p.h"
#include "Sha256.h"
#include "TriggerError.h"

#include <QDebug>
#include <QEventLoop>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QStorageInfo>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

using Result = Download::Result;

/// How often a download begun anew after a dropped connection tries again,
/// as long as each try brings bytes.
constexpr int kAttempts = 3;
constexpr int kPollMs = 100;
/// The bytes a reply holds in memory before the socket waits for them to be written.
constexpr qint64 kReadBuffer = 8 << 20;
/// Written data is handed to the disk every this many bytes, so that the
/// flush before the rename has little left to do.
constexpr qint64 kWriteBackChunk = 32 << 20;

QString mib(qint64 bytes)
{
    return QString::number(double(bytes) / (1 << 20), 'f', 1) + QStringLiteral(" MiB");
}

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

bool isWebUrl(const QUrl &url)
{
    return url.isValid() && (url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https"));
}

/// The request for url: redirects followed within the limit, never from
/// https to http, and the extra certificate authorities trusted.
bool makeRequest(const QUrl &url, const Download::Options &options, QNetworkRequest *request, QString *error)
{
    *request = QNetworkRequest(url);
    request->setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request->setMaximumRedirectsAllowed(options.maxRedirects);
    request->setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("halvistrom-core"));
    // The bytes as they are stored: their size and checksum are the file's.
    request->setRawHeader("Accept-Encoding", "identity");
    if (options.caFile.isEmpty() || url.scheme() != QLatin1String("https"))
        return true;
    const QList<QSslCertificate> extra = QSslCertificate::fromPath(options.caFile, QSsl::Pem);
    if (extra.isEmpty()) {
        *error = QStringLiteral("the CA file '%1' holds no certificate").arg(options.caFile);
        return false;
    }
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setCaCertificates(tls.caCertificates() + extra);
    request->setSslConfiguration(tls);
    return true;
}

/// Why the reply failed, in the user's terms.
QString replyError(QNetworkReply *reply, const Download::Options &options)
{
    const QString url = reply->request().url().toString();
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status >= 400)
        return QStringLiteral("the server answered %1 %2 for '%3'")
            .arg(status)
            .arg(reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString(), url);
    switch (reply->error()) {
    case QNetworkReply::TooManyRedirectsError:
        return QStringLiteral("'%1' redirects more than %2 times").arg(url).arg(options.maxRedirects);
    case QNetworkReply::InsecureRedirectError:
        return QStringLiteral("'%1' redirects from https to an insecure address").arg(url);
    case QNetworkReply::SslHandshakeFailedError:
        return QStringLiteral("the TLS connection for '%1' failed: %2%3")
            .arg(url, reply->errorString(), options.tlsHint);
    default:
        return QStringLiteral("could not fetch '%1': %2").arg(url, reply->errorString());
    }
}

/// Ends a wait in a local event loop: after the stall time-out without
/// data, and when the caller cancels.
class Watch
{
public:
    Watch(QEventLoop *loop, int stallMs, const Download::Cancelled &cancelled)
    {
        m_stall.setSingleShot(true);
        m_stall.setInterval(stallMs);
        QObject::connect(&m_stall, &QTimer::timeout, loop, [this, loop] {
            m_stalled = true;
            loop->quit();
        });
        m_poll.setInterval(kPollMs);
        QObject::connect(&m_poll, &QTimer::timeout, loop, [this, loop, cancelled] {
            if (cancelled && cancelled()) {
                m_cancelled = true;
                loop->quit();
            }
        });
        m_stall.start();
        m_poll.start();
    }
    void alive() { m_stall.start(); }
    bool stalled() const { return m_stalled; }
    bool cancelled() const { return m_cancelled; }
    int stallSeconds() const { return m_stall.interval() / 1000; }

private:
    QTimer m_stall;
    QTimer m_poll;
    bool m_stalled = false;
    bool m_cancelled = false;
};

/// The ".part" file: the bytes so far and their running checksum.
class PartFile
{
public:
    ~PartFile()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    bool open(const QString &path, QString *error)
    {
        m_path = path;
        m_fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (m_fd < 0) {
            *error = QStringLiteral("could not open '%1': %2").arg(path, systemError(errno));
            return false;
        }
        m_size = ::lseek(m_fd, 0, SEEK_END);
        return m_size >= 0;
    }
    /// Hashes what an earlier download left, so the checksum stays one pass.
    bool hashExisting(QString *error)
    {
        QByteArray buffer(1 << 20, Qt::Uninitialized);
        qint64 offset = 0;
        while (offset < m_size) {
            const size_t want = size_t(qMin<qint64>(buffer.size(), m_size - offset));
            const ssize_t n = ::pread(m_fd, buffer.data(), want, offset);
            if (n <= 0) {
                *error = QStringLiteral("could not read '%1': %2").arg(m_path, systemError(n < 0 ? errno : EIO));
                return false;
            }
            m_hash.addData(buffer.constData(), n);
            offset += n;
        }
        m_synced = m_size;
        return true;
    }
    bool restart()
    {
        m_hash.reset();
        m_size = m_synced = 0;
        return ::ftruncate(m_fd, 0) == 0 && ::lseek(m_fd, 0, SEEK_SET) == 0;
    }
    bool append(const char *data, qint64 size, QString *error);
    /// Flushes the file and gives it the name target, which must not exist.
    bool finish(const QString &target, QString *error);
    void remove() { ::unlink(QFile::encodeName(m_path).constData()); }
    qint64 size() const { return m_size; }
    QString checksum() { return m_hash.hexResult(); }
    /// What a broken transfer would have made of the checksum.
    void corrupt() { m_hash.addData("\0", 1); }

private:
    QString m_path;
    int m_fd = -1;
    qint64 m_size = 0;
    qint64 m_synced = 0;
    Sha256 m_hash;
};

bool PartFile::append(const char *data, qint64 size, QString *error)
{
    for (qint64 done = 0; done < size;) {
        const ssize_t n = ::write(m_fd, data + done, size_t(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            *error = QStringLiteral("could not write '%1': %2").arg(m_path, systemError(errno));
            return false;
        }
        done += n;
    }
    m_hash.addData(data, size);
    m_size += size;
    if (m_size - m_synced >= kWriteBackChunk) {
        ::sync_file_range(m_fd, m_synced, m_size - m_synced, SYNC_FILE_RANGE_WRITE);
        m_synced = m_size;
    }
    return true;
}

bool PartFile::finish(const QString &target, QString *error)
{
    const bool synced = ::fsync(m_fd) == 0;
    const int syncError = errno;
    ::close(m_fd);
    m_fd = -1;
    if (!synced) {
        *error = QStringLiteral("could not write '%1': %2").arg(m_path, systemError(syncError));
        return false;
    }
    if (::renameat2(AT_FDCWD, QFile::encodeName(m_path).constData(), AT_FDCWD,
                    QFile::encodeName(target).constData(), RENAME_NOREPLACE) != 0) {
        *error = QStringLiteral("could not rename '%1' to '%2': %3").arg(m_path, target, systemError(errno));
        return false;
    }
    if (!FileUtils::flushToDisk(QFileInfo(target).absolutePath()))
        qCWarning(hvFoundationLog) << "Downloaded" << target << "but failed to flush its directory:"
                                   << std::strerror(errno);
    return true;
}

/// What lets a later download resume this one: the address, and what the
/// server said identifies the file's version. Kept beside the part file.
struct Resume {
    QString url;
    QString validator;

    static QString path(const QString &target) { return Download::partPath(target) + QStringLiteral(".json"); }
    static Resume load(const QString &target)
    {
        if (!QFileInfo::exists(path(target)))
            return {};
        const QJsonObject object = QJsonDocument::fromJson(FileUtils::loadFile(path(target))).object();
        return {object.value(QStringLiteral("url")).toString(), object.value(QStringLiteral("validator")).toString()};
    }
    bool save(const QString &target) const
    {
        return FileUtils::saveFile(path(target),
                                   QJsonDocument(QJsonObject{{"url", url}, {"validator", validator}}).toJson());
    }
};

/// How one request over the part file ended.
enum class End { Complete, Lost, Stalled, Cancelled, Failed, Refused };

/// One request that appends to the part file, from where it stops.
class Transfer
{
public:
    Transfer(const Download::File &file, const Download::Options &options, PartFile *part, Resume *resume,
             Result *result)
        : m_file(file), m_options(options), m_part(part), m_resume(resume), m_result(result)
    {
    }
    End run(const Download::Progress &progress, const Download::Cancelled &cancelled);
    QString error() const { return m_error; }

private:
    bool onHeaders();
    bool checkSize(qint64 serverTotal);
    bool onData(const Download::Progress &progress);
    void restartPart()
    {
        m_part->restart();
        m_result->resumedFrom = 0;
    }
    void stop(End end, const QString &error)
    {
        m_ended = true;
        m_end = end;
        m_error = error;
        m_loop.quit();
    }
    End finished();

    const Download::File &m_file;
    const Download::Options &m_options;
    PartFile *m_part;
    Resume *m_resume;
    Result *m_result;
    QNetworkReply *m_reply = nullptr;
    QEventLoop m_loop;
    End m_end = End::Complete;
    bool m_ended = false;
    bool m_headers = false;
    qint64 m_total = -1;
    QString m_error;
};

End Transfer::run(const Download::Progress &progress, const Download::Cancelled &cancelled)
{
    QNetworkRequest request;
    if (!makeRequest(m_file.url, m_options, &request, &m_error))
        return End::Failed;
    if (m_part->size() > 0) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(m_part->size()) + '-');
        request.setRawHeader("If-Range", m_resume->validator.toUtf8());
    }
    QNetworkAccessManager manager;
    m_reply = manager.get(request);
    m_reply->setReadBufferSize(kReadBuffer);
    Watch watch(&m_loop, m_options.stallTimeoutMs, cancelled);
    QObject::connect(m_reply, &QNetworkReply::readyRead, &m_loop, [&] {
        watch.alive();
        if (!m_ended && (m_headers || onHeaders()))
            onData(progress);
    });
    QObject::connect(m_reply, &QNetworkReply::finished, &m_loop, [&] {
        const bool answered = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
        if (!m_ended && answered && (m_headers || onHeaders()))
            onData(progress);
        if (!m_ended)
            stop(finished(), m_error);
    });
    m_loop.exec();
    if (!m_ended && watch.stalled())
        stop(End::Stalled, QStringLiteral("nothing arrived from '%1' for %2 s")
                               .arg(m_file.url.toString())
                               .arg(watch.stallSeconds()));
    else if (!m_ended && watch.cancelled())
        stop(End::Cancelled, QStringLiteral("the download of '%1' was cancelled").arg(m_file.url.toString()));
    m_ended = true;
    m_reply->abort();
    delete m_reply;
    return m_end;
}

/// Checks the answer before its first bytes are kept: the status, where a
/// resumed answer starts, the size the server gives and the free space.
bool Transfer::onHeaders()
{
    m_headers = true;
    const int status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status == 416 && m_part->size() > 0) {
        // What the part holds is not a beginning of the file the server has
        // now (it has shrunk, or the part is whole but was never renamed).
        restartPart();
        stop(End::Lost, QStringLiteral("the server cannot resume '%1'").arg(m_file.url.toString()));
        return false;
    }
    if (status >= 300) {
        stop(End::Failed, replyError(m_reply, m_options));
        return false;
    }
    static const QRegularExpression range(QStringLiteral("^bytes (\\d+)-\\d+/(\\d+)$"));
    const QRegularExpressionMatch match = range.match(QString::fromLatin1(m_reply->rawHeader("Content-Range")));
    if (status == 206 && (!match.hasMatch() || match.captured(1).toLongLong() != m_part->size())) {
        restartPart();
        stop(End::Lost, QStringLiteral("'%1' resumed at another byte than asked").arg(m_file.url.toString()));
        return false;
    }
    if (status != 206 && m_part->size() > 0) {
        // The server sends the whole file: it cannot resume, or the file changed.
        qCInfo(hvFoundationLog) << "The server sends" << m_file.url.toString() << "from its start";
        restartPart();
    }
    if (m_part->size() == 0) {
        // A weak tag does not promise the same bytes; the date is the next best.
        const QByteArray etag = m_reply->rawHeader("ETag");
        const bool strong = !etag.isEmpty() && !etag.startsWith("W/");
        *m_resume = {m_file.url.toString(), QString::fromLatin1(strong ? etag : m_reply->rawHeader("Last-Modified"))};
        m_resume->save(m_file.target);
    }
    const qint64 length = m_reply->header(QNetworkRequest::ContentLengthHeader).isValid()
        ? m_part->size() + m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong()
        : -1;
    return checkSize(match.hasMatch() ? match.captured(2).toLongLong() : length);
}

bool Transfer::checkSize(qint64 serverTotal)
{
    m_total = serverTotal;
    if (m_file.size >= 0 && serverTotal >= 0 && serverTotal != m_file.size) {
        stop(End::Refused, QStringLiteral("'%1' is %2 bytes on the server, not the %3 declared")
                               .arg(m_file.url.toString())
                               .arg(serverTotal)
                               .arg(m_file.size));
        return false;
    }
    const qint64 total = m_file.size >= 0 ? m_file.size : serverTotal;
    const QString dir = QFileInfo(m_file.target).absolutePath();
    const qint64 free = QStorageInfo(dir).bytesAvailable();
    if (total >= 0 && free >= 0 && total - m_part->size() > free) {
        stop(End::Failed, QStringLiteral("not enough free space in '%1': '%2' needs %3 more, %4 is free")
                              .arg(dir, QFileInfo(m_file.target).fileName(), mib(total - m_part->size()), mib(free)));
        return false;
    }
    return true;
}

bool Transfer::onData(const Download::Progress &progress)
{
    const qint64 limit = m_file.size >= 0 ? m_file.size : m_total;
    static thread_local QByteArray buffer(1 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 n = m_reply->read(buffer.data(), buffer.size());
        if (n <= 0)
            break;
        if (limit >= 0 && m_part->size() + n > limit) {
            stop(End::Refused, QStringLiteral("the server sent more than the %1 bytes declared for '%2'")
                                   .arg(limit)
                                   .arg(m_file.url.toString()));
            return false;
        }
        QString error;
        if (!m_part->append(buffer.constData(), n, &error)) {
            // A disk that filled up gets its space back at once.
            stop(End::Refused, error);
            return false;
        }
        m_result->fetched += n;
    }
    if (progress)
        progress(m_part->size(), limit);
    return true;
}

/// How the answer ended once the server is done with it.
End Transfer::finished()
{
    const QNetworkReply::NetworkError error = m_reply->error();
    // Without a length from the server, an answer that ends early is one
    // whose connection was cut.
    const qint64 expected = m_total >= 0 ? m_total : m_file.size;
    if (error == QNetworkReply::NoError && (expected < 0 || m_part->size() == expected))
        return End::Complete;
    const qint64 total = m_file.size >= 0 ? m_file.size : m_total;
    const bool lost = error == QNetworkReply::NoError || error == QNetworkReply::RemoteHostClosedError
        || error == QNetworkReply::TemporaryNetworkFailureError || error == QNetworkReply::UnknownNetworkError
        || error == QNetworkReply::ProxyConnectionClosedError;
    if (!lost) {
        m_error = replyError(m_reply, m_options);
        return End::Failed;
    }
    m_error = QStringLiteral("the connection to '%1' ended after %2 of %3")
                  .arg(m_file.url.host(), mib(m_part->size()),
                       total >= 0 ? mib(total) : QStringLiteral("an unknown size"));
    return End::Lost;
}

Result failed(Result result, const QString &error)
{
    result.outcome = Result::Outcome::Failed;
    result.error = error;
    qCInfo(hvFoundationLog).noquote() << "Download failed:" << error;
    return result;
}

/// Waits while another program downloads the same file; false when the
/// caller cancelled or the lock cannot be taken (*result says which).
bool waitForLock(const Download::File &file, LockFiles::CommandLock *lock, const Download::Progress &progress,
                 const Download::Cancelled &cancelled, Result *result)
{
    const QString path = file.target + QStringLiteral(".lock");
    for (int waitMs = 0;; waitMs = kPollMs) {
        switch (lock->acquire(path, QStringLiteral("download of ") + file.url.toString(), waitMs)) {
        case LockFiles::CommandLock::Taken:
            return true;
        case LockFiles::CommandLock::Busy:
            if (waitMs == 0)
                qCInfo(hvFoundationLog) << "Waiting for process" << lock->holder().pid << "which downloads"
                                        << file.target;
            if (progress)
                progress(QFileInfo(Download::partPath(file.target)).size(), file.size);
            break;
        default:
            *result = failed(*result, QStringLiteral("could not lock '%1': %2").arg(path, lock->errorString()));
            return false;
        }
        if (cancelled && cancelled()) {
            result->outcome = Result::Outcome::Cancelled;
            result->error = QStringLiteral("the download of '%1' was cancelled").arg(file.url.toString());
            return false;
        }
    }
}

/// Opens the part file that an earlier download of the same address left,
/// and hashes what it holds; one of another address, or too large, starts
/// again.
bool openPart(const Download::File &file, PartFile *part, Resume *resume, Result *result)
{
    QString error;
    if (!part->open(Download::partPath(file.target), &error)) {
        *result = failed(*result, error);
        return false;
    }
    *resume = Resume::load(file.target);
    const bool usable = resume->url == file.url.toString() && !resume->validator.isEmpty()
        && (file.size < 0 || part->size() <= file.size);
    if (!usable && part->size() > 0)
        part->restart();
    if (!part->hashExisting(&error)) {
        *result = failed(*result, error);
        return false;
    }
    result->resumedFrom = part->size();
    return true;
}

/// Requests until the part file is complete, resuming after a dropped
/// connection that brought bytes.
End transfer(const Download::File &file, const Download::Options &options, PartFile *part, Resume *resume,
             Result *result, const Download::Progress &progress, const Download::Cancelled &cancelled)
{
    for (int attempt = 1;; ++attempt) {
        if (file.size >= 0 && part->size() == file.size)
            return End::Complete;
        const qint64 before = result->fetched;
        const bool resuming = part->size() > 0;
        Transfer request(file, options, part, resume, result);
        const End end = request.run(progress, cancelled);
        result->error = request.error();
        // A try that brought bytes, or dropped a part the server could not
        // resume, is worth another.
        const bool progressed = result->fetched > before || (resuming && part->size() == 0);
        if (end != End::Lost || attempt >= kAttempts || !progressed)
            return end;
        qCInfo(hvFoundationLog).noquote() << result->error << "; trying again";
    }
}

/// Checks the complete part file against the declared size and checksum and
/// gives it its name.
Result complete(const Download::File &file, PartFile *part, Result result)
{
    if (file.size >= 0 && part->size() != file.size) {
        part->remove();
        return failed(result, QStringLiteral("'%1' has %2 bytes, not the %3 declared; the partial file was removed")
                                  .arg(file.url.toString()).arg(part->size()).arg(file.size));
    }
    if (TriggerError::corruptedDownload())
        part->corrupt();
    result.sha256 = part->checksum();
    if (!file.sha256.isEmpty() && file.sha256.compare(result.sha256, Qt::CaseInsensitive) != 0) {
        part->remove();
        return failed(result, QStringLiteral("the download of '%1' has sha-256 %2, not %3 as declared; the partial "
                                             "file was removed")
                                  .arg(file.url.toString(), result.sha256, file.sha256.toLower()));
    }
    QString error;
    if (!part->finish(file.target, &error))
        return failed(result, error);
    result.size = part->size();
    result.outcome = Result::Outcome::Done;
    qCDebug(hvFoundationLog) << "Downloaded" << file.url.toString() << "to" << file.target << "," << result.fetched
                             << "bytes fetched, sha-256" << result.sha256;
    return result;
}

} // namespace

QString Download::partPath(const QString &target)
{
    return target + QStringLiteral(".part");
}

Download::Result Download::fetchFile(const File &file, const Options &options, const Progress &progress,
                                     const Cancelled &cancelled)
{
    Result result;
    if (!isWebUrl(file.url))
        return failed(result, QStringLiteral("'%1' is not an http or https address").arg(file.url.toString()));
    const QString dir = QFileInfo(file.target).absolutePath();
    if (!FileUtils::makeDirectory(dir))
        return failed(result, QStringLiteral("could not make the directory '%1'").arg(dir));
    LockFiles::CommandLock lock;
    if (!waitForLock(file, &lock, progress, cancelled, &result))
        return result;
    if (QFileInfo::exists(file.target)) {
        result.outcome = Result::Outcome::Done;
        result.alreadyThere = true;
        result.size = QFileInfo(file.target).size();
        return result;
    }
    PartFile part;
    Resume resume;
    if (!openPart(file, &part, &resume, &result))
        return result;
    const End end = transfer(file, options, &part, &resume, &result, progress, cancelled);
    if (end == End::Complete) {
        result = complete(file, &part, result);
        if (result.outcome == Result::Outcome::Done || !QFileInfo::exists(partPath(file.target)))
            QFile::remove(Resume::path(file.target));
        return result;
    }
    if (end == End::Refused) {
        part.remove();
        QFile::remove(Resume::path(file.target));
        return failed(result, result.error + QStringLiteral("; the partial file was removed"));
    }
    if (part.size() == 0) {
        part.remove();
        QFile::remove(Resume::path(file.target));
    } else {
        result.error += QStringLiteral("; the %1 fetched so far are kept in '%2' for the next download to resume")
                            .arg(mib(part.size()), partPath(file.target));
    }
    if (end != End::Cancelled)
        return failed(result, result.error);
    result.outcome = Result::Outcome::Cancelled;
    return result;
}

QByteArray Download::fetch(const QUrl &url, qint64 maxBytes, const Options &options, QString *error)
{
    QNetworkRequest request;
    if (!makeRequest(url, options, &request, error))
        return QByteArray();
    QNetworkAccessManager manager;
    QNetworkReply *reply = manager.get(request);
    QEventLoop loop;
    Watch watch(&loop, options.stallTimeoutMs, {});
    QByteArray content;
    QObject::connect(reply, &QNetworkReply::readyRead, &loop, [&] {
        watch.alive();
        content += reply->read(maxBytes + 1 - content.size());
        if (content.size() > maxBytes)
            loop.quit();
    });
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    if (reply->isFinished())
        content += reply->read(maxBytes + 1 - content.size());
    if (content.size() > maxBytes)
        *error = QStringLiteral("'%1' is larger than %2").arg(url.toString(), mib(maxBytes));
    else if (watch.stalled())
        *error = QStringLiteral("nothing arrived from '%1' for %2 s").arg(url.toString()).arg(watch.stallSeconds());
    else if (reply->isFinished() && reply->error() != QNetworkReply::NoError)
        *error = replyError(reply, options);
    else
        error->clear();
    reply->abort();
    delete reply;
    if (!error->isEmpty())
        qCInfo(hvFoundationLog).noquote() << "Download failed:" << *error;
    return error->isEmpty() ? content : QByteArray();
}
