// velvox against what the disk and the user hand it: crafted or huge identity
// maps, a data folder it cannot save to, and files that are not regular files.
// Each hostile case sits beside a control that must still work.

#include <Platform/Platform.h>
#include <VelvoxKit/VXFramework.h>
#include <VelvoxKit/VXTrack.h>
#include <VelvoxKit/VXUser.h>

#include <TestServer.h>
#include <TestSupport.h>

#include "VelvoxClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <sys/stat.h>

using namespace velvox;

namespace {

class HostileState : public testing::Test {
protected:
    void SetUp() override { VXRegisterArchiveClasses(); }

    // velvox with its data folder in the test's own folder, bounded in time so
    // that a hang fails the test instead of stopping the suite.
    test::Outcome velvox(const std::string& arguments, const std::string& prefix = {})
    {
        return test::run("cd '" + folder.path() + "' && " + prefix + " XDG_DATA_HOME='" + data() + "' XDG_CACHE_HOME='" + folder.path()
                + "/cache' VELVOX_BASE_URL= VELVOX_TOKEN= timeout 60 " VELVOX_PROGRAM " " + arguments,
            true);
    }
    std::string data() const { return folder.path() + "/data"; }
    // velvox keeps each service's archives apart; the embedded sandbox's, unless told.
    std::string velvoxFolder() const { return data() + "/Velvox/services/" + m_service + "/Velvox"; }
    std::string archivePath() const { return velvoxFolder() + "/ressources.archive"; }
    // From now on the archives looked at are those of the service at baseURL.
    void lookAtService(const std::string& baseURL)
    {
        m_service = test::velvoxServiceFolder(data(), baseURL);
        ASSERT_FALSE(m_service.empty());
    }
    std::string m_service { "sandbox" };
    static bool contains(const test::Outcome& outcome, std::string_view text) { return outcome.output.find(text) != std::string::npos; }
    static std::string bytes(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    Ref<Dictionary> identityMap()
    {
        auto root = KeyedUnarchiver::unarchiveObjectWithFile(archivePath());
        auto* map = dynamicDowncast<Dictionary>(root.get());
        if (!map) {
            ADD_FAILURE() << "no identity map in " << archivePath();
            return Dictionary::create();
        }
        return *map;
    }
    static size_t count(Dictionary& map, std::string_view className)
    {
        auto* classMap = map.objectForKey<Dictionary>(className);
        return classMap ? classMap->count() : 0;
    }

    test::TemporaryFolder folder;
};

} // namespace

TEST_F(HostileState, ACraftedIdentityMapIsCleanedAndTheRunGoesOn)
{
    // A real map first: the signed-in user and a track (the control data).
    ASSERT_EQ(velvox("track 20005").status, 0);
    auto map = identityMap();
    auto* users = map->objectForKey<Dictionary>("VXUser");
    auto* tracks = map->objectForKey<Dictionary>("VXTrack");
    ASSERT_TRUE(users && tracks);
    auto* track = tracks->objectForKey("20005");
    ASSERT_TRUE(track);
    const std::string me = "1000"; // the sandbox's signed-in user
    ASSERT_TRUE(users->objectForKey(me));

    // Tracks filed under the user class, one of them under the signed-in
    // user's identifier, one object under another's identifier: the checksum
    // is valid, as the project's own archiver wrote it.
    auto crafted = map->mutableCopy();
    auto hostileUsers = users->mutableCopy();
    hostileUsers->setObject(track, me);
    hostileUsers->setObject(track, "20005");
    hostileUsers->setObject(track, "1004");
    crafted->setObject(hostileUsers, "VXUser");
    ASSERT_TRUE(KeyedArchiver::archiveRootObject(crafted.ptr(), archivePath()));

    for (int run = 0; run < 2; ++run) {
        auto signedIn = velvox("me");

        EXPECT_EQ(signedIn.status, 0) << signedIn.output;
        EXPECT_TRUE(contains(signedIn, "ines_stone0")) << signedIn.output;
    }
    auto control = velvox("track 20005");
    EXPECT_EQ(control.status, 0) << control.output;
    EXPECT_TRUE(contains(control, "identity map of an earlier run")) << control.output;
    // What was saved back holds users under the user class only.
    auto saved = identityMap();
    for (auto& entry : *saved->objectForKey<Dictionary>("VXUser"))
        EXPECT_TRUE(is<VXUser>(entry.object)) << downcast<String>(*entry.key).str();

    // Not a dictionary of dictionaries: the whole file is set aside.
    ASSERT_TRUE(KeyedArchiver::archiveRootObject(Dictionary::create({ { "VXUser", String::create("x").ptr() } }).ptr(), archivePath()));
    auto aside = velvox("me");
    EXPECT_EQ(aside.status, 0) << aside.output;
    EXPECT_TRUE(std::filesystem::exists(archivePath() + ".corrupt"));
}

TEST_F(HostileState, TheArchivedIdentityMapIsBoundedAcrossRuns)
{
    // A service with a catalogue of 5,120 tracks, found by any search.
    static constexpr int catalogue = 5120;
    test::TestServer server;
    server.routes().Get("/me", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(R"({"id": 7, "username": "many"})", "application/json");
    });
    server.routes().Get("/tracks", [](const httplib::Request& request, httplib::Response& response) {
        int offset = std::stoi(request.get_param_value("offset").empty() ? "0" : request.get_param_value("offset"));
        int limit = std::stoi(request.get_param_value("limit").empty() ? "50" : request.get_param_value("limit"));
        std::string page = "[";
        for (int id = offset; id < std::min(offset + limit, catalogue); ++id)
            page += (id > offset ? "," : "") + std::string(R"({"id": )") + std::to_string(100000 + id)
                + R"(, "title": "t", "state": "finished", "user_id": 7})";
        response.set_content(page + "]", "application/json");
    });
    std::string base = server.start();
    std::string service = "--base-url " + base + " --token t ";
    lookAtService(base);

    auto listed = velvox(service + "--quiet --all tracks --search x");
    ASSERT_EQ(listed.status, 0) << listed.output;
    auto map = identityMap();
    EXPECT_EQ(count(map, "VXTrack"), 5000u);
    // The most recent are kept: the last page is, the first is not.
    auto* tracks = map->objectForKey<Dictionary>("VXTrack");
    EXPECT_TRUE(tracks->objectForKey(std::to_string(100000 + catalogue - 1)));
    EXPECT_FALSE(tracks->objectForKey("100000"));
    EXPECT_EQ(count(map, "VXUser"), 1u);

    auto next = velvox(service + "me");
    EXPECT_EQ(next.status, 0) << next.output;
    EXPECT_TRUE(contains(next, "many")) << next.output;
    auto after = identityMap();
    EXPECT_EQ(count(after, "VXTrack"), 5000u);
}

TEST_F(HostileState, AFailedSaveIsSaidAndTheGoodArchivesStay)
{
    auto played = velvox("play 20003");
    ASSERT_EQ(played.status, 0) << played.output;
    ASSERT_TRUE(contains(played, "played")) << played.output;
    std::map<std::string, std::string> before;
    for (auto& file : std::filesystem::directory_iterator(velvoxFolder()))
        before[file.path().string()] = bytes(file.path().string());
    ASSERT_EQ(before.size(), 3u);

    // No room for any file: with the file size limit at 0 (its signal
    // ignored) every write fails with EFBIG, for root too.
    auto full = velvox("play 20004", "trap '' XFSZ; ulimit -f 0;");
    EXPECT_EQ(full.status, 1) << full.output;
    EXPECT_TRUE(contains(full, "velvox play: cannot save the store's archives: ")) << full.output;
    EXPECT_TRUE(contains(full, "File too large")) << full.output;
    for (auto& [path, contents] : before)
        EXPECT_EQ(bytes(path), contents) << path;
    auto history = velvox("history");
    EXPECT_TRUE(contains(history, "20003")) << history.output;

    // The data folder's place is taken by a file.
    std::filesystem::remove_all(velvoxFolder());
    {
        std::ofstream(velvoxFolder()) << "in the way";
    }
    auto blocked = velvox("play 20003");
    EXPECT_EQ(blocked.status, 1) << blocked.output;
    EXPECT_TRUE(contains(blocked, "velvox play: cannot save the store's archives: " + velvoxFolder())) << blocked.output;
    EXPECT_EQ(bytes(velvoxFolder()), "in the way");
    // A failure of the command itself keeps its own code.
    EXPECT_EQ(velvox("user 99999").status, 3);
}

TEST_F(HostileState, OnlyRegularReadableFilesAreSentOrRead)
{
    std::atomic<int> requests { 0 };
    test::TestServer server;
    server.routes().Post(".*", [&requests](const httplib::Request&, httplib::Response& response) {
        ++requests;
        response.set_content(R"({"id": 30001, "title": "sent", "state": "finished"})", "application/json");
    });
    std::string service = "--base-url " + server.start() + " --token t ";

    std::string fifo = folder.path() + "/pipe";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::filesystem::create_directories(folder.path() + "/directory");
    static const struct {
        const char* file;
        const char* reason;
    } refused[] = {
        { "pipe", "not a regular file" },
        { "directory", "Is a directory" },
        { "/proc/self/mem", "Input/output error" }, // opens, as root too, but cannot be read
    };
    for (auto& c : refused) {
        std::string path = c.file[0] == '/' ? c.file : folder.path() + "/" + c.file;
        auto upload = velvox(service + "upload " + path + " --title x");
        EXPECT_EQ(upload.status, 1) << c.file << "\n"
                                    << upload.output;
        EXPECT_TRUE(contains(upload, "velvox upload: cannot send " + path + ": " + c.reason)) << upload.output;
        auto api = velvox(service + "api POST /tracks track[asset_data]=@" + path);
        EXPECT_EQ(api.status, 1) << c.file << "\n"
                                 << api.output;
        EXPECT_TRUE(contains(api, "velvox api: cannot send " + path)) << api.output;
    }
    EXPECT_EQ(requests, 0);
    {
        std::ofstream(folder.path() + "/sound.wav") << "RIFF....WAVE";
    }
    auto control = velvox(service + "upload sound.wav --title x");
    EXPECT_EQ(control.status, 0) << control.output;
    EXPECT_EQ(requests, 1);

    // A FIFO where the identity map should be is unreadable: set aside, the run goes on.
    std::filesystem::create_directories(velvoxFolder());
    std::filesystem::remove(archivePath());
    ASSERT_EQ(mkfifo(archivePath().c_str(), 0600), 0);
    auto me = velvox("me");
    EXPECT_EQ(me.status, 0) << me.output;
    EXPECT_TRUE(contains(me, "ines_stone0")) << me.output;
    EXPECT_TRUE(std::filesystem::exists(archivePath() + ".corrupt"));
    EXPECT_FALSE(identityMap()->count() == 0);
}
