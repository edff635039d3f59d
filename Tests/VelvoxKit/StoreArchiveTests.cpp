// The store's archives as a hostile disk presents them: crafted identity maps
// and histories (written with the project's own archiver, so their checksums
// hold), the bound on what is archived, and saves that fail.

#include <Platform/Platform.h>

#include <Catalogue.h>
#include <StoreFixture.h>

#include <filesystem>
#include <fstream>

using namespace velvox;
using velvox::test::json;
using velvox::test::StoreFixture;

namespace {

Ref<String> text(std::string_view value) { return String::create(value); }

class HostileStoreArchives : public StoreFixture {
protected:
    std::string archivePath() const { return dataFolder() + "/ressources.archive"; }
    void writeArchive(Object* root, const std::string& path)
    {
        std::filesystem::create_directories(dataFolder());
        ASSERT_TRUE(KeyedArchiver::archiveRootObject(root, path));
    }
    Ref<VXUser> user(int identifier) { return VXUser::create(json(R"({"id": )" + std::to_string(identifier) + R"(, "username": "u"})").ptr()); }
    Ref<VXTrack> track(int identifier)
    {
        auto record = test::catalogueTrack(0);
        record->setObject(Number::withInteger(identifier), "id");
        return VXTrack::create(record.ptr());
    }
};

} // namespace

TEST_F(HostileStoreArchives, OnlyObjectsFiledWhereTheyBelongAreLoaded)
{
    // Each case files one hostile entry beside a control user 1 and track 2.
    auto noIdentifier = VXUser::create(json(R"({"username": "nobody"})").ptr());
    const struct {
        const char* name;
        const char* className;
        Ref<Object> key;
        Ref<Object> object;
    } cases[] = {
        { "a track under the user class", "VXUser", text("1000"), track(1000) },
        { "a user under another identifier", "VXUser", text("1000"), user(1001) },
        { "an object without identifier", "VXUser", text("1000"), noIdentifier },
        { "a number as identifier", "VXUser", Number::withInteger(1000), user(1000) },
        { "a string as object", "VXTrack", text("1000"), text("1000") },
        { "a class that is no resource", "VXActivity", text("1000"), user(1000) },
    };
    for (auto& c : cases) {
        auto users = MutableDictionary::create();
        users->setObject(user(1), "1");
        auto tracks = MutableDictionary::create();
        tracks->setObject(track(2), "2");
        auto map = MutableDictionary::create();
        map->setObject(users, "VXUser");
        map->setObject(tracks, "VXTrack");
        auto* hostileClass = map->objectForKey<MutableDictionary>(c.className);
        if (!hostileClass) {
            map->setObject(MutableDictionary::create(), c.className);
            hostileClass = map->objectForKey<MutableDictionary>(c.className);
        }
        hostileClass->setObject(c.object.ptr(), c.key.ptr());
        writeArchive(map.ptr(), archivePath());

        auto& loaded = makeStore();
        EXPECT_NE(loaded.cachedResource<VXUser>(text("1").ptr()), nullptr) << c.name;
        EXPECT_NE(loaded.cachedResource<VXTrack>(text("2").ptr()), nullptr) << c.name;
        EXPECT_EQ(loaded.resourceCacheStatistics().objectCount, 2u) << c.name;
        // The entry that used to raise: a fresh user record under the same identifier.
        EXPECT_NO_THROW(loaded.userWithUserDictionary(json(R"({"id": 1000, "username": "fresh"})").ptr())) << c.name;
        EXPECT_FALSE(std::filesystem::exists(archivePath() + ".corrupt")) << c.name;
    }

    // Not a dictionary of dictionaries: the whole file is set aside.
    writeArchive(Dictionary::create({ { "VXUser", user(1).ptr() } }).ptr(), archivePath());
    EXPECT_EQ(makeStore().resourceCacheStatistics().objectCount, 0u);
    EXPECT_TRUE(std::filesystem::exists(archivePath() + ".corrupt"));

    // A history with members of the wrong kinds keeps the right ones.
    auto played = MutableSet::create();
    played->addObject(text("20003"));
    played->addObject(Number::withInteger(5));
    writeArchive(played.ptr(), store->playedTrackIdentifiersStoragePathForMeUserIdentifer(text("1000").ptr()));
    writeArchive(Dictionary::create({ { "a", Date::create(12).ptr() }, { "b", text("not a date").ptr() } }).ptr(),
        store->lastPlayedTimestampsStoragePathForMeUserIdentifer(text("1000").ptr()));
    store->setMeUserIdentifier(text("1000").ptr());
    EXPECT_EQ(store->playedTrackIdentifiers()->count(), 1u);
    EXPECT_TRUE(store->hasTrackBeenPlayedForTrackIdentifier(text("20003").ptr()));
    EXPECT_EQ(store->lastRefreshTimestamps()->count(), 1u);
    EXPECT_EQ(store->lastRefreshTimeStampForIdentifier(text("b").ptr())->timeIntervalSince1970(), Date::distantPast().timeIntervalSince1970());
}

TEST_F(HostileStoreArchives, TheBoundKeepsTheMostRecentObjectsOfEachClass)
{
    auto identifiers = [](VXResourceController& bounded) {
        std::vector<int> found;
        for (int identifier = 1; identifier <= 8; ++identifier) {
            if (bounded.cachedResource<VXTrack>(text(std::to_string(identifier)).ptr()) != nullptr)
                found.push_back(identifier);
        }
        return found;
    };
    // Without the bound everything is kept, in the order met.
    for (int identifier = 1; identifier <= 5; ++identifier)
        store->trackWithTrackDictionary(json(R"({"id": )" + std::to_string(identifier) + R"(, "state": "finished"})").ptr());
    ASSERT_EQ(store->save(), nullptr);
    EXPECT_EQ(identifiers(makeStore()), (std::vector<int> { 1, 2, 3, 4, 5 }));

    // A bounded store loads the most recent three, then meets two new tracks
    // and track 3 again: this run's objects are archived before loaded ones.
    VXResourceController::Options options;
    options.archivedObjectsPerClass = 3;
    auto bounded = VXResourceController::create(controller.ptr(), options);
    EXPECT_EQ(identifiers(bounded), (std::vector<int> { 3, 4, 5 }));
    for (int identifier : { 6, 3, 7 })
        bounded->trackWithTrackDictionary(json(R"({"id": )" + std::to_string(identifier) + R"(, "state": "finished"})").ptr());
    bounded->userWithUserDictionary(json(R"({"id": 1, "username": "u"})").ptr());
    ASSERT_EQ(bounded->save(), nullptr);
    auto reloaded = VXResourceController::create(controller.ptr(), options);
    EXPECT_EQ(identifiers(reloaded), (std::vector<int> { 3, 6, 7 }));
    EXPECT_NE(reloaded->cachedResource<VXUser>(text("1").ptr()), nullptr);
    // The map of the run itself is not bounded.
    EXPECT_EQ(identifiers(bounded), (std::vector<int> { 3, 4, 5, 6, 7 }));
}

TEST_F(HostileStoreArchives, SaveMakesTheFolderAndAnswersTheFirstFailure)
{
    store->setMeUserIdentifier(text("1000").ptr());
    store->registerTrackPlayedForIdentifier(text("20003").ptr());
    // Unlike the termination save, save() makes the folder first: all three files.
    EXPECT_EQ(store->save(), nullptr);
    for (auto name : { "ressources.archive", "1000-playedTracks.archive", "1000-lastPlayedTimestamps.archive" })
        EXPECT_TRUE(std::filesystem::exists(dataFolder() + "/" + name)) << name;

    // A folder where the played tracks go: that file fails, the others are written.
    std::filesystem::remove(dataFolder() + "/1000-playedTracks.archive");
    std::filesystem::create_directories(dataFolder() + "/1000-playedTracks.archive/x");
    auto error = store->save();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), EISDIR);
    EXPECT_EQ(error->localizedDescription()->str(), dataFolder() + "/1000-playedTracks.archive: Is a directory");
    EXPECT_NO_THROW(store->applicationWillTerminate(nullptr));

    // A file where the folder goes: the folder's failure comes first.
    std::filesystem::remove_all(dataFolder());
    {
        std::ofstream(dataFolder()) << "in the way";
    }
    error = store->save();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->localizedDescription()->str(), dataFolder() + ": File exists");
}
