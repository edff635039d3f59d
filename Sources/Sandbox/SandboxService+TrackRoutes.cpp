// The routes that read tracks: the track search, a track, its comments and
// favoriters; and the images the records point at.

#include "SandboxServiceImpl.h"

namespace velvox::sandbox {

using namespace detail;

namespace {

// A name's identifier: its leading digits ("1000-large" -> 1000), or a hash
// of the whole name when it has none, so that every name gets its own colours.
int64_t identifierOfName(const std::string& name, bool& numeric)
{
    size_t digits = 0;
    while (digits < name.size() && digits < 18 && name[digits] >= '0' && name[digits] <= '9')
        ++digits;
    numeric = digits > 0;
    if (numeric)
        return std::stoll(name.substr(0, digits));
    return static_cast<int64_t>(std::hash<std::string> {}(name) & 0x7FFFFFFFFFFFull);
}

} // namespace

std::string SandboxService::Impl::image(const std::string& kind, const std::string& name)
{
    std::string path = kind + "/" + name;
    {
        std::lock_guard lock(imageMutex);
        if (auto found = images.find(path); found != images.end())
            return found->second;
    }
    bool numeric = false;
    int64_t identifier = identifierOfName(name, numeric);
    // What the picture is drawn from, read under the service's lock; drawn outside it.
    std::string text;
    images::Envelope envelope;
    {
        std::lock_guard lock(mutex);
        if (kind == "avatars" && numeric && users.count(identifier)) {
            text = textOf(*users.at(identifier), "full_name");
            if (text.empty())
                text = textOf(*users.at(identifier), "username");
        } else if (kind == "artworks" && numeric && tracks.count(identifier))
            text = textOf(*tracks.at(identifier), "title");
        else if (kind == "waveforms" && uploadedEnvelopes.count(identifier))
            envelope = uploadedEnvelopes.at(identifier);
    }
    std::string png;
    if (kind == "waveforms")
        png = images::waveform(envelope.empty() ? images::seededEnvelope(static_cast<uint64_t>(identifier), waveformPeaks) : envelope, 600, 80);
    else {
        int size = name.find("t300x300") != std::string::npos ? 300 : 100;
        png = images::portrait(static_cast<uint64_t>(identifier), images::initials(text), size, kind == "avatars");
    }
    std::lock_guard lock(imageMutex);
    if (images.size() >= maximumCachedImages)
        images.erase(images.begin());
    images.emplace(path, png);
    return png;
}

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
    server.Get(R"(/images/(avatars|artworks|waveforms)/([A-Za-z0-9_.-]{1,64})\.png)", [this](const httplib::Request& request, httplib::Response& response) {
        response.set_content(image(request.matches[1].str(), request.matches[2].str()), "image/png");
    });
}

} // namespace velvox::sandbox
