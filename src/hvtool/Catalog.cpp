#include "Catalog.h"

#include "HwProfileIO.h"
#include "OsImageIO.h"
#include "Paths.h"

#include <QDir>
#include <QFileInfo>

namespace hvtool {
namespace Catalog {
namespace {

QStringList jsonFiles(const QString &dir)
{
    QStringList files;
    const QFileInfoList entries = QDir(dir).entryInfoList({QStringLiteral("*.json")}, QDir::Files, QDir::Name);
    for (const QFileInfo &entry : entries)
        files << entry.absoluteFilePath();
    return files;
}

template<typename T, typename NameMatches, typename Load>
bool find(const QList<Stored<T>> &all, const QString &id, Stored<T> *found, bool *ambiguous, NameMatches nameMatches,
          Load loadFile)
{
    if (ambiguous)
        *ambiguous = false;
    for (const Stored<T> &entry : all) {
        if (!id.isEmpty() && bareUuid(entry.value.uuid) == bareUuid(id)) {
            *found = entry;
            return true;
        }
    }
    int matches = 0;
    for (const Stored<T> &entry : all) {
        if (nameMatches(entry.value, id)) {
            if (matches++ == 0)
                *found = entry;
        }
    }
    if (matches > 1 && ambiguous)
        *ambiguous = true;
    if (matches == 1)
        return true;
    if (matches > 1)
        return false;
    const QFileInfo file(id);
    if (file.isFile()) {
        const T value = loadFile(file.absoluteFilePath());
        if (value.isValid()) {
            *found = {value, file.absoluteFilePath()};
            return true;
        }
    }
    return false;
}

} // namespace

QString bareUuid(const QString &uuid)
{
    QString text = uuid.trimmed();
    if (text.startsWith(QLatin1Char('{')) && text.endsWith(QLatin1Char('}')))
        text = text.mid(1, text.size() - 2);
    return text.toLower();
}

bool isDirectlyInside(const QString &file, const QString &dir)
{
    const QFileInfo entry(file);
    const QString name = entry.fileName();
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
        return false;
    const QString parent = QFileInfo(entry.absolutePath()).canonicalFilePath();
    return !parent.isEmpty() && parent == QFileInfo(dir).canonicalFilePath();
}

QList<Stored<HwProfile>> profiles()
{
    QList<Stored<HwProfile>> result;
    for (const QString &file : jsonFiles(Paths::getUserHwProfilePath())) {
        const HwProfile profile = HwProfileIO::load(file);
        if (profile.isValid())
            result.append({profile, file});
    }
    return result;
}

QList<Stored<OsImage>> images()
{
    QList<Stored<OsImage>> result;
    for (const QString &file : jsonFiles(Paths::getUserOsImagePath())) {
        const OsImage image = OsImageIO::loadFromFile(file, HwProfile::Source::USER);
        if (image.isValid())
            result.append({image, file});
    }
    return result;
}

bool findProfile(const QString &id, Stored<HwProfile> *found, bool *ambiguous)
{
    return find(
        profiles(), id, found, ambiguous,
        // A profile answers to its full name ("ACME Pocket") and to the
        // model name it was created with ("Pocket").
        [](const HwProfile &p, const QString &name) { return p.getName() == name || p.getModel() == name; },
        [](const QString &path) { return HwProfileIO::load(path); });
}

bool findImage(const QString &id, Stored<OsImage> *found, bool *ambiguous)
{
    return find(
        images(), id, found, ambiguous, [](const OsImage &i, const QString &name) { return i.name == name; },
        [](const QString &path) { return OsImageIO::loadFromFile(path, HwProfile::Source::USER); });
}

} // namespace Catalog
} // namespace hvtool
