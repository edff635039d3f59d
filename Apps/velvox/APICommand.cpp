#include "Commands.h"
#include "ObservedAPI.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXAPIController.h>

#include <Service/VXServiceAccess.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace velvox::app {

std::string printableExcerpt(std::string_view bytes, size_t limit)
{
    std::string out;
    size_t shown = std::min(bytes.size(), limit);
    auto escape = [&](unsigned char c) {
        static const char digits[] = "0123456789abcdef";
        out += "\\x";
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    };
    for (size_t i = 0; i < shown;) {
        unsigned char c = static_cast<unsigned char>(bytes[i]);
        if ((c >= 0x20 && c < 0x7F) || c == '\n' || c == '\t') {
            out.push_back(static_cast<char>(c));
            ++i;
            continue;
        }
        // A whole, well-formed UTF-8 sequence of a code point from U+00A0 up
        // passes; C1 controls (U+0080 to U+009F) would drive a terminal too.
        size_t length = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3
            : c >= 0xC2 && c < 0xE0                            ? 2
                                                               : 0;
        if (c >= 0xF5)
            length = 0;
        if (length && i + length <= shown && String::isValidUTF8(bytes.data() + i, length) && !(c == 0xC2 && static_cast<unsigned char>(bytes[i + 1]) < 0xA0)) {
            out.append(bytes.substr(i, length));
            i += length;
            continue;
        }
        escape(c);
        ++i;
    }
    if (shown < bytes.size())
        out += "\n... (" + std::to_string(bytes.size() - shown) + " more bytes not shown)";
    return out;
}

bool resolveToken(const std::string& option, const std::string& tokenFile, const char* command, std::string& token)
{
    std::string problem;
    if (readToken(option, tokenFile, token, problem))
        return true;
    fprintf(stderr, "velvox %s: %s\n", command, problem.c_str());
    return false;
}

int runAPI(const APIOptions& options)
{
    std::unique_ptr<sandbox::SandboxService> sandbox;
    std::string baseURL = options.baseURL;
    std::string token = options.token;
    // $VELVOX_TOKEN and the token file are for a service named with --base-url;
    // the in-process sandbox has its own token.
    if (!baseURL.empty() && !resolveToken(options.token, options.tokenFile, "api", token))
        return 1;
    if (baseURL.empty()) {
        sandbox::SandboxService::Options sandboxOptions;
        sandbox = std::make_unique<sandbox::SandboxService>(sandboxOptions);
        std::string error;
        if (!sandbox->start(&error)) {
            fprintf(stderr, "velvox api: cannot start the sandbox: %s\n", error.c_str());
            return 1;
        }
        baseURL = sandbox->baseURL();
        if (token.empty())
            token = sandbox->token();
    }
    if (auto problem = VXVelvoxAPI::configurationProblem(baseURL, token); !problem.empty()) {
        fprintf(stderr, "velvox api: %s\n", problem.c_str());
        return 1;
    }

    auto parameters = MutableDictionary::create();
    bool uploads = false;
    for (auto& pair : options.parameters) {
        size_t equals = pair.find('=');
        if (equals == std::string::npos || !equals) {
            fprintf(stderr, "velvox api: a parameter is KEY=VALUE or KEY=@FILE, not %s\n", pair.c_str());
            return 1;
        }
        std::string key = pair.substr(0, equals);
        std::string value = pair.substr(equals + 1);
        if (value.starts_with("@")) {
            std::error_code code;
            auto path = std::filesystem::absolute(value.substr(1), code).string();
            if (code || !FileManager::defaultManager().fileExistsAtPath(path)) {
                fprintf(stderr, "velvox api: no such file: %s\n", value.substr(1).c_str());
                return 1;
            }
            if (auto problem = unsendableFileProblem(path); !problem.empty()) {
                fprintf(stderr, "velvox api: cannot send %s\n", problem.c_str());
                return 1;
            }
            parameters->setObject(URL::create("file://" + percentEncodePath(path)).get(), key);
            uploads = true;
        } else
            parameters->setObject(String::create(value), key);
    }

    // The default retry policy (none): one raw request, whose answer is printed as the service gave it.
    std::string problem;
    auto client = ObservedAPI::create(baseURL, token, { uploads && !options.quiet && isatty(STDERR_FILENO), options.verbose }, &problem);
    if (!client) {
        fprintf(stderr, "velvox api: %s\n", problem.c_str());
        return 1;
    }
    client->setTimeout(options.timeout);
    auto controller = VXAPIController::create(client.get());
    bool done = false;
    int status = 0;
    auto userInfo = Dictionary::create({ { VXAPICallbackBlockKey,
        VXAPICallbackBlockObject::create([&](VXAPIController*, Object* json, Error* error) {
            done = true;
            if (error) {
                std::string body;
                if (auto* data = error->userInfo()->objectForKey<Data>(VXVelvoxAPIResponseBodyKey))
                    body = std::string(data->view());
                fprintf(stderr, "velvox api: %s %lld: %s\n", error->domain()->utf8(), static_cast<long long>(error->code()),
                    error->localizedDescription()->utf8());
                if (!body.empty())
                    fprintf(stderr, "%s\n", printableExcerpt(body).c_str());
                status = 1;
                return;
            }
            if (!json) {
                fprintf(stderr, "velvox api: the answer is not JSON\n");
                status = 1;
                return;
            }
            auto text = jc_encode(json, JCSerializeOptionPretty, JCEncodeAsData, nullptr);
            auto* data = downcast<Data>(text.get());
            fwrite(data->bytes(), 1, data->length(), stdout);
            fputc('\n', stdout);
        }).get() } });
    std::string method = options.method;
    std::transform(method.begin(), method.end(), method.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    controller->performMethod(*String::create(method), *String::create(options.path), parameters->count() ? parameters.ptr() : nullptr, nullptr, userInfo.ptr());
    // The client's own time-out bounds the wait; the loop also ends on Ctrl-C.
    RunLoop::current().runUntil([&] { return done; }, client->timeout() + 5);
    if (!done) {
        fprintf(stderr, "velvox api: no answer\n");
        return 1;
    }
    return status;
}

} // namespace velvox::app
