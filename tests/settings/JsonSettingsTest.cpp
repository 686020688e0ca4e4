#include "JsonSettings.h"

#include "MessageCapture.h"
#include "PlayerFeaturesConfig.h"
#include "SettingsTestUtils.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLockFile>

#include <gtest/gtest.h>

using hvtest::MessageCapture;
using hvtest::parseObject;
using hvtest::readFile;
using hvtest::readObject;
using hvtest::writeFile;

namespace {

class JsonSettingsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        m_path = m_dir.path(QStringLiteral("settings.json"));
    }

    hvtest::SettingsDir m_dir;
    QString m_path;
};

// ---- reading ---------------------------------------------------------------

struct ReadCase {
    const char *name;
    QByteArray content;
    QStringList path;
    QVariant expected; // with the default QVariant("def")
};

void PrintTo(const ReadCase &c, std::ostream *os)
{
    *os << c.name;
}

class JsonSettingsReadTest : public JsonSettingsTest, public ::testing::WithParamInterface<ReadCase>
{
};

TEST_P(JsonSettingsReadTest, readsValueOrDefault)
{
    const ReadCase &c = GetParam();
    ASSERT_TRUE(writeFile(m_path, c.content));
    JsonSettings settings(m_path, JsonSettings::ReadWrite);

    const QVariant value = settings.getChildValue(c.path, QStringLiteral("def"));

    EXPECT_EQ(value, c.expected);
    EXPECT_EQ(value.userType(), c.expected.userType());
}

const QVariant kDef = QStringLiteral("def");

INSTANTIATE_TEST_SUITE_P(
    Values, JsonSettingsReadTest,
    ::testing::Values(
        ReadCase{"string", R"({"k": "v"})", {"k"}, QStringLiteral("v")},
        ReadCase{"numberIsDouble", R"({"k": 3})", {"k"}, 3.0},
        ReadCase{"bool", R"({"k": false})", {"k"}, false},
        ReadCase{"arrayIsVariantList", R"({"k": [1, "a"]})", {"k"}, QVariantList{1.0, QStringLiteral("a")}},
        ReadCase{"emptyStringGivesDefault", R"({"k": ""})", {"k"}, kDef},
        ReadCase{"nullGivesDefault", R"({"k": null})", {"k"}, kDef},
        ReadCase{"objectGivesDefault", R"({"k": {"a": 1}})", {"k"}, kDef},
        ReadCase{"missingGivesDefault", R"({"other": 1})", {"k"}, kDef},
        ReadCase{"nested", R"({"a": {"b": "x"}})", {"a", "b"}, QStringLiteral("x")},
        ReadCase{"throughNumberGivesDefault", R"({"a": 1})", {"a", "b"}, kDef},
        ReadCase{"throughEmptyObjectGivesDefault", R"({"a": {}})", {"a", "b"}, kDef},
        ReadCase{"dotsBelongToTheKey", R"({"a.b": "flat"})", {"a.b"}, QStringLiteral("flat")},
        ReadCase{"dotsAreNoPath", R"({"a.b": "flat"})", {"a", "b"}, kDef},
        ReadCase{"notJsonReadsEmpty", "{oops", {"k"}, kDef},
        ReadCase{"arrayRootReadsEmpty", R"([{"k": "v"}])", {"k"}, kDef},
        ReadCase{"emptyPath", R"({"k": "v"})", {}, kDef}),
    [](const ::testing::TestParamInfo<ReadCase> &info) { return std::string(info.param.name); });

TEST_F(JsonSettingsTest, missingFileReadsEmptyWithoutComplaint)
{
    MessageCapture capture;
    JsonSettings settings(m_path, JsonSettings::ReadWrite);

    EXPECT_TRUE(settings.getRootObject().isEmpty());
    EXPECT_FALSE(settings.isJsonObjValid());
    EXPECT_FALSE(settings.keyExists(QStringLiteral("k")));
    EXPECT_FALSE(settings.hasUnreadableContent());
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

TEST_F(JsonSettingsTest, keyExistsFollowsObjectsToAPresentMember)
{
    ASSERT_TRUE(writeFile(m_path, R"({"a": {"b": null, "c": ""}, "n": 1, "flat.key": 2})"));
    JsonSettings settings(m_path, JsonSettings::ReadOnly);

    EXPECT_TRUE(settings.childKeyExists({"a", "b"}));
    EXPECT_TRUE(settings.childKeyExists({"a", "c"}));
    EXPECT_TRUE(settings.childKeyExists({"a"}));
    EXPECT_FALSE(settings.childKeyExists({"a", "d"}));
    EXPECT_FALSE(settings.childKeyExists({"n", "x"}));
    EXPECT_FALSE(settings.childKeyExists({}));
    EXPECT_TRUE(settings.keyExists(QStringLiteral("flat.key")));
    EXPECT_FALSE(settings.keyExists(QStringLiteral("flat")));
}

TEST_F(JsonSettingsTest, unreadableContentIsReportedAndReadsEmpty)
{
    const QByteArray cases[] = {"{oops", "[1, 2]", "\"text\""};
    for (const QByteArray &content : cases) {
        ASSERT_TRUE(writeFile(m_path, content));
        JsonSettings settings(m_path, JsonSettings::ReadWrite);
        EXPECT_TRUE(settings.hasUnreadableContent()) << content.constData();
        EXPECT_TRUE(settings.getRootObject().isEmpty()) << content.constData();
        EXPECT_EQ(readFile(m_path), content) << "reading must not rewrite the file";
    }
    ASSERT_TRUE(writeFile(m_path, ""));
    EXPECT_FALSE(JsonSettings(m_path, JsonSettings::ReadWrite).hasUnreadableContent());
}

TEST_F(JsonSettingsTest, arrayRootIsLoggedAsNotAnObject)
{
    ASSERT_TRUE(writeFile(m_path, "[1]"));
    MessageCapture capture;
    JsonSettings(m_path, JsonSettings::ReadOnly).getRootObject();
    EXPECT_TRUE(capture.has(QtWarningMsg,
                            QStringLiteral("Settings file does not hold a JSON object, ignoring it: \"%1\"").arg(m_path)));
}

TEST_F(JsonSettingsTest, oversizedFileIsNotLoaded)
{
    QByteArray huge = R"({"k": ")";
    huge.append(QByteArray(17 * 1024 * 1024, 'x'));
    huge.append(R"("})");
    ASSERT_TRUE(writeFile(m_path, huge));
    MessageCapture capture;

    EXPECT_FALSE(JsonSettings(m_path, JsonSettings::ReadOnly).keyExists(QStringLiteral("k")));
    EXPECT_TRUE(capture.has(QtWarningMsg, QStringLiteral("Settings file is too large, ignoring it: \"%1\" %2")
                                              .arg(m_path)
                                              .arg(huge.size())));
}

// ---- writing ---------------------------------------------------------------

struct WriteCase {
    const char *name;
    QByteArray before; // compact JSON, so a rewrite shows as indented output
    QStringList path;
    QVariant value;
    bool accepted;
    QByteArray after; // expected object when accepted
};

void PrintTo(const WriteCase &c, std::ostream *os)
{
    *os << c.name;
}

class JsonSettingsWriteTest : public JsonSettingsTest, public ::testing::WithParamInterface<WriteCase>
{
};

TEST_P(JsonSettingsWriteTest, appliesOrRefusesTheChange)
{
    const WriteCase &c = GetParam();
    ASSERT_TRUE(writeFile(m_path, c.before));
    JsonSettings settings(m_path, JsonSettings::ReadWrite);
    MessageCapture capture;

    EXPECT_EQ(settings.setChildValue(c.path, c.value), c.accepted);

    if (c.accepted) {
        EXPECT_EQ(readObject(m_path), parseObject(c.after));
        EXPECT_EQ(readFile(m_path), QJsonDocument(parseObject(c.after)).toJson());
    } else {
        EXPECT_EQ(readFile(m_path), c.before) << "a refused change must leave the file untouched";
    }
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg)) << "refusals are silent";
}

INSTANTIATE_TEST_SUITE_P(
    Changes, JsonSettingsWriteTest,
    ::testing::Values(
        WriteCase{"createsMissingParent", "{}", {"player", "toolbar"}, QStringList{"HOME"}, true,
                  R"({"player": {"toolbar": ["HOME"]}})"},
        WriteCase{"keepsSiblings", R"({"a":{"b":1,"c":2},"d":3})", {"a", "c"}, 4, true,
                  R"({"a": {"b": 1, "c": 4}, "d": 3})"},
        WriteCase{"leafNeverReplacesObject", R"({"a":{"x":1}})", {"a"}, 1, false, ""},
        WriteCase{"neverThroughNumber", R"({"a":1})", {"a", "b"}, 1, false, ""},
        WriteCase{"neverThroughNull", R"({"a":null})", {"a", "b"}, 1, false, ""},
        WriteCase{"invalidRemoves", R"({"k":1,"o":2})", {"k"}, QVariant(), true, R"({"o": 2})"},
        WriteCase{"removingLastMemberKeepsEmptyObject", R"({"a":{"b":1}})", {"a", "b"}, QVariant(), true,
                  R"({"a": {}})"},
        WriteCase{"emptyStringIsStored", R"({"k":"v"})", {"k"}, QString(""), true, R"({"k": ""})"},
        WriteCase{"replacesLeafOfOtherType", R"({"k":[1]})", {"k"}, QStringLiteral("s"), true, R"({"k": "s"})"},
        WriteCase{"emptyPathRefused", R"({"k":1})", {}, 1, false, ""}),
    [](const ::testing::TestParamInfo<WriteCase> &info) { return std::string(info.param.name); });

TEST_F(JsonSettingsTest, firstSetCreatesTheFile)
{
    JsonSettings settings(m_path, JsonSettings::ReadWrite);
    EXPECT_TRUE(settings.setValue(QStringLiteral("virtual_devices.directory"), QStringLiteral("/d")));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"virtual_devices.directory": "/d"})"));
    EXPECT_FALSE(QFile::exists(m_path + QStringLiteral(".lock"))) << "the lock is released after the change";
}

TEST_F(JsonSettingsTest, emptyLockFileOfAKilledWriterIsTakenOver)
{
    // What a writer killed between creating the lock file and writing its
    // pid leaves behind; the stale time alone would block for 30 s.
    QFile lockFile(m_path + QStringLiteral(".lock"));
    ASSERT_TRUE(lockFile.open(QIODevice::WriteOnly));
    lockFile.close();
    ASSERT_TRUE(lockFile.open(QIODevice::ReadWrite));
    ASSERT_TRUE(lockFile.setFileTime(QDateTime::currentDateTime().addSecs(-5), QFileDevice::FileModificationTime));
    lockFile.close();

    JsonSettings settings(m_path, JsonSettings::ReadWrite);
    settings.setLockTimeouts(3000, 30000);
    EXPECT_TRUE(settings.setValue(QStringLiteral("after"), 1));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"after": 1})"));
}

TEST_F(JsonSettingsTest, setIntoMissingDirectoryIsLoggedAndLost)
{
    const QString path = m_dir.path(QStringLiteral("missing/settings.json"));
    JsonSettings settings(path, JsonSettings::ReadWrite);
    MessageCapture capture;

    EXPECT_FALSE(settings.setValue(QStringLiteral("k"), 1));
    EXPECT_TRUE(capture.has(QtCriticalMsg, QStringLiteral("Failed to open file for writing: \"%1\"").arg(path)));
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(JsonSettingsTest, readOnlyStoreChangesNothing)
{
    const QByteArray before = R"({"k":1})";
    ASSERT_TRUE(writeFile(m_path, before));
    const QString otherPath = m_dir.path(QStringLiteral("other.json"));
    ASSERT_TRUE(writeFile(otherPath, R"({"o":2})"));
    JsonSettings settings(m_path, JsonSettings::ReadOnly);
    JsonSettings other(otherPath, JsonSettings::ReadOnly);

    EXPECT_FALSE(settings.setValue(QStringLiteral("k"), 2));
    EXPECT_FALSE(settings.setValueIfNull(QStringLiteral("n"), 2));
    EXPECT_FALSE(settings.remove(QStringLiteral("k")));
    EXPECT_FALSE(settings.copy(other));
    EXPECT_FALSE(settings.clear());
    EXPECT_FALSE(settings.save(QJsonObject{{"x", 1}}));
    EXPECT_EQ(readFile(m_path), before);
    EXPECT_FALSE(QFile::exists(m_path + QStringLiteral(".lock")));
}

TEST_F(JsonSettingsTest, resourceCannotBeWritten)
{
    JsonSettings defaults(QStringLiteral(":/settings.json"), JsonSettings::ReadOnly);
    const QJsonObject before = defaults.getRootObject();
    EXPECT_FALSE(defaults.setValue(QStringLiteral("hypervisor"), QStringLiteral("other")));
    EXPECT_EQ(defaults.getRootObject(), before);
}

TEST_F(JsonSettingsTest, clearCopyAndSaveReplaceTheWholeFile)
{
    ASSERT_TRUE(writeFile(m_path, R"({"k":1,"o":{"a":2}})"));
    const QString otherPath = m_dir.path(QStringLiteral("other.json"));
    ASSERT_TRUE(writeFile(otherPath, R"({"copied":true})"));
    JsonSettings settings(m_path, JsonSettings::ReadWrite);

    EXPECT_TRUE(settings.copy(JsonSettings(otherPath, JsonSettings::ReadOnly)));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"copied": true})"));

    EXPECT_TRUE(settings.save(QJsonObject{{"saved", 1}}));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"saved": 1})"));

    EXPECT_TRUE(settings.clear());
    EXPECT_EQ(readFile(m_path), QByteArray("{\n}\n"));
}

TEST_F(JsonSettingsTest, setValueIfNullKeepsExistingValues)
{
    ASSERT_TRUE(writeFile(m_path, R"({"set":"mine","empty":"","null":null})"));
    JsonSettings settings(m_path, JsonSettings::ReadWrite);

    EXPECT_FALSE(settings.setValueIfNull(QStringLiteral("set"), QStringLiteral("new")));
    EXPECT_TRUE(settings.setValueIfNull(QStringLiteral("empty"), QStringLiteral("new")));
    EXPECT_TRUE(settings.setValueIfNull(QStringLiteral("null"), QStringLiteral("new")));
    EXPECT_TRUE(settings.setValueIfNull(QStringLiteral("absent"), 1));

    EXPECT_EQ(readObject(m_path), parseObject(R"({"set":"mine","empty":"new","null":"new","absent":1})"));
}

TEST_F(JsonSettingsTest, deliberateWriteReplacesUnreadableFileAndKeepsItsContent)
{
    const QByteArray broken = "{\"k\": 1,, oops";
    ASSERT_TRUE(writeFile(m_path, broken));
    JsonSettings settings(m_path, JsonSettings::ReadWrite);
    MessageCapture capture;

    EXPECT_TRUE(settings.setValue(QStringLiteral("k"), 2));

    EXPECT_EQ(readObject(m_path), parseObject(R"({"k": 2})"));
    EXPECT_EQ(readFile(m_path + QStringLiteral(".bad")), broken);
    EXPECT_TRUE(capture.has(QtWarningMsg, QStringLiteral("Kept the unreadable settings file \"%1\" as \"%1.bad\"")
                                              .arg(m_path)));
}

// ---- the lock --------------------------------------------------------------

TEST_F(JsonSettingsTest, changeWithoutTheLockIsLoggedAndDropped)
{
    const QByteArray before = R"({"k":1})";
    ASSERT_TRUE(writeFile(m_path, before));
    QLockFile held(m_path + QStringLiteral(".lock"));
    ASSERT_TRUE(held.tryLock(0));
    JsonSettings settings(m_path, JsonSettings::ReadWrite);
    settings.setLockTimeouts(100, 60000);
    MessageCapture capture;

    EXPECT_FALSE(settings.setChildValue({"player", "toolbar"}, QStringList{"HOME"}));
    EXPECT_FALSE(settings.clear());

    EXPECT_EQ(capture.texts(QtCriticalMsg),
              QStringList({QStringLiteral("Failed to lock settings file \"%1\" in time to change \"player/toolbar\"")
                               .arg(m_path),
                           QStringLiteral("Failed to lock settings file \"%1\" in time to replace its content")
                               .arg(m_path)}));
    EXPECT_EQ(readFile(m_path), before);
    EXPECT_EQ(settings.getValue(QStringLiteral("k")), 1.0) << "reads take no lock";

    held.unlock();
    EXPECT_TRUE(settings.setValue(QStringLiteral("k"), 2));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"k": 2})"));
}

TEST_F(JsonSettingsTest, lockLeftByAVanishedProgramIsTakenOver)
{
    // A lock file naming a process that no longer exists, as a program
    // killed in the middle of a change leaves behind.
    ASSERT_TRUE(writeFile(m_path + QStringLiteral(".lock"), "999999999\nsettings_helper\n\n"));
    JsonSettings settings(m_path, JsonSettings::ReadWrite);
    settings.setLockTimeouts(2000, 60000);

    EXPECT_TRUE(settings.setValue(QStringLiteral("k"), 1));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"k": 1})"));
}

// ---- enumerations ------------------------------------------------------------

TEST_F(JsonSettingsTest, enumListKeepsOnlyKnownNames)
{
    ASSERT_TRUE(writeFile(m_path, R"({"player": {"toolbar": ["ROTATE_LEFT", "ZOOM", "SCREENSHOT", 5, "home",
                                     "PlayerFeaturesConfig::HOME", "ROTATE_LEFT|HOME", "BACK"]}})"));
    JsonSettings settings(m_path, JsonSettings::ReadOnly);

    const QList<PlayerFeaturesConfig::ActionId> actions =
        settings.getEnumList<PlayerFeaturesConfig::ActionId>({"player", "toolbar"});

    EXPECT_EQ(actions, (QList<PlayerFeaturesConfig::ActionId>{PlayerFeaturesConfig::ROTATE_LEFT,
                                                              PlayerFeaturesConfig::SCREENSHOT,
                                                              PlayerFeaturesConfig::BACK}));
    EXPECT_TRUE(settings.getEnumList<PlayerFeaturesConfig::ActionId>({"player", "missing"}).isEmpty());
    EXPECT_TRUE(settings.getEnumList<PlayerFeaturesConfig::ActionId>({"nothing", "toolbar"}).isEmpty());
}

} // namespace
