#pragma once

#include "Data.h"

#include <cstdint>
#include <string_view>

namespace velvox {

// Encoded image bytes with the media type read from their signature.
class Image final : public Object {
    VX_OBJECT(Image)
public:
    // Null when the bytes are not PNG, JPEG, GIF, WebP, BMP or TIFF.
    static RefPtr<Image> create(Data&);
    // The media type of encoded image bytes, or empty when unknown.
    static std::string_view mediaTypeForBytes(const uint8_t* bytes, size_t length);

    Data& data() const { return m_data; }
    std::string_view mediaType() const { return m_mediaType; }

    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override { return m_data->hash(); }

private:
    Image(Data& data, std::string_view mediaType)
        : m_data(data)
        , m_mediaType(mediaType)
    {
    }
    Ref<Data> m_data;
    std::string_view m_mediaType;
};

} // namespace velvox
