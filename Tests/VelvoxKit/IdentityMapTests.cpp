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
