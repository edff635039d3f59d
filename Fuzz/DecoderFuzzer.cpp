// Feeds arbitrary bytes to the decoder under every option set. The first byte
// picks the options; the rest is the text.

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <cstdint>
#include <cstdlib>

using namespace velvox;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!size)
        return 0;
    JCParseOptionFlags options = data[0] & JCParseOptionValidFlags;
    auto text = reinterpret_cast<const char*>(data + 1);
    // One decoder for both parses, so the cache is exercised across them.
    static auto decoder = JSONDecoder::decoderWithParseOptions(0).leakRef();
    auto fresh = JSONDecoder::decoderWithParseOptions(options);
    RefPtr<Error> error;
    auto immutable = fresh->objectWithUTF8String(text, size - 1, &error);
    if (!immutable && !error)
        abort();
    auto changeable = fresh->mutableObjectWithUTF8String(text, size - 1, &error);
    if (!!immutable != !!changeable)
        abort();
    if (immutable && !immutable->isEqual(changeable.get()))
        abort();
    auto strict = decoder->objectWithUTF8String(text, size - 1, nullptr);
    if (options == 0 && !!strict != !!immutable)
        abort();
    return 0;
}
