#pragma once

// One-call decoding and encoding. Each decoding call uses a fresh decoder, so
// nothing is shared between calls or threads; reuse a JSONDecoder to profit
// from its cache. Only an array or a dictionary can be the top of a tree.

#include "JCCollections.h"
#include "JSONDecoder.h"
#include "JSONEncoder.h"

#include <Platform/Collections.h>
#include <Platform/String.h>
#include <Platform/Values.h>

namespace velvox {

// Decoding text.
RefPtr<Object> objectFromJSONString(const String&);
RefPtr<Object> objectFromJSONStringWithParseOptions(const String&, JCParseOptionFlags);
RefPtr<Object> objectFromJSONStringWithParseOptions(const String&, JCParseOptionFlags, RefPtr<Error>* error);
RefPtr<Object> mutableObjectFromJSONString(const String&);
RefPtr<Object> mutableObjectFromJSONStringWithParseOptions(const String&, JCParseOptionFlags);
RefPtr<Object> mutableObjectFromJSONStringWithParseOptions(const String&, JCParseOptionFlags, RefPtr<Error>* error);

// Decoding bytes.
RefPtr<Object> objectFromJSONData(const Data&);
RefPtr<Object> objectFromJSONDataWithParseOptions(const Data&, JCParseOptionFlags);
RefPtr<Object> objectFromJSONDataWithParseOptions(const Data&, JCParseOptionFlags, RefPtr<Error>* error);
RefPtr<Object> mutableObjectFromJSONData(const Data&);
RefPtr<Object> mutableObjectFromJSONDataWithParseOptions(const Data&, JCParseOptionFlags);
RefPtr<Object> mutableObjectFromJSONDataWithParseOptions(const Data&, JCParseOptionFlags, RefPtr<Error>* error);

// Encoding an array or a dictionary.
RefPtr<Data> JSONData(const Array&);
RefPtr<Data> JSONData(const Dictionary&);
RefPtr<Data> JSONDataWithOptions(const Array&, JCSerializeOptionFlags, RefPtr<Error>* error);
RefPtr<Data> JSONDataWithOptions(const Dictionary&, JCSerializeOptionFlags, RefPtr<Error>* error);
RefPtr<String> JSONString(const Array&);
RefPtr<String> JSONString(const Dictionary&);
RefPtr<String> JSONStringWithOptions(const Array&, JCSerializeOptionFlags, RefPtr<Error>* error);
RefPtr<String> JSONStringWithOptions(const Dictionary&, JCSerializeOptionFlags, RefPtr<Error>* error);

} // namespace velvox
