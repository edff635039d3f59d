// Decode, encode, decode again: the trees must be equal, and so must the
// tree read back from encoding the second one. (Its text may differ: key order
// is the hash table's, which depends on the order keys were inserted in.)
// The first byte picks the parse options and the encoding style.

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <cstdint>
#include <cstdlib>

using namespace velvox;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!size)
        return 0;
    JCParseOptionFlags parseOptions = data[0] & JCParseOptionValidFlags;
    JCSerializeOptionFlags serializeOptions = (data[0] >> 4) & 3;
    auto first = JSONDecoder::decoderWithParseOptions(parseOptions)->objectWithUTF8String(reinterpret_cast<const char*>(data + 1), size - 1);
    if (!first)
        return 0;
    RefPtr<Error> error;
    auto text = jc_encode(first.get(), serializeOptions, JCEncodeAsData, &error);
    if (!text)
        abort(); // every decoded tree can be encoded
    auto* bytes = downcast<Data>(text.get());
    auto second = JSONDecoder::decoder()->objectWithData(bytes, &error);
    // Raw UTF-8 may carry noncharacters (U+FDD0-U+FDEF, U+xxFFFE, U+xxFFFF),
    // which the decoder refuses as \u escapes: with every non-ASCII character
    // escaped, such a tree cannot be read back, by design; written as UTF-8 it can.
    if (!second && (serializeOptions & JCSerializeOptionEscapeUnicode) && error
        && error->localizedDescription()->view() == "Illegal \\u Unicode escape sequence.") {
        auto unescaped = jc_encode(first.get(), serializeOptions & ~JCSerializeOptionEscapeUnicode, JCEncodeAsData, &error);
        auto back = unescaped ? JSONDecoder::decoder()->objectWithData(downcast<Data>(unescaped.get()), &error) : nullptr;
        if (!back || !back->isEqual(first.get()))
            abort();
        return 0;
    }
    if (!second || !second->isEqual(first.get()))
        abort();
    auto again = jc_encode(second.get(), serializeOptions, JCEncodeAsData, &error);
    if (!again)
        abort();
    auto third = JSONDecoder::decoder()->objectWithData(downcast<Data>(again.get()), &error);
    if (!third || !third->isEqual(first.get()))
        abort();
    return 0;
}
