#pragma once

// What every store command of velvox stands on: the service (an embedded
// sandbox, or --base-url with a token), the shared store with its API
// controller, the signed-in user, waiting on the run loop, the output in
// people's or scripts' form, and the exit codes.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXResourceController.h>

#include <Service/VXServiceAccess.h>

#include <functional>
#include <memory>
#include <optional>
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
    bool verbose { false }; // each request on standard error
    double timeout { 30 };  // seconds a request may take
    std::string folderName; // the data folder's name when not the service's own (the demo's)
    std::string memoryBudget; // else $VELVOX_MEMORY_BUDGET; empty: none
};

// A byte count as people write it: "33554432", "512K", "64M", "1G" (powers of
// 1024). False for anything else, or more than 2^63 bytes.
bool parseByteSize(const std::string& text, size_t& bytes);
// The identity map's memory budget: --memory-budget, else $VELVOX_MEMORY_BUDGET;
// none when neither is set. False, with the reason, for a value that is no size.
bool memoryBudgetOf(const ServiceOptions&, std::optional<size_t>& budget, std::string& problem);

// The service's base URL: the option, else $VELVOX_BASE_URL; empty for the
// embedded sandbox. The service's folders: VXServiceAccess.h.
std::string resolvedBaseURL(const ServiceOptions&);

// Thrown out of Session::waitFor when Ctrl-C (or SIGTERM) arrives, so that
// the command unwinds and its archives are saved before velvox exits.
struct Interrupted {
    int signal;
};
// From here on, SIGINT and SIGTERM interrupt the waits instead of ending the
// process at once; a second one ends it.
void catchInterruptions();
// The exit status for an interruption by the signal (130 for SIGINT).
inline int interruptedStatus(int signal) { return 128 + signal; }

class Session {
public:
    explicit Session(const ServiceOptions&);
    ~Session();

    // Starts the service connection and the store; answers an exit code (0 when ready).
    int open(const char* command);
    VXResourceController& store() { return *m_store; }
    const ServiceOptions& options() const { return m_options; }

    // Runs the loop until the condition holds; false after the time-out
    // (0: the --timeout and a margin). Throws Interrupted on Ctrl-C.
    bool waitFor(const std::function<bool()>& condition, double seconds = 0);
    // Signs in (the "/me" user); null with the exit code in `code` when it
    // fails. With `unreachable`, a service that cannot be reached is not
    // reported but said there (a change can still be kept for later).
    RefPtr<VXUser> signIn(int& code, bool* unreachable = nullptr);
    // A change kept in the store's journal because the service cannot be
    // reached: said ("kept: follow 1011 ..."; JSON: the record with
    // "queued": true), and a success.
    int kept(const std::string& change, Dictionary* record);
    static bool isKept(Error*);

    // The exit code for an error, after saying what went wrong on standard
    // error; `what` names the resource ("the track 99999") for a 404.
    int fail(const char* command, Error* error, const std::string& what = {});
    // The error of a request that was not answered within waitFor's time.
    static Ref<Error> noAnswer();
    // Loads a collection's first page (or every page with --all, at most
    // maximumPages: a longer list is cut, which is said on standard error).
    // `what` names the list's owner for a 404 ("the track 20005").
    int loadCollection(const char* command, VXRemoteCollectionController&, const std::string& what = {});
    static constexpr int maximumPages = 1000;
    // maximumPages, or fewer when $VELVOX_TEST_MAXIMUM_PAGES says so.
    static int pageCap();
    // Whether a list was cut at maximumPages (the command then fails with ExitService).
    bool listWasCut() const { return m_listCut; }

    // Output: standard output unless --quiet; write errors make finish() fail,
    // but a reader that went away (a broken pipe) ends the output silently.
    void print(const std::string& text);
    // Whether people watch standard error: feedback (progress, spinners) goes there.
    bool showsFeedback() const;
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
    int m_writeError { 0 };
    size_t m_keptAtStart { 0 };
    // Sends what the journal keeps from earlier runs, now that the service
    // answers, and says so.
    void sendKeptChanges();
};

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
// Rows as aligned columns (the first row is the heading), each cell
// printable; numeric columns right-aligned. With `width`, the widest columns
// are cut (with "…") until every line fits.
std::string columns(const std::vector<std::vector<std::string>>& rows, size_t width = 0);
// The terminal's width when standard output is one, else 0.
size_t terminalWidth();
// A count with thousands grouped: "81,044".
std::string grouped(uint64_t);
// A byte count as people read it: "812 B", "48 KB", "3.4 MB".
std::string byteSize(uint64_t);
// An identifier as scripts get it: a number when it is a decimal one, else the text.
Ref<Object> jsonIdentifier(const std::string&);
// Writes a file the user asked for (-o): through a temporary file and a
// rename, with the permissions the umask leaves. False with the reason.
bool writeUserFile(const std::string& path, std::string_view contents, std::string& problem);

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
int runDemo(const ServiceOptions&, const std::string& output);

} // namespace velvox::app
