// Model classes declared from one table, and the ownership rules they rely on.

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <VelvoxKit/VXFramework.h>
#include <VelvoxKit/VXNumberToStringValueTransformer.h>
#include <VelvoxKit/VXResource.h>
#include <VelvoxKit/VXURLStringValueTransformer.h>
#include <ZUKit/ZUObject.h>

#include <Catalogue.h>
#include <TestSupport.h>

#include <gtest/gtest.h>

#include <type_traits>

using namespace velvox;

namespace {

#define TABLE_TRACK_PROPERTIES(P)                                                              \
    P(String, title, Title, "title", {})                                                       \
    P(String, trackDescription, TrackDescription, "description", {})                           \
    P(URL, artworkURL, ArtworkURL, "artwork_url", VXURLStringValueTransformerName)             \
    P(String, userIdentifier, UserIdentifier, "user_id", VXNumberToStringValueTransformerName) \
    P(uint64_t, playbackCount, PlaybackCount, "playback_count", {})                            \
    P(bool, commentable, Commentable, "commentable", {})                                       \
    P(double, rating, Rating, "rating", {})

class TableTrack final : public VXResource {
    VX_OBJECT(TableTrack)
    ZU_PROPERTIES(TABLE_TRACK_PROPERTIES)
public:
    static Ref<TableTrack> create(Dictionary* dictionary) { return ZUObject::create<TableTrack>(dictionary); }

private:
    friend class ZUObject;
    TableTrack() = default;
};
VX_DEFINE_CLASS(TableTrack, VXResource)
ZU_DEFINE_PROPERTIES(TableTrack, VXResource, TABLE_TRACK_PROPERTIES)

// Two properties read one JSON key.
#define TWIN_PROPERTIES(P)                                               \
    P(String, title, Title, "title", {})                                 \
    P(String, heading, Heading, "title", {})                             \
    P(URL, link, Link, "permalink_url", VXURLStringValueTransformerName) \
    P(int64_t, count, Count, "count", {})

class TwinTrack final : public VXResource {
    VX_OBJECT(TwinTrack)
    ZU_PROPERTIES(TWIN_PROPERTIES)
public:
    static Ref<TwinTrack> create(Dictionary* dictionary) { return ZUObject::create<TwinTrack>(dictionary); }

private:
    friend class ZUObject;
    TwinTrack() = default;
};
VX_DEFINE_CLASS(TwinTrack, VXResource)
ZU_DEFINE_PROPERTIES(TwinTrack, VXResource, TWIN_PROPERTIES)

// A transformer that marks what it made, to see which registration is used.
class MarkingTransformer final : public ValueTransformer {
    VX_OBJECT(MarkingTransformer)
public:
    static Ref<MarkingTransformer> create(std::string mark) { return adoptRef(*new MarkingTransformer(std::move(mark))); }
    RefPtr<Object> transformedValue(Object*) const override { return String::create(m_mark); }

private:
    explicit MarkingTransformer(std::string mark)
        : m_mark(std::move(mark))
    {
    }
    std::string m_mark;
};
VX_DEFINE_CLASS(MarkingTransformer, ValueTransformer)

class PropertyTable : public testing::Test {
protected:
    void SetUp() override { VXRegisterFramework(); }
    void TearDown() override { VXRegisterFramework(); } // undo a test's own registrations
};

} // namespace

TEST_F(PropertyTable, TheTableMakesDescriptorsInOrderAfterTheBase)
{
    auto& descriptors = TableTrack::propertyDescriptors();
    EXPECT_EQ(&descriptors, &TableTrack::propertyDescriptors()); // built once
    std::vector<std::string> paths;
    for (auto* object : descriptors) {
        auto* descriptor = downcast<ZUPropertyDescriptor>(object);
        paths.push_back(descriptor->keyPath().str() + "<" + descriptor->source().str() + ">"
            + (descriptor->transformerName() ? descriptor->transformerName()->str() : ""));
    }
    EXPECT_EQ(paths, (std::vector<std::string> { "resourceIdentifier<id>VXNumberToStringValueTransformerName", "title<title>", "trackDescription<description>", "artworkURL<artwork_url>VXURLStringValueTransformerName", "userIdentifier<user_id>VXNumberToStringValueTransformerName", "playbackCount<playback_count>", "commentable<commentable>", "rating<rating>" }));
}

TEST_F(PropertyTable, FillsTypedMembersAndReportsRealChangesOnly)
{
    auto record = Dictionary::create({ { "id", Number::withInteger(77).ptr() }, { "title", String::create("First").ptr() },
        { "artwork_url", String::create("https://img.test/a.png").ptr() }, { "user_id", Number::withInteger(5).ptr() },
        { "playback_count", Number::withInteger(12).ptr() }, { "commentable", &Number::trueValue() }, { "rating", String::create("4.5").ptr() } });
    auto track = TableTrack::create(record.ptr());
    EXPECT_EQ(track->resourceIdentifier()->view(), "77");
    EXPECT_EQ(track->title()->view(), "First");
    EXPECT_EQ(track->artworkURL()->absoluteString()->view(), "https://img.test/a.png");
    EXPECT_EQ(track->userIdentifier()->view(), "5");
    EXPECT_EQ(track->playbackCount(), 12u);
    EXPECT_TRUE(track->commentable());
    EXPECT_EQ(track->rating(), 4.5);
    EXPECT_EQ(track->trackDescription(), nullptr);

    int calls = 0;
    auto observation = track->addObserver("playbackCount", [&](ZUObject&, const String&) { ++calls; });
    EXPECT_FALSE(track->updateWithDictionary(record.ptr()));
    auto changed = record->mutableCopy();
    changed->setObject(String::create("13"), "playback_count"); // a string is read for its number
    changed->setObject(Array::create(), "title");               // a value the property cannot take is ignored
    EXPECT_TRUE(track->updateWithDictionary(changed.ptr()));
    EXPECT_EQ(track->playbackCount(), 13u);
    EXPECT_EQ(track->title()->view(), "First");
    EXPECT_EQ(calls, 1);
}

TEST_F(PropertyTable, DecodedRecordsFillAsPlainDictionariesDo)
{
    // A decoded record is walked once; other dictionaries are asked key by
    // key. Both must give every property the same value, for every catalogue
    // record and for keys that two properties share.
    auto decoder = JSONDecoder::decoder();
    auto page = decoder->objectWithUTF8String(std::string_view(
        R"([{"id":1,"title":"One","permalink_url":"https://x.test/1","count":3,"extra":[1]},)"
        R"({"id":"2","title":7,"permalink_url":"not a url","count":"4"},{"title":null,"count":[]},{}])"));
    ASSERT_TRUE(page);
    auto compareFills = [](Dictionary* decoded) {
        auto plain = decoded->mutableCopy(); // a platform dictionary
        auto fromDecoded = TwinTrack::create(decoded);
        auto fromPlain = TwinTrack::create(plain.ptr());
        for (auto key : { "resourceIdentifier", "title", "heading", "link", "count" })
            EXPECT_TRUE(objectsEqual(fromDecoded->valueForKey(key).get(), fromPlain->valueForKey(key).get())) << key;
        EXPECT_TRUE(objectsEqual(fromDecoded->title(), fromDecoded->heading()));
        EXPECT_EQ(fromDecoded->updateWithDictionary(decoded), false);
        EXPECT_EQ(fromPlain->updateWithDictionary(decoded), false);
    };
    for (auto* record : *downcast<Array>(page.get()))
        compareFills(downcast<Dictionary>(record));
    auto first = TwinTrack::create(downcast<Dictionary>(downcast<Array>(page.get())->objectAtIndex(0)));
    EXPECT_EQ(first->heading()->view(), "One");
    EXPECT_EQ(first->count(), 3);
    EXPECT_EQ(first->link()->absoluteString()->view(), "https://x.test/1");
    for (size_t index = 0; index < 20; ++index) {
        auto text = JSONString(*test::catalogueTrack(index));
        auto decoded = decoder->objectWithUTF8String(text->view());
        auto* dictionary = downcast<Dictionary>(decoded.get());
        auto fromDecoded = TableTrack::create(dictionary);
        auto fromPlain = TableTrack::create(dictionary->mutableCopy().ptr());
        for (auto key : { "resourceIdentifier", "title", "trackDescription", "artworkURL", "userIdentifier", "playbackCount", "commentable", "rating" })
            EXPECT_TRUE(objectsEqual(fromDecoded->valueForKey(key).get(), fromPlain->valueForKey(key).get())) << key;
    }
}

TEST_F(PropertyTable, SettersTellObserversAndKeyValueCodingReachesEveryProperty)
{
    auto track = TableTrack::create(nullptr);
    std::vector<std::string> told;
    auto first = track->addObserver("title", [&](ZUObject& object, const String& key) {
        told.push_back(key.str() + "=" + downcast<TableTrack>(&object)->title()->str());
    });
    track->setTitle(String::create("Set").get());
    track->setValue(String::create("Coded"), "title");
    EXPECT_EQ(told, (std::vector<std::string> { "title=Set", "title=Coded" }));
    track->setPlaybackCount(3);
    EXPECT_EQ(downcast<Number>(track->valueForKey("playbackCount").get())->unsignedLongLongValue(), 3u);

    // Key paths run through model objects and dictionaries alike.
    auto holder = Dictionary::create({ { "track", track.ptr() } });
    EXPECT_EQ(downcast<String>(holder->valueForKeyPath("track.title").get())->view(), "Coded");
    EXPECT_EQ(holder->valueForKeyPath("missing.title"), nullptr);
    EXPECT_NE(test::raisedReason([&] { holder->valueForKeyPath("track.noSuchKey"); }, UndefinedKeyException).find("noSuchKey"), std::string::npos);
    EXPECT_NE(test::raisedReason([&] { String::create("x")->valueForKey("length"); }, UndefinedKeyException).find("not key value coding-compliant"), std::string::npos);
}

TEST_F(PropertyTable, RegisteringANameAgainTakesEffectAtTheNextFill)
{
    auto record = Dictionary::create({ { "user_id", Number::withInteger(5).ptr() } });
    EXPECT_EQ(TableTrack::create(record.ptr())->userIdentifier()->view(), "5");
    ValueTransformer::setValueTransformer(MarkingTransformer::create("replaced").ptr(), VXNumberToStringValueTransformerName);
    EXPECT_EQ(TableTrack::create(record.ptr())->userIdentifier()->view(), "replaced");
    ValueTransformer::setValueTransformer(nullptr, VXNumberToStringValueTransformerName);
    EXPECT_NE(test::raisedReason([&] { TableTrack::create(record.ptr()); }, InternalInconsistencyException).find("No value transformer"), std::string::npos);
}

TEST_F(PropertyTable, ArchivesRoundTripEveryTableProperty)
{
    auto track = TableTrack::create(test::catalogueTrack(5).get());
    auto data = KeyedArchiver::archivedDataWithRootObject(track.ptr());
    ZUObject::registerClassForArchiving<TableTrack>();
    auto restored = dynamicDowncast<TableTrack>(KeyedUnarchiver::unarchiveObjectWithData(data));
    ASSERT_TRUE(restored);
    for (auto* object : TableTrack::propertyDescriptors()) {
        auto& key = downcast<ZUPropertyDescriptor>(object)->keyPath();
        EXPECT_TRUE(objectsEqual(restored->valueForKey(key.view()).get(), track->valueForKey(key.view()).get())) << key.str();
    }
}

// Ownership mistakes that must not compile.
static_assert(!std::is_convertible_v<Ref<String>&&, String*>, "no raw pointer out of a temporary Ref");
static_assert(!std::is_convertible_v<Ref<String>&&, String&>, "no reference out of a temporary Ref");
static_assert(!std::is_convertible_v<RefPtr<String>&&, String*>, "no raw pointer out of a temporary RefPtr");
static_assert(std::is_convertible_v<Ref<String>&, String*>, "a Ref that lives on converts");
static_assert(std::is_same_v<decltype(downcast<String>(std::declval<RefPtr<Object>>())), RefPtr<String>>, "an owning cast of a temporary owns");
static_assert(std::is_same_v<decltype(dynamicDowncast<String>(std::declval<Ref<Object>>())), RefPtr<String>>, "an owning cast of a temporary owns");

#if defined(__SANITIZE_ADDRESS__)
TEST(Ownership, AddressSanitizerSeesAUseAfterFreeOfAString)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            String* dangling = String::create("gone soon").leakRef();
            dangling->deref();
            volatile size_t length = dangling->length();
            (void)length;
        },
        "heap-use-after-free");
}
#endif
