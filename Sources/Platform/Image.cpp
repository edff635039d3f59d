#include "Image.h"

#include "Data.h"
#include <cstring>

namespace velvox {

VX_DEFINE_CLASS(Image, Object)

std::string_view Image::mediaTypeForBytes(const uint8_t* b, size_t n)
{
    auto starts = [&](std::string_view signature, size_t offset = 0) {
        return n >= offset + signature.size() && !memcmp(b + offset, signature.data(), signature.size());
    };
    if (starts("\x89PNG\r\n\x1a\n"))
        return "image/png";
    if (starts("\xff\xd8\xff"))
        return "image/jpeg";
    if (starts("GIF87a") || starts("GIF89a"))
        return "image/gif";
    if (starts("RIFF") && starts("WEBP", 8))
        return "image/webp";
    if (starts("BM") && n >= 26)
        return "image/bmp";
    if (starts(std::string_view("II*\0", 4)) || starts(std::string_view("MM\0*", 4)))
        return "image/tiff";
    return {};
}

RefPtr<Image> Image::create(Data& data)
{
    std::string_view type = mediaTypeForBytes(data.bytes(), data.length());
    if (type.empty())
        return nullptr;
    return adoptRef(new Image(data, type));
}

Ref<String> Image::description() const
{
    return String::format("<Image 0x%08X %s, %zu bytes>", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)),
        m_mediaType, m_data->length());
}

bool Image::isEqual(const Object* other) const
{
    auto* image = dynamicDowncast<Image>(other);
    return image && image->m_data->isEqual(m_data.ptr());
}

} // namespace velvox
