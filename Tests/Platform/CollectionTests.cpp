#include <Platform/Platform.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

using namespace velvox;

using velvox::test::raisedReason;

TEST(Array, BoundsAndNilAreProgrammingErrors)
{
    auto array = MutableArray::create();
    array->addObject(String::create("a"));
    EXPECT_NE(raisedReason([&] { array->objectAtIndex(1); }, RangeException).find("index (1) beyond bounds (1)"), std::string::npos);
    EXPECT_NE(raisedReason([&] { array->insertObject(String::create("b"), 2); }, RangeException).find("beyond bounds (2)"), std::string::npos);
    EXPECT_NE(raisedReason([&] { array->insertObject(nullptr, 0); }, InvalidArgumentException).find("attempt to insert nil"), std::string::npos);
    EXPECT_NE(raisedReason([&] { array->removeObjectAtIndex(5); }, RangeException).find("beyond bounds"), std::string::npos);
    Object* buffer[2];
    EXPECT_NE(raisedReason([&] { array->getObjects(buffer, 0, 2); }, RangeException).find("beyond bounds"), std::string::npos);
    EXPECT_EQ(array->count(), 1u);
}

TEST(Array, MutationsAndOrder)
{
    auto array = MutableArray::create();
    for (int i = 0; i < 5; ++i)
        array->addObject(Number::withInteger(i));
    array->insertObject(String::create("first"), 0);
    array->removeObjectAtIndex(3); // the number 2
    array->replaceObjectAtIndex(1, String::create("zero"));
    EXPECT_EQ(array->componentsJoinedByString(",")->view(), "first,zero,1,3,4");
    EXPECT_EQ(array->indexOfObject(Number::withDouble(3.0).ptr()), 3u);
    EXPECT_EQ(array->indexOfObject(String::create("nope").ptr()), Array::notFound);
    std::vector<std::string> walked;
    for (auto* object : *array)
        walked.push_back(object->description()->str());
    EXPECT_EQ(walked.size(), 5u);
    EXPECT_EQ(walked.back(), "4");
}

TEST(Array, ChangingWhileWalkingRaises)
{
    auto array = MutableArray::create();
    array->addObject(String::create("a"));
    array->addObject(String::create("b"));
    EXPECT_THROW(
        {
            for (auto* object : *array)
                array->addObject(object);
        },
        Exception);
}

TEST(Array, CopyRules)
{
    auto immutable = Array::create({ String::create("a").ptr(), Number::withInteger(1).ptr() });
    EXPECT_EQ(immutable->copy().ptr(), immutable.ptr());
    auto mutableCopy = immutable->mutableCopy();
    EXPECT_NE(static_cast<Array*>(mutableCopy.ptr()), immutable.ptr());
    EXPECT_TRUE(mutableCopy->isEqual(immutable.ptr()));
    mutableCopy->addObject(String::create("c"));
    EXPECT_EQ(immutable->count(), 2u);
    auto frozen = mutableCopy->copy();
    EXPECT_FALSE(is<MutableArray>(frozen));
    EXPECT_NE(frozen.ptr(), static_cast<Array*>(mutableCopy.ptr()));
    mutableCopy->removeAllObjects();
    EXPECT_EQ(frozen->count(), 3u);
}

TEST(Dictionary, HashingEqualityAndReplacement)
{
    auto dictionary = MutableDictionary::create();
    dictionary->setObject(String::create("one"), "1");
    dictionary->setObject(String::create("uno"), "1"); // replaces
    dictionary->setObject(String::create("int"), Number::withInteger(2));
    EXPECT_EQ(dictionary->count(), 2u);
    EXPECT_EQ(dictionary->objectForKey<String>("1")->view(), "uno");
    // Numbers equal in value are the same key, whatever their type.
    EXPECT_EQ(dynamicDowncast<String>(dictionary->objectForKey(Number::withDouble(2.0).ptr()))->view(), "int");
    EXPECT_EQ(dictionary->objectForKey(static_cast<Object*>(nullptr)), nullptr);
    EXPECT_EQ(dictionary->objectForKey("absent"), nullptr);

    auto other = Dictionary::create({ { "1", String::create("uno").ptr() } });
    EXPECT_FALSE(dictionary->isEqual(other.ptr()));
    dictionary->removeObjectForKey(Number::withInteger(2).get());
    EXPECT_TRUE(dictionary->isEqual(other.ptr()));
    EXPECT_TRUE(other->isEqual(dictionary.ptr()));

    EXPECT_NE(raisedReason([&] { dictionary->setObject(nullptr, "k"); }, InvalidArgumentException).find("attempt to insert nil value (key: k)"),
        std::string::npos);
    EXPECT_NE(raisedReason([&] { dictionary->setObject(String::create("v"), static_cast<Object*>(nullptr)); }, InvalidArgumentException)
                  .find("attempt to insert nil key"),
        std::string::npos);
}

TEST(Dictionary, KeysAreCopiedSoLaterMutationCannotCorruptTheTable)
{
    auto key = MutableArray::create();
    key->addObject(String::create("a"));
    auto dictionary = MutableDictionary::create();
    dictionary->setObject(String::create("v"), key.ptr());
    key->addObject(String::create("b"));
    auto probe = Array::create({ String::create("a").ptr() });
    EXPECT_NE(dictionary->objectForKey(probe.ptr()), nullptr);
}

TEST(Dictionary, ManyInsertionsAndRemovalsStayConsistent)
{
    auto dictionary = MutableDictionary::create();
    for (int i = 0; i < 2000; ++i)
        dictionary->setObject(Number::withInteger(i), String::format("key%d", i).ptr());
    for (int i = 0; i < 2000; i += 3)
        dictionary->removeObjectForKey(String::format("key%d", i).ptr());
    size_t expected = 0;
    for (int i = 0; i < 2000; ++i) {
        auto* value = dynamicDowncast<Number>(dictionary->objectForKey(String::format("key%d", i).ptr()));
        if (i % 3 == 0) {
            EXPECT_EQ(value, nullptr) << i;
        } else {
            ++expected;
            ASSERT_NE(value, nullptr) << i;
            EXPECT_EQ(value->integerValue(), i);
        }
    }
    EXPECT_EQ(dictionary->count(), expected);
    size_t walked = 0;
    for ([[maybe_unused]] auto& entry : *dictionary)
        ++walked;
    EXPECT_EQ(walked, expected);
    EXPECT_EQ(dictionary->allKeys()->count(), expected);
    EXPECT_EQ(dictionary->keyEnumerator()->allObjects()->count(), expected);
}

TEST(Dictionary, CopyRules)
{
    auto immutable = Dictionary::create({ { "a", Number::withInteger(1).ptr() } });
    EXPECT_EQ(immutable->copy().ptr(), immutable.ptr());
    auto changeable = immutable->mutableCopy();
    changeable->setObject(Number::withInteger(2), "b");
    auto frozen = changeable->copy();
    EXPECT_FALSE(is<MutableDictionary>(frozen));
    changeable->removeAllObjects();
    EXPECT_EQ(frozen->count(), 2u);
    EXPECT_EQ(immutable->count(), 1u);
}

TEST(Set, MembershipByEquality)
{
    auto set = MutableSet::create();
    set->addObject(String::create("123"));
    set->addObject(String::create("123"));
    set->addObject(String::create("456"));
    EXPECT_EQ(set->count(), 2u);
    EXPECT_TRUE(set->containsObject("123"));
    EXPECT_FALSE(set->containsObject("789"));
    set->removeObject(String::create("123").get());
    EXPECT_FALSE(set->containsObject("123"));
    auto frozen = set->copy();
    EXPECT_FALSE(is<MutableSet>(frozen));
    EXPECT_TRUE(frozen->isEqual(set.ptr()));
    EXPECT_THROW(set->addObject(nullptr), Exception);
    EXPECT_EQ(Set::create()->copy()->count(), 0u);
}

TEST(Collections, DescriptionsOfHugeOrDeepTreesAreCut)
{
    // Sixty levels of [previous, previous]: 2^60 leaves if described in full.
    RefPtr<Array> shared = Array::create({ String::create("leaf").ptr() });
    for (int i = 0; i < 60; ++i)
        shared = Array::create({ shared.get(), shared.get() });
    auto text = shared->description();
    EXPECT_LT(text->view().size(), 64u * 1024 * 1024);
    EXPECT_NE(text->view().find("…"), std::string_view::npos);

    // Past a hundred levels a collection says "…"; shallow ones are described whole.
    RefPtr<Object> deep = String::create("bottom");
    for (int i = 0; i < 150; ++i)
        deep = Dictionary::create({ { "k", deep.get() } });
    EXPECT_NE(deep->description()->view().find("…"), std::string_view::npos);
    auto shallow = Array::create({ String::create("a").ptr(), Dictionary::create({ { "k", String::create("v").ptr() } }).ptr() });
    EXPECT_EQ(shallow->description()->str(), "(\n    a,\n    {\n        k = v;\n    }\n)");
}
