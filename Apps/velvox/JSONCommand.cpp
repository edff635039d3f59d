#include "Commands.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <cstdio>
#include <cerrno>
#include <cstring>

namespace velvox::app {

namespace {

bool readAll(FILE* file, std::string& out)
{
    char buffer[65536];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0)
        out.append(buffer, n);
    return !ferror(file);
}

} // namespace

int runJSON(const JSONOptions& options)
{
    std::string input;
    if (options.file == "-") {
        if (!readAll(stdin, input)) {
            fprintf(stderr, "velvox json: cannot read standard input\n");
            return 1;
        }
    } else {
        FILE* file = fopen(options.file.c_str(), "rb");
        if (!file || !readAll(file, input)) {
            fprintf(stderr, "velvox json: cannot read %s: %s\n", options.file.c_str(), strerror(errno));
            if (file)
                fclose(file);
            return 1;
        }
        fclose(file);
    }

    JCParseOptionFlags parseOptions = JCParseOptionStrict;
    if (options.comments)
        parseOptions |= JCParseOptionComments;
    if (options.unicodeNewlines)
        parseOptions |= JCParseOptionUnicodeNewlines;
    if (options.looseUnicode)
        parseOptions |= JCParseOptionLooseUnicode;
    if (options.permitTrailing)
        parseOptions |= JCParseOptionPermitTextAfterValidJSON;

    RefPtr<Error> error;
    auto decoder = JSONDecoder::decoderWithParseOptions(parseOptions);
    auto object = decoder->objectWithUTF8String(input.data(), input.size(), &error);
    if (!object) {
        auto* info = error->userInfo();
        auto* line = info->objectForKey<Number>(JCLineNumberKey);
        auto* index = info->objectForKey<Number>(JCAtIndexKey);
        fprintf(stderr, "velvox json: %s (line %llu, byte index %llu)\n", error->localizedDescription()->utf8(),
            line ? static_cast<unsigned long long>(line->unsignedLongLongValue()) : 0ULL,
            index ? static_cast<unsigned long long>(index->unsignedLongLongValue()) : 0ULL);
        return 1;
    }

    JCSerializeOptionFlags serializeOptions = JCSerializeOptionNone;
    if (options.pretty)
        serializeOptions |= JCSerializeOptionPretty;
    if (options.escapeUnicode)
        serializeOptions |= JCSerializeOptionEscapeUnicode;
    auto encoded = jc_encode(object.get(), serializeOptions, JCEncodeAsData, &error);
    if (!encoded) {
        fprintf(stderr, "velvox json: %s\n", error->localizedDescription()->utf8());
        return 1;
    }
    auto* data = downcast<Data>(encoded.get());
    fwrite(data->bytes(), 1, data->length(), stdout);
    fputc('\n', stdout);
    return fflush(stdout) ? 1 : 0;
}

} // namespace velvox::app
