#pragma once

// What every store command of velvox stands on: the service (an embedded
// sandbox, or --base-url with a token), the shared store with its API
// controller, the signed-in user, waiting on the run loop, the output in
// people's or scripts' form, and the exit codes.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXResourceController.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace velvox::app {

// Exit codes (documented in the README).
enum ExitCode : int {
    ExitSuccess = 0,
    ExitFailure = 1,       // anything else: a write error, a file that cannot be read
    ExitUsage = 2,         // the command line is wrong
    ExitNotFound = 3,      // the service has no such resource (404)
    ExitNotAuthorised = 4, // the token was refused (401, 403)
    ExitNetwork = 5,       // no answer: refused connection, time-out, a broken transfer
    ExitService = 6,       // the service answered with another error
    ExitException = 70,    // a programming error or a value of the wrong type reached the top
};

struct ServiceOptions {
    std::string baseURL; // else $VELVOX_BASE_URL; empty: an embedded sandbox
    std::string token;   // else $VELVOX_TOKEN, else tokenFile
    std::string tokenFile;
    bool json { false };
    bool quiet { false };
    bool all { false };
};

class Session {
public:
    explicit Session(const ServiceOptions&);
    ~Session();

    // Starts the service connection and the store; answers an exit code (0 when ready).
    int open(const char* command);
    VXResourceController& store() { return *m_store; }
    const ServiceOptions& options() const { return m_options; }

    // Runs the loop until the condition holds; false after the time-out.
    bool waitFor(const std::function<bool()>& condition, double seconds = 30);
    // Signs in (the "/me" user); null with the exit code in `code` when it fails.
    RefPtr<VXUser> signIn(int& code);

    // The exit code for an error, after saying what went wrong on standard error.
    int fail(const char* command, Error* error);
    // The error of a request that was not answered within waitFor's time.
    static Ref<Error> noAnswer();
    // Loads a collection's first page (or every page with --all, at most
    // maximumPages: a longer list is cut, which is said on standard error).
    int loadCollection(const char* command, VXRemoteCollectionController&);
    static constexpr int maximumPages = 1000;
    // maximumPages, or fewer when $VELVOX_TEST_MAXIMUM_PAGES says so.
    static int pageCap();
    // Whether a list was cut at maximumPages (the command then fails with ExitService).
    bool listWasCut() const { return m_listCut; }

    // Output: standard output unless --quiet; write errors make finish() fail.
    void print(const std::string& text);
    // Saves the store's archives (the application's termination) and checks
    // that standard output took everything. Answers the final exit code: a
    // failed save or write turns success into ExitFailure.
    int finish(int code);

private:
    ServiceOptions m_options;
    std::unique_ptr<sandbox::SandboxService> m_sandbox;
    RefPtr<VXResourceController> m_store;
    std::string m_command;
    bool m_finished { false };
    bool m_listCut { false };
};

// How many objects of each class the identity map keeps across runs.
inline constexpr size_t archivedObjectsPerClass = 5000;

// People's and scripts' forms of the models.
std::string relativeDate(Date*);
// A duration as "m.ss" or "h.mm.ss"; empty when negative or not a number,
// "too long" from longestDuration on.
std::string durationText(double seconds);
inline constexpr double longestDuration = 10000 * 3600.0;
// A model object as the service's JSON (its descriptors' keys, the reverse transformers' values).
Ref<Dictionary> jsonRecord(ZUObject&);
std::string jsonText(Object&);
// Encoded JSON with DEL and the C1 control characters escaped as well (\u0080...).
std::string escapingControlCharacters(std::string_view json);
// Text from a service as a terminal may show it: a control character in a
// title must not move the cursor or clear the screen (line breaks become blanks).
std::string printable(const std::string&);
// Rows as aligned columns (the first row is the heading), each cell printable.
std::string columns(const std::vector<std::vector<std::string>>& rows);

// velvox store commands: each answers its exit code.
struct StoreCommand {
    std::string name;
    std::vector<std::string> arguments;
    std::string userIdentifier; // --user
    std::string search;         // --search
    std::string output;         // -o
    std::string title, description, sharing;
    double at { -1 }; // --at
    bool refresh { false };
    bool exclusive { false };
    bool wait { false };
};
int runStoreCommand(Session&, const StoreCommand&);
int runDemo(const ServiceOptions&);

} // namespace velvox::app
