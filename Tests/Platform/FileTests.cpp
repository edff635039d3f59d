#include <Platform/Platform.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

using namespace velvox;

namespace {

class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const char* value)
        : m_name(name)
    {
        if (const char* old = getenv(name))
            m_old = old;
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~ScopedEnvironment()
    {
        if (m_old)
            setenv(m_name, m_old->c_str(), 1);
        else
            unsetenv(m_name);
    }

private:
    const char* m_name;
    std::optional<std::string> m_old;
};

} // namespace

TEST(Paths, ApplicationSupportFollowsXDG)
{
    {
        ScopedEnvironment data("XDG_DATA_HOME", "/tmp/xdg-data");
        EXPECT_EQ(applicationSupportDirectory(), "/tmp/xdg-data");
    }
    {
        ScopedEnvironment data("XDG_DATA_HOME", nullptr);
        ScopedEnvironment home("HOME", "/home/listener");
        EXPECT_EQ(applicationSupportDirectory(), "/home/listener/.local/share");
        EXPECT_EQ(stringByExpandingTildeInPath("~/Music"), "/home/listener/Music");
    }
    {
        // A relative value is to be ignored.
        ScopedEnvironment data("XDG_DATA_HOME", "relative/path");
        ScopedEnvironment home("HOME", "/home/listener");
        EXPECT_EQ(applicationSupportDirectory(), "/home/listener/.local/share");
    }
}

TEST(Paths, Components)
{
    EXPECT_EQ(stringByAppendingPathComponent("/a/b", "c.archive"), "/a/b/c.archive");
    EXPECT_EQ(stringByAppendingPathComponent("/a/b/", "/c"), "/a/b/c");
    EXPECT_EQ(stringByDeletingLastPathComponent("/a/b/c.archive"), "/a/b");
    EXPECT_EQ(stringByDeletingLastPathComponent("/a"), "/");
    EXPECT_EQ(lastPathComponent("/a/b/c.archive"), "c.archive");
}

TEST(FileManager, CreatesFoldersWithIntermediates)
{
    char pattern[] = "/tmp/velvox-fm-XXXXXX";
    std::string root = mkdtemp(pattern);
    auto& manager = FileManager::defaultManager();
    std::string deep = root + "/one/two/Velvox";
    RefPtr<Error> error;
    EXPECT_FALSE(manager.createDirectoryAtPath(deep, false, &error));
    EXPECT_TRUE(error);
    EXPECT_TRUE(manager.createDirectoryAtPath(deep, true));
    EXPECT_TRUE(manager.createDirectoryAtPath(deep, true)); // already there
    bool isFolder = false;
    EXPECT_TRUE(manager.fileExistsAtPath(deep, &isFolder));
    EXPECT_TRUE(isFolder);
    EXPECT_FALSE(manager.fileExistsAtPath(deep + "/nothing"));
    EXPECT_TRUE(manager.removeItemAtPath(root));
    EXPECT_FALSE(manager.fileExistsAtPath(root));
}

TEST(Bundle, FindsTheResourceFolder)
{
    auto& bundle = Bundle::mainBundle();
    EXPECT_TRUE(std::filesystem::is_directory(bundle.resourcePath())) << bundle.resourcePath();
    EXPECT_FALSE(bundle.pathForResource("no-such-resource", "json"));
}
