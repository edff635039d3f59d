// The sandbox service against hostile clients, over real HTTP on loopback:
// bodies that never end, ever new targets, requests that get no answer and
// latencies no clock can wait; and a program that cannot find the catalogue.

#include <Platform/FileManager.h>
#include <Sandbox/SandboxService.h>

#include <TestServer.h>
#include <TestSupport.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using namespace velvox;
using velvox::sandbox::Fault;
using velvox::sandbox::SandboxService;

namespace {

using Steady = std::chrono::steady_clock;
constexpr size_t MiB = 1024 * 1024;
const std::string authorization = "Authorization: OAuth sandbox-token\r\n";

std::unique_ptr<SandboxService> startService(SandboxService::Options options = {})
{
    auto service = std::make_unique<SandboxService>(options);
    std::string error;
    EXPECT_TRUE(service->start(&error)) << error;
    return service;
}

httplib::Client clientOf(const SandboxService& service, double timeoutSeconds = 5)
{
    httplib::Client client("127.0.0.1", service.port());
    auto timeout = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::duration<double>(timeoutSeconds));
    client.set_read_timeout(timeout);
    client.set_connection_timeout(timeout);
    client.set_default_headers({ { "Authorization", "OAuth " + service.token() } });
    return client;
}

// A connected loopback socket whose reads and writes give up after `seconds`.
int connectTo(int port, double seconds = 10)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    timeval limit { static_cast<time_t>(seconds), static_cast<suseconds_t>(std::fmod(seconds, 1) * 1e6) };
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    return fd;
}

bool sendAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

// What came back on a connection until it closed or went quiet for its read time-out.
struct Reply {
    std::string bytes;
    bool closed { false };
    int status() const { return bytes.starts_with("HTTP/1.1 ") ? std::atoi(bytes.c_str() + 9) : 0; }
};

Reply readReply(int fd, size_t atMost = 64 * 1024)
{
    Reply reply;
    char buffer[4096];
    while (reply.bytes.size() < atMost) {
        ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
        if (got > 0) {
            reply.bytes.append(buffer, static_cast<size_t>(got));
            continue;
        }
        reply.closed = got == 0 || errno == ECONNRESET;
        break;
    }
    return reply;
}

// An upload's body, made as it is sent: a title field, then a file field of
// `fileBytes` bytes (multipart) or that many bytes of one-letter form fields.
enum class Shape { Multipart,
    LetterFields,
    Form };
enum class Framing { Chunked,
    Length };

struct Upload {
    std::string head;
    std::string tail;
    size_t fillerBytes { 0 };
    std::string_view filler { "a" };
    size_t size() const { return head.size() + fillerBytes + tail.size(); }
};

Upload makeUpload(Shape shape, size_t fileBytes)
{
    switch (shape) {
    case Shape::Multipart:
        return { "--XB\r\nContent-Disposition: form-data; name=\"track[title]\"\r\n\r\nStreamed\r\n"
                 "--XB\r\nContent-Disposition: form-data; name=\"track[asset_data]\"; filename=\"a.wav\"\r\n"
                 "Content-Type: audio/wav\r\n\r\n",
            "\r\n--XB--\r\n", fileBytes, "a" };
    case Shape::LetterFields:
        return { "track[title]=Fields&", "", fileBytes, "a&" };
    case Shape::Form:
        return { "track[title]=Form+upload&track[sharing]=private", "", 0, "a" };
    }
    return {};
}

struct Sent {
    Reply reply;
    size_t bodyBytesSent { 0 };
};

// POSTs the upload on /tracks from a generator (nothing is held but one
// piece), stopping when the service stops taking it; then reads the answer.
Sent postUpload(int port, Shape shape, Framing framing, const Upload& upload)
{
    Sent result;
    int fd = connectTo(port);
    if (fd < 0)
        return result;
    std::string type = shape == Shape::Multipart ? "multipart/form-data; boundary=XB" : "application/x-www-form-urlencoded";
    std::string head = "POST /tracks HTTP/1.1\r\nHost: 127.0.0.1\r\n" + authorization + "Content-Type: " + type + "\r\n"
        + (framing == Framing::Chunked ? std::string("Transfer-Encoding: chunked\r\n") : "Content-Length: " + std::to_string(upload.size()) + "\r\n")
        + "\r\n";
    bool open = sendAll(fd, head);
    auto piece = [&](std::string_view bytes) {
        if (!open || bytes.empty())
            return;
        if (framing == Framing::Chunked) {
            char size[32];
            snprintf(size, sizeof(size), "%zx\r\n", bytes.size());
            open = sendAll(fd, size) && sendAll(fd, bytes) && sendAll(fd, "\r\n");
        } else
            open = sendAll(fd, bytes);
        if (open)
            result.bodyBytesSent += bytes.size();
    };
    piece(upload.head);
    std::string block;
    while (block.size() < 256 * 1024)
        block += upload.filler;
    for (size_t left = upload.fillerBytes; left && open;) {
        size_t now = std::min(left, block.size());
        piece(std::string_view(block).substr(0, now));
        left -= now;
    }
    piece(upload.tail);
    if (open && framing == Framing::Chunked)
        open = sendAll(fd, "0\r\n\r\n");
    result.reply = readReply(fd);
    close(fd);
    return result;
}

} // namespace

TEST(SandboxUploads, BodiesPastTheLimitAreRefusedWhetherChunkedOrDeclared)
{
    struct Case {
        const char* name;
        size_t limit;
        Shape shape;
        Framing framing;
        size_t fileBytes;
        int status;
        // The service must stop reading well before the end of the body.
        bool cutShort;
    };
    const Case cases[] = {
        { "chunked past the default limit", 64 * MiB, Shape::Multipart, Framing::Chunked, 70 * MiB, 413, false },
        { "declared past the default limit", 64 * MiB, Shape::Multipart, Framing::Length, 70 * MiB, 413, false },
        { "chunked within the limit", 64 * MiB, Shape::Multipart, Framing::Chunked, 1 * MiB, 201, false },
        { "declared within the limit", 64 * MiB, Shape::Multipart, Framing::Length, 1 * MiB, 201, false },
        { "chunked far past a small limit", 1 * MiB, Shape::Multipart, Framing::Chunked, 48 * MiB, 413, true },
        { "a chunked form of one-letter fields", 1 * MiB, Shape::LetterFields, Framing::Chunked, MiB / 2, 413, false },
        { "a chunked form", 1 * MiB, Shape::Form, Framing::Chunked, 0, 201, false },
        { "a declared form", 1 * MiB, Shape::Form, Framing::Length, 0, 201, false },
    };
    for (auto& c : cases) {
        SandboxService::Options options;
        options.maximumUploadBytes = c.limit;
        auto service = startService(options);
        auto upload = makeUpload(c.shape, c.fileBytes);
        auto began = Steady::now();
        auto sent = postUpload(service->port(), c.shape, c.framing, upload);
        EXPECT_EQ(sent.reply.status(), c.status) << c.name << ": " << sent.reply.bytes.substr(0, 200);
        EXPECT_LT(Steady::now() - began, std::chrono::seconds(30)) << c.name;
        auto tracks = clientOf(*service).Get("/me/tracks?limit=200");
        ASSERT_TRUE(tracks) << c.name;
        bool created = tracks->body.find(c.shape == Shape::Form ? "Form upload" : c.shape == Shape::Multipart ? "Streamed"
                                                                                                              : "Fields")
            != std::string::npos;
        EXPECT_EQ(created, c.status == 201) << c.name;
        if (c.status == 413) {
            EXPECT_TRUE(sent.reply.closed) << c.name << ": the rest of the body would be read as requests";
            EXPECT_NE(sent.reply.bytes.find("413 - Request Entity Too Large"), std::string::npos) << c.name;
        }
        if (c.cutShort) {
            EXPECT_LT(sent.bodyBytesSent, upload.size() / 2) << c.name;
        }
    }
}

TEST(SandboxUploads, UnreadBodiesDoNotBecomeRequests)
{
    auto service = startService();
    // A body sent where nothing reads it holds a whole request; it must not be served.
    const std::string smuggled = "GET /me HTTP/1.1\r\nHost: x\r\n" + authorization + "\r\n";
    struct Case {
        const char* name;
        std::string head;
        int status;
    };
    const Case cases[] = {
        { "no route", "POST /nowhere HTTP/1.1\r\n" + authorization, 404 },
        { "no token", "POST /tracks HTTP/1.1\r\n", 401 },
        { "a method whose body the server reads unbounded", "PRI /tracks HTTP/1.1\r\n" + authorization, 405 },
    };
    for (auto& c : cases) {
        service->resetRequestCounts();
        int fd = connectTo(service->port(), 3);
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(sendAll(fd, c.head + "Host: x\r\nContent-Length: " + std::to_string(smuggled.size()) + "\r\n\r\n" + smuggled));
        auto began = Steady::now();
        auto reply = readReply(fd);
        close(fd);
        EXPECT_EQ(reply.status(), c.status) << c.name << ": " << reply.bytes;
        EXPECT_TRUE(reply.closed) << c.name;
        // At once, not when the idle connection times out (after a second).
        EXPECT_LT(Steady::now() - began, std::chrono::milliseconds(500)) << c.name;
        EXPECT_EQ(service->requestCount("GET /me"), 0) << c.name;
    }
    // Control: the same request on its own is served.
    int fd = connectTo(service->port(), 3);
    ASSERT_TRUE(sendAll(fd, smuggled));
    EXPECT_EQ(readReply(fd, 12).status(), 200);
    close(fd);
    EXPECT_EQ(service->requestCount("GET /me"), 1);
}

TEST(SandboxAccounting, EverNewTargetsDoNotGrowTheCountsWithoutBound)
{
    auto service = startService();
    auto client = clientOf(*service);
    ASSERT_TRUE(client.Get("/me"));
    // Unauthenticated, every one with a target of its own.
    httplib::Client stranger("127.0.0.1", service->port());
    const int strangers = static_cast<int>(SandboxService::maximumCountedTargets) + 904;
    int refused = 0;
    for (int i = 0; i < strangers; ++i) {
        auto answer = stranger.Get("/nowhere/" + std::to_string(i) + "?q=" + std::to_string(i));
        refused += answer && answer->status == 401;
    }
    EXPECT_EQ(refused, strangers);
    EXPECT_LE(service->countedTargetCount(), SandboxService::maximumCountedTargets);
    EXPECT_EQ(service->totalRequestCount(), strangers + 1);
    // What was counted before the table filled keeps counting.
    ASSERT_TRUE(client.Get("/me"));
    EXPECT_EQ(service->requestCount("GET /me"), 2);
    EXPECT_EQ(service->requestCount("GET /nowhere/0?q=0"), 1);

    // Long targets fill it by their bytes first.
    service->resetRequestCounts();
    const std::string padding(7000, 'p');
    for (int i = 0; i < 200; ++i)
        stranger.Get("/" + padding + std::to_string(i));
    EXPECT_LE(service->countedTargetCount(), SandboxService::maximumCountedTargetBytes / padding.size());
    EXPECT_EQ(service->totalRequestCount(), 200);
    EXPECT_EQ(service->requestCount("GET /" + padding + "0"), 1);
}

TEST(SandboxFaults, RequestsWithoutAnswerDoNotStarveOtherPaths)
{
    auto service = startService();
    Fault fault;
    std::string problem;
    ASSERT_TRUE(sandbox::parseFault("/tracks=no-answer", fault, &problem)) << problem;
    service->addFault(fault);
    // More than the service has workers (32).
    const int waiting = 40;
    std::vector<int> connections;
    for (int i = 0; i < waiting; ++i) {
        int fd = connectTo(service->port(), 0.5);
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(sendAll(fd, "GET /tracks?n=" + std::to_string(i) + " HTTP/1.1\r\nHost: x\r\n" + authorization + "\r\n"));
        connections.push_back(fd);
    }
    auto deadline = Steady::now() + std::chrono::seconds(5);
    while ((service->totalRequestCount() < waiting || service->heldRequestCount() < SandboxService::maximumHeldRequests) && Steady::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(service->totalRequestCount(), waiting);
    EXPECT_EQ(service->heldRequestCount(), SandboxService::maximumHeldRequests);

    auto began = Steady::now();
    auto me = clientOf(*service, 3).Get("/me");
    ASSERT_TRUE(me) << "GET /me got no answer";
    EXPECT_EQ(me->status, 200);
    EXPECT_LT(Steady::now() - began, std::chrono::seconds(1));

    // None gets an answer: the held ones hear nothing, the rest are closed.
    int held = 0, closed = 0;
    for (int fd : connections) {
        auto reply = readReply(fd);
        EXPECT_EQ(reply.bytes, "");
        held += !reply.closed;
        closed += reply.closed;
    }
    EXPECT_EQ(held, SandboxService::maximumHeldRequests);
    EXPECT_EQ(closed, waiting - SandboxService::maximumHeldRequests);

    began = Steady::now();
    service->stop();
    EXPECT_LT(Steady::now() - began, std::chrono::seconds(5));
    for (int fd : connections)
        close(fd);
}

TEST(SandboxFaults, LatenciesMustBeFiniteAndAreCapped)
{
    struct Case {
        const char* text;
        bool accepted;
        double seconds;
    };
    const Case cases[] = {
        { "/me=latency:2", true, 2 },
        { "/me=latency:0", true, 0 },
        { "/me=latency:1e308", true, Fault::maximumLatencySeconds },
        { "/me=latency:86400", true, Fault::maximumLatencySeconds },
        { "/me=latency:inf", false, 0 },
        { "/me=latency:-inf", false, 0 },
        { "/me=latency:nan", false, 0 },
        { "/me=latency:-1", false, 0 },
        { "/me=latency:", false, 0 },
        { "/me=latency:soon", false, 0 },
    };
    for (auto& c : cases) {
        Fault fault;
        std::string problem;
        EXPECT_EQ(sandbox::parseFault(c.text, fault, &problem), c.accepted) << c.text;
        if (c.accepted) {
            EXPECT_EQ(fault.kind, Fault::Kind::Latency) << c.text;
            EXPECT_EQ(fault.seconds, c.seconds) << c.text;
        } else
            EXPECT_NE(problem.find("latency:SECONDS needs a finite number of seconds, 0 or more"), std::string::npos) << c.text << ": " << problem;
    }

    // The program refuses them as it refuses any bad fault.
    auto refused = test::run(std::string(VELVOX_SANDBOX_PROGRAM) + " --port 0 --fault /me=latency:inf", true);
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.output.find("velvox-sandbox: latency:SECONDS needs a finite number of seconds, 0 or more, not \"inf\""), std::string::npos)
        << refused.output;

    // Latencies handed over in code that no clock can wait still wait (as long as the cap), not not at all.
    auto service = startService();
    const double latencies[] = { std::numeric_limits<double>::infinity(), 1e308, 0.3 };
    for (double seconds : latencies) {
        service->clearFaults();
        service->addFault({ Fault::Kind::Latency, "/me", 0, seconds, 1 });
        auto began = Steady::now();
        auto answer = clientOf(*service, 1).Get("/me");
        double took = std::chrono::duration<double>(Steady::now() - began).count();
        if (seconds < 1) {
            ASSERT_TRUE(answer) << seconds;
            EXPECT_EQ(answer->status, 200);
            EXPECT_GE(took, 0.25);
        } else
            EXPECT_FALSE(answer) << seconds << ": answered after " << took << " s";
    }
    service->stop();
}

TEST(SandboxValidators, AnUnchangedAnswerIsA304AndAChangedOneA200WithANewTag)
{
    auto service = startService();
    auto client = clientOf(*service);
    auto first = client.Get("/users/1003");
    ASSERT_TRUE(first);
    auto tag = first->get_header_value("ETag");
    ASSERT_FALSE(tag.empty());
    EXPECT_EQ(client.Get("/users/1003")->get_header_value("ETag"), tag) << "the same answer, the same tag";

    auto again = client.Get("/users/1003", { { "If-None-Match", "W/\"elsewhere\", " + tag } });
    ASSERT_TRUE(again);
    EXPECT_EQ(again->status, 304);
    EXPECT_TRUE(again->body.empty());
    EXPECT_EQ(client.Get("/users/1003", { { "If-None-Match", "\"elsewhere\"" } })->status, 200);

    // A follow changes the user's followers count, so its answer and its tag.
    ASSERT_TRUE(client.Put("/me/followings/1003", "", "application/x-www-form-urlencoded"));
    auto changed = client.Get("/users/1003", { { "If-None-Match", tag } });
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->status, 200);
    EXPECT_NE(changed->get_header_value("ETag"), tag);
    // Only answers to GETs carry tags.
    EXPECT_FALSE(client.Put("/me/followings/1003", "", "application/x-www-form-urlencoded")->has_header("ETag"));
}

// A program that cannot reach the resources (one linked statically from a
// moved prefix) is told how to name them; a catalogue it names itself is
// reported by its path alone.
TEST(SandboxCatalogue, AMissingCatalogueNamesTheWaysToFindTheResources)
{
    test::TemporaryFolder empty;
    auto& bundle = Bundle::mainBundle();
    const std::string shipped = bundle.resourcePath();
    struct Case {
        const char* name;
        std::string resources;
        std::string cataloguePath;
        bool starts;
        std::vector<std::string> inMessage;
        std::vector<std::string> notInMessage;
    };
    const Case cases[] = {
        { "the shipped resources", shipped, "", true, {}, {} },
        { "resources without a catalogue", empty.path(), "", false,
            { "cannot read the catalogue Resources/sandbox/catalogue.json", empty.path(),
                "velvox::Bundle::mainBundle().setResourcePath(", "$VELVOX_RESOURCES" },
            {} },
        { "a named catalogue that is not there", shipped, empty.path() + "/mine.json", false,
            { "cannot read the catalogue " + empty.path() + "/mine.json" }, { "setResourcePath" } },
    };
    for (auto& test : cases) {
        SCOPED_TRACE(test.name);
        bundle.setResourcePath(test.resources);
        SandboxService::Options options;
        options.cataloguePath = test.cataloguePath;
        SandboxService service(options);
        std::string error;
        bool started = service.start(&error);
        service.stop();
        bundle.setResourcePath(shipped);
        EXPECT_EQ(started, test.starts) << error;
        EXPECT_EQ(error.starts_with("cannot read the catalogue "), !test.starts) << error;
        for (auto& part : test.inMessage)
            EXPECT_NE(error.find(part), std::string::npos) << "no \"" << part << "\" in: " << error;
        for (auto& part : test.notInMessage)
            EXPECT_EQ(error.find(part), std::string::npos) << "\"" << part << "\" in: " << error;
    }
}

TEST(SandboxFaults, StatusFaultsMaySendRetryAfter)
{
    struct Case {
        const char* text;
        bool accepted;
        int status;
        const char* retryAfter;
    };
    const Case cases[] = {
        { "/me=status:503", true, 503, "" },
        { "/me=status:503:retry-after:2", true, 503, "2" },
        { "/me=status:429:retry-after:Sun, 06 Nov 1994 08:49:37 GMT", true, 429, "Sun, 06 Nov 1994 08:49:37 GMT" },
        { "/me=status:503:retry-after:soon", true, 503, "soon" }, // for clients that must ignore it
        { "/me=status:503:retry-after:", false, 0, "" },
        { "/me=status:503:retry-after:2\r\nX-Injected: 1", false, 0, "" },
        { "/me=status:503:after:2", false, 0, "" },
        { "/me=status:99:retry-after:2", false, 0, "" },
        { "/me=status:", false, 0, "" },
    };
    for (auto& c : cases) {
        Fault fault;
        std::string problem;
        EXPECT_EQ(sandbox::parseFault(c.text, fault, &problem), c.accepted) << c.text << ": " << problem;
        if (!c.accepted)
            continue;
        EXPECT_EQ(fault.kind, Fault::Kind::Status) << c.text;
        EXPECT_EQ(fault.status, c.status) << c.text;
        EXPECT_EQ(fault.retryAfter, c.retryAfter) << c.text;
    }

    // The header goes out with the status, as many times as the fault's count.
    auto service = startService();
    Fault fault;
    ASSERT_TRUE(sandbox::parseFault("/me=status:503:retry-after:7", fault, nullptr));
    fault.count = 1;
    service->addFault(fault);
    auto faulty = clientOf(*service, 2).Get("/me");
    ASSERT_TRUE(faulty);
    EXPECT_EQ(faulty->status, 503);
    EXPECT_EQ(faulty->get_header_value("Retry-After"), "7");
    auto fine = clientOf(*service, 2).Get("/me");
    ASSERT_TRUE(fine);
    EXPECT_EQ(fine->status, 200);
    EXPECT_FALSE(fine->has_header("Retry-After"));
    service->stop();
}
