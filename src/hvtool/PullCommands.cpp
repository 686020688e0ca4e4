// hvtool image pull, image available and image add URL: OS images from the
// network, as the library fetches them.
#include "PullCommands.h"

#include "Catalog.h"
#include "Command.h"
#include "Engine.h"
#include "InterruptGuard.h"

#include "OsImageIO.h"
#include "OsImagePull.h"
#include "OsImageRegistry.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <QTextStream>
#include <QUrl>

#include <cstdio>
#include <unistd.h>

namespace hvtool {
namespace {

using Outcome = Download::Result::Outcome;

/// Draws a download on stderr: the part done, the bytes of the total, the
/// rate and the time left; redrawn in place on a terminal (in one short
/// line, so it never wraps), a line every five seconds otherwise.
class DownloadDisplay
{
public:
    explicit DownloadDisplay(const QString &label)
        : m_label(label), m_terminal(::isatty(STDERR_FILENO))
    {
        m_started.start();
    }
    Download::Progress callback()
    {
        return [this](qint64 done, qint64 total) { update(done, total); };
    }
    void finish()
    {
        if (m_drawn)
            std::fprintf(stderr, m_terminal ? "\r%s: done in %.1f s\033[K\n" : "%s: done in %.1f s\n",
                         qPrintable(m_label), m_started.elapsed() / 1000.0);
    }

private:
    void update(qint64 done, qint64 total)
    {
        const qint64 now = m_started.elapsed();
        if (m_drawn && now < m_nextMs)
            return;
        if (!m_drawn) {
            m_first = done;
            m_firstMs = now;
        }
        m_drawn = true;
        m_nextMs = now + (m_terminal ? 200 : 5000);
        const double rate = now - m_firstMs > 500 ? (done - m_first) * 1000.0 / (now - m_firstMs) : 0;
        QString line = m_label + QLatin1Char(':');
        if (total > 0)
            line += QStringLiteral(" %1%, %2 of %3").arg(done * 100 / total).arg(sizeText(done), sizeText(total));
        else
            line += QLatin1Char(' ') + sizeText(done);
        if (rate > 0)
            line += QStringLiteral(", %1/s").arg(sizeText(qint64(rate)));
        if (rate > 0 && total > 0)
            line += QStringLiteral(", %1 s left").arg(qint64((total - done) / rate));
        std::fprintf(stderr, m_terminal ? "\r%s\033[K" : "%s\n", qPrintable(line));
        std::fflush(stderr);
    }

    QString m_label;
    bool m_terminal;
    bool m_drawn = false;
    qint64 m_first = 0;
    qint64 m_firstMs = 0;
    qint64 m_nextMs = 0;
    QElapsedTimer m_started;
};

/// What a finished download says of itself.
QString downloadText(const Download::Result &result, qint64 elapsedMs)
{
    if (result.alreadyThere)
        return QStringLiteral("it was on this machine already");
    QString text = QStringLiteral("%1 in %2 s").arg(sizeText(result.size), QString::number(elapsedMs / 1000.0, 'f', 1));
    if (result.resumedFrom > 0)
        text += QStringLiteral(", resumed at %1").arg(sizeText(result.resumedFrom));
    return text;
}

OsImageRegistry::Inspector inspector(Context &ctx, int *code)
{
    return [&ctx, code](const QString &ova) {
        VMToolsEngine *e = engine(ctx, code);
        return e ? e->inspectOsImage(ova) : QStringLiteral("the engine cannot be used");
    };
}

/// Fetches the OVA of an image that is registered; Success or the exit code
/// of the failure it reported.
int fetchOva(Context &ctx, const OsImage &image, Download::Result *result)
{
    InterruptGuard guard;
    DownloadDisplay display(QStringLiteral("pulling '%1'").arg(image.name));
    *result = OsImagePull::download(image, display.callback(), InterruptGuard::interrupted);
    if (result->outcome != Outcome::Done)
        return ctx.fail(Failed, result->error);
    display.finish();
    return Success;
}

int downloadRegistered(Context &ctx, const OsImage &image)
{
    QElapsedTimer timer;
    timer.start();
    Download::Result result;
    const int code = fetchOva(ctx, image, &result);
    if (code != Success)
        return code;
    return ctx.done(OsImageIO::toJsonObject(image), QStringLiteral("image '%1' is at '%2': %3")
                                                        .arg(image.name, image.getLocalPath(),
                                                             downloadText(result, timer.elapsed())));
}

/// Fetches a new image's OVA and registers the image, or reports why not.
int pullAndRegister(Context &ctx, const std::function<OsImageRegistry::Registration(
                                      const OsImageRegistry::Inspector &, const Download::Progress &,
                                      const Download::Cancelled &, Download::Result *)> &pull, const QString &label)
{
    QElapsedTimer timer;
    timer.start();
    int code = Success;
    InterruptGuard guard;
    DownloadDisplay display(label);
    Download::Result fetched;
    const OsImageRegistry::Registration registration =
        pull(inspector(ctx, &code), display.callback(), InterruptGuard::interrupted, &fetched);
    if (fetched.outcome != Outcome::Done)
        return ctx.fail(Failed, fetched.error);
    display.finish();
    if (code != Success)
        return code;
    if (registration.outcome != OsImageRegistry::Registration::Outcome::Registered)
        return ctx.fail(registration.outcome == OsImageRegistry::Registration::Outcome::AlreadyRegistered ? Conflict
                                                                                                           : Failed,
                        registration.reason);
    const OsImage &image = registration.entry.value;
    return ctx.done(OsImageIO::toJsonObject(image), QStringLiteral("registered image '%1' (%2): %3")
                                                        .arg(image.name, Catalog::bareUuid(image.uuid),
                                                             downloadText(fetched, timer.elapsed())));
}

int pullNew(Context &ctx, const OsImage &image)
{
    if (!OsImageRegistry::find(Catalog::bareUuid(image.uuid)).isEmpty())
        return ctx.fail(Conflict,
                        QStringLiteral("image '%1' is already registered").arg(Catalog::bareUuid(image.uuid)));
    return pullAndRegister(
        ctx,
        [&](const OsImageRegistry::Inspector &inspect, const Download::Progress &progress,
            const Download::Cancelled &cancelled, Download::Result *fetched) {
            return OsImagePull::pull(image, inspect, progress, cancelled, fetched);
        },
        QStringLiteral("pulling '%1'").arg(image.name));
}

/// The catalogue's images id names, by name or uuid.
QList<OsImage> offered(const OsImagePull::Catalogue &catalogue, const QString &id)
{
    QList<OsImage> matches;
    for (const OsImage &image : catalogue.images) {
        if (image.name == id || Catalog::bareUuid(image.uuid) == Catalog::bareUuid(id))
            matches << image;
    }
    return matches;
}

void warnSkipped(Context &ctx, const OsImagePull::Catalogue &catalogue)
{
    for (const QString &warning : catalogue.warnings)
        ctx.note(QStringLiteral("warning: ") + warning);
}

int pull(Context &ctx)
{
    const QString id = ctx.arg(0);
    const QList<Stored<OsImage>> registered = OsImageRegistry::find(id);
    if (!registered.isEmpty()) {
        Stored<OsImage> found;
        const int code = Catalog::findOne(ctx, QStringLiteral("image"), id, registered, &found);
        return code == Success ? downloadRegistered(ctx, found.value) : code;
    }
    const OsImagePull::Catalogue catalogue = OsImagePull::catalogue();
    if (!catalogue.error.isEmpty())
        return ctx.fail(Failed, QStringLiteral("image '%1' is not registered, and the catalogue cannot be read: %2")
                                    .arg(id, catalogue.error));
    warnSkipped(ctx, catalogue);
    const QList<OsImage> matches = offered(catalogue, id);
    if (matches.size() > 1)
        return ctx.fail(Usage, QStringLiteral("image name '%1' is ambiguous in the catalogue; use its uuid").arg(id));
    if (matches.isEmpty())
        return ctx.fail(NotFound, QStringLiteral("image '%1' is neither registered nor in the catalogue at '%2'")
                                      .arg(id, catalogue.url.toString()));
    return pullNew(ctx, matches.first());
}

int available(Context &ctx)
{
    const OsImagePull::Catalogue catalogue = OsImagePull::catalogue();
    if (!catalogue.error.isEmpty())
        return ctx.fail(Failed, catalogue.error);
    warnSkipped(ctx, catalogue);
    QSet<QString> registered;
    for (const Stored<OsImage> &entry : OsImageRegistry::images())
        registered << Catalog::bareUuid(entry.value.uuid);
    Output output{QJsonValue(), {"UUID", "NAME", "ANDROID", "API", "ARCH", "SIZE", "REGISTERED"}, {}, {}};
    QJsonArray array;
    for (const OsImage &image : catalogue.images) {
        const bool known = registered.contains(Catalog::bareUuid(image.uuid));
        QJsonObject object = OsImageIO::toJsonObject(image);
        object.insert(QStringLiteral("registered"), known);
        array.append(object);
        output.rows << QStringList{Catalog::bareUuid(image.uuid), image.name, image.osVersion.toString(),
                                   QString::number(image.sdkVersion), image.arch, sizeText(image.imageSizeBytes),
                                   known ? QStringLiteral("yes") : QStringLiteral("no")};
    }
    output.json = array;
    return ctx.show(output);
}

/// Asks on a terminal whether to fetch the OVA now; never asks otherwise.
bool askToPull(const OsImage &image)
{
    if (!::isatty(STDIN_FILENO) || !::isatty(STDERR_FILENO))
        return false;
    QTextStream err(stderr);
    err << QStringLiteral("the OVA of image '%1' is not on this machine; download it (%2) now? [y/N] ")
               .arg(image.name, sizeText(image.imageSizeBytes));
    err.flush();
    const QString answer = QTextStream(stdin).readLine().trimmed().toLower();
    return answer == QLatin1String("y") || answer == QLatin1String("yes");
}

} // namespace

bool isWebAddress(const QString &argument)
{
    const QUrl url(argument);
    return argument.contains(QLatin1String("://")) && url.isValid() && !url.isLocalFile();
}

int addFromUrl(Context &ctx, const std::function<int(Context &, OsImage *)> &describeOva)
{
    const QUrl url(ctx.arg(0));
    if (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))
        return ctx.fail(Usage, QStringLiteral("'%1' is neither a file nor an http(s) address").arg(ctx.arg(0)));
    if (url.fileName().endsWith(QLatin1String(".json"), Qt::CaseInsensitive)) {
        QString error;
        const OsImage image = OsImagePull::fetchRecord(url, &error);
        return image.isValid() ? pullNew(ctx, image) : ctx.fail(Failed, error);
    }
    OsImage draft;
    const int code = describeOva(ctx, &draft);
    if (code != Success)
        return code;
    return pullAndRegister(
        ctx,
        [&](const OsImageRegistry::Inspector &inspect, const Download::Progress &progress,
            const Download::Cancelled &cancelled, Download::Result *fetched) {
            return OsImagePull::pullOva(url, draft, inspect, progress, cancelled, fetched);
        },
        QStringLiteral("pulling '%1'").arg(url.fileName()));
}

int ensureOva(Context &ctx, const OsImage &image)
{
    if (image.isImageAvailableLocally())
        return Success;
    const bool remote = !QUrl(image.getFormatedUri()).isLocalFile();
    if (remote && (ctx.isSet(QStringLiteral("pull")) || askToPull(image))) {
        Download::Result result;
        return fetchOva(ctx, image, &result);
    }
    return ctx.fail(NotFound, QStringLiteral("the OVA of image '%1' is not on this machine: '%2'%3")
                                  .arg(image.name, image.getLocalPath(),
                                       remote ? QStringLiteral("; download it with --pull or hvtool image pull %1")
                                                    .arg(Catalog::bareUuid(image.uuid))
                                              : QString()));
}

void addPullCommands()
{
    commands() << Command{{"image", "available"}, {},
                          "List the OS images the catalogue offers (setting images.catalogue_url), marking those "
                          "registered.",
                          {}, 0, 0, available}
                          .withExample("hvtool image available")
               << Command{{"image", "pull"}, "ID",
                          "Download the OVA of a registered image, or register and download an image of the "
                          "catalogue (ID: uuid or name); an interrupted pull resumes.",
                          {}, 1, 1, pull}
                          .withExample("hvtool image pull \"Android 11.0\"");
}

} // namespace hvtool
