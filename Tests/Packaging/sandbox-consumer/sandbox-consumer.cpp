// Fetches "/me" from an in-process sandbox through VXAPIController, as a
// program built against the installed package. Exits 0 when it got the user.
// With --find-resources it does not name the resource folder (VELVOX_RESOURCE_DIR)
// but leaves the library to find it, and prints the sandbox's error if it cannot.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXAPIController.h>
#include <VelvoxKit/VelvoxVersion.h>

#include <curl/curl.h>

#include <cstdio>
#include <string>

static_assert(VELVOX_VERSION >= 100, "the version macros are there");

int main(int argc, char** argv)
{
    using namespace velvox;
    // The consumer's own use of curl.
    if (!curl_version())
        return 1;

    // A statically linked program outside the package's prefix is told where the resources are.
    if (argc < 2 || std::string(argv[1]) != "--find-resources")
        Bundle::mainBundle().setResourcePath(VELVOX_RESOURCE_DIR);
    sandbox::SandboxService service({});
    std::string problem;
    if (!service.start(&problem)) {
        fprintf(stderr, "sandbox: %s\n", problem.c_str());
        return 1;
    }
    auto api = VXVelvoxAPI::create(service.baseURL(), service.token(), &problem);
    if (!api) {
        fprintf(stderr, "client: %s\n", problem.c_str());
        return 1;
    }
    auto controller = VXAPIController::create(api.get());
    std::string username;
    bool done = false;
    controller->meUserRessouce([&](VXAPIController*, Object* json, Error* error) {
        done = true;
        if (error) {
            fprintf(stderr, "error: %s\n", error->description()->utf8());
            return;
        }
        if (auto* user = dynamicDowncast<Dictionary>(json)) {
            if (auto* name = dynamicDowncast<String>(user->objectForKey("username")))
                username = name->str();
        }
    });
    RunLoop::current().runUntil([&] { return done; }, 20);
    service.stop();
    if (username.empty())
        return 1;
    printf("velvox %s: me is %s\n", VELVOX_VERSION_STRING, username.c_str());
    return 0;
}
