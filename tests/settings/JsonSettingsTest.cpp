#include "JsonSettings.h"

#include "MessageCapture.h"
#include "PlayerFeaturesConfig.h"
#include "SettingsTestUtils.h"

#include <QDateTime>
#include <QLockFile>

#include <gtest/gtest.h>

using namespace hvtest;

namespace {

class JsonSettingsTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    SettingsDir m_dir;
    const QString m_path = m_dir.path(QStringLiteral("settings.json"));
};

TEST_F(JsonSettingsTest, readsValueOrDefault)
{
    const QVariant def = QStringLiteral("def");
    const struct {
        QByteArray content;
        QStringList path;
        QVariant expected;
    } cases[] = {
        {R"({"k": "v"})", {"k"}, QStringLiteral("v")},
        {R"({"k": 3})", {"k"}, 3.0}, // every number is a double
        {R"({"k": false})", {"k"}, false},
        {R"({"k": [1, "a"]})", {"k"}, QVariantList{1.0, QStringLiteral("a")}},
        {R"({"k": ""})", {"k"}, def},
        {R"({"k": null})", {"k"}, def},
        {R"({"k": {"a": 1}})", {"k"}, def},
        {R"({"other": 1})", {"k"}, def},
        {R"({"a": {"b": "x"}})", {"a", "b"}, QStringLiteral("x")},
        {R"({"a": 1})", {"a", "b"}, def},
        {R"({"a": {}})", {"a", "b"}, def},
        {R"({"a.b": "flat"})", {"a.b"}, QStringLiteral("flat")}, // dots belong to the key
        {R"({"a.b": "flat"})", {"a", "b"}, def},
        {"{oops", {"k"}, def},
        {R"([{"k": "v"}])", {"k"}, def},
        {R"({"k": "v"})", {}, def},
    };
    for (const auto &c : cases) {
        ASSERT_TRUE(writeFile(m_path, c.content));
        const QVariant value = JsonSettings(m_path, JsonSettings::ReadWrite).getChildValue(c.path, def);
        EXPECT_EQ(value, c.expected) << c.content.constData() << " " << c.path.join('/').toStdString();
        EXPECT_EQ(value.userType(), c.expected.userType()) << c.content.constData();
    }

    ASSERT_TRUE(writeFile(m_path, R"({"a": {"b": null, "c": ""}, "n": 1, "flat.key": 2})"));
    const JsonSettings settings(m_path, JsonSettings::ReadOnly);
    EXPECT_TRUE(settings.childKeyExists({"a", "b"}));
    EXPECT_TRUE(settings.childKeyExists({"a"}));
    EXPECT_FALSE(settings.childKeyExists({"a", "d"}));
    EXPECT_FALSE(settings.childKeyExists({"n", "x"}));
    EXPECT_FALSE(settings.childKeyExists({}));
    EXPECT_TRUE(settings.keyExists(QStringLiteral("flat.key")));
    EXPECT_FALSE(settings.keyExists(QStringLiteral("flat")));
}

TEST_F(JsonSettingsTest, unreadableFileReadsEmptyAndIsLeftAsItIs)
{
    MessageCapture capture;
    EXPECT_TRUE(JsonSettings(m_path, JsonSettings::ReadWrite).getRootObject().isEmpty());
    EXPECT_FALSE(JsonSettings(m_path, JsonSettings::ReadWrite).hasUnreadableContent());
    EXPECT_TRUE(capture.lines().isEmpty()) << "a missing file is the normal state";

    QByteArray huge = R"({"k": ")" + QByteArray(17 * 1024 * 1024, 'x') + R"("})";
    const std::pair<QByteArray, QString> cases[] = {
        {"{oops", QString()},
        {"[1, 2]", QStringLiteral("Settings file does not hold a JSON object, ignoring it: \"%1\"").arg(m_path)},
        {"\"text\"", QStringLiteral("Failed to read json from \"%1\" \"illegal value\"").arg(m_path)},
        {huge, QStringLiteral("Settings file is too large, ignoring it: \"%1\" %2").arg(m_path).arg(huge.size())},
    };
    for (const auto &[content, warning] : cases) {
        ASSERT_TRUE(writeFile(m_path, content));
        const JsonSettings settings(m_path, JsonSettings::ReadWrite);
        capture.clear();
        EXPECT_TRUE(settings.getRootObject().isEmpty()) << content.left(10).constData();
        if (!warning.isNull()) {
            EXPECT_EQ(capture.lines(), QList<LogLine>({{QtWarningMsg, warning}}));
        }
        EXPECT_TRUE(settings.hasUnreadableContent()) << content.left(10).constData();
        EXPECT_EQ(readFile(m_path), content) << "reading must not rewrite the file";
    }
    ASSERT_TRUE(writeFile(m_path, ""));
    EXPECT_FALSE(JsonSettings(m_path, JsonSettings::ReadWrite).hasUnreadableContent());
}

TEST_F(JsonSettingsTest, appliesOrRefusesTheChange)
{
    const struct {
        QByteArray before; // compact JSON, so a rewrite shows as indented output
        QStringList path;
        QVariant value;
        QByteArray after; // null when refused
    } cases[] = {
        {"{}", {"player", "toolbar"}, QStringList{"HOME"}, R"({"player": {"toolbar": ["HOME"]}})"},
        {R"({"a":{"b":1,"c":2},"d":3})", {"a", "c"}, 4, R"({"a": {"b": 1, "c": 4}, "d": 3})"},
        {R"({"a":{"x":1}})", {"a"}, 1, QByteArray()}, // a leaf never replaces an object
        {R"({"a":1})", {"a", "b"}, 1, QByteArray()},  // a path never goes through a non-object
        {R"({"a":null})", {"a", "b"}, 1, QByteArray()},
        {R"({"k":1,"o":2})", {"k"}, QVariant(), R"({"o": 2})"},
        {R"({"a":{"b":1}})", {"a", "b"}, QVariant(), R"({"a": {}})"},
        {R"({"k":"v"})", {"k"}, QString(""), R"({"k": ""})"},
        {R"({"k":[1]})", {"k"}, QStringLiteral("s"), R"({"k": "s"})"},
        {R"({"k":1})", {}, 1, QByteArray()},
    };
    for (const auto &c : cases) {
        ASSERT_TRUE(writeFile(m_path, c.before));
        MessageCapture capture;
        EXPECT_EQ(JsonSettings(m_path, JsonSettings::ReadWrite).setChildValue(c.path, c.value), !c.after.isNull())
            << c.before.constData();
        EXPECT_EQ(readFile(m_path), c.after.isNull() ? c.before : QJsonDocument(parseObject(c.after)).toJson())
            << c.before.constData();
        EXPECT_TRUE(capture.lines().isEmpty()) << "refusals are silent";
    }
}

TEST_F(JsonSettingsTest, wholeFileChanges)
{
    JsonSettings settings(m_path, JsonSettings::ReadWrite);
    EXPECT_TRUE(settings.setValue(QStringLiteral("virtual_devices.directory"), QStringLiteral("/d")));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"virtual_devices.directory": "/d"})")) << "the first set makes it";
    EXPECT_FALSE(QFile::exists(m_path + QStringLiteral(".lock"))) << "the lock is released after the change";

    const QString otherPath = m_dir.path(QStringLiteral("other.json"));
    ASSERT_TRUE(writeFile(otherPath, R"({"copied":true})"));
    EXPECT_TRUE(settings.copy(JsonSettings(otherPath, JsonSettings::ReadOnly)));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"copied": true})"));
    EXPECT_TRUE(settings.save(QJsonObject{{"set", "mine"}, {"empty", ""}, {"null", QJsonValue()}}));
    // Only a value that reads as null is filled in.
    EXPECT_FALSE(settings.setValueIfNull(QStringLiteral("set"), QStringLiteral("new")));
    EXPECT_TRUE(settings.setValueIfNull(QStringLiteral("empty"), QStringLiteral("new")));
    EXPECT_TRUE(settings.setValueIfNull(QStringLiteral("null"), QStringLiteral("new")));
    EXPECT_TRUE(settings.setValueIfNull(QStringLiteral("absent"), 1));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"set":"mine","empty":"new","null":"new","absent":1})"));
    EXPECT_TRUE(settings.clear());
    EXPECT_EQ(readFile(m_path), QByteArray("{\n}\n"));

    // Read-only stores, the compiled-in defaults among them, change nothing.
    JsonSettings readOnly(m_path, JsonSettings::ReadOnly);
    EXPECT_FALSE(readOnly.setValue(QStringLiteral("k"), 2));
    EXPECT_FALSE(readOnly.setValueIfNull(QStringLiteral("n"), 2));
    EXPECT_FALSE(readOnly.remove(QStringLiteral("k")));
    EXPECT_FALSE(readOnly.copy(settings));
    EXPECT_FALSE(readOnly.save(QJsonObject{{"x", 1}}));
    EXPECT_EQ(readFile(m_path), QByteArray("{\n}\n"));
    EXPECT_FALSE(JsonSettings(QStringLiteral(":/settings.json"), JsonSettings::ReadOnly).clear());
    EXPECT_EQ(JsonSettings(QStringLiteral(":/settings.json"), JsonSettings::ReadOnly).getValue("hypervisor"), "qemu");
}

TEST_F(JsonSettingsTest, failedWritesAreLoggedAndLoseNothing)
{
    const QString missing = m_dir.path(QStringLiteral("missing/settings.json"));
    MessageCapture capture;
    EXPECT_FALSE(JsonSettings(missing, JsonSettings::ReadWrite).setValue(QStringLiteral("k"), 1));
    EXPECT_EQ(capture.lines(),
              QList<LogLine>({{QtCriticalMsg, "Failed to open file for writing: \"" + missing + "\""}}));
    EXPECT_FALSE(QFile::exists(missing));

    // A file broken by hand is kept beside the new one.
    const QByteArray broken = "{\"k\": 1,, oops";
    ASSERT_TRUE(writeFile(m_path, broken));
    capture.clear();
    EXPECT_TRUE(JsonSettings(m_path, JsonSettings::ReadWrite).setValue(QStringLiteral("k"), 2));
    EXPECT_EQ(readObject(m_path), parseObject(R"({"k": 2})"));
    EXPECT_EQ(readFile(m_path + QStringLiteral(".bad")), broken);
    const QString kept = QStringLiteral("Kept the unreadable settings file \"%1\" as \"%1.bad\"").arg(m_path);
    EXPECT_TRUE(capture.has(QtWarningMsg, kept));
}

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

TEST_F(JsonSettingsTest, abandonedLockIsTakenOver)
{
    // A lock naming a process that no longer exists, and the empty lock file
    // a writer killed between creating it and writing its pid leaves behind
    // (the stale time alone would block for 30 s).
    for (const QByteArray &lock : {QByteArray("999999999\nsettings_helper\n\n"), QByteArray()}) {
        QFile lockFile(m_path + QStringLiteral(".lock"));
        ASSERT_TRUE(lockFile.open(QIODevice::WriteOnly) && lockFile.write(lock) == lock.size());
        ASSERT_TRUE(lockFile.setFileTime(QDateTime::currentDateTime().addSecs(-5), QFileDevice::FileModificationTime));
        lockFile.close();
        JsonSettings settings(m_path, JsonSettings::ReadWrite);
        settings.setLockTimeouts(3000, 30000);
        EXPECT_TRUE(settings.setValue(QStringLiteral("after"), lock.size()));
        EXPECT_EQ(readObject(m_path), QJsonObject({{"after", lock.size()}}));
    }
}

TEST_F(JsonSettingsTest, enumListKeepsOnlyKnownNames)
{
    ASSERT_TRUE(writeFile(m_path, R"({"player": {"toolbar": ["ROTATE_LEFT", "ZOOM", "SCREENSHOT", 5, "home",
                                     "PlayerFeaturesConfig::HOME", "ROTATE_LEFT|HOME", "BACK"]}})"));
    const JsonSettings settings(m_path, JsonSettings::ReadOnly);
    using Action = PlayerFeaturesConfig::ActionId;
    EXPECT_EQ(settings.getEnumList<Action>({"player", "toolbar"}),
              (QList<Action>{PlayerFeaturesConfig::ROTATE_LEFT, PlayerFeaturesConfig::SCREENSHOT,
                             PlayerFeaturesConfig::BACK}));
    EXPECT_TRUE(settings.getEnumList<Action>({"player", "missing"}).isEmpty());
    EXPECT_TRUE(settings.getEnumList<Action>({"nothing", "toolbar"}).isEmpty());
}

} // namespace
