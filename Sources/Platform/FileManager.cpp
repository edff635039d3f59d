#include "FileManager.h"

#include "Collections.h"
#include "Values.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velvox {

namespace {

std::string homeDirectory()
{
    if (const char* home = getenv("HOME"); home && *home)
        return home;
    if (auto* entry = getpwuid(getuid()); entry && entry->pw_dir)
        return entry->pw_dir;
    return "/";
}

} // namespace

RefPtr<Error> posixError(int code, const std::string& path)
{
    return Error::create(POSIXErrorDomain, code, format("%s: %s", path, strerror(code))).ptr();
}

std::string userCacheDirectory()
{
    if (const char* cacheHome = getenv("XDG_CACHE_HOME"); cacheHome && cacheHome[0] == '/')
        return cacheHome;
    return stringByExpandingTildeInPath("~/.cache");
}

std::string applicationSupportDirectory()
{
    if (const char* dataHome = getenv("XDG_DATA_HOME"); dataHome && dataHome[0] == '/')
        return dataHome;
    return homeDirectory() + "/.local/share";
}

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component)
{
    std::string result(path);
    while (!component.empty() && component.front() == '/')
        component.remove_prefix(1);
    if (result.empty())
        return std::string(component);
    if (result.back() != '/')
        result.push_back('/');
    result.append(component);
    return result;
}

std::string stringByDeletingLastPathComponent(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos)
        return {};
    if (slash == 0)
        return "/";
    return std::string(path.substr(0, slash));
}

std::string lastPathComponent(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1));
}

std::string stringByExpandingTildeInPath(std::string_view path)
{
    if (path == "~")
        return homeDirectory();
    if (path.starts_with("~/"))
        return homeDirectory() + std::string(path.substr(1));
    return std::string(path);
}

FileManager& FileManager::defaultManager()
{
    static FileManager manager;
    return manager;
}

bool FileManager::fileExistsAtPath(const std::string& path, bool* isDirectory) const
{
    struct stat info;
    if (stat(path.c_str(), &info))
        return false;
    if (isDirectory)
        *isDirectory = S_ISDIR(info.st_mode);
    return true;
}

bool FileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories, RefPtr<Error>* error, unsigned mode) const
{
    auto fail = [&](int code) {
        if (error)
            *error = posixError(code, path);
        return false;
    };
    if (path.empty())
        return fail(ENOENT);
    if (withIntermediateDirectories) {
        bool isDirectory = false;
        if (fileExistsAtPath(path, &isDirectory))
            return isDirectory || fail(EEXIST);
        std::string parent = stringByDeletingLastPathComponent(path);
        if (!parent.empty() && parent != path && !createDirectoryAtPath(parent, true, error, mode))
            return false;
    }
    if (mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0)
        return true;
    int code = errno;
    bool isDirectory = false;
    if (withIntermediateDirectories && code == EEXIST && fileExistsAtPath(path, &isDirectory) && isDirectory)
        return true; // made meanwhile by someone else
    return fail(code);
}

namespace {

// The process's umask, read without changing it (umask() would, for every thread).
mode_t currentUmask()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("Umask:"))
            return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
    }
    return 022;
}

// Removes the temporaries of earlier saves of `name` in `folder` whose writer is
// gone: a live writer holds a lock on its temporary (and a fresh one may not be
// locked yet, so only those a second old are looked at).
void removeStaleTemporaries(const std::string& folder, const std::string& name)
{
    std::string prefix = "." + name + ".";
    DIR* directory = opendir(folder.c_str());
    if (!directory)
        return;
    time_t now = time(nullptr);
    while (dirent* entry = readdir(directory)) {
        std::string_view candidate = entry->d_name;
        if (!candidate.starts_with(prefix) || candidate.size() != prefix.size() + 6)
            continue;
        std::string path = stringByAppendingPathComponent(folder, candidate);
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0)
            continue;
        struct stat info;
        if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() && info.st_mtime + 1 < now
            && flock(fd, LOCK_EX | LOCK_NB) == 0)
            unlink(path.c_str());
        close(fd);
    }
    closedir(directory);
}

} // namespace

bool FileManager::removeItemAtPath(const std::string& path, RefPtr<Error>* error) const
{
    std::error_code code;
    if (std::filesystem::remove_all(path, code) != static_cast<std::uintmax_t>(-1) && !code)
        return true;
    if (error)
        *error = posixError(code.value(), path);
    return false;
}

bool FileManager::writeFileAtomically(const std::string& path, std::string_view contents, RefPtr<Error>* error)
{
    auto fail = [&](int code) {
        if (error)
            *error = posixError(code, path);
        return false;
    };
    std::string folder = stringByDeletingLastPathComponent(path);
    std::string temporaryName = ".";
    temporaryName.append(lastPathComponent(path));
    temporaryName.append(".XXXXXX");
    removeStaleTemporaries(folder.empty() ? "." : folder, lastPathComponent(path));
    std::string pattern = stringByAppendingPathComponent(folder.empty() ? "." : folder, temporaryName);
    int fd = mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0)
        return fail(errno);
    // Held until the file is closed: tells a later save that this temporary is alive.
    flock(fd, LOCK_EX);
    const char* at = contents.data();
    size_t left = contents.size();
    int failure = 0;
    while (left) {
        ssize_t n = write(fd, at, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            failure = n < 0 ? errno : ENOSPC;
            break;
        }
        at += n;
        left -= n;
    }
    // Flush before the rename, so a crash cannot leave the new name on old or partial contents.
    if (!failure && fsync(fd))
        failure = errno;
    // mkostemp made it 0600; the umask may take away more.
    fchmod(fd, 0600 & ~currentUmask());
    if (close(fd) && !failure)
        failure = errno;
    if (!failure && rename(pattern.c_str(), path.c_str()))
        failure = errno;
    if (!failure)
        return true;
    unlink(pattern.c_str());
    return fail(failure);
}

int FileManager::openFileForReading(const std::string& path, RefPtr<Error>* error, uint64_t* size)
{
    auto fail = [&](int code, int fd, const char* reason = nullptr) {
        if (fd >= 0)
            close(fd);
        if (error)
            *error = reason ? RefPtr<Error>(Error::create(POSIXErrorDomain, code, format("%s: %s", path, reason))) : posixError(code, path);
        return -1;
    };
    // Non-blocking, so that opening a FIFO does not wait for a writer.
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return fail(errno, -1);
    struct stat info;
    if (fstat(fd, &info))
        return fail(errno, fd);
    if (S_ISDIR(info.st_mode))
        return fail(EISDIR, fd);
    if (!S_ISREG(info.st_mode))
        return fail(EINVAL, fd, "not a regular file");
    // A file that opens but cannot be read (an I/O error, a special file
    // posing as a regular one) is refused before anyone relies on it.
    char first;
    while (pread(fd, &first, 1, 0) < 0) {
        if (errno != EINTR)
            return fail(errno, fd);
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK))
        return fail(errno, fd);
    if (size)
        *size = static_cast<uint64_t>(info.st_size);
    return fd;
}

#ifdef VELVOX_RECORDED_RESOURCES
namespace detail {
extern const char recordedResourceFolder[4096];
}
#endif

namespace {

std::string executableFolder()
{
    char buffer[4096];
    ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (length <= 0)
        return ".";
    return stringByDeletingLastPathComponent(std::string_view(buffer, length));
}

// The folder of the file this code was loaded from: the shared library, or
// the program when the library is linked statically.
std::string libraryFolder()
{
    Dl_info info {};
    if (!dladdr(reinterpret_cast<void*>(&libraryFolder), &info) || !info.dli_fname || !*info.dli_fname)
        return executableFolder();
    char resolved[PATH_MAX];
    if (!realpath(info.dli_fname, resolved))
        return executableFolder();
    return stringByDeletingLastPathComponent(resolved);
}

// The resource folder a static library recorded for the tree it lies in
// (RecordedResources.cpp), or nothing: the path up to the first line feed or NUL.
std::string recordedResourceFolder()
{
#ifdef VELVOX_RECORDED_RESOURCES
    std::string_view record(detail::recordedResourceFolder, sizeof(detail::recordedResourceFolder));
    return std::string(record.substr(0, record.find_first_of(std::string_view("\n\0", 2))));
#else
    return {};
#endif
}

} // namespace

Bundle::Bundle()
{
    auto isFolder = [](const std::string& path) {
        bool folder = false;
        return FileManager::defaultManager().fileExistsAtPath(path, &folder) && folder;
    };
    if (const char* overridePath = getenv("VELVOX_RESOURCES"); overridePath && isFolder(overridePath)) {
        m_resourcePath = overridePath;
        return;
    }
    // Resources are found relative to the install prefix (or the build tree,
    // which has the same shape): beside the program, from the program's bin/,
    // or from the folder of the library itself, for a program installed elsewhere.
    // Last, the folder a static library recorded for its prefix: a program
    // linked from it may live anywhere. A moved prefix's record names nothing.
    std::string folder = executableFolder();
    const std::string candidates[] = {
        folder + "/Resources",
        folder + "/" VELVOX_BIN_TO_RESOURCES,
        libraryFolder() + "/" VELVOX_LIB_TO_RESOURCES,
        recordedResourceFolder(),
    };
    for (auto& candidate : candidates) {
        if (!candidate.empty() && isFolder(candidate)) {
            m_resourcePath = std::filesystem::weakly_canonical(candidate).string();
            return;
        }
    }
    m_resourcePath = folder + "/Resources";
}

Bundle& Bundle::mainBundle()
{
    static Bundle* bundle = new Bundle;
    return *bundle;
}

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view type) const
{
    std::string file(name);
    if (!type.empty()) {
        file.push_back('.');
        file.append(type);
    }
    std::string path = stringByAppendingPathComponent(m_resourcePath, file);
    if (!FileManager::defaultManager().fileExistsAtPath(path))
        return std::nullopt;
    return path;
}

} // namespace velvox
