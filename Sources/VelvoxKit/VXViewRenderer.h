#pragma once

// The host's HTML views as self-contained pages: a template of the resources'
// "views" folder rendered with the template filters, then every "zu-image"
// address (which an embedding application would resolve itself) replaced by
// the image as a data URI, from the shared loading image cache, one request
// per distinct image.

#include <Platform/Collections.h>
#include <Platform/Values.h>

#include <string_view>

namespace velvox {

class VXViewRenderer {
public:
    // Renders "views/<name>.html" with the variables (plus "logo", the
    // framework's mark as an image). Waits on the run loop, at most `timeout`
    // seconds, for the images; one that does not come is left out (an empty
    // image). Null with the error when the template fails.
    static RefPtr<String> renderPage(std::string_view name, Dictionary* variables, RefPtr<Error>* error = nullptr, double timeout = 10);

    // The "zu-image" addresses of a rendered page replaced by data URIs.
    static Ref<String> inliningImages(const String& html, double timeout = 10);
};

} // namespace velvox
