#pragma once

// Small helpers on strings, data, arrays and dictionaries: JSON shortcuts,
// a quote-aware tokeniser, and display texts for durations and capped counts.

#include <JSONCodec/JSONCodec.h>

#include <Platform/Collections.h>
#include <Platform/String.h>
#include <Platform/Values.h>

#include <cstdint>

namespace velvox {

// A duration as "h.mm.ss" or "m.ss": 0 gives "0.00", 61000 "1.01",
// 3661000 "1.01.01". Milliseconds are truncated, never rounded.
Ref<String> stringWithMilliseconds(int64_t milliseconds);

// "%d" of the value when it does not exceed the bound, else "%d+" of the bound:
// 120 with 99 gives "99+".
Ref<String> stringWithInteger(long value, long upperRange);

// Words separated by spaces, a double-quoted run kept as one word without its
// quotes: play "night drive" now gives play, night drive, now.
Ref<Array> componentsSeparatedByWhitespacePreservingQuotations(const String&);

// The text decoded as JSON with the default options; null when it is not.
RefPtr<Object> JSONObject(const String&);
// The bytes read as UTF-8 text, then decoded; null when they are not UTF-8 or not JSON.
RefPtr<Object> JSONObject(const Data&);

// JSONData() and JSONString() of arrays and dictionaries (compact, no escaping,
// null on failure) come with JSONCodec.h.

} // namespace velvox
