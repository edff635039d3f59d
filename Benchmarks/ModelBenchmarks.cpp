// Filling and refreshing a described model object from a track record of
// about 45 keys, as the service sends them: objects per second and heap
// allocations per object.

#include "AllocationCounter.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <VelvoxKit/VXAPITimestampValueTransformer.h>
#include <VelvoxKit/VXNumberToStringValueTransformer.h>
#include <VelvoxKit/VXResource.h>
#include <VelvoxKit/VXTagListValueTransformer.h>
#include <VelvoxKit/VXTimeIntervalValueTransformer.h>
#include <VelvoxKit/VXTrackStateValueTransformer.h>
#include <VelvoxKit/VXURLStringValueTransformer.h>

#include <SandboxService.h>
#include <benchmark/benchmark.h>

using namespace velvox;

namespace {

// The track table's 43 properties over the resource's identifier.
#define BENCH_STRING_PROPERTIES(X)                                                                                                      \
    X(sharing, "sharing") X(permalink, "permalink") X(trackDescription, "description") X(genre, "genre") X(trackRelease, "release")     \
    X(labelID, "label_id") X(labelName, "label_name") X(ISRC, "isrc") X(trackType, "track_type") X(keySignature, "key_signature")        \
    X(bpm, "bpm") X(title, "title") X(releaseYear, "release_year") X(releaseMonth, "release_month") X(releaseDay, "release_day")         \
    X(originalFormat, "original_format") X(license, "license") X(secretToken, "secret_token")
#define BENCH_URL_PROPERTIES(X)                                                                                                         \
    X(purchaseURL, "purchase_url") X(videoURL, "video_url") X(URI, "uri") X(permalinkURL, "permalink_url") X(artworkURL, "artwork_url") \
    X(waveformURL, "waveform_url") X(streamURL, "stream_url") X(downloadURL, "download_url") X(secretURI, "secret_uri")                  \
    X(attachmentsURI, "attachments_uri")
#define BENCH_COUNT_PROPERTIES(X)                                                                                                       \
    X(sharedToCount, "shared_to_count") X(userPlaybackCount, "user_playback_count") X(playbackCount, "playback_count")                  \
    X(downloadCount, "download_count") X(favoritingsCount, "favoritings_count") X(commentCount, "comment_count")
#define BENCH_BOOL_PROPERTIES(X) X(commentable, "commentable") X(streamable, "streamable") X(downloadable, "downloadable") X(userFavorite, "user_favorite")

class BenchTrack final : public VXResource {
    VX_OBJECT(BenchTrack)
    ZU_DESCRIBED_CLASS()
public:
    static Ref<BenchTrack> create(Dictionary* dictionary) { return ZUObject::create<BenchTrack>(dictionary); }

private:
    friend class ZUObject;
    BenchTrack() = default;
#define MEMBER(name, key) RefPtr<String> m_##name;
    BENCH_STRING_PROPERTIES(MEMBER)
#undef MEMBER
#define MEMBER(name, key) RefPtr<URL> m_##name;
    BENCH_URL_PROPERTIES(MEMBER)
#undef MEMBER
#define MEMBER(name, key) uint64_t m_##name { 0 };
    BENCH_COUNT_PROPERTIES(MEMBER)
#undef MEMBER
#define MEMBER(name, key) bool m_##name { false };
    BENCH_BOOL_PROPERTIES(MEMBER)
#undef MEMBER
    RefPtr<Date> m_createdAt;
    RefPtr<String> m_userIdentifier;
    double m_duration { 0 };
    int32_t m_state { 0 };
    RefPtr<Array> m_tagList;
};
VX_DEFINE_CLASS(BenchTrack, VXResource)

Set& BenchTrack::propertyDescriptors()
{
    static Set* set = [] {
        auto descriptors = VXResource::propertyDescriptors().mutableCopy();
        auto add = [&](Ref<ZUPropertyDescriptor>&& descriptor) { descriptors->addObject(descriptor); };
        add(ZUPropertyDescriptor::descriptorForKeyPath("createdAt", "created_at", VXAPITimestampValueTransformerName)->bind(&BenchTrack::m_createdAt));
        add(ZUPropertyDescriptor::descriptorForKeyPath("userIdentifier", "user_id", VXNumberToStringValueTransformerName)->bind(&BenchTrack::m_userIdentifier));
        add(ZUPropertyDescriptor::descriptorForKeyPath("duration", "duration", VXTimeIntervalFromMillisecondsValueTransformerName)->bind(&BenchTrack::m_duration));
        add(ZUPropertyDescriptor::descriptorForKeyPath("state", "state", VXTrackStateValueTransformerName)->bind(&BenchTrack::m_state));
        add(ZUPropertyDescriptor::descriptorForKeyPath("tagList", "tag_list", VXTagListValueTransformerName)->bind(&BenchTrack::m_tagList));
#define DESCRIBE(name, key) add(ZUPropertyDescriptor::descriptorForKeyPath(#name, key)->bind(&BenchTrack::m_##name));
        BENCH_STRING_PROPERTIES(DESCRIBE)
        BENCH_COUNT_PROPERTIES(DESCRIBE)
        BENCH_BOOL_PROPERTIES(DESCRIBE)
#undef DESCRIBE
#define DESCRIBE(name, key) add(ZUPropertyDescriptor::descriptorForKeyPath(#name, key, VXURLStringValueTransformerName)->bind(&BenchTrack::m_##name));
        BENCH_URL_PROPERTIES(DESCRIBE)
#undef DESCRIBE
        return descriptors.leakRef();
    }();
    return *set;
}

Ref<Dictionary> trackRecord()
{
    VXURLStringValueTransformer::registerValueTransformer();
    VXTagListValueTransformer::registerValueTransformer();
    VXAPITimestampValueTransformer::registerValueTransformer();
    VXTrackStateValueTransformer::registerValueTransformer();
    VXTimeIntervalValueTransformer::registerValueTransformer();
    VXNumberToStringValueTransformer::registerValueTransformer();
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

} // namespace

BENCHMARK_MAIN();
