#include "KeyedArchiver.h"

#include "Collections.h"
#include "Exception.h"
#include "FileManager.h"
#include "Number.h"
#include "Values.h"

#include <cstring>
#include <map>
#include <mutex>
#include <unordered_set>

namespace velvox {

namespace {

constexpr char magic[4] = { 'V', 'X', 'K', 'A' };
constexpr uint8_t formatVersion = 1;

enum class Tag : uint8_t {
    String = 1,
    Number = 2,
    Null = 3,
    Data = 4,
    Date = 5,
    URL = 6,
    Array = 7,
    MutableArray = 8,
    Dictionary = 9,
    MutableDictionary = 10,
    Set = 11,
    MutableSet = 12,
    Error = 13,
    Image = 14,
    Coded = 15,
};

uint64_t checksum(const uint8_t* bytes, size_t length)
{
    uint64_t hash = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < length; ++i) {
        hash ^= bytes[i];
        hash *= 0x100000001b3ull;
    }
    return hash;
}

class Writer {
public:
    void byte(uint8_t value) { m_bytes.push_back(value); }
    void varint(uint64_t value)
    {
        while (value >= 0x80) {
            m_bytes.push_back(static_cast<uint8_t>(value) | 0x80);
            value >>= 7;
        }
        m_bytes.push_back(static_cast<uint8_t>(value));
    }
    void fixed64(uint64_t value)
    {
        for (int i = 0; i < 8; ++i)
            m_bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    void text(std::string_view value)
    {
        varint(value.size());
        m_bytes.insert(m_bytes.end(), value.begin(), value.end());
    }
    void raw(const void* data, size_t length)
    {
        auto* p = static_cast<const uint8_t*>(data);
        m_bytes.insert(m_bytes.end(), p, p + length);
    }
    std::vector<uint8_t>& bytes() { return m_bytes; }

private:
    std::vector<uint8_t> m_bytes;
};

struct ArchiveFailure { };

class Reader {
public:
    Reader(const uint8_t* bytes, size_t length)
        : m_at(bytes)
        , m_end(bytes + length)
    {
    }
    uint8_t byte()
    {
        need(1);
        return *m_at++;
    }
    uint64_t varint()
    {
        uint64_t value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            uint8_t b = byte();
            value |= static_cast<uint64_t>(b & 0x7f) << shift;
            if (!(b & 0x80))
                return value;
        }
        throw ArchiveFailure();
    }
    uint64_t fixed64()
    {
        need(8);
        uint64_t value = 0;
        for (int i = 0; i < 8; ++i)
            value |= static_cast<uint64_t>(m_at[i]) << (8 * i);
        m_at += 8;
        return value;
    }
    std::string_view text()
    {
        uint64_t length = varint();
        need(length);
        std::string_view value(reinterpret_cast<const char*>(m_at), length);
        m_at += length;
        return value;
    }
    // A count of things that each take at least `unit` bytes; bounds a reservation.
    size_t count(size_t unit)
    {
        uint64_t n = varint();
        if (n > static_cast<uint64_t>(m_end - m_at) / unit)
            throw ArchiveFailure();
        return n;
    }
    bool atEnd() const { return m_at == m_end; }

private:
    void need(uint64_t n)
    {
        if (n > static_cast<uint64_t>(m_end - m_at))
            throw ArchiveFailure();
    }
    const uint8_t* m_at;
    const uint8_t* m_end;
};

struct ClassRegistry {
    std::mutex mutex;
    std::map<std::string, KeyedUnarchiver::Decoder, std::less<>> decoders;
};

ClassRegistry& classRegistry()
{
    static ClassRegistry* registry = new ClassRegistry;
    return *registry;
}

} // namespace

// MARK: Archiver

// Deeper trees are neither written nor read: a crafted archive must not build a
// tree whose use would exhaust the stack. The JSON codec's own limit is 4,096
// levels; models and their containers add a few.
constexpr uint32_t maximumArchiveDepth = 5000;

struct KeyedArchiver::Impl {
    Writer records;
    uint32_t recordCount { 0 };
    std::unordered_map<const Object*, uint32_t> written;
    // Small values (strings, numbers, dates, URLs...) by their record's bytes:
    // equal values are written once, whatever objects held them, so an
    // identity map's thousands of equal counts, flags and words cost one
    // record each and come back as one shared (immutable) object.
    std::unordered_map<std::string, uint32_t> writtenValues;
    std::unordered_set<const Object*> inProgress;
    std::vector<Ref<Object>> keepAlive;
    // The fields of the coded object being encoded: key and reference.
    std::vector<std::pair<std::string, uint32_t>>* fields { nullptr };
    uint32_t depth { 0 };
};

KeyedArchiver::KeyedArchiver()
    : m_impl(std::make_unique<Impl>())
{
}

KeyedArchiver::~KeyedArchiver() = default;

uint32_t KeyedArchiver::encodeReference(Object* object)
{
    if (!object)
        return 0;
    if (auto it = m_impl->written.find(object); it != m_impl->written.end())
        return it->second;
    if (!m_impl->inProgress.insert(object).second)
        Exception::raise(InvalidArgumentException, "*** KeyedArchiver: %s object 0x%08X is part of a reference cycle.", object->className(),
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(object)));
    struct DepthGuard {
        uint32_t& depth;
        ~DepthGuard() { --depth; }
    } depthGuard { ++m_impl->depth };
    if (m_impl->depth > maximumArchiveDepth) {
        m_impl->inProgress.erase(object);
        Exception::raise(InvalidArgumentException, "*** KeyedArchiver: the object tree is deeper than %u levels.", maximumArchiveDepth);
    }

    // Children are written before their parent, so that every reference in
    // an archive points backwards and reading needs one pass.
    Writer record;
    bool leaf = true; // a record that refers to no other record
    auto writeElements = [&](Tag tag, auto& collection) {
        leaf = false;
        std::vector<uint32_t> references;
        for (auto* element : collection)
            references.push_back(encodeReference(element));
        record.byte(static_cast<uint8_t>(tag));
        record.varint(references.size());
        for (auto reference : references)
            record.varint(reference);
    };
    if (auto* string = dynamicDowncast<String>(object)) {
        record.byte(static_cast<uint8_t>(Tag::String));
        record.text(string->view());
    } else if (auto* number = dynamicDowncast<Number>(object)) {
        record.byte(static_cast<uint8_t>(Tag::Number));
        // The boolean singletons are 'b', so that they come back as themselves.
        record.byte(static_cast<uint8_t>(number->isBoolean() ? 'b' : number->objCType()));
        uint64_t bits;
        if (number->isFloatingPoint()) {
            double value = number->doubleValue();
            memcpy(&bits, &value, sizeof(bits));
        } else
            bits = number->unsignedLongLongValue();
        record.fixed64(bits);
    } else if (is<Null>(object)) {
        record.byte(static_cast<uint8_t>(Tag::Null));
    } else if (auto* data = dynamicDowncast<Data>(object)) {
        record.byte(static_cast<uint8_t>(Tag::Data));
        record.text(data->view());
    } else if (auto* date = dynamicDowncast<Date>(object)) {
        record.byte(static_cast<uint8_t>(Tag::Date));
        double seconds = date->timeIntervalSince1970();
        uint64_t bits;
        memcpy(&bits, &seconds, sizeof(bits));
        record.fixed64(bits);
    } else if (auto* url = dynamicDowncast<URL>(object)) {
        record.byte(static_cast<uint8_t>(Tag::URL));
        record.text(url->absoluteString()->view());
    } else if (auto* array = dynamicDowncast<Array>(object)) {
        writeElements(is<MutableArray>(object) ? Tag::MutableArray : Tag::Array, *array);
    } else if (auto* dictionary = dynamicDowncast<Dictionary>(object)) {
        leaf = false;
        std::vector<uint32_t> references;
        for (auto& entry : *dictionary) {
            references.push_back(encodeReference(entry.key));
            references.push_back(encodeReference(entry.object));
        }
        record.byte(static_cast<uint8_t>(is<MutableDictionary>(object) ? Tag::MutableDictionary : Tag::Dictionary));
        record.varint(references.size() / 2);
        for (auto reference : references)
            record.varint(reference);
    } else if (auto* set = dynamicDowncast<Set>(object)) {
        writeElements(is<MutableSet>(object) ? Tag::MutableSet : Tag::Set, *set);
    } else if (auto* error = dynamicDowncast<Error>(object)) {
        leaf = false;
        uint32_t domain = encodeReference(error->domain());
        uint32_t userInfo = encodeReference(error->userInfo());
        record.byte(static_cast<uint8_t>(Tag::Error));
        record.varint(domain);
        int64_t code = error->code();
        record.varint((static_cast<uint64_t>(code) << 1) ^ static_cast<uint64_t>(code >> 63));
        record.varint(userInfo);
    } else if (auto* image = dynamicDowncast<Image>(object)) {
        leaf = false;
        uint32_t data = encodeReference(&image->data());
        record.byte(static_cast<uint8_t>(Tag::Image));
        record.varint(data);
    } else if (auto* coding = object->asCoding()) {
        leaf = false;
        std::vector<std::pair<std::string, uint32_t>> fields;
        auto* outer = std::exchange(m_impl->fields, &fields);
        try {
            coding->encodeWithCoder(*this);
        } catch (...) {
            m_impl->fields = outer;
            throw;
        }
        m_impl->fields = outer;
        record.byte(static_cast<uint8_t>(Tag::Coded));
        record.text(object->className());
        record.varint(fields.size());
        for (auto& [key, reference] : fields) {
            record.text(key);
            record.varint(reference);
        }
    } else {
        Exception::raise(InvalidArgumentException, "*** KeyedArchiver: objects of class %s cannot be archived.", object->className());
    }

    m_impl->inProgress.erase(object);
    constexpr size_t largestSharedValue = 256;
    std::string valueKey;
    if (leaf && record.bytes().size() <= largestSharedValue) {
        valueKey.assign(reinterpret_cast<const char*>(record.bytes().data()), record.bytes().size());
        if (auto it = m_impl->writtenValues.find(valueKey); it != m_impl->writtenValues.end()) {
            m_impl->written.emplace(object, it->second);
            m_impl->keepAlive.emplace_back(*object);
            return it->second;
        }
    }
    m_impl->records.raw(record.bytes().data(), record.bytes().size());
    uint32_t reference = ++m_impl->recordCount;
    m_impl->written.emplace(object, reference);
    if (!valueKey.empty())
        m_impl->writtenValues.emplace(std::move(valueKey), reference);
    // Values made on the fly by encodeInt64() and friends die after the call;
    // keeping every written object alive stops a new one reusing a written address.
    m_impl->keepAlive.emplace_back(*object);
    return reference;
}

void KeyedArchiver::encodeObject(Object* object, std::string_view key)
{
    VXAssert(m_impl->fields, "KeyedArchiver: encodeObject() outside encodeWithCoder().");
    // Resolve the child before touching the field list: encoding it may nest.
    uint32_t reference = encodeReference(object);
    m_impl->fields->emplace_back(std::string(key), reference);
}

void KeyedArchiver::encodeInt64(int64_t value, std::string_view key)
{
    encodeObject(Number::withInteger(value).get(), key);
}

void KeyedArchiver::encodeDouble(double value, std::string_view key)
{
    encodeObject(Number::withDouble(value).get(), key);
}

void KeyedArchiver::encodeBool(bool value, std::string_view key)
{
    encodeObject(Number::withBool(value).get(), key);
}

void KeyedArchiver::encodeString(std::string_view value, std::string_view key)
{
    encodeObject(String::create(value).get(), key);
}

Ref<Data> KeyedArchiver::archivedDataWithRootObject(Object* root)
{
    KeyedArchiver archiver;
    uint32_t rootReference = archiver.encodeReference(root);
    Writer out;
    out.raw(magic, sizeof(magic));
    out.byte(formatVersion);
    out.varint(archiver.m_impl->recordCount);
    auto& records = archiver.m_impl->records.bytes();
    out.raw(records.data(), records.size());
    out.varint(rootReference);
    out.fixed64(checksum(out.bytes().data(), out.bytes().size()));
    return Data::create(out.bytes().data(), out.bytes().size());
}

bool KeyedArchiver::archiveRootObject(Object* root, const std::string& path, RefPtr<Error>* error)
{
    auto data = archivedDataWithRootObject(root);
    return data->writeToFile(path, error);
}

// MARK: Unarchiver

struct KeyedUnarchiver::Impl {
    std::vector<RefPtr<Object>> objects; // by reference - 1
    std::vector<uint32_t> depths;        // of each object's tree, by reference - 1
    uint32_t recordDepth { 1 };          // of the record being read
    const std::vector<std::pair<std::string_view, uint32_t>>* fields { nullptr };
    size_t fieldCursor { 0 }; // where the last field asked for was found
    std::vector<std::pair<std::string_view, uint32_t>> fieldStorage;
    std::string lastClassName;
    Decoder lastDecoder;

    Object* resolve(uint64_t reference)
    {
        if (!reference)
            return nullptr;
        if (reference > objects.size())
            throw ArchiveFailure();
        recordDepth = std::max(recordDepth, depths[reference - 1] + 1);
        return objects[reference - 1].get();
    }
    // A collection element or key: must exist.
    Object* element(uint64_t reference)
    {
        auto* object = resolve(reference);
        if (!object)
            throw ArchiveFailure();
        return object;
    }
};

KeyedUnarchiver::KeyedUnarchiver()
    : m_impl(std::make_unique<Impl>())
{
}

KeyedUnarchiver::~KeyedUnarchiver() = default;

void KeyedUnarchiver::registerClass(std::string_view className, Decoder decoder)
{
    std::lock_guard lock(classRegistry().mutex);
    classRegistry().decoders.insert_or_assign(std::string(className), std::move(decoder));
}

RefPtr<Object> KeyedUnarchiver::unarchiveObjectWithFile(const std::string& path)
{
    auto data = Data::createWithContentsOfFile(path);
    return data ? unarchiveObjectWithData(*data) : nullptr;
}

RefPtr<Object> KeyedUnarchiver::unarchiveObjectWithData(const Data& data)
{
    const uint8_t* bytes = data.bytes();
    size_t length = data.length();
    if (length < sizeof(magic) + 1 + 8 || memcmp(bytes, magic, sizeof(magic)) || bytes[sizeof(magic)] != formatVersion)
        return nullptr;
    uint64_t stored = 0;
    for (int i = 0; i < 8; ++i)
        stored |= static_cast<uint64_t>(bytes[length - 8 + i]) << (8 * i);
    if (stored != checksum(bytes, length - 8))
        return nullptr;

    KeyedUnarchiver unarchiver;
    auto& impl = *unarchiver.m_impl;
    try {
        Reader reader(bytes + sizeof(magic) + 1, length - sizeof(magic) - 1 - 8);
        size_t recordCount = reader.count(1);
        impl.objects.reserve(recordCount);
        impl.depths.reserve(recordCount);
        for (size_t r = 0; r < recordCount; ++r) {
            impl.recordDepth = 1;
            auto tag = static_cast<Tag>(reader.byte());
            RefPtr<Object> object;
            switch (tag) {
            case Tag::String:
                object = String::create(reader.text());
                break;
            case Tag::Number: {
                char type = static_cast<char>(reader.byte());
                uint64_t bits = reader.fixed64();
                if (type == 'b')
                    object = Number::withBool(bits);
                else if (type == 'c')
                    object = Number::withChar(static_cast<int8_t>(bits));
                else if (type == 'q')
                    object = Number::withInteger(static_cast<int64_t>(bits));
                else if (type == 'Q')
                    object = Number::withUnsignedInteger(bits);
                else if (type == 'd') {
                    double value;
                    memcpy(&value, &bits, sizeof(value));
                    object = Number::withDouble(value);
                } else
                    throw ArchiveFailure();
                break;
            }
            case Tag::Null:
                object = &Null::null();
                break;
            case Tag::Data: {
                auto text = reader.text();
                object = Data::create(text.data(), text.size());
                break;
            }
            case Tag::Date: {
                uint64_t bits = reader.fixed64();
                double seconds;
                memcpy(&seconds, &bits, sizeof(seconds));
                object = Date::create(seconds);
                break;
            }
            case Tag::URL:
                object = URL::create(reader.text());
                if (!object)
                    throw ArchiveFailure();
                break;
            case Tag::Array:
            case Tag::MutableArray: {
                size_t n = reader.count(1);
                auto array = MutableArray::create(n);
                for (size_t i = 0; i < n; ++i)
                    array->addObject(impl.element(reader.varint()));
                object = tag == Tag::Array ? RefPtr<Object>(array->copy()) : RefPtr<Object>(array);
                break;
            }
            case Tag::Dictionary:
            case Tag::MutableDictionary: {
                size_t n = reader.count(2);
                auto dictionary = MutableDictionary::create(n);
                for (size_t i = 0; i < n; ++i) {
                    auto* key = impl.element(reader.varint());
                    dictionary->setObject(impl.element(reader.varint()), key);
                }
                object = tag == Tag::Dictionary ? RefPtr<Object>(dictionary->copy()) : RefPtr<Object>(dictionary);
                break;
            }
            case Tag::Set:
            case Tag::MutableSet: {
                size_t n = reader.count(1);
                auto set = MutableSet::create(n);
                for (size_t i = 0; i < n; ++i)
                    set->addObject(impl.element(reader.varint()));
                object = tag == Tag::Set ? RefPtr<Object>(set->copy()) : RefPtr<Object>(set);
                break;
            }
            case Tag::Error: {
                auto* domain = dynamicDowncast<String>(impl.element(reader.varint()));
                uint64_t zigzag = reader.varint();
                int64_t code = static_cast<int64_t>(zigzag >> 1) ^ -static_cast<int64_t>(zigzag & 1);
                auto* userInfo = impl.resolve(reader.varint());
                if (!domain || (userInfo && !is<Dictionary>(userInfo)))
                    throw ArchiveFailure();
                object = Error::create(domain->view(), code, downcast<Dictionary>(userInfo));
                break;
            }
            case Tag::Image: {
                auto* data = dynamicDowncast<Data>(impl.element(reader.varint()));
                if (!data)
                    throw ArchiveFailure();
                object = Image::create(*data);
                if (!object)
                    throw ArchiveFailure();
                break;
            }
            case Tag::Coded: {
                auto className = reader.text();
                size_t n = reader.count(2);
                // One field list for every object: decoding never nests (the
                // fields refer to objects decoded before).
                auto& fields = impl.fieldStorage;
                fields.clear();
                fields.reserve(n);
                for (size_t i = 0; i < n; ++i) {
                    auto key = reader.text();
                    uint64_t reference = reader.varint();
                    if (reference > impl.objects.size())
                        throw ArchiveFailure();
                    fields.emplace_back(key, static_cast<uint32_t>(reference));
                    if (reference)
                        impl.recordDepth = std::max(impl.recordDepth, impl.depths[reference - 1] + 1);
                }
                // Archives hold many objects of few classes: the decoder of
                // the last class is kept at hand.
                if (className != impl.lastClassName || !impl.lastDecoder) {
                    std::lock_guard lock(classRegistry().mutex);
                    auto it = classRegistry().decoders.find(className);
                    if (it == classRegistry().decoders.end())
                        throw ArchiveFailure();
                    impl.lastDecoder = it->second;
                    impl.lastClassName = std::string(className);
                }
                Decoder& decoder = impl.lastDecoder;
                impl.fields = &fields;
                impl.fieldCursor = 0;
                object = decoder(unarchiver);
                impl.fields = nullptr;
                break;
            }
            default:
                throw ArchiveFailure();
            }
            if (impl.recordDepth > maximumArchiveDepth)
                throw ArchiveFailure();
            impl.objects.push_back(std::move(object));
            impl.depths.push_back(impl.recordDepth);
        }
        uint64_t root = reader.varint();
        if (!reader.atEnd())
            return nullptr;
        return impl.resolve(root);
    } catch (const ArchiveFailure&) {
        return nullptr;
    } catch (const Exception&) {
        // A decoder that refuses its data makes the archive unreadable, not the program.
        return nullptr;
    }
}

const std::pair<std::string_view, uint32_t>* KeyedUnarchiver::field(std::string_view key) const
{
    auto* fields = m_impl->fields;
    if (!fields || fields->empty())
        return nullptr;
    // Decoders mostly ask for the fields in the order they were written, so
    // the search starts where the last one was found.
    size_t count = fields->size();
    size_t start = m_impl->fieldCursor < count ? m_impl->fieldCursor : 0;
    for (size_t i = 0; i < count; ++i) {
        size_t index = start + i < count ? start + i : start + i - count;
        if ((*fields)[index].first == key) {
            m_impl->fieldCursor = index;
            return &(*fields)[index];
        }
    }
    return nullptr;
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const
{
    return field(key) != nullptr;
}

RefPtr<Object> KeyedUnarchiver::decodeObjectForKey(std::string_view key) const
{
    auto* found = field(key);
    return found ? m_impl->resolve(found->second) : nullptr;
}

int64_t KeyedUnarchiver::decodeInt64ForKey(std::string_view key) const
{
    auto number = decodeObjectOfClass<Number>(key);
    return number ? number->integerValue() : 0;
}

double KeyedUnarchiver::decodeDoubleForKey(std::string_view key) const
{
    auto number = decodeObjectOfClass<Number>(key);
    return number ? number->doubleValue() : 0;
}

bool KeyedUnarchiver::decodeBoolForKey(std::string_view key) const
{
    auto number = decodeObjectOfClass<Number>(key);
    return number && number->boolValue();
}

} // namespace velvox
