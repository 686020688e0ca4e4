#pragma once

#include "HwProfile.h"
#include "OsImage.h"

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <ostream>

namespace devtest {

/// A complete profile record of format 1.0.0 with one regular display.
QJsonObject profileJson();
/// A complete image record of format 1.1.0 for Android 9 with an https address.
QJsonObject imageJson();
/// object with the value at path ("/"-separated keys; a number selects an
/// array element) replaced or added, or removed when value is undefined.
QJsonObject with(const QJsonObject &object, const QString &path, const QJsonValue &value);
QJsonObject without(const QJsonObject &object, const QString &path);
/// Writes content to dir/name and returns the path.
QString writeFile(const QString &dir, const QString &name, const QByteArray &content);
/// A fixed input file of the tests.
QString dataPath(const QString &name);

} // namespace devtest

void PrintTo(const QString &text, std::ostream *out);
