#include "ZUImageDataURI.h"

namespace velvox {

std::string zu_base64Encode(std::string_view bytes)
{
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        uint32_t triple = (uint32_t(in[i]) << 16) | (uint32_t(in[i + 1]) << 8) | in[i + 2];
        out.push_back(alphabet[(triple >> 18) & 63]);
        out.push_back(alphabet[(triple >> 12) & 63]);
        out.push_back(alphabet[(triple >> 6) & 63]);
        out.push_back(alphabet[triple & 63]);
    }
    size_t rest = bytes.size() - i;
    if (rest) {
        uint32_t triple = uint32_t(in[i]) << 16;
        if (rest == 2)
            triple |= uint32_t(in[i + 1]) << 8;
        out.push_back(alphabet[(triple >> 18) & 63]);
        out.push_back(alphabet[(triple >> 12) & 63]);
        out.push_back(rest == 2 ? alphabet[(triple >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

Ref<String> zu_dataURIRepresentation(const Image& image)
{
    std::string uri = "data:";
    uri.append(image.mediaType());
    uri.append(";base64,");
    uri.append(zu_base64Encode(image.data().view()));
    return String::create(uri);
}

} // namespace velvox
