#include <Platform/Platform.h>

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <cstdlib>
#include <filesystem>
#include <fstream>

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

namespace {

std::vector<std::string> temporariesIn(const std::string& folder)
{
    std::vector<std::string> names;
    for (auto& entry : std::filesystem::directory_iterator(folder)) {
        auto name = entry.path().filename().string();
        if (name.starts_with(".state.archive."))
            names.push_back(name);
    }
    return names;
}

void ageFile(const std::string& path)
{
    struct timeval times[2] = { { time(nullptr) - 3600, 0 }, { time(nullptr) - 3600, 0 } };
    utimes(path.c_str(), times);
}

} // namespace

TEST(Files, AKilledSaveLeavesNothingBehindTheNextSave)
{
    auto folder = std::filesystem::temp_directory_path() / ("velvox-saves-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    std::string target = (folder / "state.archive").string();
    ASSERT_TRUE(FileManager::writeFileAtomically(target, "old"));

    // A child that is killed while it writes a large save.
    pid_t child = fork();
    if (child == 0) {
        std::string large(512u << 20, 'x');
        FileManager::writeFileAtomically(target, large);
        _exit(0);
    }
    for (int i = 0; i < 5000 && temporariesIn(folder).empty(); ++i)
        usleep(1000);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    auto left = temporariesIn(folder);
    ASSERT_EQ(left.size(), 1u) << "the killed save should have left its temporary";
    ageFile((folder / left[0]).string());

    // A live writer's temporary (locked) stays.
    std::string live = (folder / ".state.archive.LiVe01").string();
    int liveFd = open(live.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(liveFd, 0);
    ASSERT_EQ(flock(liveFd, LOCK_EX), 0);
    ageFile(live);

    ASSERT_TRUE(FileManager::writeFileAtomically(target, "new"));
    EXPECT_EQ(temporariesIn(folder), (std::vector<std::string> { ".state.archive.LiVe01" }));
    auto contents = Data::createWithContentsOfFile(target);
    ASSERT_TRUE(contents);
    EXPECT_EQ(contents->view(), "new");
    close(liveFd);
    std::filesystem::remove_all(folder);
}

TEST(Files, SavesArePrivateAndHonourTheUmask)
{
    auto folder = std::filesystem::temp_directory_path() / ("velvox-modes-" + std::to_string(getpid()));
    std::filesystem::remove_all(folder);
    mode_t old = umask(022);
    ASSERT_TRUE(FileManager::defaultManager().createDirectoryAtPath((folder / "a" / "b").string(), true, nullptr, 0700));
    struct stat info;
    ASSERT_EQ(stat((folder / "a" / "b").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    std::string file = (folder / "a" / "b" / "played.archive").string();
    ASSERT_TRUE(FileManager::writeFileAtomically(file, "x"));
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u) << "never readable by others, whatever the umask allows";
    umask(0277);
    ASSERT_TRUE(FileManager::writeFileAtomically(file, "y"));
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0400u) << "the umask takes away what it takes away";
    umask(old);
    chmod(file.c_str(), 0600);
    std::filesystem::remove_all(folder);
}

TEST(Files, OnlyRegularReadableFilesAreRead)
{
    auto folder = std::filesystem::temp_directory_path() / ("velvox-reads-" + std::to_string(getpid()));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder / "directory");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    ASSERT_TRUE(FileManager::writeFileAtomically((folder / "regular").string(), "contents"));
    std::filesystem::create_symlink(folder / "nowhere", folder / "dangling");
    static const struct {
        const char* path;
        const char* reason; // null: read
    } cases[] = {
        { "regular", nullptr },
        { "pipe", "not a regular file" }, // would block a reader until a writer came
        { "directory", "Is a directory" },
        { "dangling", "No such file or directory" },
        { "/proc/self/mem", "Input/output error" }, // opens, as root too, but its first byte cannot be read
        { "/dev/null", "not a regular file" },
    };
    for (auto& c : cases) {
        std::string path = c.path[0] == '/' ? c.path : (folder / c.path).string();
        RefPtr<Error> error;
        auto data = Data::createWithContentsOfFile(path, &error);
        if (!c.reason) {
            ASSERT_TRUE(data) << path;
            EXPECT_EQ(data->view(), "contents");
            EXPECT_FALSE(error);
            continue;
        }
        EXPECT_FALSE(data) << path;
        ASSERT_TRUE(error) << path;
        EXPECT_EQ(error->domain()->view(), POSIXErrorDomain);
        EXPECT_EQ(error->localizedDescription()->str(), path + ": " + c.reason);
        EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithFile(path)) << path;
    }
    std::filesystem::remove_all(folder);
}

TEST(Files, FailedSavesSayWhyAndKeepTheOldFile)
{
    auto folder = std::filesystem::temp_directory_path() / ("velvox-failed-saves-" + std::to_string(getpid()));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder / "occupied");
    {
        std::ofstream((folder / "occupied" / "keep").string()) << "x";
    }
    std::string good = (folder / "good.archive").string();
    ASSERT_TRUE(KeyedArchiver::archiveRootObject(String::create("old").ptr(), good));
    static const struct {
        const char* path;
        int code;
    } cases[] = {
        { "missing/a.archive", ENOENT },
        { "good.archive/a.archive", ENOTDIR },
        { "occupied", EISDIR },
    };
    for (auto& c : cases) {
        RefPtr<Error> error;
        std::string path = (folder / c.path).string();
        EXPECT_FALSE(KeyedArchiver::archiveRootObject(String::create("new").ptr(), path, &error)) << c.path;
        ASSERT_TRUE(error) << c.path;
        EXPECT_EQ(error->code(), c.code) << c.path << ": " << error->localizedDescription()->str();
    }
    auto old = KeyedUnarchiver::unarchiveObjectWithFile(good);
    ASSERT_TRUE(old);
    EXPECT_TRUE(old->isEqual(String::create("old").ptr()));
    std::filesystem::remove_all(folder);
}
