#include <HalvistromCore/JsonReader.h>
#include <HalvistromCore/VersionNumber.h>
#include <HalvistromCore/VersionUtils.h>

#include <QJsonDocument>

#include <cstdio>

int main()
{
    const VersionNumber version = VersionNumber::fromString(QStringLiteral("11.0-rc2"));
    const JsonReader reader(QJsonDocument::fromJson(R"({"name": "pixel"})").object());
    std::printf("%s api=%d name=%s\n", qPrintable(version.toString()), VersionUtils::androidVersionToApi(version),
                qPrintable(reader.readString(QStringLiteral("name"))));
    return reader.hasErrors() ? 1 : 0;
}
