#include <Platform/Platform.h>

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
