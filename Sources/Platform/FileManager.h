#pragma once

// Files and folders: the per-user data folder, a file manager, path helpers,
// and the main bundle's resource folder.

#include "Object.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velvox {

class Error;

// The per-user application-support folder: $XDG_DATA_HOME when it is set to an
// absolute path, else ~/.local/share. The folder may not exist yet.
std::string applicationSupportDirectory();
// The per-user cache folder: $XDG_CACHE_HOME when it is set to an absolute
// path, else ~/.cache. The folder may not exist yet.
std::string userCacheDirectory();

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);
std::string stringByDeletingLastPathComponent(std::string_view path);
std::string lastPathComponent(std::string_view path);
// "~" and "~/..." become the home folder.
std::string stringByExpandingTildeInPath(std::string_view path);

class FileManager {
public:
    static FileManager& defaultManager();

    bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr) const;
    // Creates the folder (and its parents when asked). An existing folder is
    // success when intermediates are allowed, as with `mkdir -p`. The folders
    // made get `mode` as mkdir gives it (less the umask); 0700 keeps a folder
    // of private files to its user.
    bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories, RefPtr<Error>* error = nullptr, unsigned mode = 0777) const;
    bool removeItemAtPath(const std::string& path, RefPtr<Error>* error = nullptr) const;

    // Writes a temporary file in the target's folder, flushes it and renames
    // it over the target: readers see the old file or the new one, whole. The
    // file is private to its user (0600, less what the umask takes away). A
    // temporary that an earlier save left behind (its process died while
    // writing) is removed first; one that a live save is writing is left alone.
    // On failure `error` (when given) says why, in POSIXErrorDomain.
    static bool writeFileAtomically(const std::string& path, std::string_view contents, RefPtr<Error>* error = nullptr);

    // Opens a file for reading, the one road by which files are read: only a
    // regular file that can be read is opened. A FIFO, a device, a socket or a
    // folder is refused without blocking (a FIFO with no writer would wait
    // forever), and so is a file whose first byte cannot be read. Answers the
    // descriptor (blocking, close-on-exec; the caller closes it) or -1 with
    // the reason in `error`. `size` gets the file's length.
    static int openFileForReading(const std::string& path, RefPtr<Error>* error = nullptr, uint64_t* size = nullptr);
};

inline constexpr std::string_view POSIXErrorDomain = "NSPOSIXErrorDomain";
// The error of a failed call on a path: POSIXErrorDomain, errno as the code,
// "<path>: <reason>" as the description.
RefPtr<Error> posixError(int code, const std::string& path);

// The program's resources: $VELVOX_RESOURCES when it names a folder, else the
// folder "Resources" beside the program, else share/velvox/Resources of the
// prefix the program or the VelvoxKit library is installed in (the build tree
// has the same shape, so programs and tests there find it the same way), else,
// for a static VelvoxKit, the folder of the prefix it was installed in (or of
// its build tree), if it is still there.
class Bundle {
public:
    static Bundle& mainBundle();

    const std::string& resourcePath() const { return m_resourcePath; }
    // For a program that keeps its resources elsewhere, or links VelvoxKit
    // statically from outside its prefix (the CMake package names the folder
    // in VelvoxKit_RESOURCE_DIR, pkg-config in its resourcedir variable).
    void setResourcePath(std::string path) { m_resourcePath = std::move(path); }
    // The path of "name.type" (or "name" when type is empty) in the resources, if it exists.
    std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;

private:
    Bundle();
    std::string m_resourcePath;
};

} // namespace velvox
