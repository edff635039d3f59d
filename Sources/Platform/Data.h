#pragma once

#include "Object.h"
#include "String.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace velvox {

class Error;

// Immutable bytes.
class Data final : public Object {
    VX_OBJECT(Data)
public:
    static Ref<Data> create(const void* bytes, size_t length);
    static Ref<Data> create(std::string_view bytes) { return create(bytes.data(), bytes.size()); }
    // Takes over a buffer from malloc(); it is released with free().
    static Ref<Data> adoptMallocedBytes(void* bytes, size_t length);
    // Null when the file cannot be read or is not a regular file (a FIFO,
    // a folder, a device), with the reason in `error` when given.
    static RefPtr<Data> createWithContentsOfFile(const std::string& path, RefPtr<Error>* error = nullptr);

    const uint8_t* bytes() const { return m_bytes; }
    size_t length() const { return m_length; }
    std::string_view view() const { return { reinterpret_cast<const char*>(m_bytes), m_length }; }

    // Writes to a temporary file beside the target and renames it over the
    // target, so readers see the old or the new contents, never a part.
    bool writeToFile(const std::string& path, RefPtr<Error>* error = nullptr) const;

    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override;

private:
    Data(uint8_t* bytes, size_t length)
        : m_bytes(bytes)
        , m_length(length)
    {
    }
    ~Data() override;

    uint8_t* m_bytes;
    size_t m_length;
};

} // namespace velvox
