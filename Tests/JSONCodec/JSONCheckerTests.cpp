#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <gtest/gtest.h>

#include <filesystem>

using namespace velvox;

// Every pass file is accepted and every fail file refused. Of the two files that
// the suite leaves to each decoder, a bare string at the top level is refused
// and deep nesting is allowed.
TEST(JSONChecker, PassAndFailFiles)
{
    std::string folder = std::string(VELVOX_SHARED_DATA) + "/json/jsonchecker";
    size_t seen = 0;
    for (auto& entry : std::filesystem::directory_iterator(folder)) {
        auto name = entry.path().filename().string();
        if (entry.path().extension() != ".json")
            continue;
        auto data = Data::createWithContentsOfFile(entry.path().string());
        ASSERT_TRUE(data) << name;
        RefPtr<Error> error;
        auto result = JSONDecoder::decoder()->objectWithData(data.get(), &error);
        bool shouldPass = name.starts_with("pass") || name == "fail18_EXCLUDE.json";
        if (shouldPass)
            EXPECT_TRUE(result) << name << ": " << (error ? error->localizedDescription()->str() : "");
        else
            EXPECT_FALSE(result) << name;
        ++seen;
    }
    EXPECT_EQ(seen, 36u);
}
