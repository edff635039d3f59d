#include <Platform/Platform.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace velvox;

namespace {

class Tracked final : public Object {
    VX_OBJECT(Tracked)
public:
    static Ref<Tracked> create(int* deaths) { return adoptRef(*new Tracked(deaths)); }

private:
    explicit Tracked(int* deaths)
        : m_deaths(deaths)
    {
    }
    ~Tracked() override { ++*m_deaths; }
    int* m_deaths;
};
VX_DEFINE_CLASS(Tracked, Object)

} // namespace

TEST(Ref, CopyMoveAndAdoptKeepCountsExact)
{
    int deaths = 0;
    {
        Ref<Tracked> a = Tracked::create(&deaths);
        EXPECT_EQ(a->refCount(), 1u);
        Ref<Tracked> b = a;
        EXPECT_EQ(a->refCount(), 2u);
        Ref<Tracked> c = std::move(b);
        EXPECT_EQ(a->refCount(), 2u);
        RefPtr<Object> d = c;
        EXPECT_EQ(a->refCount(), 3u);
        RefPtr<Object> e = std::move(d);
        EXPECT_FALSE(d);
        EXPECT_EQ(a->refCount(), 3u);
        e = nullptr;
        EXPECT_EQ(a->refCount(), 2u);
        c = a; // self-value assignment through another Ref
        EXPECT_EQ(a->refCount(), 2u);
        RefPtr<Tracked> f = a;
        f = f; // self-assignment must not drop the object
        EXPECT_EQ(a->refCount(), 3u);
        Tracked* raw = a.ptr();
        raw->ref();
        RefPtr<Tracked> adopted = adoptRef(raw);
        EXPECT_EQ(a->refCount(), 4u);
        EXPECT_EQ(deaths, 0);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(Ref, CountIsSafeAcrossThreads)
{
    int deaths = 0;
    Ref<Tracked> shared = Tracked::create(&deaths);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                RefPtr<Tracked> copy = shared;
                Ref<Tracked> another = *copy;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(shared->refCount(), 1u);
    EXPECT_EQ(deaths, 0);
}

TEST(Object, KindTestsFollowTheClassTree)
{
    auto array = MutableArray::create();
    Object* object = array.ptr();
    EXPECT_TRUE(is<Array>(object));
    EXPECT_TRUE(is<MutableArray>(object));
    EXPECT_FALSE(is<Dictionary>(object));
    EXPECT_FALSE(is<String>(static_cast<Object*>(nullptr)));
    EXPECT_EQ(dynamicDowncast<Array>(object), array.ptr());
    EXPECT_EQ(dynamicDowncast<String>(object), nullptr);
    EXPECT_EQ(downcast<Array>(object), array.ptr());
    EXPECT_THROW(downcast<String>(object), Exception);
    EXPECT_EQ(downcast<String>(static_cast<Object*>(nullptr)), nullptr);
    EXPECT_EQ(String::create("x")->className(), "String");
}

TEST(Object, TagsAgreeWithKindTestsForEveryWayOfMaking)
{
    // Kind tests of these classes answer from the tag alone: every way of
    // making one must set it, and nothing else may carry it.
    StackString onStack("borrowed");
    auto words = String::create("a b")->componentsSeparatedByString(" ");
    std::vector<Ref<Object>> strings { String::create("x"), String::empty(), String::format("%d", 5), Number::withInteger(3)->stringValue(),
        *words->lastObject() };
    for (auto& string : strings) {
        EXPECT_EQ(string->tag(), ObjectTag::String);
        EXPECT_TRUE(string->isKindOf(String::s_info));
    }
    EXPECT_TRUE(is<String>(static_cast<Object*>(&onStack)));
    std::vector<Ref<Number>> numbers { Number::withInteger(-1), Number::withUnsignedInteger(UINT64_MAX), Number::withDouble(0.5),
        Number::withChar(1), Number::withBool(true), Number::falseValue(), Number::create(2.5f) };
    for (auto& number : numbers)
        EXPECT_EQ(number->tag(), ObjectTag::Number);
    EXPECT_EQ(Null::null().tag(), ObjectTag::Null);
    std::vector<Ref<Object>> others { Array::create(), MutableDictionary::create(), Date::create(0), Data::create("x") };
    for (auto& owner : others) {
        Object* other = owner.ptr();
        EXPECT_EQ(other->tag(), ObjectTag::Other) << other->className();
        EXPECT_FALSE(is<String>(other) || is<Number>(other) || is<Null>(other));
    }
    // The singletons skip counting and survive any number of releases.
    auto* null = &Null::null();
    uint32_t count = null->refCount();
    for (int i = 0; i < 1000; ++i)
        null->deref();
    EXPECT_EQ(null->refCount(), count);
    EXPECT_TRUE(null->isImmortal());
}

TEST(Object, DefaultDescriptionNamesClassAndAddress)
{
    int deaths = 0;
    auto object = Tracked::create(&deaths);
    auto expected = format("<Tracked: 0x%08X>", static_cast<unsigned>(reinterpret_cast<uintptr_t>(object.ptr())));
    EXPECT_EQ(object->description()->view(), expected);
}

TEST(Exception, AssertionsRaiseInternalInconsistency)
{
    try {
        VXAssert(1 + 1 == 3, "You have to initialize %s with %s", "A", "B");
        FAIL();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), InternalInconsistencyException);
        EXPECT_EQ(exception.reason(), "You have to initialize A with B");
    }
    try {
        int* pointer = nullptr;
        VXParameterAssert(pointer != nullptr);
        FAIL();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), InternalInconsistencyException);
        EXPECT_EQ(exception.reason(), "Invalid parameter not satisfying: pointer != nullptr");
    }
}

TEST(Exception, CarriesUserInfoThroughCopies)
{
    auto info = Dictionary::create({ { "key", String::create("value").ptr() } });
    Exception original("SomeException", "reason", info.ptr());
    Exception copy = original;
    EXPECT_EQ(copy.name(), "SomeException");
    EXPECT_EQ(copy.userInfo(), info.ptr());
    EXPECT_EQ(info->refCount(), 3u);
}
