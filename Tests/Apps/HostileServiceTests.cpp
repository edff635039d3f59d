// velvox against a service that misbehaves on purpose: failing checks,
// identifiers that try to leave their path segment, records of the wrong
// shape, and lists of tracks that are never finished. Every case has a
// well-behaved control beside it, so that a changed interface fails instead
// of passing.

#include <Platform/Platform.h>

#include <TestServer.h>

#include "VelvoxClient.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <thread>

using namespace velvox;

namespace {

const char* const meRecord = R"({"id": 1000, "username": "me_user"})";

std::string userRecord(std::string_view id)
{
    return std::string(R"({"id": )") + std::string(id) + R"(, "username": "hostile_user", "full_name": "Hostile User"})";
}

// A track as the service sends it; `field` replaces one entry's value.
std::string trackRecord(std::string_view field = {}, std::string_view value = {})
{
    std::map<std::string, std::string> entries {
        { "id", "20005" },
        { "title", R"("Night Drive")" },
        { "user_id", "1003" },
        { "duration", "61000" },
        { "state", R"("finished")" },
        { "created_at", R"("2024/01/02 03:04:05 +0000")" },
        { "tag_list", R"("wave")" },
        { "permalink_url", R"("http://service.test/u/night")" },
        { "user", R"({"id": 1003, "username": "uploader"})" },
    };
    if (!field.empty())
        entries[std::string(field)] = value;
    std::string json = "{";
    for (auto& [key, text] : entries)
        json += (json.size() > 1 ? ", \"" : "\"") + key + "\": " + text;
    return json + "}";
}

class HostileService : public test::VelvoxClient {
protected:
    struct Answer {
        int status { 200 };
        std::string body;
        int delayMilliseconds { 0 };
    };

    void SetUp() override
    {
        // Room for many requests at once, so that the client's own limit is what is measured.
        server.routes().new_task_queue = [] { return new httplib::ThreadPool(48); };
        auto handler = [this](const httplib::Request& request, httplib::Response& response) { serve(request, response); };
        // Any path, line breaks included (which "." would not match).
        const char* anyPath = R"([\s\S]*)";
        server.routes().Get(anyPath, handler);
        server.routes().Put(anyPath, handler);
        server.routes().Delete(anyPath, handler);
        server.routes().Post(anyPath, handler);
        base = server.start();
        answer("GET /me", { 200, meRecord });
    }

    // Answers "METHOD /decoded/path" (any query) with the answer from now on.
    void answer(const std::string& request, Answer answer)
    {
        std::lock_guard lock(mutex);
        answers[request] = std::move(answer);
    }
    // Answers every request whose path the expression matches (after exact answers).
    void answerMatching(const std::string& method, const std::string& pattern, std::function<Answer(const httplib::Request&)> make)
    {
        std::lock_guard lock(mutex);
        patterns.push_back({ method, std::regex(pattern), std::move(make) });
    }

    void serve(const httplib::Request& request, httplib::Response& response)
    {
        int running = ++inFlight;
        int highest = mostInFlight.load();
        while (running > highest && !mostInFlight.compare_exchange_weak(highest, running)) { }
        Answer chosen { 404, R"({"errors": [{"error_message": "404 - Not Found"}]})" };
        {
            std::lock_guard lock(mutex);
            log.push_back(request.method + " " + request.target);
            if (auto found = answers.find(request.method + " " + request.path); found != answers.end())
                chosen = found->second;
            else {
                for (auto& rule : patterns) {
                    if (rule.method == request.method && std::regex_match(request.path, rule.pattern)) {
                        chosen = rule.make(request);
                        break;
                    }
                }
            }
        }
        if (chosen.delayMilliseconds)
            std::this_thread::sleep_for(std::chrono::milliseconds(chosen.delayMilliseconds));
        response.status = chosen.status;
        if (chosen.status != 204)
            response.set_content(chosen.body, "application/json");
        --inFlight;
    }

    std::vector<std::string> requests()
    {
        std::lock_guard lock(mutex);
        return log;
    }
    size_t countRequests(std::string_view prefix)
    {
        auto all = requests();
        return std::count_if(all.begin(), all.end(), [&](auto& line) { return line.starts_with(prefix); });
    }
    void forgetRequests()
    {
        std::lock_guard lock(mutex);
        log.clear();
    }

    test::Outcome velvox(const std::string& arguments)
    {
        return VelvoxClient::velvox("--base-url " + base + " --token hostile-token " + arguments);
    }

    test::TestServer server;
    std::string base;
    std::mutex mutex;
    std::map<std::string, Answer> answers;
    struct Rule {
        std::string method;
        std::regex pattern;
        std::function<Answer(const httplib::Request&)> make;
    };
    std::vector<Rule> patterns;
    std::vector<std::string> log;
    std::atomic<int> inFlight { 0 };
    std::atomic<int> mostInFlight { 0 };
};

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

TEST_F(HostileService, AFailingFollowCheckEndsInAnErrorAfterFewSpacedRequests)
{
    answer("GET /users/1001", { 200, userRecord("1001") });
    // Control: "not following" (404), so follow sends its change.
    answer("GET /me/followings/1001", { 404, "{}" });
    answer("PUT /me/followings/1001", { 200, userRecord("1001") });
    auto followed = velvox("follow 1001");
    EXPECT_EQ(followed.status, 0) << followed.output;
    EXPECT_TRUE(contains(followed, "following hostile_user")) << followed.output;
    EXPECT_EQ(countRequests("PUT /me/followings/1001"), 1u);

    static constexpr struct {
        int status;
        int exitStatus;
        size_t mostChecks;
    } cases[] = {
        { 500, 6, 3 }, // worth asking again: twice more, spaced
        { 429, 6, 3 },
        { 401, 4, 1 }, // not worth it
        { 403, 4, 1 },
    };
    for (auto& c : cases) {
        forgetRequests();
        answer("GET /me/followings/1001", { c.status, R"({"errors": []})" });
        auto start = std::chrono::steady_clock::now();
        auto outcome = velvox("follow 1001");
        EXPECT_EQ(outcome.status, c.exitStatus) << c.status << ": " << outcome.output;
        EXPECT_LE(countRequests("GET /me/followings/"), c.mostChecks) << c.status;
        EXPECT_GE(countRequests("GET /me/followings/"), 1u) << c.status;
        EXPECT_EQ(countRequests("PUT "), 0u) << c.status;
        EXPECT_LT(secondsSince(start), 10) << c.status;
    }

    // A change the service refuses is reported at once, not after a long wait.
    forgetRequests();
    answer("GET /me/followings/1001", { 404, "{}" });
    answer("PUT /me/followings/1001", { 422, R"({"errors": [{"error_message": "refused"}]})" });
    auto start = std::chrono::steady_clock::now();
    auto refused = velvox("follow 1001");
    EXPECT_EQ(refused.status, 6) << refused.output;
    EXPECT_LT(secondsSince(start), 5);
    EXPECT_EQ(countRequests("PUT /me/followings/1001"), 1u);
}

TEST_F(HostileService, IdentifiersFromTheServiceStayOneSegmentOfTheirPath)
{
    // The service names user 1001 by an identifier of its own choosing;
    // unfollow then sends its change to whatever path that identifier makes.
    static constexpr struct {
        const char* json;
        bool sent; // false: refused before anything is sent
    } cases[] = {
        { R"("1001")", true }, // control
        { R"("1001/../../favorites/20005")", true },
        { R"("../../me")", true },
        { R"("5?x=y")", true },
        { R"("5#")", true },
        { R"("%2e%2e")", true },
        { R"("//other.test/x")", true },
        { R"("a b\r\nX-Injected: 1")", true },
        { R"("..")", false },
        { R"(".")", false },
        { R"("")", false },
    };
    // A single segment below /me/followings/, of unreserved bytes and escapes.
    static const std::regex oneSegment("(GET|DELETE) /me/followings/([A-Za-z0-9._~-]|%[0-9A-F]{2})+");
    for (auto& c : cases) {
        forgetRequests();
        answer("GET /users/1001", { 200, userRecord(c.json) });
        answerMatching("GET", R"(/me/followings/[\s\S]*)", [](auto&) { return Answer { 200, userRecord("1001") }; });
        answerMatching("DELETE", R"(/me/followings/[\s\S]*)", [](auto&) { return Answer { 200, "{}" }; });
        auto outcome = velvox("unfollow 1001");
        auto sent = requests();
        size_t changes = 0;
        for (auto& line : sent) {
            EXPECT_FALSE(line.starts_with("DELETE /me/favorites") || line.starts_with("DELETE /me/followings/1000")) << c.json << ": " << line;
            if (line.starts_with("GET /users/") || line == "GET /me")
                continue;
            EXPECT_TRUE(std::regex_match(line, oneSegment)) << c.json << ": " << line;
            changes += line.starts_with("DELETE ");
        }
        if (c.sent) {
            EXPECT_EQ(outcome.status, 0) << c.json << ": " << outcome.output;
            EXPECT_EQ(changes, 1u) << c.json << outcome.output;
        } else {
            EXPECT_EQ(outcome.status, 6) << c.json << ": " << outcome.output;
            EXPECT_TRUE(contains(outcome, "not a path of the service")) << outcome.output;
            EXPECT_EQ(changes, 0u) << c.json;
        }
    }
    // The decimal identifier's path is exactly the service's own.
    forgetRequests();
    answer("GET /users/1001", { 200, userRecord("1001") });
    velvox("unfollow 1001");
    auto sent = requests();
    EXPECT_NE(std::find(sent.begin(), sent.end(), "DELETE /me/followings/1001"), sent.end());
}

TEST_F(HostileService, RecordsOfTheWrongShapeAreServiceErrorsNotCrashes)
{
    answer("GET /tracks/20005", { 200, trackRecord() });
    auto control = velvox("track 20005");
    ASSERT_EQ(control.status, 0) << control.output;
    EXPECT_TRUE(contains(control, "Night Drive")) << control.output;

    static const struct {
        std::string request;
        std::string body;
        std::string command;
        std::string named; // the field the message names, if any
        int status { 200 };
    } cases[] = {
        { "GET /tracks/20005", trackRecord("duration", "{}"), "track 20005 --refresh", "\"duration\"" },
        { "GET /tracks/20005", trackRecord("created_at", "{}"), "track 20005 --refresh", "\"created_at\"" },
        { "GET /tracks/20005", trackRecord("state", "[7]"), "track 20005 --refresh", "\"state\"" },
        { "GET /tracks/20005", trackRecord("tag_list", "{}"), "track 20005 --refresh", "\"tag_list\"" },
        { "GET /tracks/20005", trackRecord("user_id", "[1]"), "track 20005 --refresh", "\"user_id\"" },
        { "GET /tracks/20005", trackRecord("permalink_url", "[5]"), "track 20005 --refresh", "\"permalink_url\"" },
        { "GET /tracks/20005", trackRecord("id", R"({"a": 1})"), "track 20005 --refresh", "\"id\"" },
        { "GET /tracks/20005", trackRecord("id", "[1]"), "track 20005 --refresh", "\"id\"" },
        { "GET /tracks/20005", "[1, 2]", "track 20005 --refresh", "not a record" },
        { "GET /users/1004", userRecord("[1004]"), "user 1004", "\"id\"" },
        { "GET /me", "<html>hello</html>", "me", "not a record" },
        { "GET /me", "", "me", "not a record", 204 },
        { "GET /me", "[]", "me", "not a record" },
        { "GET /me/favorites", R"({"a": 1})", "favorites", "unexpected result" },
        { "GET /me/favorites", "[1, 2]", "favorites", "" },
        { "GET /me/favorites", "[" + trackRecord("duration", "{}") + "]", "favorites", "\"duration\"" },
        { "GET /me/activities/tracks", R"({"collection": [{"type": 5, "created_at": "2024/01/02 03:04:05 +0000"}]})", "dashboard", "\"type\"" },
        { "GET /me/activities/tracks", R"({"collection": [], "next_href": "http://service.test/x?cursor"})", "dashboard", "" },
        { "GET /me/activities/tracks", "[]", "dashboard", "unexpected result" },
        { "GET /tracks/20005", R"({"title": "no id", "state": "finished"})", "view track 20005 -o view.html", "\"id\"" },
        { "GET /tracks/20005", trackRecord("id", "null"), "view track 20005 -o view.html", "\"id\"" },
        { "POST /tracks", trackRecord("id", R"({"a": 1})"), "upload sound.wav --title Hostile", "\"id\"" },
        { "POST /tracks", "[]", "upload sound.wav --title Hostile", "not a record" },
    };
    {
        std::ofstream sound(folder.path() + "/sound.wav", std::ios::binary);
        sound << std::string(1024, 'x');
    }
    for (auto& c : cases) {
        answer(c.request, { c.status, c.body });
        auto outcome = velvox(c.command);
        EXPECT_EQ(outcome.status, 6) << c.request << " " << c.body << ": " << outcome.output;
        EXPECT_TRUE(contains(outcome, c.named)) << c.request << " " << c.body << ": " << outcome.output;
        EXPECT_FALSE(contains(outcome, "Exception reached")) << outcome.output;
        answer(c.request, c.request == "GET /me" ? Answer { 200, meRecord } : Answer { 404, "{}" });
    }
    // A track without an owner still has its view.
    answer("GET /tracks/20005", { 200, R"({"id": 20005, "title": "Orphan", "state": "finished"})" });
    answer("GET /tracks/20005/comments", { 200, "[]" });
    auto orphan = velvox("view track 20005 -o orphan.html");
    EXPECT_EQ(orphan.status, 0) << orphan.output;
    // The archives of those runs are whole: the next run works.
    answer("GET /tracks/20005", { 200, trackRecord() });
    EXPECT_EQ(velvox("track 20005 --refresh").status, 0);
}

TEST_F(HostileService, UnfinishedTracksArePolledWithinTheConnectionLimit)
{
    // Twenty pages of fifty tracks that the service is still "storing", each
    // page slow enough that the polls of the first pages start while the
    // list is still loading.
    answerMatching("GET", "/me/tracks", [](const httplib::Request& request) {
        int offset = request.has_param("offset") ? std::stoi(request.get_param_value("offset")) : 0;
        std::string page = "[";
        for (int i = offset; i < std::min(offset + 50, 1000); ++i)
            page += (i > offset ? "," : "") + std::string(R"({"id": )") + std::to_string(30000 + i) + R"(, "title": "T", "state": "storing", "duration": 100})";
        return Answer { 200, page + "]", 120 };
    });
    answerMatching("GET", "/tracks/[0-9]+", [](const httplib::Request& request) {
        return Answer { 200, R"({"id": )" + request.path.substr(8) + R"(, "title": "T", "state": "storing", "duration": 100})", 200 };
    });
    auto outcome = velvox("tracks --all");
    EXPECT_EQ(outcome.status, 0) << outcome.output.substr(0, 2000);
    EXPECT_EQ(std::count(outcome.output.begin(), outcome.output.end(), '\n'), 1001); // the heading and every track
    EXPECT_GT(countRequests("GET /tracks/"), 0u);                                    // the polls did run
    EXPECT_LE(mostInFlight.load(), 8);
}
