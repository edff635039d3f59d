#include "JSONCodec.h"

namespace velvox {

namespace {

RefPtr<Object> decodeString(const String& string, JCParseOptionFlags options, RefPtr<Error>* error, bool mutableCollections)
{
    // Strings hold UTF-8 already: the bytes go to the decoder as they are.
    auto decoder = JSONDecoder::decoderWithParseOptions(options);
    auto result = mutableCollections ? decoder->mutableObjectWithUTF8String(string.utf8(), string.length(), error)
                                     : decoder->objectWithUTF8String(string.utf8(), string.length(), error);
    decoder->releaseParseState();
    return result;
}

RefPtr<Object> decodeData(const Data& data, JCParseOptionFlags options, RefPtr<Error>* error, bool mutableCollections)
{
    auto decoder = JSONDecoder::decoderWithParseOptions(options);
    auto result = mutableCollections ? decoder->mutableObjectWithData(&data, error) : decoder->objectWithData(&data, error);
    decoder->releaseParseState();
    return result;
}

// The one implementation behind the array and dictionary forms.
template<typename Result>
RefPtr<Result> encode(const Object& collection, JCSerializeOptionFlags options, JCEncodeAsType encodeAs, RefPtr<Error>* error)
{
    auto result = jc_encode(const_cast<Object*>(&collection), options, encodeAs, error);
    return static_cast<Result*>(result.get());
}

} // namespace

RefPtr<Object> objectFromJSONString(const String& string)
{
    return decodeString(string, JCParseOptionStrict, nullptr, false);
}

RefPtr<Object> objectFromJSONStringWithParseOptions(const String& string, JCParseOptionFlags options)
{
    return decodeString(string, options, nullptr, false);
}

RefPtr<Object> objectFromJSONStringWithParseOptions(const String& string, JCParseOptionFlags options, RefPtr<Error>* error)
{
    return decodeString(string, options, error, false);
}

RefPtr<Object> mutableObjectFromJSONString(const String& string)
{
    return decodeString(string, JCParseOptionStrict, nullptr, true);
}

RefPtr<Object> mutableObjectFromJSONStringWithParseOptions(const String& string, JCParseOptionFlags options)
{
    return decodeString(string, options, nullptr, true);
}

RefPtr<Object> mutableObjectFromJSONStringWithParseOptions(const String& string, JCParseOptionFlags options, RefPtr<Error>* error)
{
    return decodeString(string, options, error, true);
}

RefPtr<Object> objectFromJSONData(const Data& data)
{
    return decodeData(data, JCParseOptionStrict, nullptr, false);
}

RefPtr<Object> objectFromJSONDataWithParseOptions(const Data& data, JCParseOptionFlags options)
{
    return decodeData(data, options, nullptr, false);
}

RefPtr<Object> objectFromJSONDataWithParseOptions(const Data& data, JCParseOptionFlags options, RefPtr<Error>* error)
{
    return decodeData(data, options, error, false);
}

RefPtr<Object> mutableObjectFromJSONData(const Data& data)
{
    return decodeData(data, JCParseOptionStrict, nullptr, true);
}

RefPtr<Object> mutableObjectFromJSONDataWithParseOptions(const Data& data, JCParseOptionFlags options)
{
    return decodeData(data, options, nullptr, true);
}

RefPtr<Object> mutableObjectFromJSONDataWithParseOptions(const Data& data, JCParseOptionFlags options, RefPtr<Error>* error)
{
    return decodeData(data, options, error, true);
}

RefPtr<Data> JSONData(const Array& array)
{
    return encode<Data>(array, JCSerializeOptionNone, JCEncodeAsData, nullptr);
}

RefPtr<Data> JSONData(const Dictionary& dictionary)
{
    return encode<Data>(dictionary, JCSerializeOptionNone, JCEncodeAsData, nullptr);
}

RefPtr<Data> JSONDataWithOptions(const Array& array, JCSerializeOptionFlags options, RefPtr<Error>* error)
{
    return encode<Data>(array, options, JCEncodeAsData, error);
}

RefPtr<Data> JSONDataWithOptions(const Dictionary& dictionary, JCSerializeOptionFlags options, RefPtr<Error>* error)
{
    return encode<Data>(dictionary, options, JCEncodeAsData, error);
}

RefPtr<String> JSONString(const Array& array)
{
    return encode<String>(array, JCSerializeOptionNone, JCEncodeAsString, nullptr);
}

RefPtr<String> JSONString(const Dictionary& dictionary)
{
    return encode<String>(dictionary, JCSerializeOptionNone, JCEncodeAsString, nullptr);
}

RefPtr<String> JSONStringWithOptions(const Array& array, JCSerializeOptionFlags options, RefPtr<Error>* error)
{
    return encode<String>(array, options, JCEncodeAsString, error);
}

RefPtr<String> JSONStringWithOptions(const Dictionary& dictionary, JCSerializeOptionFlags options, RefPtr<Error>* error)
{
    return encode<String>(dictionary, options, JCEncodeAsString, error);
}

} // namespace velvox
