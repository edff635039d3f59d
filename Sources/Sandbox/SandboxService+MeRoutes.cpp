// The routes of the signed-in account: "/me", its lists, and the follow and
// favorite checks and changes.

#include "SandboxServiceImpl.h"

namespace velvox::sandbox {

using namespace detail;

// The signed-in account and its lists.
void SandboxService::Impl::installMeRoutes()
{
    server.Get("/me", [this](const httplib::Request&, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendJSON(response, fullUser(me).ptr());
    });
    server.Get("/me/tracks", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendPage(request, response, tracksOf(me), trackBuilder());
    });
    server.Get("/me/favorites", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendPage(request, response, favoritesOf(me), trackBuilder());
    });
    server.Get("/me/followers", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendPage(request, response, relatedUsers(true, me), userBuilder());
    });
    server.Get("/me/followings", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendPage(request, response, relatedUsers(false, me), userBuilder());
    });
}

// Follow and favorite checks and changes. A follow check answers the user's
// record when the relation holds, else 404.
void SandboxService::Impl::installSocialRoutes()
{
    server.Get(R"(/me/(followings|followers)/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t other = requestIdentifier(request, 2);
        bool followings = request.matches[1] == "followings";
        bool holds = followings ? follows.count({ me, other }) : follows.count({ other, me });
        if (!holds || !users.count(other))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, fullUser(other).ptr());
    });
    bodyRoute(BodyMethod::Put, R"(/me/followings/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t other = requestIdentifier(request);
        if (!users.count(other))
            return sendError(response, 404, "404 - Not Found");
        bool added = follows.emplace(me, other).second;
        sendJSON(response, fullUser(other).ptr(), added ? 201 : 200);
    });
    bodyRoute(BodyMethod::Delete, R"(/me/followings/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t other = requestIdentifier(request);
        if (!follows.erase({ me, other }))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, Dictionary::create({ { "status", String::create("200 - OK").ptr() } }).ptr());
    });
    bodyRoute(BodyMethod::Put, R"(/me/favorites/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        if (!tracks.count(track))
            return sendError(response, 404, "404 - Not Found");
        bool added = favorites.emplace(me, track).second;
        sendJSON(response, Dictionary::create({ { "status", String::create(added ? "201 - Created" : "200 - OK").ptr() } }).ptr(), added ? 201 : 200);
    });
    bodyRoute(BodyMethod::Delete, R"(/me/favorites/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        if (!favorites.erase({ me, requestIdentifier(request) }))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, Dictionary::create({ { "status", String::create("200 - OK").ptr() } }).ptr());
    });
}

} // namespace velvox::sandbox
