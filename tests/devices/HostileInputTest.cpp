#include "DeviceTestData.h"
#include "HwProfileIO.h"
#include "MessageCapture.h"
#include "OsImageIO.h"

#include <QDir>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using devtest::imageJson;
using devtest::profileJson;
using hvtest::MessageCapture;

namespace {

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// The record's text with raw JSON text as the value of the top-level key.
QByteArray spliced(const QJsonObject &object, const QString &key, const QByteArray &raw)
{
    return json(devtest::with(object, key, "@@SPLICE@@")).replace("\"@@SPLICE@@\"", raw);
}

QByteArray nestedObjects(int depth)
{
    return QByteArray("{\"a\":").repeated(depth) + "1" + QByteArray("}").repeated(depth);
}

struct HostileCase {
    const char *name;
    QByteArray profileFile;
    QByteArray imageFile;
    // Each warning must contain its fragment; "%1" stands for the file's path.
    QStringList profileWarnings;
    QStringList imageWarnings;
};

class HostileFiles : public ::testing::TestWithParam<HostileCase>
{
protected:
    QTemporaryDir m_temp;
};

TEST_P(HostileFiles, loadTheInvalidValueWithWarnings)
{
    const QString profilePath = devtest::writeFile(m_temp.path(), "profile.json", GetParam().profileFile);
    const QString imagePath = devtest::writeFile(m_temp.path(), "image.json", GetParam().imageFile);

    MessageCapture capture;
    EXPECT_EQ(HwProfileIO::load(profilePath), HwProfile());
    for (const QString &fragment : GetParam().profileWarnings)
        EXPECT_TRUE(capture.hasContaining(QtWarningMsg, fragment.arg(profilePath)));
    capture.clear();

    EXPECT_EQ(OsImageIO::loadFromFile(imagePath, HwProfile::Source::VENDOR), OsImage());
    for (const QString &fragment : GetParam().imageWarnings)
        EXPECT_TRUE(capture.hasContaining(QtWarningMsg, fragment.arg(imagePath)));
    // Even a huge record is logged in bounded lines.
    for (const hvtest::LogLine &line : capture.lines())
        EXPECT_LT(line.text.size(), 128 * 1024);
}

const QByteArray FiftyMiB(50 * 1024 * 1024, 'x');

INSTANTIATE_TEST_SUITE_P(
    Inputs, HostileFiles,
    ::testing::Values(
        HostileCase{"nestedBeyondTheParserLimit", QByteArray(100000, '['), nestedObjects(5000),
                    {"Failed to read json from \"%1\" \"too deeply nested document\""},
                    {"Failed to read json from \"%1\" \"too deeply nested document\""}},
        HostileCase{"nestedObjectsWhereFieldsBelong", spliced(profileJson(), "device_properties", nestedObjects(1000)),
                    spliced(imageJson(), "os_version", nestedObjects(1000)),
                    {"Error in field \"device_properties.product_model is missing.\""},
                    {"Error in field \"os_version.os_version is missing.\""}},
        HostileCase{"numbersFarOutsideInt", spliced(profileJson(), "cpu_count", "-1e308"),
                    spliced(imageJson(), "image_size_bytes", "\"1e400\""),
                    {"Error in field \"cpu_count is not a whole number within the int range.\""},
                    {"Error in field \"image_size_bytes is not the right type. Expected 2, got 3\""}},
        HostileCase{"arrayInsteadOfTheRecord", "[" + json(profileJson()) + "]", "[" + json(imageJson()) + "]",
                    {"Not a JSON object in hardware profile file \"%1\""},
                    {"Not a JSON object in os image file \"%1\""}},
        HostileCase{"arraysWhereObjectsBelong", spliced(profileJson(), "device_properties", "[{\"a\":1}]"),
                    spliced(imageJson(), "os_version", "[[],[]]"),
                    {"Error in field \"device_properties is not the right type. Expected 5, got 4\""},
                    {"Error in field \"os_version is not the right type. Expected 5, got 4\""}},
        HostileCase{"fiftyMebibytes", spliced(profileJson(), "skin", "\"" + FiftyMiB + "\""),
                    spliced(imageJson(), "name", "\"" + FiftyMiB + "\""),
                    {"Refusing hardware profile file \"%1\" of"},
                    {"Refusing os image file \"%1\" of"}}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(HostileInput, hugeRecordsInMemoryLoadAndAreLoggedOnlyInPart)
{
    QJsonObject profile = profileJson();
    profile.insert("skin", QString(FiftyMiB));
    EXPECT_EQ(HwProfileIO::load(profile).skin.size(), FiftyMiB.size());
    QJsonObject image = imageJson();
    image.insert("image_hash", QString(FiftyMiB));
    image.remove("uuid");
    MessageCapture capture;
    EXPECT_EQ(OsImageIO::load(image), OsImage());
    const QStringList warnings = capture.texts(QtWarningMsg);
    ASSERT_EQ(warnings.size(), 2);
    EXPECT_LT(warnings[0].size(), 70 * 1024);
    EXPECT_TRUE(warnings[0].endsWith("bytes)"));
    EXPECT_EQ(warnings[1], "Error in field \"uuid is missing.\"");
}

TEST(HostileInput, nulCharactersStayInsideTheirStrings)
{
    HwProfile withNul = HwProfileIO::load(
        QJsonDocument::fromJson(spliced(profileJson(), "uuid", "\"x\\u0000/../y\"")).object());
    EXPECT_EQ(withNul.uuid, QString("x") + QChar(0) + "/../y");
    QTemporaryDir temp;
    MessageCapture capture;
    EXPECT_FALSE(HwProfileIO::save(withNul, temp.path()));
    EXPECT_TRUE(capture.hasContaining(QtWarningMsg, "Cannot save profile whose uuid is not a file name:"));
    EXPECT_TRUE(QDir(temp.path()).isEmpty());
    // Even a raw NUL byte inside a string is taken as a character.
    const QString path = devtest::writeFile(temp.path(), "raw-nul.json",
                                            spliced(profileJson(), "skin", QByteArray("\"a\0b\"", 5)));
    EXPECT_EQ(HwProfileIO::load(path).skin, QString("a") + QChar(0) + "b");
}

// Found by the fuzzer: a record whose keys repeat (with object and array
// values) made the JSON parser leak under the sanitizer. It must still load
// as the invalid value with the errors of its last occurrences.
TEST(FuzzRegression, duplicatedKeysLoadAsTheirLastOccurrence)
{
    const QString path = devtest::dataPath("fuzz-duplicated-keys.json");
    MessageCapture capture;
    EXPECT_EQ(OsImageIO::loadFromFile(path, HwProfile::Source::VENDOR), OsImage());
    QStringList warnings = capture.texts(QtWarningMsg);
    ASSERT_FALSE(warnings.isEmpty());
    warnings.removeFirst();
    EXPECT_EQ(warnings, QStringList({"Error in field \"build_date is missing.\"",
                                     "Error in field \"os_version.sdk_version is missing.\"",
                                     "Error in field \"image_size_bytes is missing.\""}));
    capture.clear();
    EXPECT_EQ(HwProfileIO::load(path), HwProfile());
    EXPECT_TRUE(capture.has(QtWarningMsg, "Error in field \"sharer_email is missing.\""));
}

} // namespace
