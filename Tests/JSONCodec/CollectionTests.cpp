#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

using namespace velvox;

namespace velvox::detail {

// The tests' way to the creation functions, which are otherwise the decoder's alone.
struct JCCollectionsTestAccess {
    static Ref<Dictionary> dictionary(std::vector<std::pair<std::string, int>> entries, bool mutableCollection)
    {
        std::vector<Object*> keys, objects;
        std::vector<size_t> hashes;
        for (auto& [key, value] : entries) {
            keys.push_back(String::create(key).leakRef());
            hashes.push_back(keys.back()->hash());
            objects.push_back(Number::withInteger(value).leakRef());
        }
        return adoptRef(*JCDictionaryFactory::JCDictionaryCreate(keys.data(), hashes.data(), objects.data(), keys.size(), mutableCollection));
    }
};

} // namespace velvox::detail

namespace {

std::string reasonOf(const std::function<void()>& action, std::string_view name)
{
    return test::raisedReason(action, name);
}

RefPtr<Object> decodeMutable(std::string_view text)
{
    return JSONDecoder::decoder()->mutableObjectWithUTF8String(text);
}

} // namespace

TEST(JCDictionary, CapacityTable)
{
    static const struct {
        size_t count, capacity;
    } cases[] = { { 0, 0 }, { 1, 3 }, { 2, 3 }, { 3, 3 }, { 4, 7 }, { 5, 7 }, { 10, 13 }, { 31, 41 }, { 32, 71 }, { 54, 71 }, { 55, 127 },
        { 63, 127 }, { 64, 127 }, { 96, 127 }, { 97, 191 }, { 100, 191 }, { 1000, 1723 } };
    for (auto& c : cases)
        EXPECT_EQ(JCDictionaryCapacityForCount(c.count), c.capacity) << c.count;
}

TEST(JCDictionary, DecodedDictionariesOfEverySizeFindEveryKey)
{
    // Table sizes from the smallest to past those whose bucket is found by a
    // division by a constant; immutable and mutable results alike.
    for (size_t count : { 1, 3, 4, 6, 10, 17, 30, 53, 95, 143, 188, 287, 474, 817, 1295, 2107, 3400, 5000 }) {
        std::string text = "{";
        for (size_t i = 0; i < count; ++i)
            text += (i ? ",\"k" : "\"k") + std::to_string(i * 7919) + "\":" + std::to_string(i);
        text += "}";
        for (bool changeable : { false, true }) {
            auto decoder = JSONDecoder::decoder();
            auto tree = changeable ? decoder->mutableObjectWithUTF8String(text) : decoder->objectWithUTF8String(text);
            auto* dictionary = downcast<Dictionary>(tree.get());
            ASSERT_EQ(dictionary->count(), count);
            for (size_t i = 0; i < count; ++i) {
                auto* value = dictionary->objectForKey<Number>("k" + std::to_string(i * 7919));
                ASSERT_TRUE(value) << count << " k" << i * 7919;
                EXPECT_EQ(value->unsignedLongLongValue(), i);
            }
            EXPECT_FALSE(dictionary->objectForKey("k1"));
        }
    }
}

TEST(JCDictionary, EmptyObjectAndFirstInsertion)
{
    auto empty = JSONDecoder::decoder()->objectWithUTF8String(std::string_view("{}"));
    auto* dictionary = downcast<JCDictionary>(empty.get());
    EXPECT_EQ(dictionary->capacity(), 0u);
    EXPECT_EQ(dictionary->objectForKey("x"), nullptr);
    auto changeable = decodeMutable("{}");
    auto* mutableDictionary = downcast<JCMutableDictionary>(changeable.get());
    mutableDictionary->setObject(String::create("v"), "k");
    EXPECT_EQ(mutableDictionary->capacity(), 3u);
    EXPECT_EQ(mutableDictionary->objectForKey<String>("k")->view(), "v");
}

TEST(JCDictionary, AFullTableStillFindsEveryKey)
{
    auto full = detail::JCCollectionsTestAccess::dictionary({ { "a", 1 }, { "b", 2 }, { "c", 3 } }, false);
    auto* dictionary = downcast<JCDictionary>(full.ptr());
    EXPECT_EQ(dictionary->capacity(), 3u);
    EXPECT_EQ(dictionary->count(), 3u);
    const std::pair<const char*, int> expected[] = { { "a", 1 }, { "b", 2 }, { "c", 3 } };
    for (auto [key, value] : expected)
        EXPECT_EQ(dictionary->objectForKey<Number>(key)->integerValue(), value);
    EXPECT_EQ(dictionary->objectForKey("d"), nullptr);
}

TEST(JCDictionary, DuplicateKeysKeepTheLastValue)
{
    auto result = JSONDecoder::decoder()->objectWithUTF8String(std::string_view(R"({"a":1,"b":2,"a":3})"));
    auto* dictionary = downcast<Dictionary>(result.get());
    EXPECT_EQ(dictionary->count(), 2u);
    EXPECT_EQ(dictionary->objectForKey<Number>("a")->integerValue(), 3);
}

TEST(JCMutableDictionary, SetReplaceRemoveAndGrow)
{
    auto result = decodeMutable(R"({"a":1})");
    auto* dictionary = downcast<JCMutableDictionary>(result.get());
    dictionary->setObject(Number::withInteger(9), "a");
    EXPECT_EQ(dictionary->count(), 1u);
    EXPECT_EQ(dictionary->objectForKey<Number>("a")->integerValue(), 9);
    for (int i = 0; i < 100; ++i)
        dictionary->setObject(Number::withInteger(i), String::format("key%d", i).ptr());
    EXPECT_EQ(dictionary->count(), 101u);
    EXPECT_EQ(dictionary->capacity(), JCDictionaryCapacityForCount(101));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(dictionary->objectForKey<Number>(format("key%d", i))->integerValue(), i);
    dictionary->removeObjectForKey("a");
    EXPECT_EQ(dictionary->count(), 100u);
    EXPECT_EQ(dictionary->objectForKey("a"), nullptr);
    EXPECT_EQ(dictionary->keyEnumerator()->allObjects()->count(), 100u);
    EXPECT_EQ(reasonOf([&] { dictionary->setObject(nullptr, "k"); }, InvalidArgumentException),
        "*** -[JCMutableDictionary setObject:forKey:]: attempt to insert nil value (key: k)");
    EXPECT_EQ(reasonOf([&] { dictionary->setObject(Number::withInteger(1), static_cast<Object*>(nullptr)); }, InvalidArgumentException),
        "*** -[JCMutableDictionary setObject:forKey:]: attempt to insert nil key");
}

TEST(JCMutableDictionary, RemovalLeavesAHoleInTheProbeRun)
{
    // Two keys that land in the same bucket of a 3-entry table share a probe run;
    // removing the first hides the second from lookups, as the table is meant to.
    auto result = decodeMutable("{}");
    auto* dictionary = downcast<JCMutableDictionary>(result.get());
    std::vector<Ref<String>> sameBucket;
    for (int i = 0; sameBucket.size() < 2; ++i) {
        auto key = String::format("k%d", i);
        if (key->hash() % 3 == 0)
            sameBucket.push_back(key);
    }
    dictionary->setObject(Number::withInteger(1), sameBucket[0].ptr());
    dictionary->setObject(Number::withInteger(2), sameBucket[1].ptr());
    ASSERT_EQ(dictionary->capacity(), 3u);
    dictionary->removeObjectForKey(sameBucket[0].ptr());
    EXPECT_EQ(dictionary->count(), 1u);
    EXPECT_EQ(dictionary->objectForKey(sameBucket[1].ptr()), nullptr);
    EXPECT_EQ(dictionary->keyEnumerator()->allObjects()->count(), 1u);
}

TEST(JCMutableArray, InsertRemoveReplaceAndBounds)
{
    auto result = decodeMutable("[1,2,3]");
    auto* array = downcast<JCMutableArray>(result.get());
    array->insertObject(String::create("end"), 3); // at count: appends
    EXPECT_EQ(downcast<String>(array->lastObject())->view(), "end");
    EXPECT_EQ(reasonOf([&] { array->insertObject(String::create("x"), 5); }, RangeException),
        "*** -[JCMutableArray insertObject:atIndex:]: index (5) beyond bounds (5)");
    EXPECT_EQ(reasonOf([&] { array->insertObject(nullptr, 0); }, InvalidArgumentException),
        "*** -[JCMutableArray insertObject:atIndex:]: attempt to insert nil");
    EXPECT_EQ(reasonOf([&] { array->objectAtIndex(4); }, RangeException), "*** -[JCMutableArray objectAtIndex:]: index (4) beyond bounds (4)");
    EXPECT_EQ(reasonOf([&] { array->replaceObjectAtIndex(0, nullptr); }, InvalidArgumentException),
        "*** -[JCMutableArray replaceObjectAtIndex:withObject:]: attempt to insert nil");
    array->removeObjectAtIndex(0);
    array->replaceObjectAtIndex(0, String::create("two"));
    EXPECT_EQ(array->componentsJoinedByString(" ")->view(), "two 3 end");
    for (int i = 0; i < 40; ++i)
        array->addObject(Number::withInteger(i)); // grows past the capacity in steps
    EXPECT_EQ(array->count(), 43u);
    Object* buffer[2];
    EXPECT_EQ(reasonOf([&] { array->getObjects(buffer, 42, 2); }, RangeException),
        "*** -[JCMutableArray getObjects:range:]: index (44) beyond bounds (43)");
    auto immutable = JSONDecoder::decoder()->objectWithUTF8String(std::string_view("[1]"));
    EXPECT_EQ(reasonOf([&] { downcast<Array>(immutable.get())->objectAtIndex(1); }, RangeException),
        "*** -[JCArray objectAtIndex:]: index (1) beyond bounds (1)");
}

TEST(JCCollections, CopyRules)
{
    auto decoder = JSONDecoder::decoder();
    auto array = decoder->objectWithUTF8String(std::string_view("[1,2]"));
    auto* jcArray = downcast<Array>(array.get());
    EXPECT_EQ(jcArray->copy().ptr(), jcArray);
    auto arrayMutableCopy = jcArray->mutableCopy();
    EXPECT_FALSE(is<JCMutableArray>(arrayMutableCopy));
    EXPECT_TRUE(arrayMutableCopy->isEqual(jcArray));

    auto dictionary = decoder->objectWithUTF8String(std::string_view(R"({"a":1})"));
    auto* jcDictionary = downcast<Dictionary>(dictionary.get());
    EXPECT_EQ(jcDictionary->copy().ptr(), jcDictionary);
    EXPECT_FALSE(is<JCMutableDictionary>(jcDictionary->mutableCopy()));

    auto mutableArray = decoder->mutableObjectWithUTF8String(std::string_view("[1]"));
    auto frozen = downcast<Array>(mutableArray.get())->copy();
    EXPECT_FALSE(is<MutableArray>(frozen));
    EXPECT_FALSE(is<JCArray>(frozen));
    EXPECT_EQ(downcast<Array>(decoder->mutableObjectWithUTF8String(std::string_view("[]")).get())->copy()->count(), 0u);
    auto mutableDictionary = decoder->mutableObjectWithUTF8String(std::string_view(R"({"a":1})"));
    auto frozenDictionary = downcast<Dictionary>(mutableDictionary.get())->copy();
    EXPECT_FALSE(is<MutableDictionary>(frozenDictionary));
    EXPECT_TRUE(frozenDictionary->isEqual(mutableDictionary.get()));
}

TEST(JCCollections, TheCodecsTagsAreItsOwn)
{
    // The immutable results are told by their tags alone, so each tag must be
    // theirs: apart from each other and from the platform's, and carried by
    // nothing else (mutable results, copies, the platform's collections).
    static_assert(JCArray::s_tag != JCDictionary::s_tag);
    for (ObjectTag tag : { JCArray::s_tag, JCDictionary::s_tag })
        EXPECT_GE(static_cast<int>(tag), static_cast<int>(ObjectTag::FirstLayerTag));

    auto decoder = JSONDecoder::decoder();
    auto tree = decoder->objectWithUTF8String(std::string_view(R"([{"a":[1]}])"));
    auto* array = downcast<Array>(tree.get());
    auto* record = downcast<Dictionary>(array->objectAtIndex(0));
    EXPECT_EQ(array->tag(), JCArray::s_tag);
    EXPECT_EQ(record->tag(), JCDictionary::s_tag);
    EXPECT_TRUE(is<JCArray>(array) && array->isKindOf(JCArray::s_info));
    EXPECT_TRUE(is<JCDictionary>(record) && record->isKindOf(JCDictionary::s_info));
    EXPECT_FALSE(is<JCDictionary>(array) || is<JCArray>(record));
    // A decoded record may be gathered in one walk; other dictionaries are asked per key.
    EXPECT_TRUE(record->walkFindsWhatLookupsFind());

    auto changeable = decodeMutable(R"([{"a":1}])");
    auto* mutableArray = downcast<Array>(changeable.get());
    std::vector<Ref<Object>> others { *changeable, *mutableArray->objectAtIndex(0), array->mutableCopy(), record->mutableCopy(),
        Array::create(), Dictionary::create({ { "a", Number::withInteger(1).ptr() } }) };
    for (auto& other : others) {
        EXPECT_EQ(other->tag(), ObjectTag::Other) << other->className();
        EXPECT_FALSE(is<JCArray>(other) || is<JCDictionary>(other)) << other->className();
        if (auto* dictionary = dynamicDowncast<Dictionary>(other.ptr())) {
            EXPECT_FALSE(dictionary->walkFindsWhatLookupsFind()) << other->className();
        }
    }
}

TEST(JCCollections, MutatingDuringWalkRaises)
{
    auto result = decodeMutable("[1,2,3]");
    auto* array = downcast<MutableArray>(result.get());
    EXPECT_THROW(
        {
            for (auto* element : *array)
                array->addObject(element);
        },
        Exception);
}

namespace {

// A key whose own destruction releases a decoded tree.
class TreeHoldingKey final : public Object {
    VX_OBJECT(TreeHoldingKey)
public:
    static Ref<TreeHoldingKey> create(RefPtr<Object> tree, int* deaths) { return adoptRef(*new TreeHoldingKey(std::move(tree), deaths)); }

private:
    TreeHoldingKey(RefPtr<Object> tree, int* deaths)
        : m_tree(std::move(tree))
        , m_deaths(deaths)
    {
    }
    ~TreeHoldingKey() override { ++*m_deaths; }
    RefPtr<Object> m_tree;
    int* m_deaths;
};
VX_DEFINE_CLASS(TreeHoldingKey, Object)

// The key object the dictionary holds for `key`.
Ref<String> keyObjectOf(const Dictionary& dictionary, std::string_view key)
{
    size_t state = 0;
    Dictionary::Entry entry;
    while (dictionary.nextEntry(state, entry)) {
        if (downcast<String>(entry.key)->utf8() == key)
            return *downcast<String>(entry.key);
    }
    ADD_FAILURE() << "no key " << key;
    return String::create(key);
}

} // namespace

// Releasing a tree hands every key reference back exactly once, however the
// tree is shaped: records in a list, nesting deep enough to be released in
// pieces, keys whose own release lets further trees go.
TEST(JCCollections, ReleasingTreesReturnsEveryKeyReferenceOnce)
{
    RefPtr<JSONDecoder> decoder = JSONDecoder::decoder();
    std::string records = "[";
    for (int i = 0; i < 600; ++i)
        records += std::string(i ? "," : "") + R"({"id":)" + std::to_string(i) + R"(,"user":{"id":1,"kind":"user"},"kind":"track"})";
    records += "]";
    auto list = decoder->objectWithUTF8String(records);
    auto first = downcast<Dictionary>(downcast<Array>(list.get())->objectAtIndex(0));
    Ref<String> kind = keyObjectOf(*first, "kind");
    Ref<Dictionary> keptRecord = *first;
    list = nullptr;
    // What is left: the cache's reference, ours, and the kept record's two (its own, its user's).
    EXPECT_EQ(kind->refCount(), 4u);
    keptRecord = *downcast<Dictionary>(decoder->objectWithUTF8String(std::string_view(R"({"x":1})")).get());
    EXPECT_EQ(kind->refCount(), 2u);

    std::string deep;
    for (int i = 0; i < 3000; ++i)
        deep += R"({"kind":)";
    deep += "1" + std::string(3000, '}');
    auto nested = decoder->objectWithUTF8String(deep);
    EXPECT_EQ(kind->refCount(), 3002u);
    nested = nullptr;
    EXPECT_EQ(kind->refCount(), 2u);
    decoder = nullptr;
    EXPECT_EQ(kind->refCount(), 1u);

    // A dictionary whose keys own trees: they go while the outer release
    // hands its keys back, and their trees' keys are handed back too.
    int deaths = 0;
    auto inner = JSONDecoder::decoder()->objectWithUTF8String(std::string_view(R"([{"kind":1},{"kind":2}])"));
    Ref<String> innerKind = keyObjectOf(*downcast<Dictionary>(downcast<Array>(inner.get())->objectAtIndex(0)), "kind");
    auto outer = decodeMutable("{}");
    for (int i = 0; i < 300; ++i)
        downcast<MutableDictionary>(outer.get())->setObject(Number::withInteger(i).ptr(), TreeHoldingKey::create(i ? nullptr : inner, &deaths).ptr());
    inner = nullptr;
    EXPECT_EQ(innerKind->refCount(), 3u);
    outer = nullptr;
    EXPECT_EQ(deaths, 300);
    EXPECT_EQ(innerKind->refCount(), 1u);
}
