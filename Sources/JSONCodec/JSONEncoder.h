#pragma once

// The encoder: a tree of arrays, dictionaries, strings, numbers, booleans and
// null to UTF-8 JSON text. Dictionary keys must be strings; keys are written
// in the dictionary's own order. An object met again in the same call (the
// same instance) is copied from its earlier output instead of encoded again.

#include <Platform/Object.h>
#include <Platform/Values.h>

namespace velvox {

using JCSerializeOptionFlags = unsigned long;
inline constexpr JCSerializeOptionFlags JCSerializeOptionNone = 0;
// Newlines and two-space indentation.
inline constexpr JCSerializeOptionFlags JCSerializeOptionPretty = 1;
// Every non-ASCII character as \u escapes (surrogate pairs above U+FFFF).
inline constexpr JCSerializeOptionFlags JCSerializeOptionEscapeUnicode = 2;

enum JCEncodeAsType : int { JCEncodeAsData = 1, JCEncodeAsString = 2 };

// Answers a Data or a String (per encodeAs), or null with the first error
// (domain "JCErrorDomain", code -1) stored through `error` when given.
// Raises for a null object.
RefPtr<Object> jc_encode(Object* object, JCSerializeOptionFlags options, int encodeAs, RefPtr<Error>* error);

} // namespace velvox
