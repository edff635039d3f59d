// The routes that add to the catalogue: a comment on a track, and an upload
// that makes a track which stays "storing" for a while.

#include "SandboxServiceImpl.h"

#include <Platform/Platform.h>

#include <cmath>
#include <ctime>

namespace velvox::sandbox {

using namespace detail;

namespace {

std::string timestampNow()
{
    time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    char text[40];
    strftime(text, sizeof(text), "%Y/%m/%d %H:%M:%S +0000", &utc);
    return text;
}

} // namespace

// Comments posted to a track, and uploads.
void SandboxService::Impl::installUploadRoutes()
{
    bodyRoute(BodyMethod::Post, R"(/tracks/(\d+)/comments)", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        if (!tracks.count(track))
            return sendError(response, 404, "404 - Not Found");
        std::string body = request.has_param("comment[body]") ? request.get_param_value("comment[body]")
            : request.has_file("comment[body]")               ? request.get_file_value("comment[body]").content
                                                              : std::string();
        if (body.empty())
            return sendError(response, 422, "422 - comment[body] is required");
        auto comment = MutableDictionary::create();
        int64_t commentIdentifier = nextCommentIdentifier++;
        comment->setObject(Number::withInteger(commentIdentifier), "id");
        comment->setObject(String::create("comment"), "kind");
        comment->setObject(String::create(timestampNow()), "created_at");
        comment->setObject(Number::withInteger(track), "track_id");
        comment->setObject(Number::withInteger(me), "user_id");
        if (request.has_param("comment[timestamp]"))
            comment->setObject(Number::withInteger(std::atoll(request.get_param_value("comment[timestamp]").c_str())), "timestamp");
        else
            comment->setObject(&Null::null(), "timestamp");
        comment->setObject(String::create(body), "body");
        comment->setObject(String::format("{base}/comments/%lld", static_cast<long long>(commentIdentifier)), "uri");
        comments.push_back(comment);
        sendJSON(response, commentRecord(*comment).ptr(), 201);
    });

    // Uploads: a multipart (or form) POST makes a track that is "storing" for a while.
    bodyRoute(BodyMethod::Post, "/tracks", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        auto field = [&](const std::string& name) -> std::string {
            if (request.has_file(name))
                return request.get_file_value(name).content;
            return request.has_param(name) ? request.get_param_value(name) : std::string();
        };
        std::string title = field("track[title]");
        if (title.empty())
            return sendError(response, 422, "422 - track[title] is required");
        int64_t trackIdentifier = nextTrackIdentifier++;
        auto track = MutableDictionary::create();
        track->setObject(Number::withInteger(trackIdentifier), "id");
        track->setObject(String::create("track"), "kind");
        track->setObject(String::create(timestampNow()), "created_at");
        track->setObject(Number::withInteger(me), "user_id");
        track->setObject(Number::withInteger(0), "duration");
        track->setObject(&Number::trueValue(), "commentable");
        track->setObject(String::create("storing"), "state");
        std::string sharing = field("track[sharing]");
        track->setObject(String::create(sharing.empty() ? "public" : sharing), "sharing");
        track->setObject(String::create(field("track[tag_list]")), "tag_list");
        track->setObject(String::create(field("track[description]")), "description");
        track->setObject(String::create(title), "title");
        track->setObject(String::create(lowercase(title)), "permalink");
        std::string asset = field("track[asset_data]");
        track->setObject(Number::withInteger(static_cast<int64_t>(asset.size())), "original_content_size");
        track->setObject(String::format("{base}/tracks/%lld", static_cast<long long>(trackIdentifier)), "uri");
        track->setObject(String::format("{base}/tracks/%lld/stream", static_cast<long long>(trackIdentifier)), "stream_url");
        track->setObject(String::format("{base}/images/waveforms/%lld.png", static_cast<long long>(trackIdentifier)), "waveform_url");
        track->setObject(Number::withInteger(0), "playback_count");
        // A WAV's waveform and length come from its samples.
        double seconds = 0;
        if (auto envelope = images::envelopeOfWAV(asset, waveformPeaks, &seconds); !envelope.empty()) {
            uploadedEnvelopes.emplace(trackIdentifier, std::move(envelope));
            track->setObject(Number::withInteger(std::llround(seconds * 1000)), "duration");
        }
        tracks.emplace(trackIdentifier, track);
        uploads.emplace(trackIdentifier, Clock::now());
        sendJSON(response, fullTrack(trackIdentifier).ptr(), 201);
    });
}

} // namespace velvox::sandbox
