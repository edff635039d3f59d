#pragma once

// A local service that speaks the Velvox REST API over HTTP on loopback, with
// a sample catalogue of users, tracks, comments, follow relations, favorites
// and an activity feed. Programs and tests run it in-process on a free port;
// the velvox-sandbox program runs it on its own.
//
// It serves on its own threads; every method here is thread-safe.

#include <Platform/Collections.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace velvox::sandbox {

// A fault injected into the answers of paths that start with `pathPrefix`.
// Parses "PATH=MODE" as the command line gives a fault: MODE is one of
// latency:SECONDS, status:CODE, status:CODE:retry-after:VALUE, not-json,
// cut-off, drop, no-answer. VALUE, the rest of the text as it is ("2", or a
// date such as "Sun, 06 Nov 1994 08:49:37 GMT"), is sent as the answer's
// "Retry-After" header; it may be anything but empty or a control character,
// so that clients can be tested with values they must ignore. Answers false,
// with the reason, for anything else (a latency that is negative or not a
// finite number included); a latency above Fault::maximumLatencySeconds is
// cut to it.
struct Fault;
bool parseFault(std::string_view text, Fault& fault, std::string* problem);

struct Fault {
    // The longest latency applied (an hour); a longer one, or an infinite one
    // given through addFault(), waits this long.
    static constexpr double maximumLatencySeconds = 3600;

    enum class Kind {
        Latency,  // answer normally, `seconds` late
        Status,   // answer with `status` and a JSON error body
        NotJSON,  // answer 200 with a body that is not JSON
        CutOff,   // announce the whole body, send half of it, close
        Drop,     // send the headers, then close the connection
        NoAnswer, // accept the request and never answer (until the service stops);
                  // beyond SandboxService::maximumHeldRequests held at once, the
                  // connection is closed without an answer
    };
    Kind kind { Kind::Latency };
    std::string pathPrefix { "/" };
    int status { 500 };
    double seconds { 0 };
    // How many requests it applies to; -1 for all.
    int count { -1 };
    // For Status: the "Retry-After" header sent with it, when not empty. Last, and with
    // an initializer, so that faults written as { kind, path, status, seconds,
    // count } stay valid (no missing-initializer warning).
    std::string retryAfter {};
};

class SandboxService {
public:
    struct Options {
        // Port 0 picks a free one.
        int port { 0 };
        std::string token { "sandbox-token" };
        // The catalogue file; empty: the shipped Resources/sandbox/catalogue.json.
        std::string cataloguePath;
        // How long an uploaded track stays "storing" before it turns "finished".
        double processingSeconds { 3 };
        // How many activities one page of a feed holds.
        int activityPageSize { 10 };
        bool logRequests { false };
        // The largest request body (an upload) it reads, sent with a length or
        // in chunks; a larger one is answered 413 and its connection closed.
        size_t maximumUploadBytes { 64u * 1024 * 1024 };
    };

    explicit SandboxService(Options);
    ~SandboxService();

    // Listens on 127.0.0.1 and serves in the background. Answers false (with
    // the reason in `error`) when it cannot.
    bool start(std::string* error = nullptr);
    void stop();

    // "http://127.0.0.1:PORT".
    std::string baseURL() const;
    int port() const;
    const std::string& token() const;
    // The identifier of the signed-in user ("/me").
    int64_t meUserIdentifier() const;

    void addFault(Fault);
    void clearFaults();

    // How many requests reached a handler, by "METHOD /path?query" as sent.
    // Only the first maximumCountedTargets distinct targets (and no more than
    // maximumCountedTargetBytes of them) are counted one by one, so that
    // clients sending ever new targets cannot grow the table without bound;
    // later new targets count only in the total.
    int requestCount(const std::string& methodAndPathWithQuery) const;
    int totalRequestCount() const;
    // How many distinct targets requestCount() holds.
    size_t countedTargetCount() const;
    void resetRequestCounts();
    static constexpr size_t maximumCountedTargets = 4096;
    static constexpr size_t maximumCountedTargetBytes = 1024 * 1024;

    // Requests a no-answer fault holds take a worker each; at most this many
    // are held at once, so that the other paths keep workers to answer them.
    static constexpr int maximumHeldRequests = 8;
    // How many requests a no-answer fault holds now.
    int heldRequestCount() const;

    // How many pictures (avatars, artworks, waveforms) are kept, made on
    // their first request; never more than a few hundred.
    size_t cachedImageCount() const;

    // One track record of the shipped catalogue as the service sends it in
    // lists (without the embedded user), its URLs pointing at `baseURL`. Null
    // when the catalogue cannot be read or has no such track.
    static RefPtr<Dictionary> catalogueTrackRecord(size_t index, std::string_view baseURL = "http://127.0.0.1:8080");

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

} // namespace velvox::sandbox
