#include "JsonReader.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

#include <functional>

namespace {

QJsonObject parse(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

TEST(JsonReader, readsEveryTypeWithoutErrors)
{
    const JsonReader reader(parse(R"({"s": "text", "i": 42, "f": 42.9, "b": true, "r": 2.5, "n": null,
                                      "d": "2024-03-01T10:20:30Z", "l": ["a", 1, "c"], "items": [1, "two"]})"));
    EXPECT_EQ(reader.readString("s"), "text");
    EXPECT_EQ(reader.readInt("i"), 42);
    EXPECT_EQ(reader.readInt("f"), 0) << "a fraction passes the number check; toInt gives 0 for it";
    EXPECT_TRUE(reader.readBool("b"));
    EXPECT_EQ(reader.readQReal("r"), 2.5);
    EXPECT_TRUE(reader.readString("n").isEmpty()) << "null reads as an empty string";
    EXPECT_EQ(reader.readDateTime("d"), QDateTime(QDate(2024, 3, 1), QTime(10, 20, 30), Qt::UTC));
    EXPECT_EQ(reader.readStringList("l"), (QStringList{"a", "", "c"})) << "elements are not type-checked";
    const QList<JsonReader> items = reader.readArray("items");
    ASSERT_EQ(items.size(), 2);
    EXPECT_TRUE(items[1].object().isEmpty()) << "non-object elements become empty objects silently";
    EXPECT_TRUE(reader.contains("n"));
    EXPECT_FALSE(reader.contains("z"));
    EXPECT_FALSE(reader.hasErrors());
}

TEST(JsonReader, wrongReadRecordsExactlyOneLine)
{
    const char *json = R"({"n": null, "s": "x", "i": 3, "o": {}, "a": [], "d": "yesterday"})";
    const std::pair<std::function<void(const JsonReader &)>, const char *> cases[] = {
        {[](const JsonReader &r) { EXPECT_TRUE(r.readString("z").isNull()); }, "z is missing."},
        {[](const JsonReader &r) { EXPECT_EQ(r.readInt("n"), 0); }, "n is not the right type. Expected 2, got 0"},
        {[](const JsonReader &r) { EXPECT_EQ(r.readInt("s"), 0); }, "s is not the right type. Expected 2, got 3"},
        {[](const JsonReader &r) { EXPECT_FALSE(r.readBool("i")); }, "i is not the right type. Expected 1, got 2"},
        {[](const JsonReader &r) { r.readObject("a"); }, "a is not the right type. Expected 5, got 4"},
        {[](const JsonReader &r) { EXPECT_TRUE(r.readArray("o").isEmpty()); },
         "o is not the right type. Expected 4, got 5"},
        {[](const JsonReader &r) { EXPECT_TRUE(r.readArray("q").isEmpty()); }, "q is missing."},
        {[](const JsonReader &r) { EXPECT_TRUE(r.readStringList("o").isEmpty()); },
         "o is not the right type. Expected 4, got 5"},
        {[](const JsonReader &r) { EXPECT_EQ(r.readQReal("n"), 0.0); }, "n is not the right type. Expected 2, got 0"},
        {[](const JsonReader &r) { EXPECT_FALSE(r.readDateTime("d").isValid()); },
         "d field does not respect datetime ISO format."},
        {[](const JsonReader &r) { EXPECT_FALSE(r.readDateTime("i").isValid()); },
         "i is not the right type. Expected 3, got 2"},
    };
    for (const auto &[read, error] : cases) {
        const JsonReader reader(parse(json));
        read(reader);
        EXPECT_EQ(reader.errors(), QStringList{error});
    }
}

TEST(JsonReader, nestedReadersShareTheErrorListWithTheirPrefixes)
{
    const JsonReader top(parse(R"({"displays": [{}, {"w": "x"}],
                                   "display_settings": {"displays": [{}],
                                                        "inner": {"deep": {"when": "not a date"}}}})"));
    const QList<JsonReader> displays = top.readArray("displays");
    ASSERT_EQ(displays.size(), 2);
    EXPECT_EQ(displays[0].prefix(), ".displays[0].");
    displays[0].readInt("w");
    displays[1].readInt("w");
    const JsonReader settings = top.readObject("display_settings");
    settings.readArray("displays").first().readBool("on");
    // A reader made by readObject names only its immediate parent.
    settings.readObject("inner").readObject("deep").readString("leaf");
    settings.readObject("inner").readDateTime("deep");
    top.readObject("missing").readInt("width");
    const JsonReader copy = top;
    copy.readObject("display_settings").readObject("inner").readObject("deep").readDateTime("when");

    EXPECT_EQ(top.errors(), (QStringList{".displays[0].w is missing.",
                                         ".displays[1].w is not the right type. Expected 2, got 3",
                                         "display_settings..displays[0].on is missing.", "deep.leaf is missing.",
                                         "inner.deep is not the right type. Expected 3, got 5", "missing is missing.",
                                         "missing.width is missing.",
                                         "when field does not respect datetime ISO format."}));
    EXPECT_FALSE(JsonReader(parse("{}")).hasErrors());
}

} // namespace
