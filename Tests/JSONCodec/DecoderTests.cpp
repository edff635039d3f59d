#include <JSONCodec/JCInternal.h>
#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <thread>

using namespace velvox;

namespace {

struct Failure {
    std::string message;
    uint64_t line { 0 };
    uint64_t index { 0 };
};

constexpr std::string_view unexpectedToken
    = "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', 'NUMBER'.";

// A copy in a block of exactly the text's size, so that the address sanitizer
// catches a read past its end.
std::unique_ptr<char[]> exactCopy(std::string_view text)
{
    auto bytes = std::make_unique<char[]>(text.size());
    memcpy(bytes.get(), text.data(), text.size());
    return bytes;
}

Failure decodeFailure(std::string_view text, JCParseOptionFlags options = JCParseOptionStrict)
{
    RefPtr<Error> error;
    auto decoder = JSONDecoder::decoderWithParseOptions(options);
    auto result = decoder->objectWithUTF8String(text, &error);
    EXPECT_FALSE(result) << text;
    if (!error)
        return { "(no error)" };
    EXPECT_EQ(error->domain()->view(), JCErrorDomain);
    EXPECT_EQ(error->code(), -1);
    auto* info = error->userInfo();
    return { error->localizedDescription()->str(), info->objectForKey<Number>(JCLineNumberKey)->unsignedLongLongValue(),
        info->objectForKey<Number>(JCAtIndexKey)->unsignedLongLongValue() };
}

RefPtr<Object> decode(std::string_view text, JCParseOptionFlags options = JCParseOptionStrict)
{
    RefPtr<Error> error;
    auto result = JSONDecoder::decoderWithParseOptions(options)->objectWithUTF8String(text, &error);
    EXPECT_TRUE(result) << text << ": " << (error ? error->localizedDescription()->str() : "");
    return result;
}

Object* first(const RefPtr<Object>& array)
{
    return downcast<Array>(array.get())->objectAtIndex(0);
}

} // namespace

TEST(JSONDecoder, ErrorMessages)
{
    static const struct {
        std::string_view input;
        std::string_view message;
    } cases[] = {
        { "1", "Expected either '[' or '{'." },
        { "\"text\"", "Expected either '[' or '{'." },
        { "true", "Expected either '[' or '{'." },
        { "", "Reached the end of the buffer." },
        { "   \n ", "Reached the end of the buffer." },
        { "[1] x", "A valid JSON object was parsed but there were additional non-white-space characters remaining." },
        { "[1] // c", "A valid JSON object was parsed but there were additional non-white-space characters remaining." },
        { "[01]", "Unexpected value." },
        { "[1 2]", "Unexpected value." },
        { "[1:]", "Expected a comma or a ']', not ':'" },
        { "[:]", "Expected a value or a ']', not ':'" },
        { "[1,:]", "Expected a value, not ':'" },
        { "[1 x]", "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', 'NUMBER'." },
        { "[tru]", "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', 'NUMBER'." },
        { "[1,]", "Unexpected ']'." },
        { "[,1]", "Unexpected ','." },
        { "{\"a\" 1}", "Expected ':'." },
        { "{\"a\":1 \"b\":2}", "Unexpected string." },
        { "{,}", "Unexpected ','." },
        { "{\"a\":1,}", "Unexpected '}'." },
        { "{1:2}", "Expected a \"STRING\" or a '}', not '1'" },
        { "{\"a\":1 :}", "Expected a comma or a '}', not ':'" },
        { "{\"a\":}", "Expected a value, not '}'" },
        { "{\"a\":1]", "Expected a comma or a '}', not ']'" },
        { "[1}", "Expected a comma or a ']', not '}'" },
        { "[18446744073709551616]", "The value '18446744073709551616' exceeded the maximum value that could be represented: 18446744073709551615." },
        { "[-9223372036854775809]", "The value '-9223372036854775809' exceeded the minimum value that could be represented: -9223372036854775808." },
        { "[1e400]", "The value '1e400' could not be represented as a 'double' due to overflow." },
        { "[1e-400]", "The value '1e-400' could not be represented as a 'double' due to underflow." },
        { "[-]", "Invalid number." },
        { "[1.]", "Invalid number." },
        { "[1e+]", "Invalid number." },
        { "[\"\\u0000\"]", "Illegal \\u Unicode escape sequence." },
        { "[\"\\ud800\"]", "Required a second \\u Unicode escape sequence following a surrogate \\u Unicode escape sequence." },
        { "[\"\\ud800\\u0041\"]", "Illegal \\u Unicode escape sequence." },
        { "[\"\\udc00\"]", "Illegal \\u Unicode escape sequence." },
        { "[\"\\ufffe\"]", "Illegal \\u Unicode escape sequence." },
        { "[\"\\ufdd0\"]", "Illegal \\u Unicode escape sequence." },
        { "[\"\\u12G4\"]", "Unexpected character found in \\u Unicode escape sequence.  Found 'G', expected [0-9a-fA-F]." },
        { "[\"\\x\"]", "Invalid escape sequence found in \"\" string." },
        { "[\"a\x1f\"]", "Invalid character < 0x20 found in string: 0x1f." },
        { "[\"abc", "Invalid string." },
        { "[\"\xc3\x28\"]", "Illegal UTF8 sequence found in \"\" string." },
        { "[\"\xe2\x82", "End of buffer reached while parsing UTF8 in \"\" string." },
        { "[\"\xc0\xaf\"]", "Illegal UTF8 sequence found in \"\" string." },
        { "[\"\xed\xa0\x80\"]", "Illegal UTF8 sequence found in \"\" string." },
        { "/* c */ []", "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', 'NUMBER'." },
        { "[[", "Internal error: Object == NULL" },
    };
    for (auto& c : cases)
        EXPECT_EQ(decodeFailure(c.input).message, c.message) << "input: " << c.input;
}

// A literal is read whole or not at all, wherever the input ends: each cut of
// a text in an exact-size buffer (so that a read past it is caught under the
// address sanitizer) fails, one inside a literal with the unexpected-token
// message at the literal's first byte.
TEST(JSONDecoder, LiteralsAreWholeWordsWhereverTheInputEnds)
{
    std::string_view text = R"({"a":[true,false,null],"b":false})";
    for (size_t cut = 1; cut <= text.size(); ++cut) {
        auto bytes = exactCopy(text.substr(0, cut));
        RefPtr<Error> error;
        auto result = JSONDecoder::decoder()->objectWithUTF8String(bytes.get(), cut, &error);
        if (cut == text.size()) {
            ASSERT_TRUE(result);
            auto* array = downcast<Array>(downcast<Dictionary>(result.get())->objectForKey("a"));
            EXPECT_EQ(array->objectAtIndex(0), &Number::trueValue());
            EXPECT_EQ(array->objectAtIndex(1), &Number::falseValue());
            EXPECT_EQ(array->objectAtIndex(2), &Null::null());
            continue;
        }
        EXPECT_FALSE(result) << cut;
        ASSERT_TRUE(error) << cut;
        for (size_t start : { 6u, 11u, 17u, 27u }) {
            size_t end = start + (text[start] == 'f' ? 5 : 4);
            if (cut > start && cut < end) {
                EXPECT_EQ(error->localizedDescription()->view(), unexpectedToken) << cut;
                EXPECT_EQ(error->userInfo()->objectForKey<Number>(JCAtIndexKey)->unsignedLongLongValue(), start) << cut;
            }
        }
    }
    for (auto input : { "[nulL]", "[falsE]", "[tru]", "[fals]", "[nul" })
        EXPECT_EQ(decodeFailure(input).message, unexpectedToken) << input;
    EXPECT_EQ(decodeFailure("[nullnull]").message, "Unexpected value.");
    EXPECT_EQ(decodeFailure("{\"k\":falsee}").message, unexpectedToken);
}

TEST(JSONDecoder, ErrorsCarryLineAndIndex)
{
    auto failure = decodeFailure("[\n1,\r\n2,\r3,\n x]");
    EXPECT_EQ(failure.line, 5u); // CR LF counts once
    EXPECT_EQ(failure.index, 13u);
    EXPECT_EQ(decodeFailure("[1,\n\n  ]").line, 3u);
    // U+2028 counts as a newline only when asked.
    EXPECT_EQ(decodeFailure("[1,\xe2\x80\xa8 x]", JCParseOptionUnicodeNewlines).line, 2u);
    EXPECT_EQ(decodeFailure("[\"a\",\xc2\x85 x]", JCParseOptionUnicodeNewlines).line, 2u);
    // Inside strings they are text, not lines; escaped quotes do not end a string.
    EXPECT_EQ(decodeFailure("[\"\xe2\x80\xa8\\\"\xe2\x80\xa8\",\n x]", JCParseOptionUnicodeNewlines).line, 2u);
    EXPECT_EQ(decodeFailure("[1,\n \"open\n\"]").line, 2u);
    // Comments count the lines they hold; a quote in a comment starts no string.
    EXPECT_EQ(decodeFailure("[1, // \"\n /* \" \r\n */ 2 x]", JCParseOptionComments).line, 3u);

    // White space runs of every length, wherever they end (in exact-size
    // buffers): skipped whole, with the fault's index and line after them.
    for (size_t run = 0; run < 80; ++run) {
        std::string white;
        for (size_t i = 0; i < run; ++i)
            white += " \t\n\r "[i % 5];
        size_t lines = 1; // LF, CR, and CR LF once
        for (size_t i = 0; i < white.size(); ++i)
            lines += white[i] == '\n' || (white[i] == '\r' && (i + 1 == white.size() || white[i + 1] != '\n'));
        std::string good = "{" + white + "\"k\"" + white + ":" + white + "[" + white + "1" + white + "]" + white + "}" + white;
        auto goodBytes = exactCopy(good);
        EXPECT_TRUE(JSONDecoder::decoder()->objectWithUTF8String(goodBytes.get(), good.size())) << run;
        std::string bad = "[1," + white + "x]";
        auto badBytes = exactCopy(bad);
        RefPtr<Error> error;
        EXPECT_FALSE(JSONDecoder::decoder()->objectWithUTF8String(badBytes.get(), bad.size(), &error));
        ASSERT_TRUE(error) << run;
        EXPECT_EQ(error->userInfo()->objectForKey<Number>(JCAtIndexKey)->unsignedLongLongValue(), 3 + run) << run;
        EXPECT_EQ(error->userInfo()->objectForKey<Number>(JCLineNumberKey)->unsignedLongLongValue(), lines) << run;
    }
}

TEST(JSONDecoder, ParseOptions)
{
    EXPECT_TRUE(decode("[1] // c", JCParseOptionComments));
    EXPECT_TRUE(decode("/* a\nb */ [1, // one\n 2 /* two */]", JCParseOptionComments));
    EXPECT_EQ(decodeFailure("[1, /* \n */ x]", JCParseOptionComments).line, 2u);
    EXPECT_TRUE(decode("[1] x", JCParseOptionPermitTextAfterValidJSON));
    EXPECT_TRUE(decode("[1]   \n\t ")); // trailing white space is fine anyway
    EXPECT_EQ(decodeFailure("[1,\xe2\x80\xa8 2]").message,
        "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', 'NUMBER'.");
    EXPECT_TRUE(decode("[1,\xe2\x80\xa8 2]", JCParseOptionUnicodeNewlines));
    try {
        JSONDecoder::decoderWithParseOptions(16);
        FAIL();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), InvalidArgumentException);
        EXPECT_EQ(exception.reason(), "Invalid parse options.");
    }
}

TEST(JSONDecoder, LooseUnicodeReplacesWithFFFD)
{
    static const struct {
        std::string_view input;
        std::string_view text;
    } cases[] = {
        { "[\"\\u0000\"]", "\xef\xbf\xbd" },
        { "[\"a\\ud800b\"]", "a\xef\xbf\xbd"
                             "b" },
        { "[\"\\ud800\\u0041\"]", "\xef\xbf\xbd"
                                  "A" },
        { "[\"\xc3\x28\"]", "\xef\xbf\xbd(" },
        { "[\"\\udc00\"]", "\xef\xbf\xbd" },
    };
    for (auto& c : cases) {
        auto result = decode(c.input, JCParseOptionLooseUnicode);
        ASSERT_TRUE(result) << c.input;
        EXPECT_EQ(downcast<String>(first(result))->view(), c.text) << c.input;
    }
}

TEST(JSONDecoder, StringsAndEscapes)
{
    auto result = decode(R"(["a\"b\\c\/d\b\f\n\r\t", "\u00e9\u20AC", "\ud83d\ude00", "plain", "", "caf\u00e9 \u00e9t\u00e9"])");
    auto* array = downcast<Array>(result.get());
    EXPECT_EQ(downcast<String>(array->objectAtIndex(0))->view(), "a\"b\\c/d\b\f\n\r\t");
    EXPECT_EQ(downcast<String>(array->objectAtIndex(1))->view(), "\xc3\xa9\xe2\x82\xac");
    EXPECT_EQ(downcast<String>(array->objectAtIndex(2))->view(), "\xf0\x9f\x98\x80");
    EXPECT_EQ(downcast<String>(array->objectAtIndex(3))->view(), "plain");
    EXPECT_EQ(array->objectAtIndex(4), &String::empty());
    // Raw UTF-8 passes through unchanged, noncharacters included.
    auto raw = decode("[\"\xf0\x9f\x8e\xb5 \xef\xbf\xbe\"]");
    EXPECT_EQ(downcast<String>(first(raw))->view(), "\xf0\x9f\x8e\xb5 \xef\xbf\xbe");
    // A long string with an escape far in needs the heap buffer.
    std::string longText(10000, 'x');
    auto longResult = decode("[\"" + longText + "\\n\"]");
    EXPECT_EQ(downcast<String>(first(longResult))->length(), 10001u);
}

TEST(JSONDecoder, NumbersKeepTheirKinds)
{
    auto result = decode("[0, -0, 1.5, -12, 18446744073709551615, 9223372036854775807, 9223372036854775808, -9223372036854775808, 1e2, 0.1, 2.5E-3, true, false, null]");
    auto* array = downcast<Array>(result.get());
    auto number = [&](size_t i) { return downcast<Number>(array->objectAtIndex(i)); };
    EXPECT_EQ(number(0)->objCType(), 'q');
    EXPECT_EQ(number(1)->objCType(), 'd');
    EXPECT_TRUE(std::signbit(number(1)->doubleValue()));
    EXPECT_EQ(number(2)->doubleValue(), 1.5);
    EXPECT_EQ(number(3)->integerValue(), -12);
    EXPECT_EQ(number(4)->objCType(), 'Q');
    EXPECT_EQ(number(4)->unsignedLongLongValue(), UINT64_MAX);
    EXPECT_EQ(number(5)->objCType(), 'q'); // unsigned text that fits a signed number
    EXPECT_EQ(number(6)->objCType(), 'Q');
    EXPECT_EQ(number(7)->integerValue(), INT64_MIN);
    EXPECT_EQ(number(8)->objCType(), 'd');
    EXPECT_EQ(number(9)->doubleValue(), 0.1);
    EXPECT_EQ(number(10)->doubleValue(), 2.5e-3);
    EXPECT_EQ(array->objectAtIndex(11), &Number::trueValue());
    EXPECT_EQ(array->objectAtIndex(12), &Number::falseValue());
    EXPECT_EQ(array->objectAtIndex(13), &Null::null());
    // Subnormal values are still ERANGE for the platform's conversion, which calls them an overflow.
    EXPECT_EQ(decodeFailure("[4.9e-320]").message, "The value '4.9e-320' could not be represented as a 'double' due to overflow.");
    EXPECT_EQ(downcast<Number>(first(decode("[0.0]")))->doubleValue(), 0.0);
    EXPECT_EQ(downcast<Number>(first(decode("[1.7976931348623157e308]")))->doubleValue(), 1.7976931348623157e308);
}

TEST(JSONDecoder, NumbersOfEveryLengthConvertExactly)
{
    // Plain fractions of every length up to past 19 digits, halfway cases and
    // the edges of exact arithmetic, against the C library's conversion.
    std::mt19937_64 random(11);
    std::vector<std::string> texts = { "9007199254740993.0", "9007199254740992.5", "0.30000000000000004", "1.0000000000000002",
        "123456789012345678.9", "1234567890123456789.0", "0.0000000000000000001", "0.12345678901234567890",
        "2.2250738585072014", "179769313486231570000.0", "-0.5", "-65.613616999999977", "4.35", "0.1" };
    for (int i = 0; i < 20000; ++i) {
        std::string whole = std::to_string(random() % (i % 3 ? 1000 : 100000000000ull));
        std::string fraction;
        for (size_t digits = 1 + random() % 21; digits--;)
            fraction += static_cast<char>('0' + random() % 10);
        texts.push_back((i % 5 ? "" : "-") + whole + "." + fraction);
    }
    std::string text = "[";
    for (size_t i = 0; i < texts.size(); ++i)
        text += (i ? "," : "") + texts[i];
    text += "]";
    auto result = decode(text);
    auto* array = downcast<Array>(result.get());
    ASSERT_EQ(array->count(), texts.size());
    for (size_t i = 0; i < texts.size(); ++i) {
        double expected = strtod(texts[i].c_str(), nullptr);
        double decoded = downcast<Number>(array->objectAtIndex(i))->doubleValue();
        ASSERT_EQ(memcmp(&expected, &decoded, sizeof(double)), 0) << texts[i];
    }
    // Integers of every length, read eight digits at a time where they can be.
    std::vector<std::string> integers;
    for (int digits = 1; digits <= 18; ++digits) {
        for (int i = 0; i < 50; ++i) {
            std::string number(1, static_cast<char>('1' + random() % 9));
            while (number.size() < static_cast<size_t>(digits))
                number += static_cast<char>('0' + random() % 10);
            integers.push_back((i % 2 ? "-" : "") + number);
        }
    }
    integers.insert(integers.end(), { "9223372036854775807", "-9223372036854775808", "18446744073709551615", "12345678", "-87654321" });
    text = "[";
    for (size_t i = 0; i < integers.size(); ++i)
        text += (i ? "," : "") + integers[i];
    text += "]";
    auto integerResult = decode(text);
    auto* integerArray = downcast<Array>(integerResult.get());
    ASSERT_EQ(integerArray->count(), integers.size());
    for (size_t i = 0; i < integers.size(); ++i) {
        auto* number = downcast<Number>(integerArray->objectAtIndex(i));
        if (integers[i][0] == '-')
            EXPECT_EQ(number->longLongValue(), strtoll(integers[i].c_str(), nullptr, 10)) << integers[i];
        else
            EXPECT_EQ(number->unsignedLongLongValue(), strtoull(integers[i].c_str(), nullptr, 10)) << integers[i];
    }
}

// A digit run ends at the first byte that is not a digit, whatever its value
// (bytes next to '0' and '9', and those of F0 and up, which carry when read
// as part of a word), and whatever follows it; runs of every length, whole
// and after the point.
TEST(JSONDecoder, DigitRunsEndAtTheirFirstOtherByte)
{
    std::mt19937_64 random(5);
    auto digitRun = [&](size_t length) {
        std::string run(1, static_cast<char>('1' + random() % 9));
        while (run.size() < length)
            run += static_cast<char>('0' + random() % 10);
        return run;
    };
    // Whole numbers up to 19 digits (20 may not fit), fractions past that.
    for (size_t length = 1; length <= 21; ++length) {
        for (int fraction = length > 19 ? 1 : 0; fraction < 2; ++fraction) {
            std::string number = fraction ? "7." + digitRun(length) : digitRun(length);
            for (int byte = 0; byte < 256; ++byte) {
                // Delimiters, the bytes that continue a number and those that
                // start a token of their own (its fault is placed after it)
                // are left out; every other byte is a fault right there.
                if (std::string_view(",] \t\n\r.eE-+\":[{}").find(static_cast<char>(byte)) != std::string_view::npos || (byte >= '0' && byte <= '9'))
                    continue;
                // Digits after the odd byte tempt a reader that overshoots.
                std::string text = "[" + number + static_cast<char>(byte) + "98765432]";
                EXPECT_EQ(decodeFailure(text).index, 1 + number.size()) << number << " then " << byte;
            }
            // The run closed by each delimiter, with its value intact.
            for (std::string tail : { ",", "]", " ,", "\n]", "\t," }) {
                std::string text = "[" + number + tail + (tail.back() == ',' ? "1]" : "");
                auto array = decode(text);
                ASSERT_TRUE(array) << text;
                auto* first = downcast<Number>(downcast<Array>(array.get())->objectAtIndex(0));
                if (fraction)
                    EXPECT_EQ(first->doubleValue(), strtod(number.c_str(), nullptr)) << text;
                else
                    EXPECT_EQ(first->unsignedLongLongValue(), strtoull(number.c_str(), nullptr, 10)) << text;
            }
        }
    }
}

// The cache places a value by its hash, each byte folded in as hash × 33 + byte;
// the wide steps that compute it must agree with that for every length, start
// and byte value.
TEST(JSONDecoder, TheValueHashFoldsInEveryByteAsDefined)
{
    std::mt19937_64 random(2026);
    uint8_t bytes[200];
    for (int round = 0; round < 20000; ++round) {
        size_t start = random() % 16, length = random() % (sizeof(bytes) - 16);
        for (auto& byte : bytes)
            byte = static_cast<uint8_t>(round % 3 ? random() : 0xFF - random() % 2);
        uint64_t seed = round % 2 ? random() : 1402737925, expected = seed;
        for (size_t i = 0; i < length; ++i)
            expected = expected * 33 + bytes[start + i];
        ASSERT_EQ(detail::hashRun(seed, bytes + start, bytes + start + length), expected) << "length " << length;
    }
}

TEST(JSONDecoder, CacheGivesOneObjectPerDistinctValue)
{
    std::string text = "[";
    for (int i = 0; i < 1000; ++i)
        text += (i ? "," : "") + std::string(R"({"title":"Night Drive","plays":1200,"ratio":0.5})");
    text += "]";
    auto decoder = JSONDecoder::decoder();
    auto result = decoder->objectWithUTF8String(text);
    ASSERT_TRUE(result);
    auto* array = downcast<Array>(result.get());
    ASSERT_EQ(array->count(), 1000u);
    auto keyOf = [&](size_t i, std::string_view name) -> Object* {
        auto* dictionary = downcast<Dictionary>(array->objectAtIndex(i));
        for (auto& entry : *dictionary) {
            if (downcast<String>(entry.key)->view() == name)
                return entry.key;
        }
        return nullptr;
    };
    auto* dictionary0 = downcast<Dictionary>(array->objectAtIndex(0));
    auto* dictionary999 = downcast<Dictionary>(array->objectAtIndex(999));
    EXPECT_EQ(keyOf(0, "title"), keyOf(999, "title"));
    EXPECT_EQ(dictionary0->objectForKey("title"), dictionary999->objectForKey("title"));
    EXPECT_EQ(dictionary0->objectForKey("plays"), dictionary999->objectForKey("plays"));
    EXPECT_EQ(dictionary0->objectForKey("ratio"), dictionary999->objectForKey("ratio"));
    EXPECT_EQ(decoder->cachedObjectCount(), 6u);
    // The cache survives between parses of one decoder, until cleared.
    auto again = decoder->objectWithUTF8String(std::string_view(R"(["Night Drive"])"));
    EXPECT_EQ(first(again), dictionary0->objectForKey("title"));
    decoder->clearCache();
    EXPECT_EQ(decoder->cachedObjectCount(), 0u);
    auto fresh = decoder->objectWithUTF8String(std::string_view(R"(["Night Drive"])"));
    EXPECT_NE(first(fresh), dictionary0->objectForKey("title"));
    EXPECT_TRUE(first(fresh)->isEqual(dictionary0->objectForKey("title")));
}

TEST(JSONDecoder, ADecoderThatLearnedAKeyOrderReadsNearMissesAsAFreshOneDoes)
{
    // A warm decoder tries the keys of the last record of each shape first;
    // texts that nearly match them must read exactly as a fresh decoder reads them.
    std::string_view learned = R"([{"kind":"track","title":"a","description_text_long":1},{"kind":"x","title":"b","description_text_long":2}])";
    const char* nearMisses[] = {
        R"([{"kind":1,"title":2}])",
        R"([{"ki\u006ed":1,"title":2}])",
        R"([{"kin":1,"titles":2,"description_text_lon":3}])",
        R"([{"kind\"":1,"title\\":2}])",
        R"([{ "kind" : 1 , "title" : 2 }])",
        R"([{"title":1,"kind":2}])",
        R"([{"kind":1,"kind":2}])",
        R"([{"kind)",
        R"([{"kind")",
        R"([{"kind"1}])",
        "[{\"ki\x01nd\":1}]",
        R"([{"":1,"kind":2}])",
        R"([{"description_text_long":1,"kind":{"kind":{"title":3}}}])",
    };
    // Keys decoded from escapes hold bytes that a string cannot hold as they are.
    std::pair<std::string_view, std::string_view> unescaped[] = {
        { R"([{"q\"q":1}])", R"([{"q"q":1}])" },
        { R"([{"q\\":1}])", R"([{"q\":1}])" },
        { R"([{"q\tq":1}])", "[{\"q\tq\":1}]" },
    };
    auto warm = JSONDecoder::decoder();
    auto readsAsFresh = [&](std::string_view learned, std::string_view text) {
        ASSERT_TRUE(warm->objectWithUTF8String(learned));
        RefPtr<Error> warmError, freshError;
        auto fromWarm = warm->objectWithUTF8String(std::string_view(text), &warmError);
        auto fromFresh = JSONDecoder::decoder()->objectWithUTF8String(std::string_view(text), &freshError);
        ASSERT_EQ(!!fromWarm, !!fromFresh) << text;
        if (fromFresh)
            EXPECT_TRUE(fromWarm->isEqual(fromFresh.get())) << text;
        else
            EXPECT_TRUE(warmError->userInfo()->isEqual(freshError->userInfo())) << text;
    };
    for (const char* text : nearMisses)
        readsAsFresh(learned, text);
    for (auto [learnedKey, text] : unescaped)
        readsAsFresh(learnedKey, text);
    // An escaped key is the cached key all the same.
    auto plain = warm->objectWithUTF8String(std::string_view(R"([{"kind":1}])"));
    auto escaped = warm->objectWithUTF8String(std::string_view(R"([{"ki\u006ed":1}])"));
    auto keyOf = [](const RefPtr<Object>& tree) { return (*downcast<Dictionary>(first(tree))->begin()).key; };
    EXPECT_EQ(keyOf(plain), keyOf(escaped));
}

TEST(JSONDecoder, EachNewDecoderStartsWithAnEmptyCache)
{
    // Decoders made one after another on a thread may share memory; never a cache.
    auto text = std::string_view(R"([{"kind":"track","title":"Night Drive"},{"kind":"track","title":"Night Drive"}])");
    RefPtr<Object> earlier;
    for (int round = 0; round < 3; ++round) {
        auto decoder = JSONDecoder::decoder();
        EXPECT_EQ(decoder->cachedObjectCount(), 0u);
        auto tree = decoder->objectWithUTF8String(text);
        EXPECT_EQ(decoder->cachedObjectCount(), 4u);
        if (earlier) {
            EXPECT_NE(downcast<Dictionary>(first(tree))->objectForKey("title"), downcast<Dictionary>(first(earlier))->objectForKey("title"));
        }
        earlier = tree;
    }
}

TEST(JSONDecoder, DecodersOfThreadsThatEndLeaveNothingBehind)
{
    // The leak checker of the sanitizer build watches this one: a thread that
    // made or freed a decoder frees the memory it kept for the next one.
    auto text = std::string_view(R"({"kind":"track"})");
    RefPtr<JSONDecoder> handedOver;
    std::thread([&] {
        EXPECT_TRUE(JSONDecoder::decoder()->objectWithUTF8String(text));
        handedOver = JSONDecoder::decoder();
    }).join();
    std::thread([&] {
        EXPECT_TRUE(handedOver->objectWithUTF8String(text));
        handedOver = nullptr;
    }).join();
}

TEST(JSONDecoder, CacheHitsAreCountedReferences)
{
    // A hit hands out a reference of its own: the tree's, the cache's, and
    // none left over when a parse fails half way or the value is evicted.
    auto decoder = JSONDecoder::decoder();
    auto tree = decoder->objectWithUTF8String(std::string_view(R"(["shared","shared",{"shared":"shared"}])"));
    auto* shared = downcast<Array>(tree.get())->objectAtIndex(0);
    EXPECT_EQ(shared->refCount(), 5u); // four in the tree, one in the cache
    EXPECT_FALSE(decoder->objectWithUTF8String(std::string_view(R"(["shared","shared",{"shared":x)")));
    EXPECT_EQ(shared->refCount(), 5u);
    decoder->clearCache();
    EXPECT_EQ(shared->refCount(), 4u);
    // Evicted while a parse still holds hits on it: 3000 other strings push it out.
    RefPtr<JSONDecoder> evictingDecoder = JSONDecoder::decoder();
    std::string text = R"(["kept","kept")";
    for (int i = 0; i < 3000; ++i)
        text += format(",\"e%d\"", i);
    text += "]";
    auto evicting = evictingDecoder->objectWithUTF8String(text);
    auto* kept = downcast<Array>(evicting.get())->objectAtIndex(0);
    EXPECT_EQ(downcast<Array>(evicting.get())->objectAtIndex(1), kept);
    evictingDecoder = nullptr; // the decoder and its cache go
    EXPECT_EQ(kept->refCount(), 2u);
    EXPECT_EQ(downcast<String>(kept)->str(), "kept");

    // A repeated key: the dictionary releases the earlier pair while the
    // parse still holds hits on both strings.
    RefPtr<JSONDecoder> third = JSONDecoder::decoder();
    auto repeated = third->objectWithUTF8String(std::string_view(R"([{"k":"v","k":"v"},{"k":"v","k":"v","k":"w"}])"));
    ASSERT_TRUE(repeated);
    auto* records = downcast<Array>(repeated.get());
    auto* first = downcast<Dictionary>(records->objectAtIndex(0));
    auto* second = downcast<Dictionary>(records->objectAtIndex(1));
    EXPECT_EQ(first->count(), 1u);
    EXPECT_EQ(downcast<String>(first->objectForKey("k"))->str(), "v");
    EXPECT_EQ(downcast<String>(second->objectForKey("k"))->str(), "w");
    Object* key = nullptr;
    for (auto& entry : *first)
        key = entry.key;
    EXPECT_EQ(key->refCount(), 3u); // one per dictionary, one in the cache
    EXPECT_EQ(first->objectForKey("k")->refCount(), 2u);
    third = nullptr;
    EXPECT_EQ(key->refCount(), 2u);
}

TEST(JSONDecoder, AFreedLargeTreeGivesItsMemoryBackAtTheNextParse)
{
    std::string large = "[";
    for (int i = 0; i < 50000; ++i)
        large += format("%s{\"title\":\"track %d\",\"plays\":%d}", i ? "," : "", i, i * 7);
    large += "]";
    auto decoder = JSONDecoder::decoder();
    auto tree = decoder->objectWithUTF8String(large);
    ASSERT_TRUE(tree);
    tree = nullptr;
    size_t held = detail::smallObjectListBytes();
    if (!held)
        GTEST_SKIP() << "objects come from the system allocator in this build";
    EXPECT_GT(held, 4000000u);
    size_t mapped = detail::smallObjectMappedBytes();
    auto small = decoder->objectWithUTF8String(std::string_view(R"([{"title":"one"}])"));
    // A small reserve may stay for the work between parses; the rest goes back to the system.
    EXPECT_LT(detail::smallObjectListBytes(), held / 4);
    EXPECT_LT(detail::smallObjectMappedBytes(), mapped - held / 2);
    // The same large tree again, kept while another is made: nothing given back that is in use.
    auto first = decoder->objectWithUTF8String(large);
    auto second = decoder->objectWithUTF8String(large);
    EXPECT_TRUE(first->isEqual(second.get()));
}

TEST(JSONDecoder, CacheEvictionKeepsValuesRight)
{
    // Far more distinct values than buckets: every value must still come back right.
    std::string text = "[";
    for (int i = 0; i < 5000; ++i)
        text += (i ? "," : "") + format("\"v%d\",%d,%d.5", i % 3000, i % 2500, i % 1700);
    text += "]";
    auto decoder = JSONDecoder::decoder();
    for (int round = 0; round < 2; ++round) {
        auto result = decoder->objectWithUTF8String(text);
        auto* array = downcast<Array>(result.get());
        ASSERT_EQ(array->count(), 15000u);
        for (int i = 0; i < 5000; ++i) {
            ASSERT_EQ(downcast<String>(array->objectAtIndex(3 * i))->str(), format("v%d", i % 3000));
            ASSERT_EQ(downcast<Number>(array->objectAtIndex(3 * i + 1))->integerValue(), i % 2500);
            ASSERT_EQ(downcast<Number>(array->objectAtIndex(3 * i + 2))->doubleValue(), i % 1700 + 0.5);
        }
    }
    EXPECT_LE(decoder->cachedObjectCount(), 1024u);
}

TEST(JSONDecoder, EvictionsCountRightWhicheverParseMadeTheValue)
{
    auto pushOut = [](std::string head) {
        for (int i = 0; i < 3000; ++i)
            head += format(",\"p%d\"", i);
        return head + "]";
    };
    auto decoder = JSONDecoder::decoder();
    // Made by an earlier parse, kept by its tree, evicted by a later one.
    auto earlier = decoder->objectWithUTF8String(std::string_view(R"(["made before"])"));
    auto* madeBefore = downcast<Array>(earlier.get())->objectAtIndex(0);
    EXPECT_EQ(madeBefore->refCount(), 2u);
    auto later = decoder->objectWithUTF8String(pushOut(R"(["other")"));
    ASSERT_TRUE(later);
    EXPECT_EQ(madeBefore->refCount(), 1u);
    // Made and evicted in one parse after a repeated key let its tree's
    // reference go: the eviction frees it (sanitizer builds see a leak or a
    // double free here).
    auto repeated = decoder->objectWithUTF8String(pushOut(R"([{"k":"dropped value","k":"kept value"})"));
    ASSERT_TRUE(repeated);
    auto* record = downcast<Dictionary>(downcast<Array>(repeated.get())->objectAtIndex(0));
    EXPECT_EQ(downcast<String>(record->objectForKey("k"))->str(), "kept value");
    EXPECT_EQ(record->objectForKey("k")->refCount(), 1u);
    // Hits of this parse on a value it made (evicted or not) are all counted.
    auto hits = decoder->objectWithUTF8String(pushOut(R"(["hit","hit","hit")"));
    decoder->clearCache();
    EXPECT_EQ(downcast<Array>(hits.get())->objectAtIndex(0)->refCount(), 3u);
}

TEST(JSONDecoder, MutableResultsAreMutableThroughout)
{
    auto decoder = JSONDecoder::decoder();
    auto result = decoder->mutableObjectWithUTF8String(std::string_view(R"({"a":[1,{"b":[]}]})"));
    auto* root = dynamicDowncast<MutableDictionary>(result.get());
    ASSERT_TRUE(root);
    auto* array = dynamicDowncast<MutableArray>(root->objectForKey("a"));
    ASSERT_TRUE(array);
    EXPECT_TRUE(is<MutableDictionary>(array->objectAtIndex(1)));
    EXPECT_TRUE(is<MutableArray>(downcast<Dictionary>(array->objectAtIndex(1))->objectForKey("b")));
    auto immutable = decoder->objectWithUTF8String(std::string_view(R"({"a":[1]})"));
    EXPECT_FALSE(is<MutableDictionary>(immutable));
    EXPECT_FALSE(is<MutableArray>(downcast<Dictionary>(immutable.get())->objectForKey("a")));
}

TEST(JSONDecoder, NullInputsAndReleasedState)
{
    auto decoder = JSONDecoder::decoder();
    try {
        decoder->objectWithUTF8String(nullptr, 0);
        FAIL();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.reason(), "The string argument is NULL.");
    }
    try {
        decoder->objectWithData(nullptr);
        FAIL();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.reason(), "The jsonData argument is NULL.");
    }
    decoder->releaseParseState();
    try {
        decoder->objectWithUTF8String(std::string_view("[]"));
        FAIL();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), InternalInconsistencyException);
        EXPECT_EQ(exception.reason(), "parseState is NULL.");
    }
}

TEST(JSONDecoder, DeepNestingIsAllowedButBounded)
{
    std::string deep = std::string(1000, '[') + std::string(1000, ']');
    EXPECT_TRUE(decode(deep));
    std::string tooDeep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_EQ(decodeFailure(tooDeep).message, "Nesting is deeper than 4096 levels.");
    // Wide nesting grows the object stack onto the heap and back.
    std::string wide = "[";
    for (int i = 0; i < 5000; ++i)
        wide += (i ? ",[" : "[") + std::to_string(i) + ",{\"k\":[1,2,3]}]";
    wide += "]";
    auto result = decode(wide);
    EXPECT_EQ(downcast<Array>(result.get())->count(), 5000u);
}
