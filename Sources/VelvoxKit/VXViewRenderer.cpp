#include "VXViewRenderer.h"

#include "VXTemplateFilters.h"

#include <Platform/Platform.h>
#include <TemplateEngine/RegexTemplateMatcher.h>
#include <TemplateEngine/TemplateEngine.h>
#include <ZUKit/ZUImageDataURI.h>
#include <ZUKit/ZULoadingImageCache.h>

#include <map>

namespace velvox {

namespace {

// An image that could not be had: a transparent pixel, so that the page's layout holds.
constexpr std::string_view emptyImage = "data:image/gif;base64,R0lGODlhAQABAIAAAAAAAP///yH5BAEAAAAALAAAAAABAAEAAAIBRAA7";

std::string unescapedAttribute(std::string_view text)
{
    std::string out(text);
    for (size_t at; (at = out.find("&amp;")) != std::string::npos;)
        out.replace(at, 5, "&");
    return out;
}

} // namespace

Ref<String> VXViewRenderer::inliningImages(const String& html, double timeout)
{
    std::string_view text = html.view();
    // Each distinct address once: "zu-image://..." and "zu-images://..." up to the attribute's quote.
    struct Found {
        size_t start;
        size_t end;
        std::string address;
    };
    std::vector<Found> found;
    std::map<std::string, std::string> inlined;
    for (size_t at = text.find("zu-image"); at != std::string_view::npos; at = text.find("zu-image", at + 1)) {
        size_t end = text.find_first_of("\"' <>", at);
        if (end == std::string_view::npos)
            end = text.size();
        std::string address = unescapedAttribute(text.substr(at, end - at));
        if (address.starts_with("zu-images://"))
            address.replace(0, 9, "https");
        else if (address.starts_with("zu-image://"))
            address.replace(0, 8, "http");
        else
            continue;
        found.push_back({ at, end, address });
        inlined.emplace(address, std::string(emptyImage));
    }
    if (found.empty())
        return String::create(text);

    auto& cache = ZULoadingImageCache::sharedLoadingImageCache();
    size_t pending = 0;
    // The loads' blocks point into this frame: they go with it, even when
    // the time-out came first.
    std::vector<Subscription> loads;
    for (auto& [address, dataURI] : inlined) {
        auto url = URL::create(address);
        if (!url)
            continue;
        std::string* slot = &dataURI;
        Subscription load;
        auto image = cache.cachedImageForURL(url.get(), false, [slot, &pending](Image* loaded, Error*) {
            if (loaded)
                *slot = zu_dataURIRepresentation(*loaded)->str();
            --pending;
        }, &load);
        loads.push_back(std::move(load));
        if (image)
            dataURI = zu_dataURIRepresentation(*image)->str();
        else
            ++pending;
    }
    RunLoop::current().runUntil([&pending] { return pending == 0; }, timeout);

    std::string out;
    out.reserve(text.size());
    size_t position = 0;
    for (auto& place : found) {
        out.append(text.substr(position, place.start - position));
        out.append(inlined[place.address]);
        position = place.end;
    }
    out.append(text.substr(position));
    return String::create(out);
}

RefPtr<String> VXViewRenderer::renderPage(std::string_view name, Dictionary* variables, RefPtr<Error>* error, double timeout)
{
    auto path = Bundle::mainBundle().pathForResource(format("views/%s", std::string(name).c_str()), "html");
    auto engine = TemplateEngine::templateEngine();
    engine->setMatcher(RegexTemplateMatcher::matcherWithTemplateEngine(*engine.ptr()));
    auto filters = VXTemplateFilters::filter();
    engine->loadFilter(*filters.ptr());
    auto all = variables ? variables->mutableCopy() : MutableDictionary::create();
    if (auto logoPath = Bundle::mainBundle().pathForResource("views/logo", "png")) {
        if (auto bytes = Data::createWithContentsOfFile(*logoPath)) {
            if (auto logo = Image::create(*bytes))
                all->setObject(logo, "logo");
        }
    }
    auto page = engine->processTemplateInFileAtPath(path ? &*path : nullptr, all.ptr(), error);
    if (!page)
        return nullptr;
    return inliningImages(*page, timeout);
}

} // namespace velvox
