#pragma once

// The service's inside, shared by the files that serve it: the state behind
// the lock (the catalogue as clients change it, faults, request counts) and
// the few helpers more than one of them needs. The files are cut by concern:
// SandboxService.cpp        life cycle, the route table, the public accessors
// +Catalogue.cpp            loading the catalogue; records and lists built from it
// +Requests.cpp             what every request goes through: counting, the token,
//                           bodies read within bounds, answers, closed connections
// +Faults.cpp               fault modes, parsed and applied
// +MeRoutes.cpp, +UserRoutes.cpp, +TrackRoutes.cpp, +UploadRoutes.cpp,
// +FeedRoutes.cpp           the routes, by area

#include "SandboxImages.h"
#include "SandboxService.h"

#include <Platform/Collections.h>

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace velvox::sandbox {

using Clock = std::chrono::steady_clock;

namespace detail {

// Records and texts (SandboxService+Catalogue.cpp).
std::string lowercase(std::string_view text);
// Puts the service's address where the catalogue's texts hold "{base}".
void fillBase(std::string& text, std::string_view base);
// A record's number or text at `key`; 0 or "" when it has none of that kind.
int64_t integerOf(const Dictionary& record, std::string_view key);
std::string textOf(const Dictionary& record, std::string_view key);

// Requests and connections (SandboxService+Requests.cpp).
bool carriesBody(const httplib::Request&);
void closeAfterAnswer(httplib::Response&);
void shutDownConnections(int port, int peerPort = 0);

// The numeric group of a route's pattern.
inline int64_t requestIdentifier(const httplib::Request& request, size_t group = 1)
{
    return std::stoll(request.matches[group].str());
}

} // namespace detail

struct SandboxService::Impl {
    Options options;
    httplib::Server server;
    std::thread thread;
    int port { 0 };
    std::atomic<bool> stopping { false };

    mutable std::mutex mutex;
    std::condition_variable stopped;
    int64_t me { 0 };
    std::map<int64_t, Ref<MutableDictionary>> users;
    std::map<int64_t, Ref<MutableDictionary>> tracks;
    std::vector<Ref<MutableDictionary>> comments;
    std::set<std::pair<int64_t, int64_t>> follows;   // (follower, followed)
    std::set<std::pair<int64_t, int64_t>> favorites; // (user, track)
    std::vector<Ref<Dictionary>> activities;
    std::map<int64_t, Clock::time_point> uploads;
    // The waveforms of uploaded WAVs, from their samples.
    std::map<int64_t, images::Envelope> uploadedEnvelopes;
    int64_t nextTrackIdentifier { 90000 };
    int64_t nextCommentIdentifier { 900000 };
    std::vector<Fault> faults;
    std::map<std::string, int> requestCounts;
    size_t countedTargetBytes { 0 };
    int totalRequests { 0 };
    int heldRequests { 0 };

    // Pictures made on their first request, by path; at most
    // maximumCachedImages (any name is answered, so clients choose the keys).
    mutable std::mutex imageMutex;
    std::map<std::string, std::string> images;
    static constexpr size_t maximumCachedImages = 256;
    // The bars of a waveform.
    static constexpr size_t waveformPeaks = 200;
    // The picture at "/images/KIND/NAME.png" (KIND: avatars, artworks, waveforms).
    std::string image(const std::string& kind, const std::string& name);

    bool loadCatalogue(std::string* error);
    void countRequest(const httplib::Request&);
    // Every route, in the order the server tries them.
    void installRoutes();
    void installAccounting();
    static void validate(const httplib::Request&, httplib::Response&);
    void installMeRoutes();
    void installSocialRoutes();
    void installActivityRoutes();
    void installUserRoutes();
    void installTrackRoutes();
    void installUploadRoutes();
    void installImageRoutes();

    // Lists are identifiers; only the records on the page asked for are built (under the lock).
    std::vector<int64_t> tracksOf(int64_t user) const;
    std::vector<int64_t> favoritesOf(int64_t user) const;
    // The users who follow `user` (followers), or whom `user` follows.
    std::vector<int64_t> relatedUsers(bool followers, int64_t user) const;
    std::function<Ref<Dictionary>(int64_t)> trackBuilder() const;
    std::function<Ref<Dictionary>(int64_t)> userBuilder() const;

    // Records (under the lock).
    Ref<Dictionary> shortUser(int64_t identifier) const;
    Ref<Dictionary> fullUser(int64_t identifier) const;
    Ref<Dictionary> fullTrack(int64_t identifier) const;
    Ref<Dictionary> commentRecord(const Dictionary& comment) const;
    Ref<Dictionary> activityRecord(const Dictionary& activity) const;

    // Answers.
    void sendJSON(httplib::Response&, Object* value, int status = 200) const;
    void sendError(httplib::Response&, int status, std::string_view message) const;
    // A page of records built only for the items on it.
    void sendPage(const httplib::Request&, httplib::Response&, const std::vector<int64_t>& identifiers,
        const std::function<Ref<Dictionary>(int64_t)>& build) const;
    bool authorized(const httplib::Request&) const;

    // Routes whose requests may carry a body (POST, PUT, DELETE). The body is
    // read here rather than by the server, which bounds only bodies sent with
    // a length: whether it comes with one or in chunks, past
    // options.maximumUploadBytes the request is answered 413 and its
    // connection closed. The handler sees the request with its body, files and
    // form fields filled in.
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;
    enum class BodyMethod { Post,
        Put,
        Patch,
        Delete };
    void bodyRoute(BodyMethod, const std::string& pattern, Handler);
    // Reads the body of `request` into `into`; answers false, with the answer
    // in `response`, when it cannot be read or is too large.
    bool readBody(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader&, httplib::Request& into) const;

    // Applies a fault, if one matches; answers whether the request is answered by it.
    bool applyFault(const httplib::Request&, httplib::Response&);
};

} // namespace velvox::sandbox
