#include "VXServiceAccess.h"

#include <Platform/Platform.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace velvox::app {

std::string resolvedBaseURL(const std::string& option)
{
    if (!option.empty())
        return option;
    const char* fromEnvironment = getenv("VELVOX_BASE_URL");
    return fromEnvironment ? fromEnvironment : "";
}

std::string serviceFolderName(const std::string& baseURL)
{
    if (baseURL.empty())
        return "sandbox";
    // No credentials ("user:password@") in a folder name; the rest decides.
    std::string url = baseURL;
    size_t scheme = url.find("://");
    size_t hostStart = scheme == std::string::npos ? 0 : scheme + 3;
    size_t hostEnd = url.find_first_of("/?#", hostStart);
    if (size_t at = url.rfind('@', hostEnd == std::string::npos ? url.size() : hostEnd); at != std::string::npos && at >= hostStart)
        url.erase(hostStart, at + 1 - hostStart);
    while (url.size() > hostStart && url.back() == '/')
        url.pop_back();
    for (size_t i = 0; i < std::min(url.size(), hostEnd == std::string::npos ? url.size() : hostEnd); ++i)
        url[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(url[i])));
    // FNV-1a of the whole URL keeps "a_b" and "a/b" apart; the readable part
    // is the host, port and path with every other byte as "_".
    uint32_t hash = 2166136261u;
    for (unsigned char c : url)
        hash = (hash ^ c) * 16777619u;
    std::string readable;
    for (size_t i = hostStart; i < url.size() && readable.size() < 64; ++i) {
        char c = url[i];
        readable += std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' ? c : '_';
    }
    return readable + format("-%08x", hash);
}

std::string serviceDataHome(const std::string& folderName)
{
    return stringByAppendingPathComponent(stringByAppendingPathComponent(applicationSupportDirectory(), "Velvox/services"), folderName);
}

std::string useServiceFolder(const std::string& folderName)
{
    std::string home = serviceDataHome(folderName);
    setenv("XDG_DATA_HOME", home.c_str(), 1);
    return stringByAppendingPathComponent(home, "Velvox");
}

bool readToken(const std::string& option, const std::string& tokenFile, std::string& token, std::string& problem)
{
    token = option;
    if (token.empty()) {
        if (const char* fromEnvironment = getenv("VELVOX_TOKEN"))
            token = fromEnvironment;
    }
    if (token.empty() && !tokenFile.empty()) {
        std::ifstream file(tokenFile);
        int reason = errno;
        if (!file || !std::getline(file, token)) {
            struct stat info {};
            std::string why = !file ? strerror(reason)
                : ::stat(tokenFile.c_str(), &info) == 0 && S_ISDIR(info.st_mode) ? "it is a folder"
                                                                                : "it holds no line";
            problem = "cannot read the token file " + tokenFile + ": " + why;
            return false;
        }
        if (!token.empty() && token.back() == '\r')
            token.pop_back();
    }
    return true;
}

ServiceProblem prepareService(const ServiceChoice& choice, ServiceTarget& target, std::string& problem,
    const sandbox::SandboxService::Options& sandboxOptions)
{
    target.baseURL = resolvedBaseURL(choice.baseURL);
    // Before anything reads it: the archives of this service, apart from any other's.
    target.folder = useServiceFolder(choice.folderName.empty() ? serviceFolderName(target.baseURL) : choice.folderName);
    if (!target.baseURL.empty()) {
        if (!readToken(choice.token, choice.tokenFile, target.token, problem))
            return ServiceProblem::Token;
    } else {
        target.sandbox = std::make_unique<sandbox::SandboxService>(sandboxOptions);
        if (!target.sandbox->start(&problem)) {
            target.sandbox.reset();
            return ServiceProblem::Sandbox;
        }
        target.baseURL = target.sandbox->baseURL();
        target.token = target.sandbox->token();
    }
    // The host makes the store's folder, which the store itself only fills,
    // so that the identity map is kept from the first run on.
    FileManager::defaultManager().createDirectoryAtPath(target.folder, true, nullptr, 0700);
    return ServiceProblem::None;
}

VXResourceController::Options hostStoreOptions()
{
    VXResourceController::Options options;
    // Runs over long lists would grow the map without end; the most recent
    // objects of each class are what a next run is likely to show.
    options.archivedObjectsPerClass = archivedObjectsPerClass;
    // Whatever a service sends ends in an error to report, never in a raise.
    options.unreadableAnswerPolicy = VXUnreadableAnswerPolicy::Report;
    // Tracks the service is still processing are polled in the background:
    // once each, a few at a time, so that the lists a person asked for come first.
    options.mergesTrackRefreshes = true;
    options.maximumTrackRefreshesInFlight = 2;
    // Follows, favorites and comments made while the service cannot be
    // reached are kept and sent by a later run or command that reaches it.
    options.offlineChanges = true;
    return options;
}

std::string unsendableFileProblem(const std::string& path)
{
    RefPtr<Error> error;
    int fd = FileManager::openFileForReading(path, &error);
    if (fd < 0)
        return error ? error->localizedDescription()->str() : path;
    close(fd);
    return {};
}

std::string percentEncodePath(const std::string& path)
{
    std::string out;
    for (size_t start = 0; start <= path.size();) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        out += percentEncode(std::string_view(path).substr(start, slash - start));
        if (slash < path.size())
            out.push_back('/');
        start = slash + 1;
    }
    return out;
}

} // namespace velvox::app
