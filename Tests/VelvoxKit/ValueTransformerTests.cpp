#include <Platform/Platform.h>
#include <VelvoxKit/VXAPITimestampValueTransformer.h>
#include <VelvoxKit/VXActivityTypeValueTransformer.h>
#include <VelvoxKit/VXFramework.h>
#include <VelvoxKit/VXNumberToStringValueTransformer.h>
#include <VelvoxKit/VXStringToArrayValueTransformer.h>
#include <VelvoxKit/VXTagListValueTransformer.h>
#include <VelvoxKit/VXTimeIntervalValueTransformer.h>
#include <VelvoxKit/VXTrackStateValueTransformer.h>
#include <VelvoxKit/VXURLStringValueTransformer.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using namespace velvox;

namespace {

std::string raised(const std::function<void()>& action)
{
    return test::raisedReason(action, InternalInconsistencyException);
}

std::string text(const RefPtr<Object>& object)
{
    return object ? object->description()->str() : "(nil)";
}

Ref<Array> strings(std::initializer_list<const char*> items)
{
    auto array = MutableArray::create();
    for (auto* item : items)
        array->addObject(String::create(item));
    return array->copy();
}

// Sets TZ for one test, so local-time printing is predictable.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone)
    {
        if (const char* old = getenv("TZ"))
            m_old = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone()
    {
        if (m_old.empty())
            unsetenv("TZ");
        else
            setenv("TZ", m_old.c_str(), 1);
        tzset();
    }

private:
    std::string m_old;
};

} // namespace

TEST(ValueTransformers, RegisteredNames)
{
    VXRegisterValueTransformers();
    for (auto name : { VXURLStringValueTransformerName, VXTagListValueTransformerName, VXAPITimestampValueTransformerName,
             VXStringToArrayValueTransformerName, VXActivityTypeValueTransformerName, VXTrackStateValueTransformerName,
             VXTimeIntervalFromSecondsValueTransformerName, VXTimeIntervalFromMillisecondsValueTransformerName,
             VXNumberToStringValueTransformerName }) {
        auto transformer = ValueTransformer::valueTransformerForName(name);
        ASSERT_TRUE(transformer) << name;
        EXPECT_TRUE(transformer->allowsReverseTransformation());
    }
    EXPECT_EQ(downcast<VXTimeIntervalValueTransformer>(ValueTransformer::valueTransformerForName(VXTimeIntervalFromMillisecondsValueTransformerName).get())->scalingFactor(), 1000);
    EXPECT_EQ(VXTagListValueTransformerName, "VXTagListValueTransformerName");
}

TEST(ValueTransformers, Timestamp)
{
    auto transformer = VXAPITimestampValueTransformer::create();
    EXPECT_EQ(text(transformer->transformedValue(&String::empty())), "(nil)");
    EXPECT_EQ(text(transformer->transformedValue(nullptr)), "(nil)");
    auto dateObject = transformer->transformedValue(String::create("2012/01/31 23:59:59 +0100").get());
    auto* date = downcast<Date>(dateObject.get());
    EXPECT_EQ(date->description()->view(), "2012-01-31 22:59:59 +0000");
    auto west = transformer->transformedValue(String::create("2011/03/14 09:26:53 -0530").get());
    EXPECT_EQ(west->description()->view(), "2011-03-14 14:56:53 +0000");
    for (auto bad : { "2012-01-31 23:59:59 +0100", "2012/13/01 00:00:00 +0000", "2011/02/29 00:00:00 +0000", "2012/01/31 24:00:00 +0000",
             "2012/01/31 23:59:59", "2012/01/31 23:59:59 +01:00", "not a date" })
        EXPECT_EQ(text(transformer->transformedValue(String::create(bad).get())), "(nil)") << bad;
    EXPECT_TRUE(transformer->transformedValue(String::create("2012/02/29 12:00:00 +0000").get())); // a leap day
    EXPECT_EQ(raised([&] { transformer->transformedValue(Number::withInteger(5).get()); }), "Value (Number) does is not of class NSString.");
    EXPECT_EQ(raised([&] { transformer->reverseTransformedValue(nullptr); }), "Value ((null)) does is not of class NSDate.");
    {
        ScopedTimeZone zone("UTC");
        EXPECT_EQ(text(transformer->reverseTransformedValue(date)), "2012/01/31 22:59:59 +0000");
    }
    {
        ScopedTimeZone zone("Asia/Kolkata");
        EXPECT_EQ(text(transformer->reverseTransformedValue(date)), "2012/02/01 04:29:59 +0530");
    }
    {
        ScopedTimeZone zone("America/New_York");
        EXPECT_EQ(text(transformer->reverseTransformedValue(date)), "2012/01/31 17:59:59 -0500");
        auto reparsed = transformer->transformedValue(transformer->reverseTransformedValue(date).get());
        EXPECT_TRUE(reparsed->isEqual(date));
    }
}

TEST(ValueTransformers, TagList)
{
    auto transformer = VXTagListValueTransformer::create();
    EXPECT_TRUE(transformer->transformedValue(&String::empty())->isEqual(Array::create().ptr()));
    EXPECT_EQ(text(transformer->transformedValue(nullptr)), "(nil)");
    EXPECT_TRUE(transformer->transformedValue(String::create("rock \"hip hop\" jazz").get())->isEqual(strings({ "rock", "hip hop", "jazz" }).ptr()));
    EXPECT_EQ(text(transformer->reverseTransformedValue(Array::create().get())), "");
    // Each tag prints as (null): the format is applied without its argument.
    EXPECT_EQ(text(transformer->reverseTransformedValue(strings({ "a b" }).get())), "\"(null)\"");
    EXPECT_EQ(text(transformer->reverseTransformedValue(strings({ "rock", "hip hop" }).get())), "(null) \"(null)\"");
    EXPECT_EQ(raised([&] { transformer->transformedValue(Array::create().get()); }), "Value (Array) does is not of class NSString.");
    EXPECT_EQ(raised([&] { transformer->reverseTransformedValue(String::create("x").get()); }), "Value (String) does is not of class NSArray.");
}

TEST(ValueTransformers, URLString)
{
    auto transformer = VXURLStringValueTransformer::create();
    EXPECT_EQ(text(transformer->transformedValue(String::create("http://a.test/x y").get())), "(nil)");
    EXPECT_EQ(text(transformer->transformedValue(&String::empty())), "(nil)");
    EXPECT_EQ(text(transformer->transformedValue(String::create("https://a.test/t?x=1").get())), "https://a.test/t?x=1");
    EXPECT_EQ(text(transformer->reverseTransformedValue(URL::create("https://a.test/t").get())), "https://a.test/t");
    EXPECT_EQ(raised([&] { transformer->reverseTransformedValue(nullptr); }), "Value ((null)) does is not of class NSURL.");
    EXPECT_EQ(raised([&] { transformer->transformedValue(Number::withInteger(1).get()); }), "Value (Number) does is not of class NSString.");
}

TEST(ValueTransformers, StringToArray)
{
    auto transformer = VXStringToArrayValueTransformer::create();
    EXPECT_TRUE(transformer->transformedValue(String::create("a, , b").get())->isEqual(strings({ "a", "", "b" }).ptr()));
    EXPECT_TRUE(transformer->transformedValue(&String::empty())->isEqual(Array::create().ptr()));
    EXPECT_EQ(text(transformer->reverseTransformedValue(strings({ "first", "affiliated" }).get())), "first, affiliated");
    auto pipes = VXStringToArrayValueTransformer::create("|");
    EXPECT_EQ(downcast<Array>(pipes->transformedValue(String::create("a|b|").get()).get())->count(), 3u);
    EXPECT_EQ(raised([&] { transformer->reverseTransformedValue(nullptr); }), "Value ((null)) does is not of class NSArray.");
}

TEST(ValueTransformers, Enumerations)
{
    auto activity = VXActivityTypeValueTransformer::create();
    static const struct {
        const char* text;
        int value;
    } activityCases[] = { { "track", 1 }, { "track-sharing", 2 }, { "playlist", 4 }, { "playlist-sharing", 8 }, { "Track", 0 }, { "", 0 } };
    for (auto& c : activityCases)
        EXPECT_EQ(downcast<Number>(activity->transformedValue(String::create(c.text).get()).get())->intValue(), c.value) << c.text;
    EXPECT_EQ(downcast<Number>(activity->transformedValue(nullptr).get())->intValue(), 0);
    EXPECT_EQ(text(activity->reverseTransformedValue(Number::withInteger(2).get())), "track-sharing");
    EXPECT_EQ(text(activity->reverseTransformedValue(Number::withInteger(3).get())), "");
    EXPECT_EQ(text(activity->reverseTransformedValue(String::create("8").get())), "playlist-sharing");
    EXPECT_EQ(raised([&] { activity->reverseTransformedValue(nullptr); }), "Value ((null)) does is not respond to -intValue.");
    EXPECT_EQ(raised([&] { activity->transformedValue(Number::withInteger(1).get()); }), "Value (Number) does is not of class NSString.");

    auto state = VXTrackStateValueTransformer::create();
    EXPECT_EQ(downcast<Number>(state->transformedValue(String::create("failed").get()).get())->intValue(), 4);
    EXPECT_EQ(downcast<Number>(state->transformedValue(String::create("storing").get()).get())->intValue(), 1);
    EXPECT_EQ(downcast<Number>(state->transformedValue(String::create("processing").get()).get())->intValue(), 0);
    EXPECT_EQ(text(state->reverseTransformedValue(Number::withInteger(0).get())), "");
    EXPECT_EQ(text(state->reverseTransformedValue(Number::withInteger(3).get())), "finished");
    EXPECT_EQ(raised([&] { state->reverseTransformedValue(Array::create().get()); }), "Value (Array) does is not respond to -intValue.");
}

TEST(ValueTransformers, TimeInterval)
{
    auto milliseconds = VXTimeIntervalValueTransformer::create(1000);
    auto value = [&](Object* input) { return downcast<Number>(milliseconds->transformedValue(input).get())->doubleValue(); };
    EXPECT_EQ(value(Number::withInteger(0).get()), 0.0);
    EXPECT_EQ(value(nullptr), 0.0);
    EXPECT_EQ(value(Number::withInteger(1500).get()), 1.5);
    EXPECT_EQ(value(Number::withDouble(1500.9).get()), 1.5);
    EXPECT_EQ(value(Number::withDouble(-1500.9).get()), -1.5);
    EXPECT_EQ(value(String::create("2500").get()), 2.5);
    auto reverse = [&](Object* input) -> RefPtr<Number> { return downcast<Number>(milliseconds->reverseTransformedValue(input).get()); };
    EXPECT_EQ(reverse(Number::withDouble(0.0015).get())->integerValue(), 1);
    EXPECT_EQ(reverse(Number::withDouble(1.5).get())->integerValue(), 1500);
    EXPECT_EQ(reverse(Number::withDouble(-0.0019).get())->integerValue(), -1);
    EXPECT_EQ(reverse(nullptr)->objCType(), 'q');
    EXPECT_EQ(reverse(nullptr)->integerValue(), 0);
    EXPECT_EQ(raised([&] { milliseconds->transformedValue(Array::create().get()); }), "Value (Array) does not respond to -integerValue.");
    EXPECT_EQ(raised([&] { milliseconds->reverseTransformedValue(Date::now().get()); }), "Value (Date) does not respond to -doubleValue.");
    auto seconds = VXTimeIntervalValueTransformer::create();
    EXPECT_EQ(downcast<Number>(seconds->transformedValue(Number::withInteger(90).get()).get())->doubleValue(), 90.0);
}

TEST(ValueTransformers, NumberToString)
{
    auto transformer = VXNumberToStringValueTransformer::create();
    auto abc = String::create("abc");
    EXPECT_EQ(transformer->transformedValue(abc).get(), abc.ptr());
    EXPECT_EQ(text(transformer->transformedValue(Number::withInteger(123).get())), "123");
    EXPECT_EQ(text(transformer->transformedValue(Number::withDouble(12.5).get())), "12.5");
    EXPECT_EQ(text(transformer->transformedValue(nullptr)), "(nil)");
    auto reversedObject = transformer->reverseTransformedValue(String::create("123").get());
    auto* reversed = downcast<Number>(reversedObject.get());
    EXPECT_EQ(reversed->objCType(), 'd');
    EXPECT_EQ(reversed->doubleValue(), 123.0);
    EXPECT_EQ(downcast<Number>(transformer->reverseTransformedValue(nullptr).get())->doubleValue(), 0.0);
    EXPECT_EQ(raised([&] { transformer->transformedValue(Array::create().get()); }), "Value (Array) does not respond to -stringValue.");
    EXPECT_EQ(raised([&] { transformer->reverseTransformedValue(&Null::null()); }), "Value (Null) does not respond to -doubleValue.");
}
