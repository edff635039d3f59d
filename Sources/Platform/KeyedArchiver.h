#pragma once

// Keyed archives: a root object, everything it references, and nothing else,
// to bytes or a file and back. The value and collection classes are built in;
// any other class takes part by answering asCoding() and registering a
// decoder under its class name. An object referenced twice is written once and
// read back as one object. The byte format is described in docs/archive-format.md.

#include "Object.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace velvox {

class Data;
class Error;
class KeyedArchiver;
class KeyedUnarchiver;

class Coding {
public:
    virtual ~Coding() = default;
    // Writes the object's state with the archiver's encode calls.
    virtual void encodeWithCoder(KeyedArchiver&) const = 0;
};

class KeyedArchiver {
public:
    // The archive's bytes. Raises InvalidArgumentException for an object that
    // cannot be archived or a reference cycle; nothing is written then.
    static Ref<Data> archivedDataWithRootObject(Object* root);
    // Writes the archive to a temporary file and renames it over the path.
    // Answers false when the file cannot be written (the old file stays),
    // with the reason in `error` when given.
    static bool archiveRootObject(Object* root, const std::string& path, RefPtr<Error>* error = nullptr);

    // For encodeWithCoder(): values under keys of the object being encoded.
    void encodeObject(Object* object, std::string_view forKey);
    void encodeInt64(int64_t value, std::string_view forKey);
    void encodeDouble(double value, std::string_view forKey);
    void encodeBool(bool value, std::string_view forKey);
    void encodeString(std::string_view value, std::string_view forKey);

private:
    KeyedArchiver();
    ~KeyedArchiver();
    uint32_t encodeReference(Object*);
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

class KeyedUnarchiver {
public:
    using Decoder = std::function<RefPtr<Object>(KeyedUnarchiver&)>;
    // The decoder for archived objects of a class. Registering again replaces it.
    static void registerClass(std::string_view className, Decoder);

    // Null for a missing, truncated, damaged or foreign archive, or one that
    // names a class with no registered decoder.
    static RefPtr<Object> unarchiveObjectWithData(const Data&);
    static RefPtr<Object> unarchiveObjectWithFile(const std::string& path);

    // For decoders: the values of the object being decoded.
    bool containsValueForKey(std::string_view key) const;
    RefPtr<Object> decodeObjectForKey(std::string_view key) const;
    // Null when absent or of another kind.
    template<typename T>
    RefPtr<T> decodeObjectOfClass(std::string_view key) const
    {
        auto object = decodeObjectForKey(key);
        return is<T>(object) ? RefPtr<T>(static_cast<T*>(object.get())) : nullptr;
    }
    int64_t decodeInt64ForKey(std::string_view key) const;

    double decodeDoubleForKey(std::string_view key) const;
    bool decodeBoolForKey(std::string_view key) const;

private:
    KeyedUnarchiver();
    ~KeyedUnarchiver();
    // The field of the object being decoded under a key, or null.
    const std::pair<std::string_view, uint32_t>* field(std::string_view key) const;
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace velvox
