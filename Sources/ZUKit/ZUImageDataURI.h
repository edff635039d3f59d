#pragma once

// The image operation of the application kit that the template filters use
// to put an image inline in a page.

#include <Platform/Image.h>
#include <Platform/String.h>

#include <string>
#include <string_view>

namespace velvox {

// "data:" + the image's media type + ";base64," + its bytes in standard
// base64 (RFC 4648, with padding, no line breaks).
Ref<String> zu_dataURIRepresentation(const Image&);

// Standard base64 of the bytes (RFC 4648 section 4, padded).
std::string zu_base64Encode(std::string_view bytes);

} // namespace velvox
