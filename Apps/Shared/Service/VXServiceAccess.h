#pragma once

// How a host program reaches its service, shared by velvox and velvox-desktop:
// the base URL (an option, $VELVOX_BASE_URL, or an embedded sandbox), the
// token (an option, $VELVOX_TOKEN, or a token file), each service's own data
// folder, and the store options a host that meets any service runs with.

#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXResourceController.h>

#include <memory>
#include <string>

namespace velvox::app {

// What the user chose on the command line; empty fields fall back to the environment.
struct ServiceChoice {
    std::string baseURL; // else $VELVOX_BASE_URL; empty: an embedded sandbox
    std::string token;   // else $VELVOX_TOKEN, else tokenFile
    std::string tokenFile;
    std::string folderName; // the data folder's name when not the service's own
};

// The service's base URL: the option, else $VELVOX_BASE_URL; empty for the embedded sandbox.
std::string resolvedBaseURL(const std::string& option);

// Each service's identity map and play history are kept apart, in a folder
// "<data>/Velvox/services/<name>" that stands for $XDG_DATA_HOME while a host
// talks to it. The name: "sandbox" for the embedded sandbox (an empty base
// URL), "<host>_<port>-<hash>" for another: one component that cannot leave
// the folder, with no credentials of the URL in it.
std::string serviceFolderName(const std::string& baseURL);
std::string serviceDataHome(const std::string& folderName);
// Points the store's archives at that folder (through $XDG_DATA_HOME, which
// the store honours), before anything else runs; answers the store's folder
// ("<data>/Velvox/services/<name>/Velvox").
std::string useServiceFolder(const std::string& folderName);

// The token of a service: the option, else $VELVOX_TOKEN, else the first line
// of the token file. False, with the reason ("cannot read the token file F:
// it is a folder"), when the file cannot be read.
bool readToken(const std::string& option, const std::string& tokenFile, std::string& token, std::string& problem);

// A service ready to connect to: its address and token, the store's folder
// (made, and in use), and the embedded sandbox when there is one.
struct ServiceTarget {
    std::string baseURL;
    std::string token;
    std::string folder;
    std::unique_ptr<sandbox::SandboxService> sandbox;
};
enum class ServiceProblem { None,
    Token,    // the token file could not be read
    Sandbox }; // the embedded sandbox could not start
// Resolves the choice: the service's folder in use, the token read, or the
// embedded sandbox started (with `sandboxOptions`). The problem's text says why.
ServiceProblem prepareService(const ServiceChoice&, ServiceTarget&, std::string& problem,
    const sandbox::SandboxService::Options& sandboxOptions = {});

// A path with each component percent-encoded, for a "file://" URL.
std::string percentEncodePath(const std::string&);
// Why a file cannot be sent ("<path>: Is a directory", say), or empty when it
// is a regular file that can be read: checked before anything goes out, so
// that a FIFO cannot hang the upload and a folder is not sent as nothing.
std::string unsendableFileProblem(const std::string& path);

// How many objects of each class the identity map keeps across runs.
inline constexpr size_t archivedObjectsPerClass = 5000;
// The store's options for a host that meets any service and runs long: a
// bounded archive, errors for answers that do not fit, merged polling of
// tracks the service is still processing, a few at a time, and changes kept
// while the service cannot be reached.
VXResourceController::Options hostStoreOptions();

} // namespace velvox::app
