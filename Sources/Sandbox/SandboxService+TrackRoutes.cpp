// The routes that read tracks: the track search, a track, its comments and
// favoriters; and the images the records point at.

#include "SandboxServiceImpl.h"

namespace velvox::sandbox {

using namespace detail;

namespace {

// A 1×1 PNG: every avatar, artwork and waveform the sandbox serves.
const unsigned char pngBytes[] = { 0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48, 0x44, 0x52, 0x00, 0x00,
    0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x06, 0x00, 0x00, 0x00, 0x1F, 0x15, 0xC4, 0x89, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x44, 0x41, 0x54,
    0x78, 0x9C, 0x63, 0x60, 0x60, 0xF8, 0x0F, 0x00, 0x01, 0x04, 0x01, 0x00, 0x5F, 0xE5, 0xC3, 0x4B, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4E,
    0x44, 0xAE, 0x42, 0x60, 0x82 };

} // namespace

// Tracks, their comments and favoriters, and the track search.
void SandboxService::Impl::installTrackRoutes()
{
    server.Get("/tracks", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        std::string query = lowercase(request.get_param_value("q"));
        std::vector<int64_t> matches;
        for (auto& [identifier, track] : tracks) {
            if (textOf(*track, "sharing") == "private")
                continue;
            for (auto key : { "title", "tag_list", "genre" }) {
                if (lowercase(textOf(*track, key)).find(query) != std::string::npos) {
                    matches.push_back(identifier);
                    break;
                }
            }
        }
        sendPage(request, response, matches, trackBuilder());
    });
    server.Get(R"(/tracks/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        if (!tracks.count(track))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, fullTrack(track).ptr());
    });
    server.Get(R"(/tracks/(\d+)/comments)", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        if (!tracks.count(track))
            return sendError(response, 404, "404 - Not Found");
        std::vector<int64_t> indices;
        for (size_t i = 0; i < comments.size(); ++i) {
            if (integerOf(*comments[i], "track_id") == track)
                indices.push_back(static_cast<int64_t>(i));
        }
        sendPage(request, response, indices, [this](int64_t index) { return commentRecord(*comments[index]); });
    });
    server.Get(R"(/tracks/(\d+)/favoriters)", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        std::vector<int64_t> favoriters;
        for (auto& [user, favorite] : favorites) {
            if (favorite == track && users.count(user))
                favoriters.push_back(user);
        }
        sendPage(request, response, favoriters, userBuilder());
    });
}

// Images, the "-t300x300" variants included, need no token.
void SandboxService::Impl::installImageRoutes()
{
    server.Get(R"(/images/(avatars|artworks|waveforms)/([A-Za-z0-9_.-]+)\.png)", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(std::string(reinterpret_cast<const char*>(pngBytes), sizeof(pngBytes)), "image/png");
    });
}

} // namespace velvox::sandbox
