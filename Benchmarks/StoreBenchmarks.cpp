// The resource store's two hot roads, beside their floors:
// - a page of 50 track records (shared/data/json/api_page.json) from JSON bytes
//   to 50 shared VXTrack objects with their users, at first sight and refreshed
//   unchanged, beside RapidJSON's DOM plus a hand-written struct per record;
// - the identity map's archive (10,000 tracks, 2,000 users, 5,000 comments):
//   saved and loaded, beside decoding and mapping the same records from JSON;
// - the memory budget: a page into the store with and without one, and one
//   slice of letting go.

#include <JSONCodec/JSONCodec.h>
#include <JSONCodec/JSONDecoder.h>
#include <Platform/Platform.h>
#include <VelvoxKit/VXFramework.h>
#include <VelvoxKit/VXIdentityMap.h>
#include <VelvoxKit/VXResourceController.h>

#include <benchmark/benchmark.h>

#include "PlainConversions.h"
#include <rapidjson/document.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace velvox;

namespace {

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fprintf(stderr, "cannot read %s\n", path.c_str());
        exit(1);
    }
    return std::string(std::istreambuf_iterator<char>(in), {});
}

const std::string& pageBytes()
{
    static std::string bytes = readFile(VELVOX_SHARED_DATA "/json/api_page.json");
    return bytes;
}

// A store of its own in a scratch data folder, so that nothing is read from
// or written to the user's.
VXResourceController& benchmarkStore()
{
    static RefPtr<VXResourceController> store = [] {
        auto folder = std::filesystem::temp_directory_path() / "velvox-bench-store";
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder / "Velvox");
        setenv("XDG_DATA_HOME", folder.c_str(), 1);
        auto made = VXResourceController::create();
        VXResourceController::setSharedResourceController(made);
        return made;
    }();
    return *store;
}

void mapPage(VXResourceController& store, JSONDecoder* decoder, const std::string& bytes)
{
    auto page = decoder->objectWithUTF8String(bytes.data(), bytes.size());
    auto* records = dynamicDowncast<Array>(page.get());
    for (auto* record : *records)
        benchmark::DoNotOptimize(store.trackWithTrackDictionary(downcast<Dictionary>(record)).get());
}

void PageFirstSight(benchmark::State& state)
{
    auto& store = benchmarkStore();
    auto decoder = JSONDecoder::create();
    for (auto _ : state) {
        store.clearResourceCache();
        mapPage(store, decoder.ptr(), pageBytes());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pageBytes().size()));
    state.counters["records/s"] = benchmark::Counter(static_cast<double>(state.iterations() * 50), benchmark::Counter::kIsRate);
}
BENCHMARK(PageFirstSight);

void PageRefreshUnchanged(benchmark::State& state)
{
    auto& store = benchmarkStore();
    auto decoder = JSONDecoder::create();
    store.clearResourceCache();
    mapPage(store, decoder.ptr(), pageBytes());
    for (auto _ : state)
        mapPage(store, decoder.ptr(), pageBytes());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pageBytes().size()));
    state.counters["records/s"] = benchmark::Counter(static_cast<double>(state.iterations() * 50), benchmark::Counter::kIsRate);
}
BENCHMARK(PageRefreshUnchanged);

// One decoded record, unchanged, through the store again (no decoding).
void RecordRefreshUnchanged(benchmark::State& state)
{
    auto& store = benchmarkStore();
    store.clearResourceCache();
    auto page = objectFromJSONData(*Data::create(pageBytes()));
    auto* records = downcast<Array>(page.get());
    for (auto* record : *records)
        store.trackWithTrackDictionary(downcast<Dictionary>(record));
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(store.trackWithTrackDictionary(downcast<Dictionary>(records->objectAtIndex(i++ % 50))).get());
    state.counters["refreshes/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(RecordRefreshUnchanged);

// The floor: RapidJSON's DOM, and a hand-written struct per track and user with
// the conversions the models make (texts, counts, flags, the date, the tag
// list, the state, the duration in seconds), kept in maps by identifier.
struct PlainUser {
    std::string identifier, username, permalink, avatarURL, permalinkURL, URI;
};
struct PlainTrack {
    std::string identifier, userIdentifier, title, permalink, trackDescription, genre, sharing, license, bpm;
    std::string artworkURL, waveformURL, streamURL, permalinkURL, URI, purchaseURL, videoURL, keySignature, ISRC, labelName;
    std::vector<std::string> tags;
    double createdAt = 0, duration = 0;
    int32_t state = 0;
    uint64_t playbackCount = 0, downloadCount = 0, favoritingsCount = 0, commentCount = 0;
    bool commentable = false, streamable = false, downloadable = false;
};

std::string text(const rapidjson::Value& record, const char* key)
{
    auto it = record.FindMember(key);
    if (it == record.MemberEnd())
        return {};
    if (it->value.IsString())
        return std::string(it->value.GetString(), it->value.GetStringLength());
    if (it->value.IsInt64())
        return std::to_string(it->value.GetInt64());
    return {};
}

uint64_t count(const rapidjson::Value& record, const char* key)
{
    auto it = record.FindMember(key);
    return it != record.MemberEnd() && it->value.IsUint64() ? it->value.GetUint64() : 0;
}

bool flag(const rapidjson::Value& record, const char* key)
{
    auto it = record.FindMember(key);
    return it != record.MemberEnd() && it->value.IsBool() && it->value.GetBool();
}

void fill(PlainTrack& track, const rapidjson::Value& record)
{
    track.identifier = text(record, "id");
    track.userIdentifier = text(record, "user_id");
    for (auto [field, key] : { std::pair { &PlainTrack::title, "title" }, { &PlainTrack::permalink, "permalink" },
             { &PlainTrack::trackDescription, "description" }, { &PlainTrack::genre, "genre" }, { &PlainTrack::sharing, "sharing" },
             { &PlainTrack::license, "license" }, { &PlainTrack::bpm, "bpm" }, { &PlainTrack::artworkURL, "artwork_url" },
             { &PlainTrack::waveformURL, "waveform_url" }, { &PlainTrack::streamURL, "stream_url" }, { &PlainTrack::permalinkURL, "permalink_url" },
             { &PlainTrack::URI, "uri" }, { &PlainTrack::purchaseURL, "purchase_url" }, { &PlainTrack::videoURL, "video_url" },
             { &PlainTrack::keySignature, "key_signature" }, { &PlainTrack::ISRC, "isrc" }, { &PlainTrack::labelName, "label_name" } })
        track.*field = text(record, key);
    bench::splitTags(text(record, "tag_list"), track.tags);
    track.createdAt = bench::parseTimestamp(text(record, "created_at"));
    auto duration = record.FindMember("duration");
    if (duration != record.MemberEnd() && duration->value.IsNumber())
        track.duration = duration->value.GetDouble() / 1000.0;
    track.state = bench::stateNumber(text(record, "state"));
    track.playbackCount = count(record, "playback_count");
    track.downloadCount = count(record, "download_count");
    track.favoritingsCount = count(record, "favoritings_count");
    track.commentCount = count(record, "comment_count");
    track.commentable = flag(record, "commentable");
    track.streamable = flag(record, "streamable");
    track.downloadable = flag(record, "downloadable");
}

void fill(PlainUser& user, const rapidjson::Value& record)
{
    user.identifier = text(record, "id");
    user.username = text(record, "username");
    user.permalink = text(record, "permalink");
    user.avatarURL = text(record, "avatar_url");
    user.permalinkURL = text(record, "permalink_url");
    user.URI = text(record, "uri");
}

void RapidJSONPageIntoStructs(benchmark::State& state)
{
    std::unordered_map<std::string, std::unique_ptr<PlainTrack>> tracks;
    std::unordered_map<std::string, std::unique_ptr<PlainUser>> users;
    for (auto _ : state) {
        tracks.clear();
        users.clear();
        rapidjson::Document document;
        document.Parse(pageBytes().data(), pageBytes().size());
        for (auto& record : document.GetArray()) {
            auto track = std::make_unique<PlainTrack>();
            fill(*track, record);
            auto embedded = record.FindMember("user");
            if (embedded != record.MemberEnd() && embedded->value.IsObject()) {
                auto user = std::make_unique<PlainUser>();
                fill(*user, embedded->value);
                users[user->identifier] = std::move(user);
            }
            tracks[track->identifier] = std::move(track);
        }
        benchmark::DoNotOptimize(tracks.size());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pageBytes().size()));
    state.counters["records/s"] = benchmark::Counter(static_cast<double>(state.iterations() * 50), benchmark::Counter::kIsRate);
}
BENCHMARK(RapidJSONPageIntoStructs);

// The identity map of a long-used client: 10,000 tracks, 2,000 users and
// 5,000 comments, made from the page's records with new identifiers.
struct LargeMap {
    std::string json; // the same records as one JSON document
    std::string archivePath;
};

LargeMap& largeMap()
{
    static LargeMap* map = [] {
        auto& store = benchmarkStore();
        store.clearResourceCache();
        auto page = objectFromJSONData(*Data::create(pageBytes()));
        auto* records = downcast<Array>(page.get());
        auto tracks = MutableArray::create(), users = MutableArray::create(), comments = MutableArray::create();
        for (int i = 0; i < 10000; ++i) {
            auto record = downcast<Dictionary>(records->objectAtIndex(i % 50))->mutableCopy();
            record->setObject(Number::create(int64_t(1000000 + i)), "id");
            record->setObject(Number::create(int64_t(500000 + i % 2000)), "user_id");
            if (auto* user = record->objectForKey<Dictionary>("user")) {
                auto copy = user->mutableCopy();
                copy->setObject(Number::create(int64_t(500000 + i % 2000)), "id");
                if (i < 2000)
                    users->addObject(copy);
                record->removeObjectForKey("user");
            }
            tracks->addObject(record);
        }
        for (int i = 0; i < 5000; ++i) {
            auto comment = MutableDictionary::create();
            comment->setObject(Number::create(int64_t(7000000 + i)), "id");
            comment->setObject(String::format("Comment number %d on this track, with a few words.", i), "body");
            comment->setObject(Number::create(int64_t(1000000 + i % 10000)), "track_id");
            comment->setObject(Number::create(int64_t(500000 + i % 2000)), "user_id");
            comment->setObject(Number::create(int64_t(1000 * (i % 300))), "timestamp");
            comment->setObject(String::create("2026/11/01 12:00:00 +0000"), "created_at");
            comment->setObject(String::format("https://api.velvox.test/comments/%d", 7000000 + i), "uri");
            comments->addObject(comment);
        }
        auto all = Dictionary::create({ { "tracks", tracks.ptr() }, { "users", users.ptr() }, { "comments", comments.ptr() } });
        auto map = new LargeMap;
        map->json = JSONString(*all)->str();
        for (auto* record : *tracks)
            store.trackWithTrackDictionary(downcast<Dictionary>(record));
        for (auto* record : *users)
            store.userWithUserDictionary(downcast<Dictionary>(record));
        for (auto* record : *comments)
            store.commentWithCommentDictionary(downcast<Dictionary>(record));
        map->archivePath = store.resourceCacheFilePath();
        return map;
    }();
    return *map;
}

void MapFromJSON(VXResourceController& store, const std::string& json)
{
    auto document = objectFromJSONData(*Data::create(json));
    auto* all = downcast<Dictionary>(document.get());
    for (auto* record : *all->objectForKey<Array>("tracks"))
        store.trackWithTrackDictionary(downcast<Dictionary>(record));
    for (auto* record : *all->objectForKey<Array>("users"))
        store.userWithUserDictionary(downcast<Dictionary>(record));
    for (auto* record : *all->objectForKey<Array>("comments"))
        store.commentWithCommentDictionary(downcast<Dictionary>(record));
}

void ArchiveSave(benchmark::State& state)
{
    auto& map = largeMap();
    auto& store = benchmarkStore();
    for (auto _ : state)
        store.applicationWillTerminate(nullptr);
    state.counters["file bytes"] = static_cast<double>(std::filesystem::file_size(map.archivePath));
    state.counters["JSON bytes"] = static_cast<double>(map.json.size());
    state.counters["objects"] = static_cast<double>(store.resourceCacheStatistics().objectCount);
}
BENCHMARK(ArchiveSave)->Unit(benchmark::kMillisecond);

void ArchiveLoad(benchmark::State& state)
{
    auto& map = largeMap();
    benchmarkStore().applicationWillTerminate(nullptr);
    for (auto _ : state) {
        auto root = KeyedUnarchiver::unarchiveObjectWithFile(map.archivePath);
        auto cache = downcast<Dictionary>(root.get())->mutableCopy();
        benchmark::DoNotOptimize(cache->count());
    }
}
BENCHMARK(ArchiveLoad)->Unit(benchmark::kMillisecond);

void DecodeAndMapJSON(benchmark::State& state)
{
    auto& map = largeMap();
    auto& store = benchmarkStore();
    for (auto _ : state) {
        store.clearResourceCache();
        MapFromJSON(store, map.json);
    }
    store.clearResourceCache();
    MapFromJSON(store, map.json);
}
BENCHMARK(DecodeAndMapJSON)->Unit(benchmark::kMillisecond);

// MARK: The memory budget

// The store with a budget that is never reached (argument 1), so that the
// figure is the budget's bookkeeping alone, or without one (0), side by side.
void setBudget(VXResourceController& store, bool budgeted)
{
    auto options = store.options();
    options.memoryBudget = budgeted ? std::optional<size_t>(size_t(1) << 62) : std::nullopt;
    store.setOptions(options);
}

void PageFirstSightBudget(benchmark::State& state)
{
    auto& store = benchmarkStore();
    setBudget(store, state.range(0));
    auto decoder = JSONDecoder::create();
    for (auto _ : state) {
        store.clearResourceCache();
        mapPage(store, decoder.ptr(), pageBytes());
    }
    setBudget(store, false);
    state.counters["records/s"] = benchmark::Counter(static_cast<double>(state.iterations() * 50), benchmark::Counter::kIsRate);
}
BENCHMARK(PageFirstSightBudget)->ArgName("budget")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void PageRefreshUnchangedBudget(benchmark::State& state)
{
    auto& store = benchmarkStore();
    setBudget(store, state.range(0));
    auto decoder = JSONDecoder::create();
    store.clearResourceCache();
    mapPage(store, decoder.ptr(), pageBytes());
    for (auto _ : state)
        mapPage(store, decoder.ptr(), pageBytes());
    setBudget(store, false);
    state.counters["records/s"] = benchmark::Counter(static_cast<double>(state.iterations() * 50), benchmark::Counter::kIsRate);
}
BENCHMARK(PageRefreshUnchangedBudget)->ArgName("budget")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// The page's records with identifiers of their own: `count` tracks, each
// with one of `count / 5` users.
Ref<Array> distinctRecords(int64_t first, int count)
{
    auto page = objectFromJSONData(*Data::create(pageBytes()));
    auto* records = downcast<Array>(page.get());
    auto made = MutableArray::create();
    for (int i = 0; i < count; ++i) {
        auto record = downcast<Dictionary>(records->objectAtIndex(i % 50))->mutableCopy();
        record->setObject(Number::create(first + i), "id");
        if (auto* user = record->objectForKey<Dictionary>("user")) {
            auto copy = user->mutableCopy();
            copy->setObject(Number::create(first + i % std::max(1, count / 5)), "id");
            record->setObject(copy, "user");
        }
        made->addObject(record);
    }
    return made;
}

void fileRecords(VXIdentityMap& map, const Array& records)
{
    auto makeTrack = [](Dictionary* d) -> Ref<VXResource> { return VXTrack::create(d); };
    auto makeUser = [](Dictionary* d) -> Ref<VXResource> { return VXUser::create(d); };
    for (auto* record : records) {
        auto& dictionary = downcast<Dictionary>(*record);
        map.updateCacheForResource(VXTrack::s_info, makeTrack, nullptr, &dictionary);
        map.updateCacheForResource(VXUser::s_info, makeUser, nullptr, dictionary.objectForKey<Dictionary>("user"));
    }
}

// Times one slice per iteration, after `prepare` (not timed) sets up its work.
void measureSlices(benchmark::State& state, VXIdentityMap& map, const std::function<void()>& prepare)
{
    uint64_t letGo = 0;
    for (auto _ : state) {
        state.PauseTiming();
        prepare();
        auto before = map.letGoCount();
        state.ResumeTiming();
        map.collect(std::chrono::steady_clock::now() + VXIdentityMap::sliceLength);
        letGo += map.letGoCount() - before;
    }
    state.counters["let go per slice"] = static_cast<double>(letGo) / static_cast<double>(state.iterations());
}

// The slice that follows a page in a store at its budget: a map of 20,000
// tracks (and 4,000 users) at its budget takes a new page of 50 tracks, and
// the slice lets go of as much as the page added, least recently used first.
void BudgetSliceAfterPage(benchmark::State& state)
{
    VXRegisterValueTransformers();
    VXIdentityMap map;
    map.setMemoryBudget(size_t(1) << 62);
    auto filled = distinctRecords(1000000, 20000);
    fileRecords(map, filled);
    map.setMemoryBudget(map.trackedBytes());
    int64_t next = 2000000;
    measureSlices(state, map, [&] {
        auto page = distinctRecords(next, 50);
        next += 50;
        fileRecords(map, page);
    });
}
BENCHMARK(BudgetSliceAfterPage)->Unit(benchmark::kMicrosecond);

// A slice with more to do than a millisecond allows (a budget lowered to 0
// over 20,000 unheld tracks): it stops at its deadline, as the store's slices
// on the run loop do.
void BudgetSliceAtItsDeadline(benchmark::State& state)
{
    VXRegisterValueTransformers();
    VXIdentityMap map;
    auto records = distinctRecords(1000000, 20000);
    measureSlices(state, map, [&] {
        if (map.statistics().objectCount < 10000) {
            map.setMemoryBudget(std::nullopt);
            fileRecords(map, records);
        }
        map.setMemoryBudget(0);
    });
}
BENCHMARK(BudgetSliceAtItsDeadline)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
