#include <Platform/Platform.h>
#include <VelvoxKit/VXKit.h>

#include <gtest/gtest.h>

using namespace velvox;

TEST(VXKit, StringWithMilliseconds)
{
    static const struct {
        int64_t milliseconds;
        std::string_view text;
    } cases[] = {
        { 0, "0.00" },
        { 999, "0.00" },
        { 5000, "0.05" },
        { 61000, "1.01" },
        { 599999, "9.59" },
        { 600000, "10.00" },
        { 3599999, "59.59" },
        { 3600000, "1.00.00" },
        { 3661000, "1.01.01" },
        { 4200000, "1.10.00" },
        { 36000000, "10.00.00" },
    };
    for (auto& c : cases)
        EXPECT_EQ(stringWithMilliseconds(c.milliseconds)->view(), c.text) << c.milliseconds;
}

TEST(VXKit, StringWithIntegerUpperRange)
{
    EXPECT_EQ(stringWithInteger(120, 99)->view(), "99+");
    EXPECT_EQ(stringWithInteger(99, 99)->view(), "99");
    EXPECT_EQ(stringWithInteger(5, 99)->view(), "5");
    EXPECT_EQ(stringWithInteger(-3, 99)->view(), "-3");
}

TEST(VXKit, QuoteAwareTokens)
{
    static const struct {
        std::string_view text;
        std::vector<std::string> tokens;
    } cases[] = {
        { "play \"night drive\" now", { "play", "night drive", "now" } },
        { "   a    b   ", { "a", "b" } },
        { "", {} },
        { "    ", {} },
        { "a  \"b c\"", { "a", "\"b", "c\"" } },
        { "\"ab\"cd", { "ab", "d" } },
        { "\"\" x", { "x" } },
        { "rock \"hip hop\"", { "rock", "hip hop" } },
        { "tab\tinside word", { "tab\tinside", "word" } },
        { "a \"abc", { "a" } },
        { "\"caf\xc3\xa9 au lait\"\xc3\xa9x", { "caf\xc3\xa9 au lait", "x" } },
    };
    for (auto& c : cases) {
        auto tokens = componentsSeparatedByWhitespacePreservingQuotations(*String::create(c.text));
        std::vector<std::string> actual;
        for (auto* token : *tokens)
            actual.push_back(downcast<String>(token)->str());
        EXPECT_EQ(actual, c.tokens) << "text: " << c.text;
    }
}

TEST(VXKit, JSONShortcuts)
{
    EXPECT_TRUE(is<Dictionary>(JSONObject(*String::create(R"({"a":1})"))));
    EXPECT_FALSE(JSONObject(*String::create("not json")));
    EXPECT_TRUE(is<Array>(JSONObject(*Data::create("[1,2]"))));
    EXPECT_FALSE(JSONObject(*Data::create("[\"\xff\"]")));
    // Not UTF-8 anywhere: in a string (over-long, surrogate, cut short), between tokens, after the value.
    for (const char* text : { "[\"\xc0\xaf\"]", "[\"\xed\xa0\x80\"]", "[\"\xe2\x82\"]", "[1,\xc2\xa0 2]", "[1] \xff", "{\"k\xf5\":1}" })
        EXPECT_FALSE(JSONObject(*Data::create(text))) << text;
    EXPECT_TRUE(is<Array>(JSONObject(*Data::create("[\"\xe2\x82\xac \xf0\x9f\x8e\xb5\"]"))));
    EXPECT_FALSE(JSONObject(*Data::create("")));
    EXPECT_EQ(JSONString(*Dictionary::create({ { "k", Number::withInteger(1).ptr() } }))->view(), "{\"k\":1}");
}
