#include <Platform/Platform.h>
#include <Platform/UTF8.h>

#include <gtest/gtest.h>

#include <limits>

#include <cmath>

using namespace velvox;

TEST(Number, KeepsItsTypeCode)
{
    EXPECT_EQ(Number::withBool(true)->objCType(), 'c');
    EXPECT_EQ(Number::withInteger(-3)->objCType(), 'q');
    EXPECT_EQ(Number::withUnsignedInteger(UINT64_MAX)->objCType(), 'Q');
    EXPECT_EQ(Number::withDouble(0.5)->objCType(), 'd');
    EXPECT_EQ(Number::create(true).ptr(), &Number::trueValue());
    EXPECT_EQ(Number::create(false).ptr(), &Number::falseValue());
    EXPECT_EQ(Number::create(7u)->objCType(), 'Q');
}

TEST(Number, ConversionsTruncateAndSaturate)
{
    EXPECT_EQ(Number::withDouble(1500.9)->integerValue(), 1500);
    EXPECT_EQ(Number::withDouble(-1500.9)->intValue(), -1500);
    EXPECT_EQ(Number::withDouble(1e30)->integerValue(), INT64_MAX);
    EXPECT_EQ(Number::withDouble(NAN)->integerValue(), 0);
    EXPECT_EQ(Number::withInteger(0x100000005)->intValue(), 5);
    EXPECT_EQ(Number::withUnsignedInteger(UINT64_MAX)->stringValue()->view(), "18446744073709551615");
    EXPECT_EQ(Number::withInteger(123)->stringValue()->view(), "123");
    EXPECT_EQ(Number::withDouble(12.5)->stringValue()->view(), "12.5");
    EXPECT_EQ(Number::withDouble(0.1)->stringValue()->view(), "0.1");
    EXPECT_DOUBLE_EQ(Number::withInteger(3)->doubleValue(), 3.0);
}

TEST(Number, EqualityAcrossKindsMatchesHashing)
{
    auto integer = Number::withInteger(50);
    auto real = Number::withDouble(50.0);
    auto large = Number::withUnsignedInteger(50);
    EXPECT_TRUE(integer->isEqual(real.ptr()));
    EXPECT_TRUE(large->isEqual(integer.ptr()));
    EXPECT_EQ(integer->hash(), real->hash());
    EXPECT_EQ(integer->hash(), large->hash());
    EXPECT_FALSE(Number::withDouble(50.5)->isEqual(integer.ptr()));
    EXPECT_LT(Number::withInteger(-1)->compare(*Number::withUnsignedInteger(UINT64_MAX)), 0);
    EXPECT_GT(Number::withUnsignedInteger(UINT64_MAX)->compare(*Number::withInteger(INT64_MAX)), 0);
    EXPECT_FALSE(integer->isEqual(String::create("50").ptr()));
}

TEST(String, ValueReadingsAndEquality)
{
    EXPECT_EQ(String::create("  42abc")->intValue(), 42);
    EXPECT_EQ(String::create("x")->integerValue(), 0);
    EXPECT_DOUBLE_EQ(String::create("1.25")->doubleValue(), 1.25);
    EXPECT_TRUE(String::create("YES")->boolValue());
    EXPECT_FALSE(String::create("0")->boolValue());
    EXPECT_EQ(String::create("").ptr(), &String::empty());
    EXPECT_TRUE(String::create("abc")->isEqual(String::create("abc").ptr()));
    EXPECT_EQ(String::create("abc")->hash(), String::create("abc")->hash());
    EXPECT_EQ(String::create("abc")->hash(), String::hashBytes("abc", 3));
    EXPECT_LT(String::create("B")->compare(*String::create("a")), 0); // literal, case-sensitive
    auto parts = String::create("a, , b")->componentsSeparatedByString(", ");
    ASSERT_EQ(parts->count(), 3u);
    EXPECT_EQ(downcast<String>(parts->objectAtIndex(1))->view(), "");
}

TEST(URL, StrictParsing)
{
    EXPECT_FALSE(URL::create("http://example.com/a b"));
    EXPECT_FALSE(URL::create(""));
    EXPECT_FALSE(URL::create("http://exa mple.com"));
    auto url = URL::create("https://api.velvox.test:8443/tracks/12?limit=50&offset=0#top");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->scheme(), "https");
    EXPECT_EQ(url->host(), "api.velvox.test");
    EXPECT_EQ(url->port(), 8443);
    EXPECT_EQ(url->path(), "/tracks/12");
    EXPECT_EQ(url->query()->view(), "limit=50&offset=0");
    EXPECT_EQ(url->fragment()->view(), "top");
    EXPECT_FALSE(URL::create("http://a.test/x")->query());
    auto base = URL::create("http://127.0.0.1:8080/api/");
    EXPECT_EQ(URL::create("me/favorites", base.get())->absoluteString()->view(), "http://127.0.0.1:8080/api/me/favorites");
    EXPECT_TRUE(URL::create("http://a.test/x")->isEqual(URL::create("http://a.test/x").get()));
}

TEST(Date, DistantPastAndDescription)
{
    EXPECT_LT(Date::distantPast().timeIntervalSince1970(), Date::now()->timeIntervalSince1970() - 1e10);
    EXPECT_EQ(Date::create(1300094813)->description()->view(), "2011-03-14 09:26:53 +0000");
    EXPECT_TRUE(Date::create(5)->isEqual(Date::create(5).ptr()));
}

TEST(Error, DescriptionFromUserInfoOrDefault)
{
    auto plain = Error::create("VXTestDomain", 401);
    EXPECT_EQ(plain->code(), 401);
    EXPECT_EQ(plain->domain()->view(), "VXTestDomain");
    EXPECT_NE(plain->localizedDescription()->view().find("VXTestDomain error 401"), std::string_view::npos);
    auto described = Error::create("VXTestDomain", -1, "Unable to parse JSON.");
    EXPECT_EQ(described->localizedDescription()->view(), "Unable to parse JSON.");
    EXPECT_EQ(described->userInfo()->objectForKey<String>(LocalizedDescriptionKey)->view(), "Unable to parse JSON.");
}

TEST(Image, MediaTypeFromSignature)
{
    auto png = Data::create(std::string_view("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
    auto image = Image::create(png);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->mediaType(), "image/png");
    EXPECT_EQ(Image::mediaTypeForBytes(reinterpret_cast<const uint8_t*>("\xff\xd8\xff\xe0"), 4), "image/jpeg");
    EXPECT_FALSE(Image::create(*Data::create("not an image")));
}

namespace {

class Doubler final : public ValueTransformer {
public:
    static Ref<Doubler> create() { return adoptRef(*new Doubler); }
    RefPtr<Object> transformedValue(Object* value) const override
    {
        auto* number = dynamicDowncast<Number>(value);
        return number ? RefPtr<Object>(Number::withInteger(number->integerValue() * 2)) : nullptr;
    }
    bool allowsReverseTransformation() const override { return false; }
};

} // namespace

TEST(ValueTransformer, RegistryReplacesByName)
{
    auto first = Doubler::create();
    auto second = Doubler::create();
    ValueTransformer::setValueTransformer(first.ptr(), "DoublerName");
    EXPECT_EQ(ValueTransformer::valueTransformerForName("DoublerName").get(), first.ptr());
    ValueTransformer::setValueTransformer(second.ptr(), "DoublerName");
    EXPECT_EQ(ValueTransformer::valueTransformerForName("DoublerName").get(), second.ptr());
    EXPECT_EQ(first->refCount(), 1u);
    auto result = ValueTransformer::valueTransformerForName("DoublerName")->transformedValue(Number::withInteger(21).get());
    EXPECT_EQ(downcast<Number>(result)->integerValue(), 42);
    EXPECT_THROW(second->reverseTransformedValue(Number::withInteger(1).get()), Exception);
    ValueTransformer::setValueTransformer(nullptr, "DoublerName");
    EXPECT_FALSE(ValueTransformer::valueTransformerForName("DoublerName"));
}

TEST(Date, AnyDoubleDescribesAndHashesSafely)
{
    // Out-of-range instants (a crafted archive, a bad answer) must not convert a
    // double to an integer that cannot hold it (undefined behaviour).
    for (double seconds : { 1.7e190, -1.7e190, 9.3e18, -9.3e18, std::numeric_limits<double>::infinity(),
             std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::max() }) {
        auto date = Date::create(seconds);
        EXPECT_EQ(date->description()->view(), "(invalid date)") << seconds;
        (void)date->hash();
    }
    EXPECT_EQ(Date::create(1.5e9)->hash(), Date::create(1.5e9)->hash());
}

// The run skipper accepts exactly the sequences the decoder accepts: every
// sequence of two and three bytes, and four-byte ones over every lead and
// second byte with the edges of the continuation range after them.
TEST(UTF8, MultibyteRunsAgreeWithTheDecoder)
{
    auto agrees = [](const uint8_t* bytes, size_t length) {
        const uint8_t* next;
        uint32_t codePoint;
        bool decodes = decodeUTF8(bytes, bytes + length, &next, &codePoint) == UTF8Result::ok && bytes[0] >= 0x80;
        const uint8_t* runEnd = skipMultibyteUTF8(bytes, bytes + length);
        return decodes ? runEnd == next : runEnd == bytes;
    };
    size_t disagreements = 0;
    uint8_t bytes[4];
    for (unsigned a = 0x80; a < 0x100; ++a) {
        bytes[0] = static_cast<uint8_t>(a);
        disagreements += !agrees(bytes, 1);
        for (unsigned b = 0; b < 0x100; ++b) {
            bytes[1] = static_cast<uint8_t>(b);
            disagreements += !agrees(bytes, 2);
            for (unsigned c = 0; c < 0x100; ++c) {
                bytes[2] = static_cast<uint8_t>(c);
                disagreements += !agrees(bytes, 3);
                if (a < 0xF0)
                    continue;
                for (uint8_t d : { 0x00, 0x7F, 0x80, 0xBF, 0xC0, 0xFF }) {
                    bytes[3] = d;
                    disagreements += !agrees(bytes, 4);
                }
            }
        }
    }
    EXPECT_EQ(disagreements, 0u);
    // A run goes on over sequences of every length and stops at ASCII or a refused byte.
    const std::string text = "\xC3\xA9\xE3\x81\x82\xF0\x9F\x8E\xB5"
                             "a\xC3\xA9";
    auto* start = reinterpret_cast<const uint8_t*>(text.data());
    EXPECT_EQ(skipMultibyteUTF8(start, start + text.size()), start + 9);
    const std::string broken = "\xC3\xA9\xED\xA0\x80";
    auto* brokenStart = reinterpret_cast<const uint8_t*>(broken.data());
    EXPECT_EQ(skipMultibyteUTF8(brokenStart, brokenStart + broken.size()), brokenStart + 2);

    // Whole texts: the validator against a decode of every code point, over
    // random mixes of ASCII runs, good sequences and single odd bytes.
    auto decodesWhole = [](const std::string& text) {
        auto* at = reinterpret_cast<const uint8_t*>(text.data());
        auto* end = at + text.size();
        uint32_t codePoint;
        while (at < end) {
            if (decodeUTF8(at, end, &at, &codePoint) != UTF8Result::ok)
                return false;
        }
        return true;
    };
    const char* pieces[] = { "plain ascii text", "\xC3\xA9", "\xE3\x81\x82", "\xF0\x9F\x8E\xB5", "\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xC3", "x" };
    srand(7);
    size_t mismatches = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        for (int n = rand() % 8; n > 0; --n) {
            int piece = rand() % 9;
            text += piece >= 4 && rand() % 3 ? pieces[rand() % 4] : pieces[piece];
        }
        mismatches += String::isValidUTF8(text.data(), text.size()) != decodesWhole(text);
    }
    EXPECT_EQ(mismatches, 0u);
}
