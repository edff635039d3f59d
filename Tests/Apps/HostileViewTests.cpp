// velvox against a hostile service on loopback: records whose image addresses
// point elsewhere, whose texts hold image addresses, whose durations and
// identifiers are absurd, and a feed that never ends. Views fetch only the
// images the templates show from web addresses, and the pages they write
// load nothing when a browser opens them.

#include <Platform/Platform.h>

#include <Browser.h>
#include <TestServer.h>

#include "VelvoxClient.h"

#include <map>
#include <mutex>
#include <regex>
#include <sstream>

using namespace velvox;
using test::VelvoxClient;

namespace {

std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

// An image address case of the hostile records: what the record says, and
// whether the view may fetch it.
struct ImageCase {
    const char* name;
    std::string address; // "{images}" is the image server, "{tls}" a port that expects TLS
    bool fetched;
};

class HostileService {
public:
    HostileService()
    {
        auto logo = Data::createWithContentsOfFile(VELVOX_SOURCE_DIR "/Resources/views/logo.png");
        m_png = logo ? std::string(logo->view()) : std::string();
        auto& routes = m_server.routes();
        routes.set_logger([this](const httplib::Request& request, const httplib::Response&) {
            std::lock_guard lock(m_mutex);
            ++m_hits[request.path];
        });
        routes.Get(R"(/images/(.+))", [this](const httplib::Request&, httplib::Response& response) { response.set_content(m_png, "image/png"); });
        routes.Get("/me", [this](const httplib::Request&, httplib::Response& response) { json(response, userRecord("1", "")); });
        routes.Get(R"(/users/([^/]+))", [this](const httplib::Request& request, httplib::Response& response) {
            json(response, userRecord(request.matches[1], expand("//{host}/images/avatar.png")));
        });
        routes.Get(R"(/users/[^/]+/tracks)", [this](const httplib::Request& request, httplib::Response& response) {
            json(response, request.has_param("offset") && request.get_param_value("offset") != "0" ? "[]" : userTracks());
        });
        routes.Get(R"(/tracks/([^/]+))", [this](const httplib::Request& request, httplib::Response& response) {
            // Track 7 comes back with a text identifier, as a hostile service may send.
            std::string identifier = request.matches[1] == "7" ? "x7" : std::string(request.matches[1]);
            json(response, request.matches[1] == "10" ? viewedTrack() : trackRecord(::quoted(identifier), "a\\u0085b\\u009fc\\u007fd", "null", 61000));
        });
        routes.Get(R"(/tracks/10/comments)", [this](const httplib::Request& request, httplib::Response& response) {
            json(response, request.has_param("offset") && request.get_param_value("offset") != "0" ? "[]" : comments());
        });
        // The feed that never ends: every page, however far, has a next one.
        routes.Get("/me/activities/tracks", [this](const httplib::Request& request, httplib::Response& response) {
            long page = request.has_param("cursor") ? std::atol(request.get_param_value("cursor").c_str()) : 0;
            json(response, "{\"collection\": [{\"type\": \"track\", \"created_at\": \"2013/08/30 09:26:53 +0000\", \"origin\": " + trackRecord(std::to_string(1000 + page), "page " + std::to_string(page), "null", 1000) + "}], \"next_href\": \"" + m_base + "/me/activities/tracks?cursor=" + std::to_string(page + 1) + "\"}");
        });
        m_base = m_server.start();
        cases = {
            { "control", "http://{host}/images/control.png", true },
            { "upper-case scheme", "HTTP://{host}/images/upper.png", true },
            { "protocol-relative", "//{host}/images/relative.png", false },
            { "already the image scheme", "zu-image://{host}/images/scheme.png", false },
            { "upper-case image scheme", "ZU-IMAGES://{host}/images/upper-scheme.png", false },
            { "another scheme", "ftp://{host}/images/ftp.png", false },
            { "short", "//x/", false },
        };
    }

    std::string baseURL() const { return m_base; }
    std::string expand(std::string text) const
    {
        text = std::regex_replace(text, std::regex("\\{host\\}"), m_base.substr(7));
        return std::regex_replace(text, std::regex("\\{tls\\}"), "127.0.0.1:" + std::to_string(tls.port()));
    }
    size_t hits(const std::string& path)
    {
        std::lock_guard lock(m_mutex);
        return m_hits[path];
    }
    size_t imageHits()
    {
        std::lock_guard lock(m_mutex);
        size_t count = 0;
        for (auto& [path, hits] : m_hits)
            count += path.starts_with("/images/") ? hits : 0;
        return count;
    }
    // The path of an address on this server ("/images/..."), or empty.
    std::string pathOf(const std::string& address) const
    {
        size_t at = address.find("/images/");
        return at == std::string::npos ? std::string() : address.substr(at);
    }

    std::vector<ImageCase> cases;
    // Answers what an HTTPS client sends with bytes that are no TLS: the view's attempt is counted.
    test::RawServer tls { "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n", false };

private:
    static void json(httplib::Response& response, const std::string& body) { response.set_content(body, "application/json"); }
    std::string userRecord(const std::string& identifier, const std::string& avatar) const
    {
        return "{\"id\": " + identifier + ", \"username\": \"user" + identifier + "\", \"permalink_url\": \"" + expand("http://{host}/people/user") + identifier + "\", \"full_name\": \"" + expand("zu-image://{host}/images/name.png") + "\", "
                                                                                                                                                          "\"avatar_url\": "
            + (avatar.empty() ? "null" : quoted(avatar)) + ", \"track_count\": 7}";
    }
    std::string trackRecord(const std::string& identifier, const std::string& title, const std::string& artwork, double duration) const
    {
        return "{\"id\": " + identifier + ", \"title\": " + quoted(title) + ", \"user_id\": 1, \"user\": {\"id\": 1, \"username\": \"user1\"}, "
                                                                            "\"created_at\": \"2011/03/15 01:12:53 +0000\", \"state\": \"finished\", \"duration\": "
            + format("%.17g", duration)
            + ", \"artwork_url\": " + artwork + "}";
    }
    // One track per image case, titled with an image address of this server
    // (text, never fetched); the durations are a control and absurd ones.
    std::string userTracks() const
    {
        static const double durations[] = { 61000, 1e308, -5000, 1.8e18 };
        std::string list = "[";
        for (size_t i = 0; i < cases.size(); ++i) {
            list += (i ? ", " : "") + trackRecord(std::to_string(100 + i), expand("zu-image://{host}/images/title-" + std::to_string(i) + ".png"), quoted(expand(cases[i].address)), durations[i % 4]);
        }
        return list + "]";
    }
    std::string viewedTrack() const
    {
        auto record = trackRecord("10", expand("zu-image://{host}/images/title.png"), quoted(expand("http://{host}/images/artwork.png")), 1000);
        record.pop_back();
        // Its page on the service is no web address: no link may be made of it.
        return record + expand(", \"permalink_url\": \"javascript:fetch('//{host}/images/permalink.png')\", \"waveform_url\": \"HTTPS://{tls}/images/waveform.png\", \"description\": \"see zu-images://{host}/images/description.png "
                               "<img src=//{host}/images/markup.png>\"}");
    }
    std::string comments() const
    {
        return expand("[{\"id\": 1, \"track_id\": 10, \"user_id\": 1, \"user\": {\"id\": 1, \"username\": \"user1\"}, \"timestamp\": 12500, "
                      "\"created_at\": \"2011/03/15 01:12:53 +0000\", \"body\": \"zu-image://{host}/images/comment.png\"}, "
                      "{\"id\": 2, \"track_id\": 10, \"user_id\": 1, \"timestamp\": 1e308, \"created_at\": \"2011/03/15 01:12:53 +0000\", "
                      "\"body\": \"<img src='HTTP://{host}/images/comment-markup.png'>\"}]");
    }

    test::TestServer m_server;
    std::string m_base;
    std::string m_png;
    std::mutex m_mutex;
    std::map<std::string, size_t> m_hits;
};

class HostileServiceClient : public VelvoxClient {
protected:
    test::Outcome velvoxOn(const std::string& arguments, bool withErrors = true)
    {
        return velvox("--base-url " + service.baseURL() + " --token t " + arguments, withErrors, "VELVOX_TEST_MAXIMUM_PAGES=30");
    }
    std::string page(const std::string& name)
    {
        auto bytes = Data::createWithContentsOfFile(folder.path() + "/" + name);
        return bytes ? std::string(bytes->view()) : std::string();
    }
    // Every address in an attribute of the page's tags that would load when it
    // is opened (a link's href loads only when followed).
    static std::vector<std::string> loadingAddresses(const std::string& html)
    {
        std::vector<std::string> addresses;
        std::regex tag(R"(<(?![aA]\s)[A-Za-z][^>]*>)");
        std::regex attribute(R"(\s(?:src|srcset|href|poster)\s*=\s*["']?([^"' >]*))", std::regex::icase);
        for (std::sregex_iterator at(html.begin(), html.end(), tag), end; at != end; ++at) {
            std::string text = at->str();
            for (std::sregex_iterator found(text.begin(), text.end(), attribute); found != end; ++found)
                addresses.push_back((*found)[1]);
        }
        return addresses;
    }
    // The page opened in a browser while the service counts: nothing it holds is asked for.
    void expectNoRequestOnOpen(const std::string& name)
    {
        if (!test::chromium())
            return;
        size_t before = service.imageHits(), connections = service.tls.connections();
        auto dom = test::domOf(folder.path() + "/" + name);
        ASSERT_NE(dom.find("<html"), std::string::npos) << dom.substr(0, 400);
        EXPECT_EQ(service.imageHits(), before) << name;
        EXPECT_EQ(service.tls.connections(), connections) << name;
        for (auto& address : loadingAddresses(dom))
            EXPECT_TRUE(address.starts_with("data:")) << name << ": " << address;
    }

    HostileService service;
};

} // namespace

TEST_F(HostileServiceClient, AUsersViewFetchesOnlyItsWebImages)
{
    auto view = velvoxOn("view user 1 -o user.html");
    ASSERT_EQ(view.status, 0) << view.output;
    auto html = page("user.html");
    for (size_t i = 0; i < service.cases.size(); ++i) {
        auto& image = service.cases[i];
        EXPECT_EQ(service.hits(service.pathOf(service.expand(image.address))), image.fetched ? 1u : 0u) << image.name;
        // Each track's title, an image address, is shown as text and never fetched.
        std::string title = service.expand("zu-image://{host}/images/title-" + std::to_string(i) + ".png");
        EXPECT_NE(html.find("<h3 class=\"title\"><a href=\"track-" + std::to_string(100 + i) + ".html\">" + title + "</a></h3>"), std::string::npos) << image.name;
        EXPECT_EQ(service.hits(service.pathOf(title)), 0u) << image.name;
    }
    EXPECT_EQ(service.hits("/images/avatar.png"), 0u); // protocol-relative
    EXPECT_EQ(service.imageHits(), 2u);
    // The user's page on the service is a link (the control of the track's below).
    EXPECT_NE(html.find("class=\"permalink\" href=\"" + service.expand("http://{host}/people/user1") + "\""), std::string::npos);
    size_t inlined = 0;
    for (auto& address : loadingAddresses(html)) {
        EXPECT_TRUE(address.starts_with("data:")) << address;
        inlined += address.starts_with("data:image/png;base64,");
    }
    EXPECT_EQ(inlined, 2u); // the control and the upper-case scheme
    expectNoRequestOnOpen("user.html");
}

TEST_F(HostileServiceClient, ATracksViewFetchesNoTextAndTriesTheUpperCaseSecureScheme)
{
    auto view = velvoxOn("view track 10 -o track.html");
    ASSERT_EQ(view.status, 0) << view.output;
    auto html = page("track.html");
    EXPECT_EQ(service.hits("/images/artwork.png"), 1u); // the control
    // "HTTPS" is asked for over TLS (this port only counts), not lost as an odd scheme.
    EXPECT_GE(service.tls.connections(), 1u);
    for (auto text : { "/images/title.png", "/images/name.png", "/images/description.png", "/images/markup.png", "/images/comment.png", "/images/comment-markup.png" })
        EXPECT_EQ(service.hits(text), 0u) << text;
    EXPECT_EQ(service.imageHits(), 1u);
    EXPECT_NE(html.find("see zu-images://"), std::string::npos);
    EXPECT_EQ(html.find("javascript:"), std::string::npos);
    EXPECT_EQ(html.find("class=\"permalink\""), std::string::npos);
    EXPECT_NE(html.find("&lt;img src=//"), std::string::npos); // markup in a description stays text
    // A timed comment at 12.5 s says so; one at an absurd time says nothing of it.
    EXPECT_NE(html.find("at 0:12"), std::string::npos);
    EXPECT_EQ(html.find("class=\"at\""), html.rfind("class=\"at\""));
    EXPECT_EQ(html.find("9223372036854776"), std::string::npos);
    for (auto& address : loadingAddresses(html))
        EXPECT_TRUE(address.starts_with("data:")) << address;
    expectNoRequestOnOpen("track.html");
}

TEST_F(HostileServiceClient, AbsurdDurationsShowAsNothingOrTooLong)
{
    auto list = velvoxOn("tracks --user 1", false);
    ASSERT_EQ(list.status, 0) << list.output;
    // Durations per track, in turn: 61 s, 1e308 ms, -5 s, 1.8e18 ms.
    static const char* const lengths[] = { "1.01", "too long", "", "too long" };
    std::istringstream lines(list.output);
    size_t checked = 0;
    for (std::string line; std::getline(lines, line);) {
        std::smatch row;
        if (!std::regex_search(line, row, std::regex(R"(^\S*\s+1(\d\d) )")))
            continue;
        std::string length = lengths[std::stoi(row[1]) % 4];
        bool clock = std::regex_search(line, std::regex(R"(\s\d+\.\d\d(\.\d\d)?\s)"));
        EXPECT_EQ(clock, length == "1.01") << line;
        EXPECT_EQ(line.find(" too long ") != std::string::npos, length == "too long") << line;
        if (length == "1.01") {
            EXPECT_NE(line.find(" 1.01 "), std::string::npos) << line;
        }
        ++checked;
    }
    EXPECT_EQ(checked, service.cases.size()) << list.output;

    auto comments = velvoxOn("comments 10", false);
    EXPECT_EQ(comments.status, 0) << comments.output;
    EXPECT_NE(comments.output.find(" 0.12 "), std::string::npos) << comments.output;
    EXPECT_NE(comments.output.find("too long"), std::string::npos) << comments.output;
}

TEST_F(HostileServiceClient, JSONKeepsTextIdentifiersAndEscapesControlCharacters)
{
    // velvox itself refuses an identifier that is no number; the service may still send one.
    EXPECT_EQ(velvoxOn("--json track x7", false).status, 2);
    auto text = velvoxOn("--json track 7", false);
    ASSERT_EQ(text.status, 0) << text.output;
    EXPECT_NE(text.output.find("\"id\": \"x7\""), std::string::npos) << text.output;
    EXPECT_NE(text.output.find(R"("title": "a\u0085b\u009fc\u007fd")"), std::string::npos) << text.output;
    for (size_t i = 0; i + 1 < text.output.size(); ++i)
        EXPECT_FALSE(static_cast<unsigned char>(text.output[i]) == 0xC2 && (static_cast<unsigned char>(text.output[i + 1]) & 0xE0) == 0x80) << i;
    // Numbers stay numbers; a number that would not spell the text back stays text.
    auto number = velvoxOn("--json track 10", false);
    EXPECT_TRUE(std::regex_search(number.output, std::regex(R"("id": 10\b)"))) << number.output;
    auto leadingZero = velvoxOn("--json track 007", false);
    EXPECT_NE(leadingZero.output.find("\"id\": \"007\""), std::string::npos) << leadingZero.output;
}

TEST_F(HostileServiceClient, AFeedThatNeverEndsIsCutAndSaidSo)
{
    auto first = velvoxOn("dashboard");
    EXPECT_EQ(first.status, 0) << first.output;
    EXPECT_TRUE(contains(first, "(more: --all loads every page)")) << first.output;

    size_t before = service.hits("/me/activities/tracks");
    // The cap is lowered for the test (it is 1000 pages otherwise).
    auto all = velvoxOn("dashboard --all");
    EXPECT_EQ(all.status, 6) << all.output.substr(0, 400);
    EXPECT_TRUE(contains(all, "velvox dashboard: stopped after 30 pages; the list goes on")) << all.output.substr(all.output.size() - 400);
    EXPECT_TRUE(contains(all, "page 29")); // what was loaded is still shown
    EXPECT_EQ(service.hits("/me/activities/tracks") - before, 30u);
    // The view of the dashboard loads its first page only.
    auto view = velvoxOn("view dashboard -o dashboard.html");
    EXPECT_EQ(view.status, 0) << view.output;
}
