#pragma once

// Helpers that every test suite shares.

#include <Platform/Exception.h>
#include <Platform/RunLoop.h>

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace velvox::test {

// Bytes that do not compress, so that progress counts what a body holds.
// Starts a program (arguments[0] is its path) with its standard output on a
// pipe: the child's pid, or -1, and the pipe's reading end in `output`.
inline pid_t spawnWithOutput(const std::vector<std::string>& arguments, int& output)
{
    int ends[2];
    if (pipe(ends) != 0)
        return -1;
    std::vector<char*> argv;
    for (auto& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    pid_t child = -1;
    if (posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        child = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (child < 0)
        close(ends[0]);
    output = ends[0];
    return child;
}

inline std::string incompressibleBytes(size_t count, uint32_t seed = 12345)
{
    std::string bytes(count, '\0');
    for (auto& byte : bytes) {
        seed = seed * 1103515245 + 12345;
        byte = static_cast<char>(seed >> 24);
    }
    return bytes;
}

// The reason of the exception that the action raises, after checking its
// name; "(nothing raised)" when it raises none.
inline std::string raisedReason(const std::function<void()>& action, std::string_view expectedName)
{
    try {
        action();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), expectedName);
        return exception.reason();
    }
    return "(nothing raised)";
}

// "name: reason" of the exception that the action raises, or "(nothing raised)".
inline std::string raisedNameAndReason(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Exception& exception) {
        return exception.name() + ": " + exception.reason();
    }
    return "(nothing raised)";
}

// A description with its "0x" and eight upper-case hexadecimal digits (an
// object's address) written as "0xADDRESS", so that it can be compared whole.
inline std::string withAddressMasked(std::string text)
{
    for (size_t at = text.find("0x"); at != std::string::npos; at = text.find("0x", at + 2)) {
        size_t digits = 0;
        while (digits < 8 && at + 2 + digits < text.size() && std::isxdigit(static_cast<unsigned char>(text[at + 2 + digits]))
            && !std::islower(static_cast<unsigned char>(text[at + 2 + digits])))
            ++digits;
        if (digits == 8)
            text.replace(at + 2, 8, "ADDRESS");
    }
    return text;
}

struct Outcome {
    int status { -1 };
    std::string output;
};

// Runs a shell command line; captures standard output and, when asked, standard error.
inline Outcome run(const std::string& command, bool withErrors = false)
{
    Outcome outcome;
    FILE* pipe = popen((command + (withErrors ? " 2>&1" : " 2>/dev/null")).c_str(), "r");
    if (!pipe)
        return outcome;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0)
        outcome.output.append(buffer, n);
    int status = pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

// Gives the current run loop a manual clock for the life of the object, so
// that timers, Date::now() and relative dates are tested without sleeping.
class ManualTime {
public:
    explicit ManualTime(double start = 1000, double wallStart = ManualClock::defaultWallStart)
        : clock(start, wallStart)
    {
        RunLoop::current().setClock(&clock);
    }
    ~ManualTime() { RunLoop::current().setClock(nullptr); }
    ManualTime(const ManualTime&) = delete;
    ManualTime& operator=(const ManualTime&) = delete;
    ManualClock clock;
};

// A fresh folder under the system's temporary folder, removed with its
// contents when the object goes.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

inline TemporaryFolder::TemporaryFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "velvox-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("cannot make a temporary folder");
    m_path = pattern;
}

inline TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

} // namespace velvox::test
