// Filling and refreshing a track (a model class declared from one table of 43
// properties over the resource's identifier) from a record of about 45 keys,
// as the service sends them: objects per second and heap allocations per object.

#include "AllocationCounter.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <VelvoxKit/VXFramework.h>
#include <VelvoxKit/VXTrack.h>

#include <Sandbox/SandboxService.h>
#include <benchmark/benchmark.h>

#include "PlainConversions.h"

#include <ctime>
#include <memory>
#include <string>
#include <vector>

using namespace velvox;

namespace {

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
    bench::splitTags(textOf(record, "tag_list"), track.tags);
    track.createdAt = bench::parseTimestamp(textOf(record, "created_at"));
    if (auto* duration = dynamicDowncast<Number>(record.objectForKey("duration")))
        track.duration = duration->doubleValue() / 1000.0;
    track.state = bench::stateNumber(textOf(record, "state"));
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
    VXTrack::create(record); // builds the descriptor set once
    uint64_t before = bench::allocationCount();
    for (auto _ : state) {
        auto track = VXTrack::create(record);
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
    auto track = VXTrack::create(record);
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
