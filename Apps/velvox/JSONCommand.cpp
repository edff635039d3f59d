#include "Commands.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace velvox::app {

namespace {

// A decoder's message, with its position, cut to a length a terminal can take
// (a number error repeats the number, which may be megabytes long).
void reportDecodingError(Error& error)
{
    constexpr size_t head = 160, tail = 160, longest = head + tail;
    std::string message = error.localizedDescription()->str();
    // The middle goes: the start and the end of a message say what happened.
    if (message.size() > longest)
        message = message.substr(0, head) + "...(" + std::to_string(message.size() - longest) + " characters left out)..."
            + message.substr(message.size() - tail);
    auto* info = error.userInfo();
    auto* line = info->objectForKey<Number>(JCLineNumberKey);
    auto* index = info->objectForKey<Number>(JCAtIndexKey);
    fprintf(stderr, "velvox json: %s (line %llu, byte index %llu)\n", printableExcerpt(message, longest + 64).c_str(),
        line ? static_cast<unsigned long long>(line->unsignedLongLongValue()) : 0ULL,
        index ? static_cast<unsigned long long>(index->unsignedLongLongValue()) : 0ULL);
}

enum class ReadResult { Whole,
    Failed,
    TooLarge,
    Refused };

// Reads at most `limit` bytes. After the first block, the decoder looks at what
// has come: an error well before the end of it is an error of the whole input
// too (decoding goes left to right), so it is reported without reading on.
ReadResult readBounded(FILE* file, size_t limit, std::string& out, JSONDecoder& decoder)
{
    constexpr size_t block = 65536;
    char buffer[block];
    bool checked = false;
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) {
        if (out.size() + n > limit)
            return ReadResult::TooLarge;
        out.append(buffer, n);
        if (!checked && out.size() >= block) {
            checked = true;
            RefPtr<Error> error;
            if (!decoder.objectWithUTF8String(out.data(), out.size(), &error) && error) {
                auto* index = error->userInfo()->objectForKey<Number>(JCAtIndexKey);
                // A number's error points at its start, and a long number may be cut by the block: let those wait.
                uint64_t at = index ? index->unsignedLongLongValue() : out.size();
                bool inNumber = at < out.size() && (isdigit(static_cast<unsigned char>(out[at])) || out[at] == '-');
                if (at + 1024 < out.size() && !inNumber) {
                    reportDecodingError(*error);
                    return ReadResult::Refused;
                }
            }
        }
    }
    return ferror(file) ? ReadResult::Failed : ReadResult::Whole;
}

} // namespace

int runJSON(const JSONOptions& options)
{
    JCParseOptionFlags parseOptions = JCParseOptionStrict;
    if (options.comments)
        parseOptions |= JCParseOptionComments;
    if (options.unicodeNewlines)
        parseOptions |= JCParseOptionUnicodeNewlines;
    if (options.looseUnicode)
        parseOptions |= JCParseOptionLooseUnicode;
    if (options.permitTrailing)
        parseOptions |= JCParseOptionPermitTextAfterValidJSON;
    auto decoder = JSONDecoder::decoderWithParseOptions(parseOptions);

    std::string input;
    bool fromStandardInput = options.file == "-";
    FILE* file = fromStandardInput ? stdin : fopen(options.file.c_str(), "rb");
    if (!file) {
        fprintf(stderr, "velvox json: cannot read %s: %s\n", options.file.c_str(), strerror(errno));
        return 1;
    }
    auto result = readBounded(file, options.maxSize, input, *decoder);
    int readError = errno;
    if (!fromStandardInput)
        fclose(file);
    std::string source = fromStandardInput ? "standard input" : options.file;
    switch (result) {
    case ReadResult::Whole:
        break;
    case ReadResult::Failed:
        fprintf(stderr, "velvox json: cannot read %s: %s\n", source.c_str(), strerror(readError));
        return 1;
    case ReadResult::TooLarge:
        fprintf(stderr, "velvox json: %s is larger than %zu bytes (see --max-size)\n", source.c_str(), options.maxSize);
        return 1;
    case ReadResult::Refused:
        return 1;
    }

    RefPtr<Error> error;
    auto object = decoder->objectWithUTF8String(input.data(), input.size(), &error);
    if (!object) {
        reportDecodingError(*error);
        return 1;
    }
    std::string().swap(input); // the tree holds what it needs

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
    bool written = fwrite(data->bytes(), 1, data->length(), stdout) == data->length() && fputc('\n', stdout) != EOF;
    if (fflush(stdout) != 0 || !written || ferror(stdout)) {
        fprintf(stderr, "velvox json: cannot write the output: %s\n", strerror(errno));
        return 1;
    }
    return 0;
}

} // namespace velvox::app
