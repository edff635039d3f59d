// The programs as a person or a script runs them.

#include <Platform/Platform.h>
#include <VelvoxKit/VXKit.h>

#include <TestServer.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace velvox;

namespace {

using test::run;

std::string velvoxProgram() { return VELVOX_PROGRAM; }

std::string temporaryFile(std::string_view contents)
{
    char pattern[] = "/tmp/velvox-command-XXXXXX";
    int fd = mkstemp(pattern);
    EXPECT_EQ(write(fd, contents.data(), contents.size()), static_cast<ssize_t>(contents.size()));
    close(fd);
    return pattern;
}

} // namespace

TEST(VelvoxJSON, WritesTheDecodedTreeBack)
{
    auto file = temporaryFile(R"({ "tags" : ["a", "b\u00e9"], "plays": 1200, "ratio": 0.1 })");
    auto compact = run(velvoxProgram() + " json " + file);
    EXPECT_EQ(compact.status, 0);
    auto tree = JSONObject(*String::create(compact.output));
    ASSERT_TRUE(is<Dictionary>(tree)) << compact.output;
    EXPECT_EQ(downcast<Dictionary>(tree.get())->objectForKey<Number>("plays")->integerValue(), 1200);
    EXPECT_EQ(compact.output.find(' '), std::string::npos);
    auto escaped = run(velvoxProgram() + " json --pretty --escape-unicode " + file);
    EXPECT_EQ(escaped.status, 0);
    EXPECT_NE(escaped.output.find("\"b\\u00e9\""), std::string::npos) << escaped.output;
    EXPECT_NE(escaped.output.find("\n  \""), std::string::npos);
    // Standard input, and the options that loosen the grammar.
    auto piped = run("printf '[1] // note' | " + velvoxProgram() + " json --comments");
    EXPECT_EQ(piped.status, 0);
    EXPECT_EQ(piped.output, "[1]\n");
    unlink(file.c_str());
}

TEST(VelvoxJSON, FailsWithTheDecodersMessageLineAndIndex)
{
    auto file = temporaryFile("[1,\n 2,\n ]");
    auto failed = run(velvoxProgram() + " json " + file, true);
    EXPECT_EQ(failed.status, 1);
    // The index is where the decoder stood: just past the offending token.
    EXPECT_EQ(failed.output, "velvox json: Unexpected ']'. (line 3, byte index 10)\n");
    auto missing = run(velvoxProgram() + " json /nonexistent/file.json", true);
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("cannot read /nonexistent/file.json"), std::string::npos);
    unlink(file.c_str());
}

TEST(VelvoxAPI, TalksToAnInProcessSandbox)
{
    auto user = run(velvoxProgram() + " api GET /users/1003");
    EXPECT_EQ(user.status, 0);
    auto tree = JSONObject(*String::create(user.output));
    ASSERT_TRUE(is<Dictionary>(tree)) << user.output;
    EXPECT_EQ(downcast<Dictionary>(tree.get())->objectForKey<Number>("id")->integerValue(), 1003);

    auto missing = run(velvoxProgram() + " api GET /users/1", true);
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("VXVelvoxAPIErrorDomain 404"), std::string::npos) << missing.output;

    auto audio = temporaryFile(std::string(300000, 'x'));
    auto upload = run(velvoxProgram() + " api POST tracks 'track[title]=Command Demo' track[asset_data]=@" + audio, true);
    EXPECT_EQ(upload.status, 0) << upload.output;
    // Standard error is no terminal here: no progress bar.
    EXPECT_EQ(upload.output.find("Uploading ["), std::string::npos) << upload.output;
    EXPECT_NE(upload.output.find("\"title\": \"Command Demo\""), std::string::npos);
    unlink(audio.c_str());

    auto refused = run(velvoxProgram() + " api GET /me --base-url http://127.0.0.1:9 --token x", true);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("VXURLErrorDomain 7"), std::string::npos) << refused.output;
}

TEST(VelvoxSandbox, StartsPrintsItsAddressAndStopsOnInterrupt)
{
    int output[2];
    ASSERT_EQ(pipe(output), 0);
    pid_t child = fork();
    if (!child) {
        dup2(output[1], STDOUT_FILENO);
        close(output[0]);
        execl(VELVOX_SANDBOX_PROGRAM, VELVOX_SANDBOX_PROGRAM, "--port", "0", nullptr);
        _exit(127);
    }
    close(output[1]);
    FILE* lines = fdopen(output[0], "r");
    char line[256];
    ASSERT_TRUE(fgets(line, sizeof(line), lines));
    std::string first(line);
    ASSERT_EQ(first.rfind("Velvox sandbox listening at http://127.0.0.1:", 0), 0u) << first;
    std::string base = first.substr(first.find("http://"));
    base.erase(base.find_last_not_of("\n") + 1);
    ASSERT_TRUE(fgets(line, sizeof(line), lines));
    EXPECT_EQ(std::string(line), "token: sandbox-token\n");

    auto me = run(velvoxProgram() + " api GET /me --base-url " + base + " --token sandbox-token");
    EXPECT_EQ(me.status, 0);
    EXPECT_NE(me.output.find("\"id\": 1000"), std::string::npos);
    auto refused = run(velvoxProgram() + " api GET /me --base-url " + base + " --token wrong", true);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("401"), std::string::npos);

    kill(child, SIGINT);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    fclose(lines);
}

TEST(VelvoxAPI, RefusesOtherProtocolsAndShowsErrorBodiesSafely)
{
    auto refused = run(velvoxProgram() + " api GET /etc/passwd --base-url file:/// --token x", true);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("must start with http:// or https://"), std::string::npos) << refused.output;

    test::TestServer server;
    std::string seenAuthorization;
    server.routes().Get("/hostile", [&](const httplib::Request& request, httplib::Response& response) {
        seenAuthorization = request.get_header_value("Authorization");
        response.status = 500;
        // Clears the screen, moves the cursor, draws a fake prompt; a NUL in the middle; a C1 CSI; then a lot.
        std::string body = std::string("\x1b[2J\x1b[H$ sudo rm -rf ~\x07 ok\0after \xc2\x9b"
                                       "31m caf\xc3\xa9",
            44);
        body += std::string(100000, 'z');
        response.set_content(body, "text/plain");
    });
    auto base = server.start();
    auto tokenFile = temporaryFile("from-a-file\n");
    auto hostile = run("VELVOX_TOKEN= " + velvoxProgram() + " api GET /hostile --base-url " + base + " --token-file " + tokenFile, true);
    EXPECT_EQ(hostile.status, 1);
    EXPECT_EQ(seenAuthorization, "OAuth from-a-file");
    EXPECT_EQ(hostile.output.find('\x1b'), std::string::npos) << "no escape sequence reaches the terminal";
    EXPECT_EQ(hostile.output.find('\x07'), std::string::npos);
    EXPECT_EQ(hostile.output.find("\xc2\x9b"), std::string::npos);
    EXPECT_NE(hostile.output.find("\\x1b[2J"), std::string::npos) << hostile.output.substr(0, 300);
    EXPECT_NE(hostile.output.find("ok\\x00after"), std::string::npos) << "nothing is cut silently at a NUL";
    EXPECT_NE(hostile.output.find("caf\xc3\xa9"), std::string::npos) << "text stays readable";
    EXPECT_NE(hostile.output.find("more bytes not shown"), std::string::npos);
    EXPECT_LT(hostile.output.size(), 4000u);

    auto fromEnvironment = run("VELVOX_TOKEN=env-token " + velvoxProgram() + " api GET /hostile --base-url " + base, true);
    EXPECT_EQ(seenAuthorization, "OAuth env-token");
    auto injected = run("VELVOX_TOKEN=\"$(printf 'a\\r\\nX-Injected: 1')\" " + velvoxProgram() + " api GET /hostile --base-url " + base, true);
    EXPECT_EQ(injected.status, 1);
    EXPECT_NE(injected.output.find("control character"), std::string::npos) << injected.output;
    unlink(tokenFile.c_str());
}

TEST(VelvoxAPI, PrintsTheDeepestAnswerTheDecoderAccepts)
{
    test::TestServer server;
    std::string deep;
    for (int i = 0; i < 2048; ++i)
        deep += "[{\"a\":";
    deep += "1";
    for (int i = 0; i < 2048; ++i)
        deep += "}]";
    server.routes().Get("/deep", [&](const httplib::Request&, httplib::Response& response) { response.set_content(deep, "application/json"); });
    auto base = server.start();
    auto answer = run("VELVOX_TOKEN=t " + velvoxProgram() + " api GET /deep --base-url " + base);
    EXPECT_EQ(answer.status, 0);
    EXPECT_GT(answer.output.size(), deep.size());
}

// A shell prefix that bounds a child's memory, so that a regression fails
// instead of eating the machine. AddressSanitizer reserves terabytes of
// address space for its shadow, so under it the bound is on resident memory.
std::string memoryLimit()
{
#if defined(__SANITIZE_ADDRESS__)
    return "export ASAN_OPTIONS=hard_rss_limit_mb=1000; ";
#else
    return "ulimit -v 1000000; ";
#endif
}

TEST(VelvoxJSON, BoundsItsInputAndSaysWhatWentWrong)
{
    // An endless stream fails at once with the decoder's message, under a memory
    // limit that reading it all would break.
    auto endless = run(memoryLimit() + velvoxProgram() + " json < /dev/zero", true);
    EXPECT_EQ(endless.status, 1);
    EXPECT_NE(endless.output.find("byte index 0"), std::string::npos) << endless.output;
    auto endlessArray = run(memoryLimit() + "yes ' ' | " + velvoxProgram() + " json --max-size 1000000", true);
    EXPECT_EQ(endlessArray.status, 1);
    EXPECT_NE(endlessArray.output.find("is larger than 1000000 bytes"), std::string::npos) << endlessArray.output;

    // A ten-million-digit number is not repeated whole.
    auto file = temporaryFile("[" + std::string(10000000, '9') + "e999999]");
    auto number = run(velvoxProgram() + " json " + file, true);
    EXPECT_EQ(number.status, 1);
    EXPECT_NE(number.output.find("could not be represented"), std::string::npos) << number.status << number.output.substr(0, 200);
    EXPECT_LT(number.output.size(), 2000u);
    unlink(file.c_str());

    auto small = temporaryFile("[1]");
    auto full = run("(" + velvoxProgram() + " json " + small + " > /dev/full)", true);
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.output.find("cannot write the output"), std::string::npos) << full.output;
    unlink(small.c_str());
}

namespace {

// Starts velvox-sandbox with the arguments; answers its pid and base URL (empty when it did not start).
std::pair<pid_t, std::string> startSandbox(std::vector<std::string> arguments)
{
    int output[2];
    EXPECT_EQ(pipe(output), 0);
    pid_t child = fork();
    if (!child) {
        dup2(output[1], STDOUT_FILENO);
        close(output[0]);
        std::vector<char*> argv { const_cast<char*>(VELVOX_SANDBOX_PROGRAM) };
        for (auto& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        execv(VELVOX_SANDBOX_PROGRAM, argv.data());
        _exit(127);
    }
    close(output[1]);
    FILE* lines = fdopen(output[0], "r");
    char line[256];
    std::string base;
    if (fgets(line, sizeof(line), lines)) {
        std::string first(line);
        if (first.find("http://") != std::string::npos) {
            base = first.substr(first.find("http://"));
            base.erase(base.find_last_not_of("\n") + 1);
        }
    }
    fclose(lines);
    return { child, base };
}

void stopSandbox(pid_t child)
{
    kill(child, SIGINT);
    waitpid(child, nullptr, 0);
}

} // namespace

TEST(VelvoxSandbox, RefusesABusyPortAndABadCatalogueAndOffersFaults)
{
    auto [first, base] = startSandbox({ "--port", "0", "--fault", "/tracks=status:503" });
    ASSERT_FALSE(base.empty());
    std::string port = base.substr(base.rfind(':') + 1);
    auto second = run(std::string(VELVOX_SANDBOX_PROGRAM) + " --port " + port, true);
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.output.find("cannot listen on 127.0.0.1:" + port), std::string::npos) << second.output;

    auto faulty = run(velvoxProgram() + " api GET /tracks/20001 --base-url " + base + " --token sandbox-token", true);
    EXPECT_EQ(faulty.status, 1);
    EXPECT_NE(faulty.output.find("503"), std::string::npos) << faulty.output;
    auto fine = run(velvoxProgram() + " api GET /me --base-url " + base + " --token sandbox-token");
    EXPECT_EQ(fine.status, 0);
    stopSandbox(first);

    auto catalogue = temporaryFile("{\"users\": [{\"id\": 1}]}");
    auto bad = run(std::string(VELVOX_SANDBOX_PROGRAM) + " --port 0 --catalogue " + catalogue, true);
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.output.find("is not usable: \"me\" must be the number of a user"), std::string::npos) << bad.output;
    unlink(catalogue.c_str());
    auto mode = run(std::string(VELVOX_SANDBOX_PROGRAM) + " --fault /x=explode", true);
    EXPECT_EQ(mode.status, 2);
    EXPECT_NE(mode.output.find("unknown fault mode explode"), std::string::npos) << mode.output;
}

TEST(VelvoxSandbox, SlowClientsDoNotStarveOthersAndUploadsAreBounded)
{
    auto [child, base] = startSandbox({ "--port", "0", "--max-upload", "100000" });
    ASSERT_FALSE(base.empty());
    int port = std::stoi(base.substr(base.rfind(':') + 1));
    // Eight clients that send half a request head and then wait.
    std::vector<int> slow;
    for (int i = 0; i < 8; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        ASSERT_GT(write(fd, "GET /me HTTP/1.1\r\nHost: x\r\n", 27), 0);
        slow.push_back(fd);
    }
    auto me = run(velvoxProgram() + " api GET /me --base-url " + base + " --token sandbox-token");
    EXPECT_EQ(me.status, 0);

    auto big = temporaryFile(std::string(200000, 'a'));
    auto upload = run(velvoxProgram() + " api POST tracks 'track[title]=Big' 'track[asset_data]=@" + big + "' --base-url " + base
            + " --token sandbox-token",
        true);
    EXPECT_EQ(upload.status, 1);
    EXPECT_NE(upload.output.find("413"), std::string::npos) << upload.output;
    unlink(big.c_str());

    // They keep dribbling one byte of header at a time while the sandbox is told to stop:
    // it must not wait for them.
    std::atomic<bool> dribbling { true };
    std::thread dribbler([&] {
        for (int round = 0; round < 600 && dribbling; ++round) {
            for (int fd : slow)
                [[maybe_unused]] auto ignored = send(fd, "X", 1, MSG_NOSIGNAL);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    auto began = std::chrono::steady_clock::now();
    stopSandbox(child);
    auto took = std::chrono::steady_clock::now() - began;
    dribbling = false;
    dribbler.join();
    EXPECT_LT(took, std::chrono::seconds(10)) << "stop waited for the slow clients";
    for (int fd : slow)
        close(fd);
}
