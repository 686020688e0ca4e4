#include "JsonReader.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

namespace {

QJsonObject parse(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

TEST(JsonReader, readsEveryTypeWithoutErrors)
{
    const JsonReader reader(parse(R"({"s": "text", "i": 42, "f": 42.9, "b": true, "r": 2.5,
                                      "d": "2024-03-01T10:20:30Z", "l": ["a", 1, "c"]})"));
    EXPECT_EQ(reader.readString("s"), "text");
    EXPECT_EQ(reader.readInt("i"), 42);
    // A fraction passes the number check; toInt gives its default for it.
    EXPECT_EQ(reader.readInt("f"), 0);
    EXPECT_TRUE(reader.readBool("b"));
    EXPECT_EQ(reader.readQReal("r"), 2.5);
    EXPECT_EQ(reader.readDateTime("d"), QDateTime(QDate(2024, 3, 1), QTime(10, 20, 30), Qt::UTC));
    // Elements are not type-checked: a number reads as an empty string.
    EXPECT_EQ(reader.readStringList("l"), (QStringList{"a", "", "c"}));
    EXPECT_FALSE(reader.hasErrors());
    EXPECT_TRUE(reader.errors().isEmpty());
}

struct WrongRead {
    const char *name;
    std::function<void(const JsonReader &)> read;
    const char *error;
};

void PrintTo(const WrongRead &c, std::ostream *os)
{
    *os << c.name;
}

class JsonReaderErrors : public ::testing::TestWithParam<WrongRead>
{
};

TEST_P(JsonReaderErrors, recordsExactlyOneLine)
{
    const JsonReader reader(parse(R"({"n": null, "s": "x", "i": 3, "o": {}, "a": [], "d": "yesterday"})"));
    GetParam().read(reader);
    EXPECT_EQ(reader.errors(), QStringList{QString::fromUtf8(GetParam().error)});
}

INSTANTIATE_TEST_SUITE_P(
    Messages, JsonReaderErrors,
    ::testing::Values(
        WrongRead{"missingString", [](const JsonReader &r) { EXPECT_TRUE(r.readString("z").isNull()); }, "z is missing."},
        WrongRead{"nullInt", [](const JsonReader &r) { EXPECT_EQ(r.readInt("n"), 0); },
                  "n is not the right type. Expected 2, got 0"},
        WrongRead{"stringAsInt", [](const JsonReader &r) { EXPECT_EQ(r.readInt("s"), 0); },
                  "s is not the right type. Expected 2, got 3"},
        WrongRead{"intAsBool", [](const JsonReader &r) { EXPECT_FALSE(r.readBool("i")); },
                  "i is not the right type. Expected 1, got 2"},
        WrongRead{"arrayAsObject", [](const JsonReader &r) { r.readObject("a"); },
                  "a is not the right type. Expected 5, got 4"},
        WrongRead{"objectAsArray", [](const JsonReader &r) { EXPECT_TRUE(r.readArray("o").isEmpty()); },
                  "o is not the right type. Expected 4, got 5"},
        WrongRead{"missingArray", [](const JsonReader &r) { EXPECT_TRUE(r.readArray("q").isEmpty()); },
                  "q is missing."},
        WrongRead{"objectAsList", [](const JsonReader &r) { EXPECT_TRUE(r.readStringList("o").isEmpty()); },
                  "o is not the right type. Expected 4, got 5"},
        WrongRead{"nullReal", [](const JsonReader &r) { EXPECT_EQ(r.readQReal("n"), 0.0); },
                  "n is not the right type. Expected 2, got 0"},
        WrongRead{"badDate", [](const JsonReader &r) { EXPECT_FALSE(r.readDateTime("d").isValid()); },
                  "d field does not respect datetime ISO format."},
        WrongRead{"intAsDate", [](const JsonReader &r) { EXPECT_FALSE(r.readDateTime("i").isValid()); },
                  "i is not the right type. Expected 3, got 2"}));

TEST(JsonReader, nullReadsAsAnEmptyStringWithoutError)
{
    const JsonReader reader(parse(R"({"n": null})"));
    const QString value = reader.readString("n");
    EXPECT_TRUE(value.isEmpty());
    EXPECT_FALSE(reader.hasErrors());
    EXPECT_TRUE(reader.contains("n"));
}

TEST(JsonReader, containsRecordsNothing)
{
    const JsonReader reader(parse(R"({"a": 1})"));
    EXPECT_TRUE(reader.contains("a"));
    EXPECT_FALSE(reader.contains("b"));
    EXPECT_FALSE(reader.hasErrors());
}

TEST(JsonReader, missingObjectStillGivesAWorkingReader)
{
    const JsonReader top(parse(R"({})"));
    const JsonReader nested = top.readObject("display_settings");
    EXPECT_EQ(nested.readInt("width"), 0);
    EXPECT_EQ(nested.readString("name"), QString());
    EXPECT_EQ(top.errors(), (QStringList{"display_settings is missing.", "display_settings.width is missing.",
                                         "display_settings.name is missing."}));
}

TEST(JsonReader, arrayPrefixesKeepTheirExactForms)
{
    const JsonReader top(parse(R"({"displays": [{}, {"w": "x"}],
                                   "display_settings": {"displays": [{}], "inner": {"deep": {}}}})"));
    const QList<JsonReader> displays = top.readArray("displays");
    ASSERT_EQ(displays.size(), 2);
    EXPECT_EQ(displays[0].prefix(), ".displays[0].");
    displays[0].readInt("w");
    displays[1].readInt("w");

    const JsonReader settings = top.readObject("display_settings");
    const QList<JsonReader> nested = settings.readArray("displays");
    ASSERT_EQ(nested.size(), 1);
    nested[0].readBool("on");
    // A reader made by readObject names only its immediate parent.
    settings.readObject("inner").readObject("deep").readString("leaf");
    // The datetime message carries no prefix, even nested.
    const JsonReader inner = settings.readObject("inner");
    inner.readDateTime("deep");

    EXPECT_EQ(top.errors(), (QStringList{".displays[0].w is missing.",
                                         ".displays[1].w is not the right type. Expected 2, got 3",
                                         "display_settings..displays[0].on is missing.", "deep.leaf is missing.",
                                         "inner.deep is not the right type. Expected 3, got 5"}));
    EXPECT_EQ(nested[0].errors(), top.errors());
}

TEST(JsonReader, nonObjectArrayElementsBecomeEmptyObjectsSilently)
{
    const JsonReader top(parse(R"({"items": [1, "two", null], "empty": []})"));
    const QList<JsonReader> items = top.readArray("items");
    ASSERT_EQ(items.size(), 3);
    EXPECT_TRUE(items[1].object().isEmpty());
    EXPECT_TRUE(top.readArray("empty").isEmpty());
    EXPECT_FALSE(top.hasErrors());
}

TEST(JsonReader, nestedDateErrorHasNoPrefix)
{
    const JsonReader top(parse(R"({"meta": {"when": "not a date"}})"));
    top.readObject("meta").readDateTime("when");
    EXPECT_EQ(top.errors(), QStringList{"when field does not respect datetime ISO format."});
}

TEST(JsonReader, copiesShareTheErrorList)
{
    const JsonReader top(parse(R"({})"));
    const JsonReader copy = top;
    copy.readInt("x");
    EXPECT_TRUE(top.hasErrors());
    const JsonReader other(parse(R"({})"));
    EXPECT_FALSE(other.hasErrors());
}

} // namespace
