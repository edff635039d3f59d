#include <Platform/Platform.h>
#include <ZUKit/ZUImageDataURI.h>
#include <ZUKit/ZUPastDateFormatter.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

using namespace velvox;
using velvox::test::ManualTime;

namespace {

// Tuesday 2026-11-10 15:00:00 UTC.
constexpr double now = 1762786800 + 365 * 86400;

std::string relative(ZUPastDateFormatter& formatter, double secondsAgo)
{
    auto text = formatter.stringForObjectValue(Date::create(now - secondsAgo).ptr());
    return text ? text->str() : "(null)";
}

} // namespace

TEST(PastDateFormatter, RelativeTextsInTwoLanguagesAgainstAFixedClock)
{
    ManualTime time(0, now);
    static const struct {
        double secondsAgo;
        const char* english;
        const char* german;
    } cases[] = {
        { 0, "now", "jetzt" },
        { 59, "now", "jetzt" },
        { -3600, "now", "jetzt" }, // clock skew: a date in the future
        { 5 * 60 + 30, "5 minutes ago", "vor 5 Minuten" },
        { 3 * 3600, "3 hours ago", "vor 3 Stunden" },
        { 15 * 3600 + 60, "yesterday", "gestern" }, // 23:59 the day before
        { 3 * 86400, "3 days ago", "vor 3 Tagen" },
        { 15 * 86400, "2 weeks ago", "vor 2 Wochen" },
        { 60 * 86400, "Sep 11, 2026", "11.09.2026" },
    };
    auto english = ZUPastDateFormatter::create("en_US", "UTC");
    auto german = ZUPastDateFormatter::create("de_DE", "UTC");
    for (auto& c : cases) {
        EXPECT_EQ(relative(english, c.secondsAgo), c.english) << c.secondsAgo;
        EXPECT_EQ(relative(german, c.secondsAgo), c.german) << c.secondsAgo;
    }
    // Calendar days are the user's: 13 hours before 15:00 UTC is the same day
    // in UTC, but in Sydney (UTC+11) it is 02:00, and 13 hours earlier was yesterday.
    EXPECT_EQ(relative(english, 13 * 3600), "13 hours ago");
    auto sydney = ZUPastDateFormatter::create("en_AU", "Australia/Sydney");
    EXPECT_EQ(relative(sydney, 13 * 3600), "yesterday");

    EXPECT_FALSE(english->stringForObjectValue(String::create("2026-11-10").ptr()));
    EXPECT_FALSE(english->stringForObjectValue(nullptr));
}

TEST(PastDateFormatter, UnknownLanguagesReadInEnglish)
{
    ManualTime time(0, now);
    auto formatter = ZUPastDateFormatter::create("xx_YY", "UTC");
    EXPECT_EQ(formatter->localeIdentifier().substr(0, 2), "en");
    EXPECT_EQ(relative(formatter, 120), "2 minutes ago");
    auto posix = ZUPastDateFormatter::create("C", "UTC");
    EXPECT_EQ(relative(posix, 120), "2 minutes ago");
}

TEST(ImageDataURI, Base64VectorsAndTheDataURIOfAnImage)
{
    static const std::pair<const char*, const char*> vectors[] = {
        { "", "" },
        { "f", "Zg==" },
        { "fo", "Zm8=" },
        { "foo", "Zm9v" },
        { "foob", "Zm9vYg==" },
        { "fooba", "Zm9vYmE=" },
        { "foobar", "Zm9vYmFy" },
    };
    for (auto& [in, out] : vectors)
        EXPECT_EQ(zu_base64Encode(in), out) << in;
    EXPECT_EQ(zu_base64Encode(std::string("\xff\xfe\x00\x80", 4)), "//4AgA==");

    auto bytes = Data::create(std::string_view("GIF89a\x01\x00", 8));
    auto image = Image::create(bytes);
    ASSERT_TRUE(image);
    EXPECT_EQ(zu_dataURIRepresentation(*image)->str(), "data:image/gif;base64,R0lGODlhAQA=");
}
