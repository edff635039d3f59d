#include <Platform/DoubleFormat.h>
#include <Platform/Platform.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include <gtest/gtest.h>

using namespace velvox;

TEST(Format, PrintfConversions)
{
    static const struct {
        std::string expected;
        std::string actual;
    } cases[] = {
        { "42 -7", format("%d %d", 42, -7) },
        { "4294967295", format("%u", -1) },
        { "-1", format("%d", int64_t(0xFFFFFFFF)) }, // %d reads 32 bits, as a vararg call would
        { "9223372036854775807", format("%ld", INT64_MAX) },
        { "18446744073709551615", format("%lu", UINT64_MAX) },
        { "-9223372036854775808", format("%lld", INT64_MIN) },
        { "18446744073709551615", format("%llu", UINT64_MAX) },
        { "12", format("%zu", size_t(12)) },
        { "abc", format("%s", "abc") },
        { "(null)", format("%s", static_cast<const char*>(nullptr)) },
        { "x", format("%c", 'x') },
        { "ff FF 000000FF", format("%x %X %08X", 255, 255, 255) },
        { "0x1f", format("0x%2.2x", 0x1f) },
        { "\\u00e9", format("\\u%4.4x", 0xe9) },
        { "'ab'", format("'%*.*s'", 2, 2, "abcdef") },
        { "'  ab'", format("'%*.*s'", 4, 2, std::string("abcdef")) },
        { "0.10000000000000001", format("%.17g", 0.1) },
        { "line #12", format("line #%ld", 12L) },
        { "line 12", format("line %#ld", 12L) },
        { "100%", format("100%%") },
        { "1.50", format("%.2f", 1.5) },
        { "  7|7  ", format("%3d|%-3d", 7, 7) },
    };
    for (auto& c : cases)
        EXPECT_EQ(c.actual, c.expected);
}

TEST(Format, SeventeenDigitDoublesMatchPrintf)
{
    // The fast writer against the C library's own %.17g: random bit patterns
    // (every exponent), values near powers of ten and near halfway points,
    // the extremes and the subnormals.
    auto check = [](double value) {
        char expected[64];
        snprintf(expected, sizeof(expected), "%.17g", value);
        char written[detail::double17BufferSize];
        char* end = detail::formatDouble17(value, written);
        ASSERT_EQ(std::string(written, end), expected) << "bits " << std::hex << [&] {
            uint64_t bits;
            memcpy(&bits, &value, 8);
            return bits;
        }();
    };
    std::mt19937_64 random(17);
    for (int i = 0; i < 300000; ++i) {
        uint64_t bits = random();
        double value;
        memcpy(&value, &bits, 8);
        if (std::isfinite(value))
            check(value);
    }
    std::uniform_real_distribution<double> unit(-1, 1);
    for (int i = 0; i < 100000; ++i)
        check(unit(random) * std::pow(10.0, static_cast<int>(random() % 40) - 20));
    for (int p = -320; p <= 308; ++p) {
        double power = std::pow(10.0, p);
        for (double near : { power, std::nextafter(power, 0.0), std::nextafter(power, INFINITY) })
            check(near);
    }
    for (double value : { 0.0, -0.0, 0.1, 0.5, 1.0, -1.5, 1e16, 1e17, 123456789012345678.0, 9007199254740993.0, 1e-4, 9.9999999999999995e-5,
             std::numeric_limits<double>::max(), std::numeric_limits<double>::min(), std::numeric_limits<double>::denorm_min(),
             std::numeric_limits<double>::lowest(), 5e-324, 2.2250738585072009e-308 })
        check(value);
    for (int i = 0; i < 2000; ++i) // integers with an exact half at the 18th digit
        check(static_cast<double>((random() >> 6) | 1) * 5.0);
}

TEST(Format, ObjectsAndMissingArguments)
{
    auto text = String::create("night drive");
    EXPECT_EQ(format("<%@>", text), "<night drive>");
    EXPECT_EQ(format("%@", Number::withInteger(50)), "50");
    EXPECT_EQ(format("%@-%@", text.ptr(), static_cast<Object*>(nullptr)), "night drive-(null)");
    // A conversion with no argument left prints "(null)".
    EXPECT_EQ(format("\"%@\""), "\"(null)\"");
    EXPECT_EQ(format("%@ %@", "one"), "one (null)");
    EXPECT_EQ(format("%d"), "0");
    RefPtr<String> none;
    EXPECT_EQ(format("%@", none), "(null)");
}

TEST(Log, SinkReceivesMessagesAndCanBeRestored)
{
    std::vector<std::string> lines;
    auto old = setLogSink([&](std::string_view message) { lines.emplace_back(message); });
    VXLog("VXTrack - User fetch error: %@", String::create("boom"));
    setLogSink(std::move(old));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "VXTrack - User fetch error: boom");
    // The default line carries date, time, program and process.
    auto prefix = logLinePrefix();
    EXPECT_NE(prefix.find("PlatformTests["), std::string::npos) << prefix;
    EXPECT_EQ(prefix[4], '-');
    EXPECT_EQ(prefix[13], ':');
}
