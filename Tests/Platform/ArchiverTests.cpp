#include <Platform/Platform.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace velvox;

namespace {

class TemporaryFolder {
public:
    TemporaryFolder()
    {
        char pattern[] = "/tmp/velvox-test-XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(m_path); }
    std::string file(std::string_view name) const { return stringByAppendingPathComponent(m_path, name); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// A class that archives itself through the coding interface.
class Song final : public Object, public Coding {
    VX_OBJECT(Song)
public:
    static Ref<Song> create(std::string title, int64_t plays, Object* extra)
    {
        return adoptRef(*new Song(std::move(title), plays, extra));
    }
    static void registerForArchiving()
    {
        KeyedUnarchiver::registerClass("Song", [](KeyedUnarchiver& coder) -> RefPtr<Object> {
            auto title = coder.decodeObjectOfClass<String>("title");
            if (!title)
                return nullptr;
            return create(title->str(), coder.decodeInt64ForKey("plays"), coder.decodeObjectForKey("extra").get());
        });
    }
    const Coding* asCoding() const override { return this; }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        coder.encodeString(m_title, "title");
        coder.encodeInt64(m_plays, "plays");
        coder.encodeObject(m_extra.get(), "extra");
    }
    bool isEqual(const Object* other) const override
    {
        auto* song = dynamicDowncast<Song>(other);
        return song && song->m_title == m_title && song->m_plays == m_plays && objectsEqual(song->m_extra.get(), m_extra.get());
    }
    Object* extra() const { return m_extra.get(); }

private:
    Song(std::string title, int64_t plays, Object* extra)
        : m_title(std::move(title))
        , m_plays(plays)
        , m_extra(extra)
    {
    }
    std::string m_title;
    int64_t m_plays;
    RefPtr<Object> m_extra;
};
VX_DEFINE_CLASS(Song, Object)

Ref<Object> sampleTree()
{
    auto shared = String::create("shared");
    auto inner = MutableDictionary::create();
    inner->setObject(Array::create({ Number::withInteger(-5).ptr(), Number::withUnsignedInteger(UINT64_MAX).ptr(),
                         Number::withDouble(-0.0).ptr(), &Number::trueValue(), &Null::null(), Number::withChar(1).ptr() }),
        "numbers");
    inner->setObject(shared, "first");
    inner->setObject(shared, "second");
    auto played = MutableSet::create();
    played->addObject(String::create("123"));
    played->addObject(String::create("456"));
    auto root = MutableDictionary::create();
    root->setObject(inner, "inner");
    root->setObject(played, "played");
    root->setObject(Date::create(1300094813.5), "date");
    root->setObject(Data::create("\x00\x01\x02"), "data");
    root->setObject(URL::create("http://a.test/x?y=1"), "url");
    root->setObject(Error::create("D", 404, "Not found"), "error");
    root->setObject(Song::create("Night Drive", 12, shared.ptr()), "song");
    root->setObject(Array::create(), "empty");
    return root;
}

} // namespace

TEST(KeyedArchiver, NestedCollectionsRoundTripThroughAFile)
{
    Song::registerForArchiving();
    TemporaryFolder folder;
    auto tree = sampleTree();
    auto path = folder.file("ressources.archive");
    ASSERT_TRUE(KeyedArchiver::archiveRootObject(tree.ptr(), path));
    auto restored = KeyedUnarchiver::unarchiveObjectWithFile(path);
    ASSERT_TRUE(restored);
    EXPECT_TRUE(restored->isEqual(tree.ptr()));

    // Kinds, mutability and type codes survive.
    auto* root = downcast<Dictionary>(restored.get());
    EXPECT_TRUE(is<MutableDictionary>(root));
    auto* inner = root->objectForKey<Dictionary>("inner");
    auto* numbers = inner->objectForKey<Array>("numbers");
    EXPECT_FALSE(is<MutableArray>(numbers));
    EXPECT_EQ(downcast<Number>(numbers->objectAtIndex(1))->objCType(), 'Q');
    EXPECT_TRUE(std::signbit(downcast<Number>(numbers->objectAtIndex(2))->doubleValue()));
    EXPECT_EQ(numbers->objectAtIndex(3), &Number::trueValue());
    EXPECT_EQ(numbers->objectAtIndex(4), &Null::null());
    EXPECT_NE(numbers->objectAtIndex(5), &Number::trueValue());
    EXPECT_EQ(downcast<Number>(numbers->objectAtIndex(5))->objCType(), 'c');
    EXPECT_TRUE(is<MutableSet>(root->objectForKey("played")));
    // An object referenced twice comes back as one object.
    EXPECT_EQ(inner->objectForKey("first"), inner->objectForKey("second"));
    EXPECT_EQ(root->objectForKey<Song>("song")->extra(), inner->objectForKey("first"));
}

TEST(KeyedArchiver, DamagedOrForeignFilesReadAsNothing)
{
    Song::registerForArchiving();
    TemporaryFolder folder;
    auto data = KeyedArchiver::archivedDataWithRootObject(sampleTree().ptr());
    EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(data));
    // Every truncation fails cleanly.
    for (size_t length = 0; length < data->length(); ++length)
        EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(*Data::create(data->bytes(), length))) << length;
    // So does any flipped byte.
    for (size_t at = 0; at < data->length(); at += 7) {
        std::string bytes(data->view());
        bytes[at] ^= 0x5a;
        EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(*Data::create(bytes))) << at;
    }
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithFile(folder.file("missing.archive")));
    std::ofstream(folder.file("foreign.archive")) << "{\"not\": \"an archive\"}";
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithFile(folder.file("foreign.archive")));
}

TEST(KeyedArchiver, UnknownClassOrRefusingDecoderReadsAsNothing)
{
    Song::registerForArchiving();
    auto data = KeyedArchiver::archivedDataWithRootObject(Array::create({ Song::create("a", 1, nullptr).ptr() }).get());
    KeyedUnarchiver::registerClass("Song", [](KeyedUnarchiver&) -> RefPtr<Object> {
        Exception::raise(InternalInconsistencyException, "refused");
    });
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(data));
    Song::registerForArchiving();
    EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(data));
}

TEST(KeyedArchiver, UnarchivableObjectsRaiseAndLeaveTheOldFile)
{
    TemporaryFolder folder;
    auto path = folder.file("state.archive");
    ASSERT_TRUE(KeyedArchiver::archiveRootObject(String::create("old").get(), path));
    auto bad = Array::create({ Notification::create("N").ptr() });
    EXPECT_THROW(KeyedArchiver::archiveRootObject(bad.ptr(), path), Exception);
    auto restored = KeyedUnarchiver::unarchiveObjectWithFile(path);
    ASSERT_TRUE(restored);
    EXPECT_EQ(downcast<String>(restored.get())->view(), "old");
    // A folder that does not exist cannot be written to; nothing is raised.
    EXPECT_FALSE(KeyedArchiver::archiveRootObject(String::create("x").get(), folder.file("no/such/folder/a.archive")));
    // No temporary files are left behind.
    size_t files = 0;
    for ([[maybe_unused]] auto& entry : std::filesystem::directory_iterator(folder.path()))
        ++files;
    EXPECT_EQ(files, 1u);
}

TEST(KeyedArchiver, ReferenceCyclesAreRefused)
{
    auto array = MutableArray::create();
    auto holder = MutableDictionary::create();
    holder->setObject(array, "array");
    array->addObject(holder);
    EXPECT_THROW(KeyedArchiver::archivedDataWithRootObject(array.ptr()), Exception);
    array->removeAllObjects(); // break the cycle so both are freed
}

TEST(KeyedArchiver, NilRootRoundTripsAsNil)
{
    auto data = KeyedArchiver::archivedDataWithRootObject(nullptr);
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(data));
}

namespace {

// Builds an archive by hand, as an attacker would, with a valid checksum.
class CraftedArchive {
public:
    CraftedArchive() { m_bytes = std::string("VXKA\x01", 5); }
    void varint(uint64_t value)
    {
        do {
            uint8_t byte = value & 0x7F;
            value >>= 7;
            m_records.push_back(static_cast<char>(byte | (value ? 0x80 : 0)));
        } while (value);
    }
    void byte(uint8_t value) { m_records.push_back(static_cast<char>(value)); }
    // Appends a record; answers its reference.
    uint64_t array(std::initializer_list<uint64_t> references)
    {
        byte(7);
        varint(references.size());
        for (auto reference : references)
            varint(reference);
        return ++m_count;
    }
    uint64_t set(std::initializer_list<uint64_t> references)
    {
        byte(11);
        varint(references.size());
        for (auto reference : references)
            varint(reference);
        return ++m_count;
    }
    uint64_t null()
    {
        byte(3);
        return ++m_count;
    }
    Ref<Data> finish(uint64_t root)
    {
        std::string out = m_bytes;
        std::string count;
        for (uint64_t value = m_count;;) {
            uint8_t b = value & 0x7F;
            value >>= 7;
            count.push_back(static_cast<char>(b | (value ? 0x80 : 0)));
            if (!value)
                break;
        }
        out += count + m_records;
        for (uint64_t value = root;;) {
            uint8_t b = value & 0x7F;
            value >>= 7;
            out.push_back(static_cast<char>(b | (value ? 0x80 : 0)));
            if (!value)
                break;
        }
        uint64_t hash = 0xcbf29ce484222325ull;
        for (unsigned char c : out) {
            hash ^= c;
            hash *= 0x100000001b3ull;
        }
        for (int i = 0; i < 8; ++i)
            out.push_back(static_cast<char>(hash >> (8 * i)));
        return Data::create(out);
    }

private:
    std::string m_bytes;
    std::string m_records;
    uint64_t m_count { 0 };
};

} // namespace

TEST(KeyedArchiver, CraftedDeepArchivesReadAsNothing)
{
    CraftedArchive crafted;
    uint64_t reference = crafted.null();
    for (int i = 0; i < 300000; ++i)
        reference = crafted.array({ reference });
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(*crafted.finish(reference)));

    // Within the bound, a deep archive reads back whole.
    CraftedArchive shallow;
    reference = shallow.null();
    for (int i = 0; i < 4000; ++i)
        reference = shallow.array({ reference });
    EXPECT_TRUE(is<Array>(KeyedUnarchiver::unarchiveObjectWithData(*shallow.finish(reference))));
}

TEST(KeyedArchiver, EqualDAGsInASetReadInLinearTime)
{
    // Two distinct but equal trees whose every level holds its child twice: a
    // comparison that does not remember what it found equal takes 2^40 steps.
    CraftedArchive crafted;
    uint64_t a = crafted.null(), b = a;
    for (int level = 0; level < 40; ++level) {
        a = crafted.array({ a, a });
        b = crafted.array({ b, b });
    }
    auto set = KeyedUnarchiver::unarchiveObjectWithData(*crafted.finish(crafted.set({ a, b })));
    ASSERT_TRUE(is<Set>(set));
    EXPECT_EQ(downcast<Set>(set.get())->count(), 1u); // equal, so one member
}

TEST(KeyedArchiver, DeepTreesAreRefusedWhenWrittenAndReleasedWithoutRecursion)
{
    // A million levels: releasing it recursively would overflow any stack.
    RefPtr<MutableArray> deep = MutableArray::create();
    for (int i = 0; i < 1000000; ++i) {
        auto outer = MutableArray::create();
        outer->addObject(deep);
        deep = std::move(outer);
    }
    EXPECT_NE(test::raisedReason([&] { KeyedArchiver::archivedDataWithRootObject(deep.get()); }, InvalidArgumentException).find("deeper than"),
        std::string::npos);
    deep = nullptr; // released here, level by level
    SUCCEED();
}
