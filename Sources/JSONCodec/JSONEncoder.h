#pragma once

// The encoder: a tree of arrays, dictionaries, strings, numbers, booleans and
// null to UTF-8 JSON text. Dictionary keys must be strings; keys are written
// in the dictionary's own order. An object met again in the same call (the
// same instance) is copied from its earlier output instead of encoded again.

#include <Platform/Object.h>
#include <Platform/Values.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace velvox {

using JCSerializeOptionFlags = unsigned long;
inline constexpr JCSerializeOptionFlags JCSerializeOptionNone = 0;
// Newlines and two-space indentation.
inline constexpr JCSerializeOptionFlags JCSerializeOptionPretty = 1;
// Every non-ASCII character as \u escapes (surrogate pairs above U+FFFF).
inline constexpr JCSerializeOptionFlags JCSerializeOptionEscapeUnicode = 2;

enum JCEncodeAsType : int { JCEncodeAsData = 1,
    JCEncodeAsString = 2 };

// Answers a Data or a String (per encodeAs), or null with the first error
// (domain "JCErrorDomain", code -1) stored through `error` when given.
// Raises for a null object.
RefPtr<Object> jc_encode(Object* object, JCSerializeOptionFlags options, int encodeAs, RefPtr<Error>* error);

// Output memory that the caller keeps from one encode to the next: once it
// has grown to the size of the usual output, encoding allocates nothing for
// the text. The text stays valid until the next encode into the buffer.
class JCEncodeBuffer {
public:
    JCEncodeBuffer() = default;
    ~JCEncodeBuffer();
    JCEncodeBuffer(JCEncodeBuffer&&) noexcept;
    JCEncodeBuffer& operator=(JCEncodeBuffer&&) noexcept;
    JCEncodeBuffer(const JCEncodeBuffer&) = delete;
    JCEncodeBuffer& operator=(const JCEncodeBuffer&) = delete;

    const uint8_t* bytes() const { return m_bytes; }
    size_t length() const { return m_length; }
    std::string_view text() const { return { reinterpret_cast<const char*>(m_bytes), m_length }; }
    size_t capacity() const { return m_capacity; }
    // Gives the memory back.
    void release();

private:
    friend bool jc_encodeInto(Object*, JCSerializeOptionFlags, JCEncodeBuffer&, RefPtr<Error>*);
    uint8_t* m_bytes { nullptr };
    size_t m_length { 0 };
    size_t m_capacity { 0 };
};

// Encodes into the caller's buffer, replacing its text. Answers false (the
// buffer then holds no text) with the first error stored through `error`;
// the same rules and messages as jc_encode. Raises for a null object.
bool jc_encodeInto(Object* object, JCSerializeOptionFlags options, JCEncodeBuffer& buffer, RefPtr<Error>* error = nullptr);

} // namespace velvox
