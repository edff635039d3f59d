// The store's memory across runs: the identity map, and per signed-in
// account the played tracks and the refresh dates, as keyed archives in the
// folder "Velvox" of the per-user data folder.

#include "VXResourceController.h"

#include <Platform/Platform.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

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

void createParentFolder(const std::string& path)
{
    std::string folder = stringByDeletingLastPathComponent(path);
    if (!FileManager::defaultManager().fileExistsAtPath(folder))
        FileManager::defaultManager().createDirectoryAtPath(folder, true, nullptr, 0700);
}

RefPtr<Error> archive(Object* root, const std::string& path)
{
    RefPtr<Error> error;
    if (KeyedArchiver::archiveRootObject(root, path, &error))
        return nullptr;
    if (!error)
        error = Error::create(POSIXErrorDomain, EIO, format("%s: cannot be written", path)).ptr();
    return error;
}

} // namespace

void VXResourceController::loadArchive(const std::string& path, const std::function<bool(RefPtr<Object>)>& take)
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

std::string VXResourceController::applicationSupportDirectory() const
{
    std::string path = stringByAppendingPathComponent(stringByExpandingTildeInPath(velvox::applicationSupportDirectory()), "Velvox");
    // Only a folder that exists is "created" here; a missing one comes into
    // being when an account's files are first saved.
    if (FileManager::defaultManager().fileExistsAtPath(path))
        FileManager::defaultManager().createDirectoryAtPath(path, true);
    return path;
}

std::string VXResourceController::resourceCacheFilePath() const
{
    return stringByAppendingPathComponent(applicationSupportDirectory(), "ressources.archive");
}

std::string VXResourceController::playedTrackIdentifiersStoragePathForMeUserIdentifer(String* meUserIdentifier) const
{
    return stringByAppendingPathComponent(applicationSupportDirectory(), fileNameComponent(meUserIdentifier) + "-playedTracks.archive");
}

std::string VXResourceController::lastPlayedTimestampsStoragePathForMeUserIdentifer(String* meUserIdentifier) const
{
    return stringByAppendingPathComponent(applicationSupportDirectory(), fileNameComponent(meUserIdentifier) + "-lastPlayedTimestamps.archive");
}

void VXResourceController::serializePlayedTrackIdentifiersForMeUserIdentifer(String* meUserIdentifier)
{
    writePlayedTrackIdentifiers(meUserIdentifier);
}

RefPtr<Error> VXResourceController::writePlayedTrackIdentifiers(String* meUserIdentifier)
{
    std::string path = playedTrackIdentifiersStoragePathForMeUserIdentifer(meUserIdentifier);
    createParentFolder(path);
    return archive(m_playedTrackIdentifiers.get(), path);
}

Ref<MutableSet> VXResourceController::deserializePlayedTrackIdentifiersForMeUserIdentifer(String* meUserIdentifier)
{
    RefPtr<MutableSet> played;
    loadArchive(playedTrackIdentifiersStoragePathForMeUserIdentifer(meUserIdentifier), [&played](RefPtr<Object> root) {
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

void VXResourceController::serializeLastPlayedTimestampsForMeUserIdentifer(String* meUserIdentifier)
{
    writeLastPlayedTimestamps(meUserIdentifier);
}

RefPtr<Error> VXResourceController::writeLastPlayedTimestamps(String* meUserIdentifier)
{
    std::string path = lastPlayedTimestampsStoragePathForMeUserIdentifer(meUserIdentifier);
    createParentFolder(path);
    return archive(m_lastRefreshTimestamps.get(), path);
}

Ref<MutableDictionary> VXResourceController::deserializeLastPlayedTimestampsForMeUserIdentifer(String* meUserIdentifier)
{
    RefPtr<MutableDictionary> timestamps;
    loadArchive(lastPlayedTimestampsStoragePathForMeUserIdentifer(meUserIdentifier), [&timestamps](RefPtr<Object> root) {
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

RefPtr<Error> VXResourceController::writeArchives()
{
    RefPtr<Error> first = archive(m_identityMap.archivedDictionary().ptr(), resourceCacheFilePath());
    if (m_meUserIdentifier) {
        auto timestamps = writeLastPlayedTimestamps(m_meUserIdentifier.get());
        auto played = writePlayedTrackIdentifiers(m_meUserIdentifier.get());
        if (!first)
            first = timestamps ? timestamps : played;
    }
    return first;
}

void VXResourceController::applicationWillTerminate(Notification*)
{
    writeArchives();
}

RefPtr<Error> VXResourceController::save()
{
    RefPtr<Error> folderError;
    bool folder = FileManager::defaultManager().createDirectoryAtPath(applicationSupportDirectory(), true, &folderError, 0700);
    auto written = writeArchives();
    return folder ? written : folderError;
}

void VXResourceController::applicationDidEnterBackground(Notification* notification)
{
    applicationWillTerminate(notification);
}

void VXResourceController::registerTrackPlayedForIdentifier(String* trackIdentifier)
{
    VXAssert(trackIdentifier, "trackIdentifier needed to register play");
    if (m_playedTrackIdentifiers)
        m_playedTrackIdentifiers->addObject(trackIdentifier);
}

bool VXResourceController::hasTrackBeenPlayedForTrackIdentifier(String* trackIdentifier) const
{
    VXAssert(trackIdentifier, "trackIdentifier needed find out if project has been played");
    return m_playedTrackIdentifiers && m_playedTrackIdentifiers->containsObject(trackIdentifier);
}

Ref<Date> VXResourceController::lastRefreshTimeStampForIdentifier(String* identifier) const
{
    VXAssert(identifier, "identifier needed for retrieving timestamp");
    if (auto* date = m_lastRefreshTimestamps ? m_lastRefreshTimestamps->objectForKey<Date>(identifier->view()) : nullptr)
        return *date;
    return Date::distantPast();
}

void VXResourceController::registerLastRefreshDate(Date* date, String* identifier)
{
    VXAssert(identifier, "identifier needed for registering timestamp");
    if (!m_lastRefreshTimestamps)
        return;
    m_lastRefreshTimestamps->setObject(date ? Ref<Date>(*date) : Date::now(), identifier->view());
}

} // namespace velvox
