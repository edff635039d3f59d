// Filling and refreshing a described model object from a track record of
// about 45 keys, as the service sends them: objects per second and heap
// allocations per object.

#include "AllocationCounter.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <VelvoxKit/VXAPITimestampValueTransformer.h>
#include <VelvoxKit/VXFramework.h>
#include <VelvoxKit/VXNumberToStringValueTransformer.h>
#include <VelvoxKit/VXResource.h>
#include <VelvoxKit/VXTagListValueTransformer.h>
#include <VelvoxKit/VXTimeIntervalValueTransformer.h>
#include <VelvoxKit/VXTrackStateValueTransformer.h>
#include <VelvoxKit/VXURLStringValueTransformer.h>

#include <Sandbox/SandboxService.h>
#include <benchmark/benchmark.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

using namespace velvox;

namespace {

// The track table's 43 properties over the resource's identifier, declared
// the way the framework's model classes are.
#define BENCH_TRACK_PROPERTIES(P)                                                                   \
    P(Date, createdAt, CreatedAt, "created_at", VXAPITimestampValueTransformerName)                 \
    P(String, userIdentifier, UserIdentifier, "user_id", VXNumberToStringValueTransformerName)      \
    P(double, duration, Duration, "duration", VXTimeIntervalFromMillisecondsValueTransformerName)    \
    P(bool, commentable, Commentable, "commentable", {})                                            \
    P(int32_t, state, State, "state", VXTrackStateValueTransformerName)                             \
    P(String, sharing, Sharing, "sharing", {})                                                      \
    P(Array, tagList, TagList, "tag_list", VXTagListValueTransformerName)                           \
    P(String, permalink, Permalink, "permalink", {})                                                \
    P(String, trackDescription, TrackDescription, "description", {})                                \
    P(bool, streamable, Streamable, "streamable", {})                                               \
    P(bool, downloadable, Downloadable, "downloadable", {})                                         \
    P(String, genre, Genre, "genre", {})                                                            \
    P(String, trackRelease, TrackRelease, "release", {})                                            \
    P(URL, purchaseURL, PurchaseURL, "purchase_url", VXURLStringValueTransformerName)               \
    P(String, labelID, LabelID, "label_id", {})                                                     \
    P(String, labelName, LabelName, "label_name", {})                                               \
    P(String, ISRC, ISRC, "isrc", {})                                                               \
    P(URL, videoURL, VideoURL, "video_url", VXURLStringValueTransformerName)                        \
    P(String, trackType, TrackType, "track_type", {})                                               \
    P(String, keySignature, KeySignature, "key_signature", {})                                      \
    P(String, bpm, Bpm, "bpm", {})                                                                  \
    P(String, title, Title, "title", {})                                                            \
    P(String, releaseYear, ReleaseYear, "release_year", {})                                         \
    P(String, releaseMonth, ReleaseMonth, "release_month", {})                                      \
    P(String, releaseDay, ReleaseDay, "release_day", {})                                            \
    P(String, originalFormat, OriginalFormat, "original_format", {})                                \
    P(String, license, License, "license", {})                                                      \
    P(URL, URI, URI, "uri", VXURLStringValueTransformerName)                                        \
    P(URL, permalinkURL, PermalinkURL, "permalink_url", VXURLStringValueTransformerName)            \
    P(URL, artworkURL, ArtworkURL, "artwork_url", VXURLStringValueTransformerName)                  \
    P(URL, waveformURL, WaveformURL, "waveform_url", VXURLStringValueTransformerName)               \
    P(URL, streamURL, StreamURL, "stream_url", VXURLStringValueTransformerName)                     \
    P(URL, downloadURL, DownloadURL, "download_url", VXURLStringValueTransformerName)               \
    P(String, secretToken, SecretToken, "secret_token", {})                                         \
    P(URL, secretURI, SecretURI, "secret_uri", VXURLStringValueTransformerName)                     \
    P(uint64_t, sharedToCount, SharedToCount, "shared_to_count", {})                                \
    P(uint64_t, userPlaybackCount, UserPlaybackCount, "user_playback_count", {})                    \
    P(bool, userFavorite, UserFavorite, "user_favorite", {})                                        \
    P(uint64_t, playbackCount, PlaybackCount, "playback_count", {})                                 \
    P(uint64_t, downloadCount, DownloadCount, "download_count", {})                                 \
    P(uint64_t, favoritingsCount, FavoritingsCount, "favoritings_count", {})                        \
    P(uint64_t, commentCount, CommentCount, "comment_count", {})                                    \
    P(URL, attachmentsURI, AttachmentsURI, "attachments_uri", VXURLStringValueTransformerName)

class BenchTrack final : public VXResource {
    VX_OBJECT(BenchTrack)
    ZU_PROPERTIES(BENCH_TRACK_PROPERTIES)
public:
    static Ref<BenchTrack> create(Dictionary* dictionary) { return ZUObject::create<BenchTrack>(dictionary); }

private:
    friend class ZUObject;
    BenchTrack() = default;
};
VX_DEFINE_CLASS(BenchTrack, VXResource)
ZU_DEFINE_PROPERTIES(BenchTrack, VXResource, BENCH_TRACK_PROPERTIES)

// The floor: the same record read by hand into a plain C++ struct, from the
// same decoded tree, with the same conversions a careful hand would write.
struct PlainTrack {
    std::string identifier, userIdentifier, title, permalink, trackDescription, genre, sharing, license, bpm;
    std::string artworkURL, waveformURL, streamURL, permalinkURL, URI;
    std::vector<std::string> tags;
    double createdAt = 0, duration = 0;
    int32_t state = 0;
    uint64_t playbackCount = 0, downloadCount = 0, favoritingsCount = 0, commentCount = 0;
    bool commentable = false, streamable = false, downloadable = false;
};

std::string textOf(Dictionary& record, std::string_view key)
{
    auto* value = record.objectForKey(key);
    if (auto* string = dynamicDowncast<String>(value))
        return string->str();
    if (auto* number = dynamicDowncast<Number>(value))
        return number->stringValue()->str();
    return {};
}

uint64_t countOf(Dictionary& record, std::string_view key)
{
    auto* number = dynamicDowncast<Number>(record.objectForKey(key));
    return number ? number->unsignedLongLongValue() : 0;
}

bool flagOf(Dictionary& record, std::string_view key)
{
    auto* number = dynamicDowncast<Number>(record.objectForKey(key));
    return number && number->boolValue();
}

void fillPlainTrack(PlainTrack& track, Dictionary& record)
{
    track.identifier = textOf(record, "id");
    track.userIdentifier = textOf(record, "user_id");
    track.title = textOf(record, "title");
    track.permalink = textOf(record, "permalink");
    track.trackDescription = textOf(record, "description");
    track.genre = textOf(record, "genre");
    track.sharing = textOf(record, "sharing");
    track.license = textOf(record, "license");
    track.bpm = textOf(record, "bpm");
    track.artworkURL = textOf(record, "artwork_url");
    track.waveformURL = textOf(record, "waveform_url");
    track.streamURL = textOf(record, "stream_url");
    track.permalinkURL = textOf(record, "permalink_url");
    track.URI = textOf(record, "uri");
    track.tags.clear();
    std::string tagList = textOf(record, "tag_list");
    for (size_t start = 0; start < tagList.size();) {
        size_t end = tagList.find(' ', start);
        if (end == std::string::npos)
            end = tagList.size();
        if (end > start)
            track.tags.emplace_back(tagList, start, end - start);
        start = end + 1;
    }
    struct tm parts {};
    std::string created = textOf(record, "created_at");
    if (strptime(created.c_str(), "%Y/%m/%d %H:%M:%S", &parts))
        track.createdAt = static_cast<double>(timegm(&parts));
    if (auto* duration = dynamicDowncast<Number>(record.objectForKey("duration")))
        track.duration = duration->doubleValue() / 1000.0;
    std::string state = textOf(record, "state");
    track.state = state == "storing" ? 1 : state == "stored" ? 2 : state == "finished" ? 3 : state == "failed" ? 4 : 0;
    track.playbackCount = countOf(record, "playback_count");
    track.downloadCount = countOf(record, "download_count");
    track.favoritingsCount = countOf(record, "favoritings_count");
    track.commentCount = countOf(record, "comment_count");
    track.commentable = flagOf(record, "commentable");
    track.streamable = flagOf(record, "streamable");
    track.downloadable = flagOf(record, "downloadable");
}

Ref<Dictionary> trackRecord()
{
    VXRegisterFramework();
    auto record = sandbox::SandboxService::catalogueTrackRecord(5);
    if (!record) {
        fprintf(stderr, "cannot read the sample catalogue\n");
        exit(1);
    }
    return record.releaseNonNull();
}

void ModelFill(benchmark::State& state)
{
    auto record = trackRecord();
    BenchTrack::create(record); // builds the descriptor set once
    uint64_t before = bench::allocationCount();
    for (auto _ : state) {
        auto track = BenchTrack::create(record);
        benchmark::DoNotOptimize(track.ptr());
    }
    state.counters["keys"] = static_cast<double>(record->count());
    state.counters["objects/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["allocs/object"] = static_cast<double>(bench::allocationCount() - before) / static_cast<double>(state.iterations());
}
BENCHMARK(ModelFill);

void ModelRefreshUnchanged(benchmark::State& state)
{
    auto record = trackRecord();
    auto track = BenchTrack::create(record);
    uint64_t before = bench::allocationCount();
    for (auto _ : state)
        benchmark::DoNotOptimize(track->updateWithDictionary(record));
    state.counters["objects/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["allocs/object"] = static_cast<double>(bench::allocationCount() - before) / static_cast<double>(state.iterations());
}
BENCHMARK(ModelRefreshUnchanged);

void PlainStructFill(benchmark::State& state)
{
    auto record = trackRecord();
    uint64_t before = bench::allocationCount();
    for (auto _ : state) {
        auto track = std::make_unique<PlainTrack>();
        fillPlainTrack(*track, record);
        benchmark::DoNotOptimize(track.get());
    }
    state.counters["objects/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["allocs/object"] = static_cast<double>(bench::allocationCount() - before) / static_cast<double>(state.iterations());
}
BENCHMARK(PlainStructFill);

} // namespace

BENCHMARK_MAIN();
