// The URL loader against a real HTTP server on loopback.

#include <Platform/Platform.h>

#include <TestServer.h>
#include <TestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <zlib.h>

using namespace velvox;

namespace {

struct Outcome {
    RefPtr<URLResponse> response;
    RefPtr<Error> error;
    int completions { 0 };
};

URLTaskCallbacks recordInto(Outcome& outcome)
{
    URLTaskCallbacks callbacks;
    callbacks.didComplete = [&outcome](URLResponse* response, Error* error) {
        outcome.response = response;
        outcome.error = error;
        ++outcome.completions;
    };
    return callbacks;
}

URLRequest get(const std::string& url)
{
    URLRequest request;
    request.url = url;
    return request;
}

} // namespace

TEST(URLLoader, AnswersWithStatusHeadersAndBodyAndReportsProgress)
{
    test::TestServer server;
    std::string received;
    std::string noise = test::incompressibleBytes(200000);
    server.routes().Get("/hello", [&](const httplib::Request& request, httplib::Response& response) {
        response.set_header("X-Echo", request.get_header_value("X-Test"));
        response.set_content(noise, "application/octet-stream");
    });
    server.routes().Post("/upload", [&](const httplib::Request& request, httplib::Response& response) {
        received = request.body;
        response.status = 201;
    });
    auto base = server.start();
    auto& loop = RunLoop::current();

    Outcome outcome;
    auto request = get(base + "/hello");
    request.headers.emplace_back("X-Test", "42");
    auto callbacks = recordInto(outcome);
    uint64_t lastReceived = 0;
    callbacks.didReceiveBytes = [&](uint64_t bytes, uint64_t) { lastReceived = bytes; };
    auto task = URLLoader::current().start(request, callbacks);
    ASSERT_TRUE(loop.runUntil([&] { return outcome.completions > 0; }, 10));
    ASSERT_TRUE(outcome.response) << outcome.error->description()->str();
    EXPECT_EQ(outcome.response->statusCode(), 200);
    EXPECT_EQ(downcast<String>(outcome.response->headers().objectForKey("x-echo"))->view(), "42");
    EXPECT_EQ(outcome.response->body().view(), noise);
    EXPECT_EQ(lastReceived, 200000u);

    Outcome posted;
    URLRequest upload;
    upload.method = "POST";
    upload.url = base + "/upload";
    upload.body = std::string(100000, 'u');
    upload.headers.emplace_back("Content-Type", "application/octet-stream");
    auto postCallbacks = recordInto(posted);
    uint64_t lastSent = 0, total = 0;
    postCallbacks.didSendBytes = [&](uint64_t sent, uint64_t of) {
        EXPECT_GT(sent, 0u);
        lastSent = sent;
        total = of;
    };
    auto uploadTask = URLLoader::current().start(upload, postCallbacks);
    ASSERT_TRUE(loop.runUntil([&] { return posted.completions > 0; }, 10));
    EXPECT_EQ(posted.response->statusCode(), 201);
    EXPECT_EQ(received.size(), 100000u);
    EXPECT_EQ(lastSent, 100000u);
    EXPECT_EQ(total, 100000u);
    EXPECT_EQ(outcome.completions, 1);
}

TEST(URLLoader, CancelledTaskCallsNothing)
{
    test::TestServer server;
    std::atomic<bool> release { false };
    server.routes().Get("/slow", [&](const httplib::Request&, httplib::Response& response) {
        for (int i = 0; i < 200 && !release; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        response.set_content("late", "text/plain");
    });
    auto base = server.start();
    Outcome outcome;
    auto task = URLLoader::current().start(get(base + "/slow"), recordInto(outcome));
    RunLoop::current().runFor(0.1);
    task->cancel();
    EXPECT_EQ(URLLoader::current().runningTaskCount(), 0u);
    release = true;
    RunLoop::current().runFor(0.2);
    EXPECT_EQ(outcome.completions, 0);
}

TEST(URLLoader, TimeOutAndRefusedConnectionAreErrors)
{
    test::TestServer server;
    std::atomic<bool> release { false };
    server.routes().Get("/never", [&](const httplib::Request&, httplib::Response&) {
        for (int i = 0; i < 300 && !release; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    });
    auto base = server.start();
    Outcome timedOut;
    auto request = get(base + "/never");
    request.timeout = 0.3;
    auto task = URLLoader::current().start(request, recordInto(timedOut));
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return timedOut.completions > 0; }, 10));
    release = true;
    ASSERT_TRUE(timedOut.error);
    EXPECT_EQ(timedOut.error->domain()->view(), URLErrorDomain);
    EXPECT_EQ(timedOut.error->code(), 28); // libcurl's time-out

    server.stop();
    Outcome refused;
    auto refusedTask = URLLoader::current().start(get(base + "/never"), recordInto(refused));
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return refused.completions > 0; }, 10));
    ASSERT_TRUE(refused.error);
    EXPECT_EQ(refused.error->code(), 7); // could not connect
}

TEST(URLLoader, RedirectsAreNotFollowed)
{
    test::TestServer server;
    int targetHits = 0;
    server.routes().Get("/moved", [](const httplib::Request&, httplib::Response& response) { response.set_redirect("/target", 301); });
    server.routes().Get("/target", [&](const httplib::Request&, httplib::Response&) { ++targetHits; });
    auto base = server.start();
    Outcome outcome;
    auto task = URLLoader::current().start(get(base + "/moved"), recordInto(outcome));
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return outcome.completions > 0; }, 10));
    ASSERT_TRUE(outcome.response);
    EXPECT_EQ(outcome.response->statusCode(), 301);
    EXPECT_EQ(targetHits, 0);
}

TEST(URLLoader, AnExceptionInOneCompletionLeavesTheOthersForTheNextTurn)
{
    test::TestServer server;
    server.routes().Get("/a", [](const httplib::Request&, httplib::Response& response) { response.set_content("a", "text/plain"); });
    auto base = server.start();
    int delivered = 0;
    URLTaskCallbacks throwing;
    throwing.didComplete = [&](URLResponse*, Error*) {
        ++delivered;
        throw std::runtime_error("from a completion");
    };
    URLTaskCallbacks counting;
    counting.didComplete = [&](URLResponse*, Error*) { ++delivered; };
    std::vector<Ref<URLTask>> tasks;
    for (int i = 0; i < 4; ++i)
        tasks.push_back(URLLoader::current().start(get(base + "/a"), i == 0 ? throwing : counting));
    int thrown = 0;
    for (int turn = 0; turn < 500 && delivered < 4; ++turn) {
        try {
            RunLoop::current().runUntil([&] { return delivered == 4; }, 0.05);
        } catch (const std::runtime_error&) {
            ++thrown;
        }
    }
    EXPECT_EQ(thrown, 1);
    EXPECT_EQ(delivered, 4);
}

TEST(URLLoader, SpeaksOnlyHTTPAndHTTPS)
{
    for (auto url : { "file:///etc/hostname", "dict://127.0.0.1:1/", "gopher://127.0.0.1:1/" }) {
        Outcome outcome;
        auto task = URLLoader::current().start(get(url), recordInto(outcome));
        ASSERT_TRUE(RunLoop::current().runUntil([&] { return outcome.completions > 0; }, 10)) << url;
        ASSERT_TRUE(outcome.error) << url;
        EXPECT_EQ(outcome.error->code(), 1) << url; // unsupported protocol
    }
}

namespace {

// Zeros compressed with gzip: a small body that expands to `expanded` bytes.
std::string gzipBomb(size_t expanded)
{
    z_stream stream {};
    deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY);
    std::string zeros(1 << 20, '\0'), out;
    char buffer[1 << 16];
    for (size_t done = 0; done < expanded; done += zeros.size()) {
        stream.next_in = reinterpret_cast<Bytef*>(zeros.data());
        stream.avail_in = static_cast<uInt>(zeros.size());
        bool last = done + zeros.size() >= expanded;
        do {
            stream.next_out = reinterpret_cast<Bytef*>(buffer);
            stream.avail_out = sizeof(buffer);
            deflate(&stream, last ? Z_FINISH : Z_NO_FLUSH);
            out.append(buffer, sizeof(buffer) - stream.avail_out);
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return out;
}

Outcome fetch(const std::string& url, size_t maximumBodySize = URLRequest::defaultMaximumBodySize)
{
    Outcome outcome;
    auto request = get(url);
    request.maximumBodySize = maximumBodySize;
    auto task = URLLoader::current().start(request, recordInto(outcome));
    EXPECT_TRUE(RunLoop::current().runUntil([&] { return outcome.completions > 0; }, 20)) << url;
    return outcome;
}

} // namespace

TEST(URLLoader, BodiesAreBoundedAfterDecompression)
{
    test::TestServer server;
    std::atomic<bool> stop { false };
    // An endless chunked body.
    server.routes().Get("/endless", [&](const httplib::Request&, httplib::Response& response) {
        response.set_chunked_content_provider("application/json", [&](size_t, httplib::DataSink& sink) {
            std::string chunk(65536, ' ');
            return !stop && sink.write(chunk.data(), chunk.size());
        });
    });
    // About 64 KB of gzip that expands to 64 MB.
    auto bomb = gzipBomb(64u << 20);
    server.routes().Get("/bomb", [&](const httplib::Request&, httplib::Response& response) {
        response.set_header("Content-Encoding", "gzip");
        response.set_content(bomb, "application/json");
    });
    server.routes().Get("/declared", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(std::string(3 << 20, 'x'), "text/plain");
    });
    auto base = server.start();

    for (auto path : { "/endless", "/bomb", "/declared" }) {
        auto outcome = fetch(base + path, 2 << 20);
        ASSERT_TRUE(outcome.error) << path;
        EXPECT_EQ(outcome.error->code(), 63) << path;
        EXPECT_NE(outcome.error->localizedDescription()->str().find("larger than the limit of 2097152 bytes"), std::string::npos)
            << path << ": " << outcome.error->localizedDescription()->str();
    }
    stop = true;
    // Within the limit, the same body is whole.
    auto small = fetch(base + "/declared", 4 << 20);
    ASSERT_TRUE(small.response);
    EXPECT_EQ(small.response->body().length(), 3u << 20);
}

TEST(URLLoader, BadOrConflictingLengthsAreProtocolErrors)
{
    static constexpr std::string_view replies[] = {
        "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\nContent-Type: application/json\r\n\r\n{}",
        "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 5\r\nContent-Type: application/json\r\n\r\n{}",
        "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n{}",
    };
    for (auto reply : replies) {
        test::RawServer server { std::string(reply) };
        auto outcome = fetch(server.baseURL() + "/x");
        EXPECT_FALSE(outcome.response) << reply;
        ASSERT_TRUE(outcome.error) << reply;
        EXPECT_EQ(outcome.error->domain()->view(), URLErrorDomain);
    }
}

// The body's block is made at a declared length up front; what arrives is
// still what counts: a length only claimed fails the transfer, an answer
// without a body (HEAD) has none, and one sent in pieces is whole.
TEST(URLLoader, DeclaredLengthsReserveRoomButOnlyArrivedBytesCount)
{
    {
        test::RawServer server { "HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\nContent-Type: text/plain\r\n\r\nshort" };
        auto outcome = fetch(server.baseURL() + "/x");
        EXPECT_FALSE(outcome.response);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->domain()->view(), URLErrorDomain);
    }
    {
        test::RawServer server { "HTTP/1.1 200 OK\r\nContent-Length: 5000000\r\nContent-Type: text/plain\r\n\r\n" };
        Outcome outcome;
        auto request = get(server.baseURL() + "/x");
        request.method = "HEAD";
        auto task = URLLoader::current().start(request, recordInto(outcome));
        ASSERT_TRUE(RunLoop::current().runUntil([&] { return outcome.completions > 0; }, 20));
        ASSERT_TRUE(outcome.response) << outcome.error->description()->str();
        EXPECT_EQ(outcome.response->body().length(), 0u);
    }
    {
        test::TestServer server;
        std::string body = test::incompressibleBytes(300000);
        server.routes().Get("/pieces", [&](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider("application/octet-stream", [&](size_t offset, httplib::DataSink& sink) {
                size_t length = std::min<size_t>(7777, body.size() - offset);
                sink.write(body.data() + offset, length);
                if (offset + length == body.size())
                    sink.done();
                return true;
            });
        });
        auto outcome = fetch(server.start() + "/pieces");
        ASSERT_TRUE(outcome.response);
        EXPECT_EQ(outcome.response->body().view(), body);
    }
}
