// The identity map on its own: one object per class and identifier, refreshed
// in place; an archive's map taken only where each entry belongs; and under a
// bound, the most recently used objects of each class kept, in their order.

#include <VelvoxKit/VXFramework.h>
#include <VelvoxKit/VXIdentityMap.h>
#include <VelvoxKit/VXTrack.h>
#include <VelvoxKit/VXUser.h>

#include <Platform/Platform.h>

#include <Catalogue.h>

#include <gtest/gtest.h>

using namespace velvox;
using velvox::test::json;

namespace {

class IdentityMap : public testing::Test {
protected:
    void SetUp() override { VXRegisterValueTransformers(); }

    template<typename T>
    Ref<T> file(std::string_view record)
    {
        return downcast<T>(map.updateCacheForResource(
            T::s_info, [](Dictionary* d) -> Ref<VXResource> { return T::create(d); }, nullptr,
            json(record).ptr()));
    }
    std::vector<std::string> archivedIdentifiers(std::string_view className)
    {
        std::vector<std::string> identifiers;
        auto archived = map.archivedDictionary();
        if (auto* classCache = archived->objectForKey<Dictionary>(className)) {
            for (auto& entry : *classCache)
                identifiers.push_back(entry.key->description()->str());
        }
        return identifiers;
    }

    VXIdentityMap map;
};

} // namespace

TEST_F(IdentityMap, OneObjectPerClassAndIdentifierRefreshedInPlace)
{
    auto track = file<VXTrack>(R"({"id": 7, "title": "A"})");
    EXPECT_EQ(file<VXTrack>(R"({"id": "7", "title": "B"})").ptr(), track.ptr());
    EXPECT_EQ(track->title()->str(), "B");
    auto user = file<VXUser>(R"({"id": 7, "username": "u"})");
    EXPECT_NE(static_cast<Object*>(user.ptr()), static_cast<Object*>(track.ptr()));
    EXPECT_EQ(map.cachedResource("VXUser", "7").get(), user.ptr());
    auto loose = file<VXTrack>(R"({"title": "no id"})");
    EXPECT_EQ(map.statistics().objectCount, 2u);
    // Class names from elsewhere (an archive's, say) are looked up without
    // being kept past their life.
    for (int i = 0; i < 200; ++i) {
        std::string name = "VXCrafted" + std::to_string(i) + std::string(40, 'x');
        EXPECT_FALSE(map.cachedResource(name, "7"));
    }
    EXPECT_EQ(map.cachedResource("VXTrack", "7").get(), track.ptr());
    map.clear();
    EXPECT_FALSE(map.cachedResource("VXTrack", "7"));
}

TEST_F(IdentityMap, AnArchivedRootIsTakenOnlyWhereEachEntryBelongs)
{
    auto track = file<VXTrack>(R"({"id": 1, "title": "T"})");
    auto user = file<VXUser>(R"({"id": 2, "username": "u"})");
    auto misfiled = MutableDictionary::create();
    misfiled->setObject(Dictionary::create({ { "1", track.ptr() }, { "9", user.ptr() } }), "VXTrack"); // a user among tracks
    misfiled->setObject(Dictionary::create({ { "3", user.ptr() } }), "VXUser");                        // under another identifier
    VXIdentityMap loaded;
    ASSERT_TRUE(loaded.adoptArchivedRoot(misfiled.ptr()));
    EXPECT_EQ(loaded.cachedResource("VXTrack", "1").get(), track.ptr());
    EXPECT_FALSE(loaded.cachedResource("VXTrack", "9"));
    EXPECT_FALSE(loaded.cachedResource("VXUser", "3"));

    // Roots of another shape leave the map as it was.
    EXPECT_FALSE(loaded.adoptArchivedRoot(Array::create({ track.ptr() }).ptr()));
    EXPECT_FALSE(loaded.adoptArchivedRoot(json(R"({"VXTrack": [1]})").ptr()));
    EXPECT_FALSE(loaded.adoptArchivedRoot(nullptr));
    EXPECT_EQ(loaded.cachedResource("VXTrack", "1").get(), track.ptr());
    // A map of maps whose entries are not resources is a map with nothing in it.
    EXPECT_TRUE(loaded.adoptArchivedRoot(json(R"({"VXTrack": {"1": 5}})").ptr()));
    EXPECT_EQ(loaded.statistics().objectCount, 0u);
}

TEST_F(IdentityMap, ABoundKeepsTheMostRecentlyUsedOfEachClass)
{
    map.setArchivedObjectsPerClass(2);
    for (int id = 1; id <= 4; ++id)
        file<VXTrack>(format(R"({"id": %d, "title": "T"})", id));
    file<VXTrack>(R"({"id": 1, "title": "again"})"); // updated: most recent now
    file<VXTrack>(R"({"id": 3, "title": "T"})");     // unchanged, but used
    EXPECT_EQ(archivedIdentifiers("VXTrack"), (std::vector<std::string> { "1", "3" }));
    // The map itself keeps everything for the rest of the run.
    EXPECT_EQ(map.statistics().objectCount, 4u);
}

namespace {

constexpr auto farDeadline = std::chrono::hours(1);

VXIdentityMap::Collection collectNow(VXIdentityMap& map)
{
    return map.collect(std::chrono::steady_clock::now() + farDeadline);
}

} // namespace

TEST_F(IdentityMap, ABudgetLetsGoOnlyOfWhatNobodyElseHolds)
{
    map.setMemoryBudget(0);
    // Who holds each track besides the map: a reference, an observer (no
    // reference), a list (as a collection's items), nobody.
    auto held = file<VXTrack>(R"({"id": 1, "title": "held"})");
    const VXTrack* observed = file<VXTrack>(R"({"id": 2, "title": "observed"})").ptr();
    int heard = 0;
    auto observation = const_cast<VXTrack*>(observed)->addObserver("title", [&](ZUObject&, const String&) { ++heard; });
    RefPtr<Array> list = Array::create({ file<VXTrack>(R"({"id": 3, "title": "listed"})").ptr() });
    const VXTrack* listed = downcast<VXTrack>(list->objectAtIndex(0));
    file<VXTrack>(R"({"id": 4, "title": "nobody's"})");
    auto generation = map.generation();

    EXPECT_EQ(collectNow(map), VXIdentityMap::Collection::NothingToLetGo);
    EXPECT_EQ(map.cachedResource("VXTrack", "1").get(), held.ptr());
    EXPECT_EQ(map.cachedResource("VXTrack", "2").get(), observed);
    EXPECT_EQ(map.cachedResource("VXTrack", "3").get(), listed);
    EXPECT_FALSE(map.cachedResource("VXTrack", "4"));
    EXPECT_EQ(map.letGoCount(), 1u);
    EXPECT_NE(map.generation(), generation);
    EXPECT_EQ(map.receiptsDictionary()->count(), 0u);

    // The observed object stays the one its observer hears.
    file<VXTrack>(R"({"id": 2, "title": "refreshed"})");
    EXPECT_EQ(heard, 1);
    // Once nobody holds them, they go too (and the estimate with them).
    observation.cancel();
    list = nullptr;
    held = file<VXTrack>(R"({"id": 5, "title": "new"})");
    EXPECT_EQ(collectNow(map), VXIdentityMap::Collection::NothingToLetGo);
    EXPECT_EQ(map.statistics().objectCount, 1u);
    EXPECT_EQ(map.letGoCount(), 4u);
    EXPECT_EQ(map.trackedBytes(), map.statistics().estimatedBytes);
    held = file<VXTrack>(R"({"id": 6, "title": "new"})");
    EXPECT_EQ(collectNow(map), VXIdentityMap::Collection::NothingToLetGo);
    EXPECT_EQ(map.statistics().objectCount, 1u);
}

TEST_F(IdentityMap, TheBudgetsEstimateIsTheStatisticsEstimate)
{
    auto statisticsWithoutBudget = [&] {
        map.setMemoryBudget(std::nullopt);
        auto bytes = map.statistics().estimatedBytes;
        map.setMemoryBudget(size_t(1) << 63);
        return bytes;
    };
    map.setMemoryBudget(size_t(1) << 63);
    file<VXTrack>(R"({"id": 1, "title": "A", "duration": 1000, "tag_list": "a b"})");
    file<VXUser>(R"({"id": 1, "username": "u"})");
    // Filing, a longer refresh, an unchanged one, another object under the same identifier.
    struct Step {
        const char* what;
        std::function<void()> run;
        bool changesEstimate;
    };
    std::vector<Step> steps {
        { "filed", [] {}, true },
        { "refreshed longer", [&] { file<VXTrack>(R"({"id": 1, "title": "A much longer title", "description": "and a description", "tag_list": "a b c d"})"); }, true },
        { "refreshed unchanged", [&] { file<VXTrack>(R"({"id": 1, "title": "A much longer title"})"); }, false },
        { "replaced", [&] {
             auto replacement = VXUser::create(json(R"({"id": 1, "username": "someone else entirely"})").ptr());
             map.cacheResource(replacement);
         },
            true },
    };
    size_t previous = 0;
    for (auto& step : steps) {
        step.run();
        SCOPED_TRACE(step.what);
        EXPECT_EQ(map.trackedBytes(), map.statistics().estimatedBytes);
        EXPECT_EQ(map.trackedBytes(), statisticsWithoutBudget());
        EXPECT_EQ(map.trackedBytes() != previous, step.changesEstimate);
        previous = map.trackedBytes();
    }
    // A budget of 2^63 never collects; another dictionary is tracked as a whole.
    EXPECT_EQ(collectNow(map), VXIdentityMap::Collection::UnderBudget);
    EXPECT_EQ(map.letGoCount(), 0u);
    VXIdentityMap other;
    other.updateCacheForResource(VXTrack::s_info, [](Dictionary* d) -> Ref<VXResource> { return VXTrack::create(d); }, nullptr, json(R"({"id": 9})").ptr());
    map.setDictionary(other.dictionary());
    EXPECT_EQ(map.trackedBytes(), map.statistics().estimatedBytes);
    EXPECT_GT(map.trackedBytes(), 0u);
    map.clear();
    EXPECT_EQ(map.trackedBytes(), 0u);
}

TEST_F(IdentityMap, ABudgetLetsGoOfTheLeastRecentlyUsedFirst)
{
    map.setMemoryBudget(size_t(1) << 63);
    for (int id = 1; id <= 3; ++id)
        file<VXTrack>(format(R"({"id": %d, "title": "T"})", id));
    file<VXTrack>(R"({"id": 1, "title": "T"})"); // unchanged, but used: 2, 3, 1
    map.setMemoryBudget(map.trackedBytes() - 1);
    EXPECT_EQ(collectNow(map), VXIdentityMap::Collection::UnderBudget);
    EXPECT_FALSE(map.cachedResource("VXTrack", "2"));
    EXPECT_TRUE(map.cachedResource("VXTrack", "3"));
    EXPECT_TRUE(map.cachedResource("VXTrack", "1"));
}

TEST_F(IdentityMap, ACollectionStopsAtItsDeadlineAndGoesOnWhenCalledAgain)
{
    constexpr int count = 20000;
    for (int id = 1; id <= count; ++id)
        file<VXTrack>(format(R"({"id": %d, "title": "T"})", id));
    map.setMemoryBudget(0);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(map.collect(start + std::chrono::microseconds(200)), VXIdentityMap::Collection::Unfinished);
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GT(map.letGoCount(), 0u);
    EXPECT_LT(map.letGoCount(), uint64_t(count));
    // Loose: the machine is shared; the point is that it stopped early.
    EXPECT_LT(elapsed, std::chrono::milliseconds(50));
    int calls = 1;
    while (map.collect(std::chrono::steady_clock::now() + std::chrono::milliseconds(1)) == VXIdentityMap::Collection::Unfinished && calls < 10000)
        ++calls;
    EXPECT_EQ(map.statistics().objectCount, 0u);
    EXPECT_EQ(map.letGoCount(), uint64_t(count));
    EXPECT_EQ(map.trackedBytes(), 0u);
}
