#include "VXArchiveStore.h"

#include <Platform/Platform.h>

#include <cerrno>
#include <cstdio>

namespace velvox {

namespace {

// An identifier as it may stand in a file name: the service's identifiers are
// decimal, but one that a server sent as text must not reach another folder.
std::string fileNameComponent(String* identifier)
{
    std::string text = format("%@", identifier);
    std::string safe;
    for (char c : text) {
        if (c == '/' || c == '%' || c == '\0')
            safe += format("%%%02X", static_cast<unsigned char>(c));
        else
            safe.push_back(c);
    }
    return safe;
}

} // namespace

std::string VXArchiveStore::folder()
{
    std::string path = stringByAppendingPathComponent(stringByExpandingTildeInPath(applicationSupportDirectory()), "Velvox");
    if (FileManager::defaultManager().fileExistsAtPath(path))
        FileManager::defaultManager().createDirectoryAtPath(path, true);
    return path;
}

std::string VXArchiveStore::identityMapPath()
{
    return stringByAppendingPathComponent(folder(), "ressources.archive");
}

std::string VXArchiveStore::receiptsPath()
{
    return stringByAppendingPathComponent(folder(), "receipts.archive");
}

std::string VXArchiveStore::changesPath()
{
    return stringByAppendingPathComponent(folder(), "changes.archive");
}

std::string VXArchiveStore::playedTracksPath(String* account)
{
    return stringByAppendingPathComponent(folder(), fileNameComponent(account) + "-playedTracks.archive");
}

std::string VXArchiveStore::refreshDatesPath(String* account)
{
    return stringByAppendingPathComponent(folder(), fileNameComponent(account) + "-lastPlayedTimestamps.archive");
}

void VXArchiveStore::read(const std::string& path, const std::function<bool(RefPtr<Object>)>& take)
{
    if (!FileManager::defaultManager().fileExistsAtPath(path))
        return;
    auto root = KeyedUnarchiver::unarchiveObjectWithFile(path);
    // Unreadable (damaged, not a regular file, not of the expected shape):
    // start empty, as when there is none, but keep the file aside instead of
    // letting the next save overwrite it unseen.
    if (!root || !take(std::move(root)))
        ::rename(path.c_str(), (path + ".corrupt").c_str());
}

Ref<MutableSet> VXArchiveStore::readPlayedTracks(String* account)
{
    RefPtr<MutableSet> played;
    read(playedTracksPath(account), [&played](RefPtr<Object> root) {
        auto* set = dynamicDowncast<Set>(root.get());
        if (!set)
            return false;
        // Identifiers are strings; anything else in the set is dropped.
        played = MutableSet::create();
        for (auto* member : *set) {
            if (is<String>(member))
                played->addObject(member);
        }
        return true;
    });
    return played ? played.releaseNonNull() : MutableSet::create();
}

Ref<MutableDictionary> VXArchiveStore::readRefreshDates(String* account)
{
    RefPtr<MutableDictionary> timestamps;
    read(refreshDatesPath(account), [&timestamps](RefPtr<Object> root) {
        auto* dictionary = dynamicDowncast<Dictionary>(root.get());
        if (!dictionary)
            return false;
        // Dates under identifiers; anything else is dropped.
        timestamps = MutableDictionary::create();
        for (auto& entry : *dictionary) {
            if (is<String>(entry.key) && is<Date>(entry.object))
                timestamps->setObject(entry.object, entry.key);
        }
        return true;
    });
    return timestamps ? timestamps.releaseNonNull() : MutableDictionary::create();
}

RefPtr<Error> VXArchiveStore::write(Object* root, const std::string& path, Folder folder)
{
    std::string parent = stringByDeletingLastPathComponent(path);
    if (folder == Folder::MadeWhenMissing && !FileManager::defaultManager().fileExistsAtPath(parent))
        FileManager::defaultManager().createDirectoryAtPath(parent, true, nullptr, 0700);
    RefPtr<Error> error;
    if (KeyedArchiver::archiveRootObject(root, path, &error))
        return nullptr;
    if (!error)
        error = Error::create(POSIXErrorDomain, EIO, format("%s: cannot be written", path)).ptr();
    return error;
}

RefPtr<Error> VXArchiveStore::makeFolder()
{
    RefPtr<Error> error;
    if (FileManager::defaultManager().createDirectoryAtPath(folder(), true, &error, 0700))
        return nullptr;
    return error;
}

} // namespace velvox
