// Renders a template and makes a client of the service, as a program built
// against the installed framework alone. Exits 0 when both worked.

#include <Platform/Platform.h>
#include <TemplateEngine/RegexTemplateMatcher.h>
#include <TemplateEngine/TemplateEngine.h>
#include <VelvoxKit/VXAPIController.h>
#include <VelvoxKit/VelvoxVersion.h>

#include <curl/curl.h>

#include <cstdio>
#include <string>

static_assert(VELVOX_VERSION >= 100, "the version macros are there");

int main()
{
    using namespace velvox;
    // The consumer's own use of curl.
    if (!curl_version())
        return 1;

    auto engine = TemplateEngine::templateEngine();
    engine->setMatcher(RegexTemplateMatcher::matcherWithTemplateEngine(*engine.ptr()));
    auto variables = Dictionary::create({ { "name", String::create("consumer").ptr() } });
    RefPtr<Error> error;
    auto text = engine->processTemplate("hello {{ name }}", variables.ptr(), &error);
    if (!text || text->str() != "hello consumer") {
        fprintf(stderr, "template: %s\n", error ? error->localizedDescription()->utf8() : "wrong text");
        return 1;
    }

    std::string problem;
    auto api = VXVelvoxAPI::create("http://127.0.0.1:9", "token", &problem);
    if (!api) {
        fprintf(stderr, "client: %s\n", problem.c_str());
        return 1;
    }
    auto controller = VXAPIController::create(api.get());
    printf("velvox %s: %s, and a client\n", VELVOX_VERSION_STRING, text->utf8());
    return 0;
}
