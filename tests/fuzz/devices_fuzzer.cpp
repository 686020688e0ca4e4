// Feeds arbitrary text to the hardware-profile and OS-image loaders, the way
// a hostile profile file, image record or device record would reach them.
// Besides not crashing, whatever a loader accepts must survive its own
// writer: writing and loading again gives the same JSON.
#include "HwProfileIO.h"
#include "OsImageIO.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtGlobal>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

void silence(QtMsgType, const QMessageLogContext &, const QString &)
{
}

[[noreturn]] void fail(const char *what, const QJsonObject &first, const QJsonObject &second)
{
    std::fprintf(stderr, "%s\nfirst:  %s\nsecond: %s\n", what, QJsonDocument(first).toJson().constData(),
                 QJsonDocument(second).toJson().constData());
    std::abort();
}

void checkProfile(const QJsonObject &object)
{
    const HwProfile profile = HwProfileIO::load(object);
    HwProfileIO::load(QVariant(object.toVariantMap()));
    if (!profile.isValid())
        return;
    const QJsonObject written = HwProfileIO::toJsonObject(profile);
    const HwProfile again = HwProfileIO::load(written);
    if (!(again == profile) || HwProfileIO::toJsonObject(again) != written)
        fail("hardware profile does not survive its own writer", written, HwProfileIO::toJsonObject(again));
    (void)profile.getPrimaryResolution();
    (void)profile.getFoldedDisplay();
    (void)profile.getSkinName();
}

void checkImage(const QJsonObject &object)
{
    const OsImage image = OsImageIO::load(object);
    OsImageIO::loadFromWebService(QVariant(object.toVariantMap()));
    if (image.uuid.isEmpty() && image.name.isEmpty())
        return;
    (void)image.isValid();
    (void)image.getLocalPath();
    OsImage migrated = image;
    OsImageIO::migrateV1_0ToV1_1(QStringLiteral("device"), &migrated);
    // The first load may drop what the format cannot hold (milliseconds of
    // the date); from then on the text must stay the same.
    const QJsonObject written = OsImageIO::toJsonObject(image);
    const OsImage again = OsImageIO::load(written);
    if (OsImageIO::toJsonObject(again) != written)
        fail("os image does not survive its own writer", written, OsImageIO::toJsonObject(again));
}

} // namespace

// Qt 5.15's JSON parser itself leaks when an object repeats a key whose value
// is an object or an array, which fuzzed text does all the time; the leak is
// not ours and would end every run, so leak checking stays off here.
extern "C" const char *__asan_default_options()
{
    return "detect_leaks=0";
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    qInstallMessageHandler(silence);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QJsonParseError error;
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size)), &error);
    if (!document.isObject())
        return 0;
    const QJsonObject object = document.object();
    checkProfile(object);
    checkImage(object);
    return 0;
}
