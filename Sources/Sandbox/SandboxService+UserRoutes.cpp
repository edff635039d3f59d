// The routes of users: a user, their lists, and the user search.

#include "SandboxServiceImpl.h"

namespace velvox::sandbox {

using namespace detail;

// Users, their lists, and the user search.
void SandboxService::Impl::installUserRoutes()
{
    server.Get(R"(/users/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t user = requestIdentifier(request);
        if (!users.count(user))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, fullUser(user).ptr());
    });
    server.Get(R"(/users/(\d+)/(tracks|favorites|followers|followings|connections))",
        [this](const httplib::Request& request, httplib::Response& response) {
            std::lock_guard lock(mutex);
            int64_t user = requestIdentifier(request);
            if (!users.count(user))
                return sendError(response, 404, "404 - Not Found");
            std::string list = request.matches[2];
            if (list == "tracks") {
                // A "q" narrows a user's tracks to those whose title holds it.
                auto items = tracksOf(user);
                if (request.has_param("q")) {
                    std::string query = lowercase(request.get_param_value("q"));
                    std::erase_if(items, [&](int64_t track) { return lowercase(textOf(*tracks.at(track), "title")).find(query) == std::string::npos; });
                }
                return sendPage(request, response, items, trackBuilder());
            }
            if (list == "favorites")
                return sendPage(request, response, favoritesOf(user), trackBuilder());
            if (list == "followers")
                return sendPage(request, response, relatedUsers(true, user), userBuilder());
            if (list == "followings")
                return sendPage(request, response, relatedUsers(false, user), userBuilder());
            sendPage(request, response, std::vector<int64_t> {}, userBuilder());
        });
    server.Get("/users", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        std::string query = lowercase(request.get_param_value("q"));
        std::vector<int64_t> matches;
        for (auto& [identifier, user] : users) {
            if (lowercase(textOf(*user, "username")).find(query) != std::string::npos || lowercase(textOf(*user, "full_name")).find(query) != std::string::npos)
                matches.push_back(identifier);
        }
        sendPage(request, response, matches, userBuilder());
    });
}

} // namespace velvox::sandbox
