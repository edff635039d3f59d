#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <gtest/gtest.h>

#include <cmath>

using namespace velvox;

namespace {

std::string encodeText(Object* object, JCSerializeOptionFlags options = JCSerializeOptionNone)
{
    RefPtr<Error> error;
    auto result = jc_encode(object, options, JCEncodeAsString, &error);
    if (!result)
        return "error: " + error->localizedDescription()->str();
    return downcast<String>(result.get())->str();
}

} // namespace

TEST(JSONEncoder, ScalarsAndEscapes)
{
    auto array = Array::create({ String::create("a\"b\\c/d\b\f\n\r\t\x01\x1f").ptr(), Number::withInteger(-42).ptr(),
        Number::withUnsignedInteger(UINT64_MAX).ptr(), Number::withInteger(INT64_MIN).ptr(), Number::withDouble(0.1).ptr(),
        Number::withDouble(-0.0).ptr(), Number::withDouble(1e300).ptr(), &Number::trueValue(), &Number::falseValue(),
        Number::withChar(1).ptr(), &Null::null() });
    EXPECT_EQ(encodeText(array.ptr()),
        "[\"a\\\"b\\\\c/d\\b\\f\\n\\r\\t\\u0001\\u001f\",-42,18446744073709551615,-9223372036854775808,0.10000000000000001,-0,1.0000000000000001e+300,true,false,1,null]");
}

TEST(JSONEncoder, UnicodeEscaping)
{
    auto array = Array::create({ String::create("\xf0\x9f\x98\x80 \xc3\xa9").ptr() });
    EXPECT_EQ(encodeText(array.ptr()), "[\"\xf0\x9f\x98\x80 \xc3\xa9\"]");
    EXPECT_EQ(encodeText(array.ptr(), JCSerializeOptionEscapeUnicode), "[\"\\ud83d\\ude00 \\u00e9\"]");
    auto broken = Array::create({ String::create("\xc3\x28").ptr() });
    EXPECT_EQ(encodeText(broken.ptr(), JCSerializeOptionEscapeUnicode), "error: Error converting UTF8.");
}

TEST(JSONEncoder, Errors)
{
    auto numberKey = Dictionary::create(std::span<Object* const>(std::vector<Object*> { Number::withInteger(1).ptr() }),
        std::span<Object* const>(std::vector<Object*> { String::create("v").ptr() }));
    EXPECT_EQ(encodeText(numberKey.ptr()), "error: Key must be a string object.");
    auto nan = Array::create({ Number::withDouble(NAN).ptr() });
    EXPECT_EQ(encodeText(nan.ptr()), "error: Floating point values must be finite.  JSON does not support NaN or Infinity.");
    auto infinity = Array::create({ Number::withDouble(-INFINITY).ptr() });
    EXPECT_EQ(encodeText(infinity.ptr()), "error: Floating point values must be finite.  JSON does not support NaN or Infinity.");
    auto date = Array::create({ Date::create(0).ptr() });
    EXPECT_EQ(encodeText(date.ptr()), "error: Unable to serialize object class Date.");
    RefPtr<Error> error;
    EXPECT_FALSE(jc_encode(Array::create().ptr(), 0, 3, &error));
    EXPECT_EQ(error->localizedDescription()->view(), "Unknown encode as type.");
    EXPECT_THROW(jc_encode(nullptr, 0, JCEncodeAsData, nullptr), Exception);
}

TEST(JSONEncoder, PrettyPrinting)
{
    auto decoded = JSONDecoder::decoder()->objectWithUTF8String(std::string_view(R"({"a":[1,{"b":null}],"e":[]})"));
    auto text = encodeText(decoded.get(), JCSerializeOptionPretty);
    // Key order is the table's; parse the pretty text back rather than assume it.
    auto reparsed = JSONDecoder::decoder()->objectWithUTF8String(text);
    ASSERT_TRUE(reparsed) << text;
    EXPECT_TRUE(reparsed->isEqual(decoded.get()));
    auto simple = Array::create({ Number::withInteger(1).ptr(), Dictionary::create({ { "k", String::create("v").ptr() } }).ptr(), Array::create().ptr() });
    EXPECT_EQ(encodeText(simple.ptr(), JCSerializeOptionPretty), "[\n  1,\n  {\n    \"k\": \"v\"\n  },\n  [\n    \n  ]\n]");
}

TEST(JSONEncoder, RepeatedInstancesAreCopiedFromEarlierOutput)
{
    auto shared = String::create("Night Drive");
    std::vector<Ref<Object>> items;
    for (int i = 0; i < 1000; ++i)
        items.push_back(shared);
    auto array = Array::create(std::move(items));
    auto text = encodeText(array.ptr());
    EXPECT_EQ(text.size(), 1000 * 14 - 1 + 2);
    auto reparsed = JSONDecoder::decoder()->objectWithUTF8String(text);
    EXPECT_EQ(downcast<Array>(reparsed.get())->count(), 1000u);
}

TEST(JSONEncoder, LargeOutputsMoveToTheHeap)
{
    auto array = MutableArray::create();
    for (int i = 0; i < 20000; ++i)
        array->addObject(String::format("track-%d", i));
    RefPtr<Error> error;
    auto data = jc_encode(array.ptr(), JCSerializeOptionNone, JCEncodeAsData, &error);
    ASSERT_TRUE(data);
    auto reparsed = JSONDecoder::decoder()->objectWithData(downcast<Data>(data.get()));
    EXPECT_TRUE(reparsed->isEqual(array.ptr()));
}

TEST(JSONEncoder, EscapesAtEveryPlaceOfALongString)
{
    // Plain runs are copied sixteen bytes at a time: put each special byte at
    // every offset of strings around that size.
    const std::pair<std::string, std::string> specials[] = { { "\"", "\\\"" }, { "\\", "\\\\" }, { "\n", "\\n" }, { "\x1f", "\\u001f" },
        { "\x7f", "\x7f" }, { "\xc3\xa9", "\xc3\xa9" } };
    for (auto& [special, written] : specials) {
        for (size_t length = 0; length <= 40; ++length) {
            for (size_t at = 0; at <= length; ++at) {
                std::string text = std::string(at, 'a') + special + std::string(length - at, 'b');
                auto array = Array::create({ String::create(text).ptr() });
                ASSERT_EQ(encodeText(array.ptr()), "[\"" + std::string(at, 'a') + written + std::string(length - at, 'b') + "\"]");
            }
        }
    }
    auto escaped = Array::create({ String::create(std::string(20, 'x') + "\xc3\xa9" + std::string(20, 'y')).ptr() });
    EXPECT_EQ(encodeText(escaped.ptr(), JCSerializeOptionEscapeUnicode), "[\"" + std::string(20, 'x') + "\\u00e9" + std::string(20, 'y') + "\"]");
}

TEST(JSONEncoder, KeptBufferIsReusedAndWritesWhatTheOneCallFormWrites)
{
    auto decoder = JSONDecoder::decoder();
    auto data = Data::createWithContentsOfFile(std::string(VELVOX_SHARED_DATA) + "/json/api_page.json");
    ASSERT_TRUE(data);
    auto page = decoder->objectWithData(data.get());
    auto mutablePage = decoder->mutableObjectWithData(data.get());
    ASSERT_TRUE(page && mutablePage);
    JCEncodeBuffer buffer;
    for (Object* tree : { page.get(), mutablePage.get() }) {
        for (auto options : { JCSerializeOptionNone, JCSerializeOptionPretty }) {
            ASSERT_TRUE(jc_encodeInto(tree, options, buffer));
            EXPECT_EQ(buffer.text(), encodeText(tree, options));
        }
    }
    // Encoding the same tree again reuses the memory it has.
    ASSERT_TRUE(jc_encodeInto(page.get(), JCSerializeOptionNone, buffer));
    const uint8_t* memory = buffer.bytes();
    size_t capacity = buffer.capacity();
    ASSERT_TRUE(jc_encodeInto(page.get(), JCSerializeOptionNone, buffer));
    EXPECT_EQ(buffer.bytes(), memory);
    EXPECT_EQ(buffer.capacity(), capacity);
    // Small output, an error, and a buffer moved away.
    auto small = Array::create({ Number::withInteger(7).ptr() });
    ASSERT_TRUE(jc_encodeInto(small.ptr(), JCSerializeOptionNone, buffer));
    EXPECT_EQ(buffer.text(), "[7]");
    RefPtr<Error> error;
    auto nan = Array::create({ Number::withDouble(NAN).ptr() });
    EXPECT_FALSE(jc_encodeInto(nan.ptr(), JCSerializeOptionNone, buffer, &error));
    EXPECT_EQ(buffer.length(), 0u);
    EXPECT_EQ(error->localizedDescription()->view(), "Floating point values must be finite.  JSON does not support NaN or Infinity.");
    JCEncodeBuffer fresh;
    EXPECT_FALSE(jc_encodeInto(nan.ptr(), JCSerializeOptionNone, fresh));
    JCEncodeBuffer moved = std::move(buffer);
    ASSERT_TRUE(jc_encodeInto(small.ptr(), JCSerializeOptionNone, moved));
    EXPECT_EQ(moved.text(), "[7]");
    EXPECT_EQ(buffer.bytes(), nullptr);
    moved.release();
    EXPECT_EQ(moved.capacity(), 0u);
}

TEST(JSONCodec, RoundTripsOfTheSampleFiles)
{
    for (auto name : { "twitter.json", "citm_catalog.json", "canada.json", "api_page.json" }) {
        auto data = Data::createWithContentsOfFile(std::string(VELVOX_SHARED_DATA) + "/json/" + name);
        ASSERT_TRUE(data) << name;
        RefPtr<Error> error;
        auto decoder = JSONDecoder::decoder();
        auto first = decoder->objectWithData(data.get(), &error);
        ASSERT_TRUE(first) << name << ": " << error->localizedDescription()->str();
        for (auto options : { JCSerializeOptionNone, JCSerializeOptionPretty, JCSerializeOptionEscapeUnicode }) {
            auto text = jc_encode(first.get(), options, JCEncodeAsData, &error);
            ASSERT_TRUE(text) << name;
            auto second = JSONDecoder::decoder()->objectWithData(downcast<Data>(text.get()), &error);
            ASSERT_TRUE(second) << name << " options " << options;
            EXPECT_TRUE(second->isEqual(first.get())) << name << " options " << options;
        }
    }
}

TEST(JSONCodec, ConvenienceCalls)
{
    RefPtr<Error> error;
    EXPECT_FALSE(objectFromJSONStringWithParseOptions(String::empty(), JCParseOptionStrict, &error));
    EXPECT_EQ(error->localizedDescription()->view(), "Reached the end of the buffer.");
    EXPECT_FALSE(objectFromJSONStringWithParseOptions(*String::create("42"), JCParseOptionStrict, &error));
    EXPECT_EQ(error->localizedDescription()->view(), "Expected either '[' or '{'.");
    EXPECT_EQ(JSONString(*Array::create())->view(), "[]");
    EXPECT_EQ(JSONString(*Dictionary::create())->view(), "{}");
    EXPECT_EQ(JSONData(*Array::create({ Number::withInteger(1).ptr() }))->view(), "[1]");
    auto object = objectFromJSONData(*Data::create(R"({"a":[true]})"));
    EXPECT_TRUE(is<Dictionary>(object));
    EXPECT_FALSE(is<MutableDictionary>(object));
    EXPECT_TRUE(is<MutableDictionary>(mutableObjectFromJSONString(*String::create(R"({"a":1})"))));
    EXPECT_TRUE(is<MutableArray>(mutableObjectFromJSONData(*Data::create("[1]"))));
    EXPECT_TRUE(objectFromJSONStringWithParseOptions(*String::create("[1] // note"), JCParseOptionComments));
    EXPECT_FALSE(objectFromJSONString(*String::create("[1] // note")));
}

TEST(JSONEncoder, WritesEveryDepthTheDecoderAccepts)
{
    // 4,096 levels of arrays and of objects, compact and pretty, within a normal stack.
    for (bool objects : { false, true }) {
        std::string text;
        for (int i = 0; i < 4096; ++i)
            text += objects ? "{\"a\":" : "[";
        text += "1";
        for (int i = 0; i < 4096; ++i)
            text += objects ? "}" : "]";
        RefPtr<Error> error;
        auto tree = objectFromJSONStringWithParseOptions(*String::create(text), JCParseOptionStrict, &error);
        ASSERT_TRUE(tree) << (error ? error->localizedDescription()->str() : "");
        EXPECT_EQ(encodeText(tree.get()), text);
        auto pretty = jc_encode(tree.get(), JCSerializeOptionPretty, JCEncodeAsString, &error);
        ASSERT_TRUE(pretty) << (error ? error->localizedDescription()->str() : "");
    }
}
