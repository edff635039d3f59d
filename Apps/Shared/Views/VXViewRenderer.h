#pragma once

// The host's HTML views as self-contained pages: a template of the resources'
// "views" folder rendered with the template filters, then every image source
// that "zu_image" made from a web address (which an embedding application
// would resolve itself) replaced by the image as a data URI, from the shared
// loading image cache, one request per distinct image. Nothing else is
// fetched, and nothing in the page loads from elsewhere when it is opened:
// every other address in an attribute that loads (src, srcset, a link's
// href...) becomes a transparent pixel. Text from the records is only ever
// text, whatever addresses it holds.
//
// It belongs to the host programs, not to the framework: it blocks on the run
// loop and reads the programs' own pages, so it lives in a library that only
// they (and the tests of their pages) link, and is not installed.

#include <Platform/Collections.h>
#include <Platform/Values.h>

#include <set>
#include <string>
#include <string_view>

namespace velvox {

class VXViewRenderer {
public:
    // Renders "views/<name>.html" with the variables (plus "logo", the
    // framework's mark as an image). Waits on the run loop, at most `timeout`
    // seconds, for the images; one that does not come is left out (an empty
    // image). Null with the error when the template fails.
    static RefPtr<String> renderPage(std::string_view name, Dictionary* variables, RefPtr<Error>* error = nullptr, double timeout = 10);
    // The same for a page written beside `pages` (file names): links to the
    // views of other records go to those files, or to the records' own web
    // pages when they are not among them (VXViewFilters.h, "view_file").
    static RefPtr<String> renderPage(std::string_view name, Dictionary* variables, const std::set<std::string>* pages, RefPtr<Error>* error = nullptr, double timeout = 10);

    // Without waiting: image sources stay as the filters leave them
    // ("zu-image://..."), for a host that loads its pictures itself.
    static RefPtr<String> renderPageLeavingImages(std::string_view name, Dictionary* variables, RefPtr<Error>* error = nullptr);

    // The same for a page rendered elsewhere: image sources that are web
    // addresses, or "zu-image" ones (in any case), replaced by data URIs;
    // every other address in an attribute that loads by a transparent pixel.
    static Ref<String> inliningImages(const String& html, double timeout = 10);
};

} // namespace velvox
