// Number texts under a decimal-comma locale, as a desktop host that calls
// setlocale(LC_ALL, "") gets them.

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>

using namespace velvox;

namespace {

// Builds de_DE.UTF-8 into a private folder (a fresh machine has no compiled
// locales) and switches the process to it; restores "C" afterwards.
class DecimalCommaLocale : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_folder = std::filesystem::temp_directory_path() / ("velvox-locale-" + std::to_string(getpid()));
        std::filesystem::create_directories(m_folder);
        std::string command = "localedef -i de_DE -f UTF-8 '" + (m_folder / "de_DE.UTF-8").string() + "' >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0 && !std::filesystem::exists(m_folder / "de_DE.UTF-8"))
            GTEST_SKIP() << "localedef could not build de_DE.UTF-8 (is the Debian package \"locales\" installed?)";
        setenv("LOCPATH", m_folder.c_str(), 1);
        if (!std::setlocale(LC_ALL, "de_DE.UTF-8"))
            GTEST_SKIP() << "the decimal-comma locale cannot be loaded";
        char text[16];
        snprintf(text, sizeof(text), "%.1f", 0.5);
        ASSERT_STREQ(text, "0,5") << "the test locale should write a decimal comma";
    }
    void TearDown() override
    {
        std::setlocale(LC_ALL, "C");
        unsetenv("LOCPATH");
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

private:
    std::filesystem::path m_folder;
};

} // namespace

TEST_F(DecimalCommaLocale, CodecAndFormattingStayInTheCLocale)
{
    auto array = Array::create({ Number::withDouble(0.5).ptr(), Number::withDouble(1e300).ptr(), Number::withDouble(-2.25e-7).ptr() });
    EXPECT_EQ(JSONString(*array)->view(), "[0.5,1.0000000000000001e+300,-2.2499999999999999e-07]");

    RefPtr<Error> error;
    auto decoded = objectFromJSONStringWithParseOptions(*String::create("[0.0, 2.5, 1e-300, 6.02e23]"), JCParseOptionStrict, &error);
    ASSERT_TRUE(decoded) << (error ? error->localizedDescription()->str() : "");
    auto* numbers = downcast<Array>(decoded.get());
    EXPECT_EQ(downcast<Number>(numbers->objectAtIndex(0))->doubleValue(), 0.0);
    EXPECT_EQ(downcast<Number>(numbers->objectAtIndex(1))->doubleValue(), 2.5);
    EXPECT_GT(downcast<Number>(numbers->objectAtIndex(2))->doubleValue(), 0.0); // zero and tiny values go through strtod
    EXPECT_EQ(downcast<Number>(numbers->objectAtIndex(3))->doubleValue(), 6.02e23);

    EXPECT_EQ(String::create("0.5")->doubleValue(), 0.5);
    EXPECT_EQ(format("%.2f|%g|%e|%@", 0.5, 1.5, 25.0, Number::withDouble(0.25).get()), "0.50|1.5|2.500000e+01|0.25");
    EXPECT_EQ(Number::withDouble(0.125)->stringValue()->view(), "0.125");
}
