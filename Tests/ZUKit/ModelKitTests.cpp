#include <Catalogue.h>
#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <TestSupport.h>
#include <VelvoxKit/VXAPITimestampValueTransformer.h>
#include <VelvoxKit/VXNumberToStringValueTransformer.h>
#include <VelvoxKit/VXResource.h>
#include <VelvoxKit/VXTagListValueTransformer.h>
#include <VelvoxKit/VXTimeIntervalValueTransformer.h>
#include <VelvoxKit/VXTrackStateValueTransformer.h>
#include <VelvoxKit/VXURLStringValueTransformer.h>
#include <ZUKit/ZUObject.h>

#include <gtest/gtest.h>

#include <filesystem>

using namespace velvox;
using velvox::test::catalogueTrack;

namespace {

// A model class of the test's own, described like the framework's tracks.
class SampleTrack final : public VXResource {
    VX_OBJECT(SampleTrack)
    ZU_DESCRIBED_CLASS()
public:
    static Ref<SampleTrack> create(Dictionary* dictionary) { return ZUObject::create<SampleTrack>(dictionary); }
    String* title() const { return m_title.get(); }
    Date* createdAt() const { return m_createdAt.get(); }
    double duration() const { return m_duration; }
    int32_t state() const { return m_state; }
    Array* tagList() const { return m_tagList.get(); }
    bool commentable() const { return m_commentable; }
    uint64_t playbackCount() const { return m_playbackCount; }
    String* userIdentifier() const { return m_userIdentifier.get(); }
    URL* artworkURL() const { return m_artworkURL.get(); }
    URL* purchaseURL() const { return m_purchaseURL.get(); }
    String* bpm() const { return m_bpm.get(); }

private:
    friend class ZUObject;
    SampleTrack() = default;
    RefPtr<String> m_title;
    RefPtr<Date> m_createdAt;
    double m_duration { 0 };
    int32_t m_state { 0 };
    RefPtr<Array> m_tagList;
    bool m_commentable { false };
    uint64_t m_playbackCount { 0 };
    RefPtr<String> m_userIdentifier;
    RefPtr<URL> m_artworkURL;
    RefPtr<URL> m_purchaseURL;
    RefPtr<String> m_bpm;
};
VX_DEFINE_CLASS(SampleTrack, VXResource)

Set& SampleTrack::propertyDescriptors()
{
    static Set* set = [] {
        auto descriptors = VXResource::propertyDescriptors().mutableCopy();
        auto add = [&](Ref<ZUPropertyDescriptor>&& descriptor) { descriptors->addObject(descriptor); };
        add(ZUPropertyDescriptor::descriptorForKeyPath("title")->bind(&SampleTrack::m_title));
        add(ZUPropertyDescriptor::descriptorForKeyPath("createdAt", "created_at", VXAPITimestampValueTransformerName)->bind(&SampleTrack::m_createdAt));
        add(ZUPropertyDescriptor::descriptorForKeyPath("duration", "duration", VXTimeIntervalFromMillisecondsValueTransformerName)->bind(&SampleTrack::m_duration));
        add(ZUPropertyDescriptor::descriptorForKeyPath("state", "state", VXTrackStateValueTransformerName)->bind(&SampleTrack::m_state));
        add(ZUPropertyDescriptor::descriptorForKeyPath("tagList", "tag_list", VXTagListValueTransformerName)->bind(&SampleTrack::m_tagList));
        add(ZUPropertyDescriptor::descriptorForKeyPath("commentable")->bind(&SampleTrack::m_commentable));
        add(ZUPropertyDescriptor::descriptorForKeyPath("playbackCount", "playback_count")->bind(&SampleTrack::m_playbackCount));
        add(ZUPropertyDescriptor::descriptorForKeyPath("userIdentifier", "user_id", VXNumberToStringValueTransformerName)->bind(&SampleTrack::m_userIdentifier));
        add(ZUPropertyDescriptor::descriptorForKeyPath("artworkURL", "artwork_url", VXURLStringValueTransformerName)->bind(&SampleTrack::m_artworkURL));
        add(ZUPropertyDescriptor::descriptorForKeyPath("purchaseURL", "purchase_url", VXURLStringValueTransformerName)->bind(&SampleTrack::m_purchaseURL));
        add(ZUPropertyDescriptor::descriptorForKeyPath("bpm")->bind(&SampleTrack::m_bpm));
        return descriptors.leakRef();
    }();
    return *set;
}

class ModelKit : public testing::Test {
protected:
    void SetUp() override { test::registerFrameworkOnce(); }
};

} // namespace

TEST_F(ModelKit, FillsFromACatalogueTrack)
{
    auto dictionary = catalogueTrack(5);
    auto track = SampleTrack::create(dictionary);
    EXPECT_EQ(track->resourceIdentifier()->view(), "20005");
    EXPECT_EQ(track->title()->view(), downcast<String>(dictionary->objectForKey("title"))->view());
    EXPECT_EQ(track->createdAt()->timeIntervalSince1970(), 1301439893.0); // 2011/03/29 23:04:53 +0000
    EXPECT_DOUBLE_EQ(track->duration(), 449.541);
    EXPECT_EQ(track->state(), 3);
    EXPECT_EQ(track->tagList()->count(), 3u);
    EXPECT_EQ(downcast<String>(track->tagList()->objectAtIndex(2))->view(), "hip hop");
    EXPECT_TRUE(track->commentable());
    EXPECT_EQ(track->playbackCount(), downcast<Number>(dictionary->objectForKey("playback_count"))->unsignedLongLongValue());
    EXPECT_EQ(track->userIdentifier()->view(), "1005");
    EXPECT_EQ(track->artworkURL()->absoluteString()->view(), "http://127.0.0.1:8080/images/artworks/20005-large.png");
    EXPECT_EQ(track->purchaseURL(), nullptr); // JSON null reaches the transformer as an absent value
    EXPECT_EQ(track->bpm()->view(), "120");   // a number for a string property becomes its text
}

TEST_F(ModelKit, UpdatesReportChangesAndTellObserversOnce)
{
    auto dictionary = catalogueTrack(5);
    auto track = SampleTrack::create(dictionary);
    int titleCalls = 0, stateCalls = 0;
    std::vector<std::string> seenTitles;
    auto titleToken = track->addObserver("title", [&](ZUObject& object, const String& key) {
        EXPECT_EQ(&object, track.ptr());
        EXPECT_EQ(key.view(), "title");
        auto* title = downcast<SampleTrack>(&object)->title(); // told after the change
        seenTitles.push_back(title ? title->str() : "(nil)");
        ++titleCalls;
    });
    auto stateToken = track->addObserver("state", [&](ZUObject&, const String&) { ++stateCalls; });

    EXPECT_FALSE(track->updateWithDictionary(dictionary)); // identical
    auto changed = dictionary->mutableCopy();
    changed->setObject(String::create("Renamed"), "title");
    EXPECT_TRUE(track->updateWithDictionary(changed));
    EXPECT_EQ(titleCalls, 1);
    EXPECT_EQ(stateCalls, 0);
    EXPECT_FALSE(track->updateWithDictionary(changed));
    EXPECT_EQ(titleCalls, 1);

    // A missing key leaves its property as it is; a null clears it.
    auto partial = Dictionary::create({ { "id", Number::withInteger(20005).ptr() } });
    EXPECT_FALSE(track->updateWithDictionary(partial.ptr()));
    EXPECT_EQ(track->title()->view(), "Renamed");
    auto cleared = Dictionary::create({ { "title", &Null::null() }, { "duration", &Null::null() } });
    EXPECT_TRUE(track->updateWithDictionary(cleared.ptr()));
    EXPECT_EQ(track->title(), nullptr);
    EXPECT_EQ(track->duration(), 0.0);
    EXPECT_EQ(titleCalls, 2);
    EXPECT_EQ(seenTitles, (std::vector<std::string> { "Renamed", "(nil)" }));
}

TEST_F(ModelKit, KeyValueCoding)
{
    auto track = SampleTrack::create(catalogueTrack(1).get());
    EXPECT_EQ(downcast<String>(track->valueForKey("resourceIdentifier").get())->view(), "20001");
    EXPECT_EQ(downcast<Number>(track->valueForKey("state").get())->intValue(), 2); // "stored"
    EXPECT_EQ(downcast<Number>(track->valueForKey("commentable").get())->objCType(), 'c');
    int calls = 0;
    Subscription token;
    token = track->addObserver("state", [&](ZUObject&, const String&) {
        ++calls;
        token.cancel(); // removing itself during the call is safe
    });
    auto second = track->addObserver("state", [&](ZUObject&, const String&) { ++calls; });
    track->setValue(Number::withInteger(3), "state");
    EXPECT_EQ(track->state(), 3);
    EXPECT_EQ(calls, 2);
    track->setValue(String::create("4"), "state"); // strings answer intValue too
    EXPECT_EQ(track->state(), 4);
    EXPECT_EQ(calls, 3);
    second.cancel();
    try {
        track->valueForKey("noSuchKey");
        FAIL();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), UndefinedKeyException);
        EXPECT_NE(exception.reason().find("not key value coding-compliant for the key noSuchKey."), std::string::npos);
    }
    EXPECT_THROW(track->setValue(Date::now(), "title"), Exception);
    EXPECT_TRUE(is<URL>(track->valueForKeyPath("artworkURL")));
    EXPECT_EQ(downcast<String>(track->valueForKeyPath("resourceIdentifier").get())->view(), "20001");
}

TEST_F(ModelKit, ValuesAPropertyCannotTakeAreIgnoredWithALogLine)
{
    std::vector<std::string> lines;
    auto old = setLogSink([&](std::string_view line) { lines.emplace_back(line); });
    auto track = SampleTrack::create(Dictionary::create({ { "title", Array::create().ptr() }, { "commentable", Array::create().ptr() } }).ptr());
    setLogSink(std::move(old));
    EXPECT_EQ(track->title(), nullptr);
    EXPECT_FALSE(track->commentable());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("SampleTrack: ignoring a value of class Array for title"), std::string::npos) << lines[0];
}

TEST_F(ModelKit, ArchivesAndUnarchivesWithEqualValues)
{
    ZUObject::registerClassForArchiving<SampleTrack>();
    auto track = SampleTrack::create(catalogueTrack(5).get());
    auto data = KeyedArchiver::archivedDataWithRootObject(Dictionary::create({ { "20005", track.ptr() } }).ptr());
    auto restoredRoot = KeyedUnarchiver::unarchiveObjectWithData(data);
    ASSERT_TRUE(restoredRoot);
    auto* restored = downcast<Dictionary>(restoredRoot.get())->objectForKey<SampleTrack>("20005");
    ASSERT_TRUE(restored);
    EXPECT_NE(restored, track.ptr());
    for (auto* object : SampleTrack::propertyDescriptors()) {
        auto& key = downcast<ZUPropertyDescriptor>(object)->keyPath();
        EXPECT_TRUE(objectsEqual(restored->valueForKey(key.view()).get(), track->valueForKey(key.view()).get())) << key.str();
    }
}

TEST_F(ModelKit, DescriptorSetsAreBuiltOnceAndInherited)
{
    EXPECT_EQ(&VXResource::propertyDescriptors(), &VXResource::propertyDescriptors());
    EXPECT_EQ(&SampleTrack::propertyDescriptors(), &SampleTrack::propertyDescriptors());
    EXPECT_EQ(VXResource::propertyDescriptors().count(), 1u);
    auto* base = VXResource::propertyDescriptors().allObjects()->objectAtIndex(0);
    auto* descriptor = downcast<ZUPropertyDescriptor>(base);
    EXPECT_EQ(descriptor->keyPath().view(), "resourceIdentifier");
    EXPECT_EQ(descriptor->source().view(), "id");
    EXPECT_EQ(descriptor->transformerName()->view(), VXNumberToStringValueTransformerName);
    EXPECT_TRUE(SampleTrack::propertyDescriptors().containsObject(base));
    EXPECT_EQ(SampleTrack::propertyDescriptors().count(), 12u);
    EXPECT_EQ(ZUObject::propertyDescriptors().count(), 0u);
}

TEST_F(ModelKit, ResourceIdentifierAndDescription)
{
    auto fromNumber = VXResource::create(Dictionary::create({ { "id", Number::withInteger(1234).ptr() } }).ptr());
    EXPECT_EQ(fromNumber->resourceIdentifier()->view(), "1234");
    auto fromString = VXResource::create(Dictionary::create({ { "id", String::create("1234").ptr() } }).ptr());
    EXPECT_EQ(fromString->resourceIdentifier()->view(), "1234");
    auto resource = VXResource::create(Dictionary::create({ { "id", Number::withInteger(42).ptr() } }).ptr());
    EXPECT_EQ(resource->description()->str(),
        format("<VXResource 0x%08X resourceIdentifier = 42>", static_cast<unsigned>(reinterpret_cast<uintptr_t>(resource.ptr()))));
    EXPECT_EQ(VXResourceAttributesDidChangeNotification, "VXResourceAttributesDidChangeNotification");
    // A value of the wrong class under "id" reaches the transformer, which raises.
    EXPECT_THROW(VXResource::create(Dictionary::create({ { "id", Array::create().ptr() } }).ptr()), Exception);
}
