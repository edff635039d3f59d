// The store's memory across runs: the identity map, and per signed-in
// account the played tracks and the refresh dates, as keyed archives in the
// folder "Velvox" of the per-user data folder.

#include "VXResourceController.h"

#include <Platform/Platform.h>

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

} // namespace

void VXResourceController::loadArchive(const std::string& path, const std::function<void(RefPtr<Object>)>& take)
{
    if (!FileManager::defaultManager().fileExistsAtPath(path))
        return;
    auto root = KeyedUnarchiver::unarchiveObjectWithFile(path);
    if (!root) {
        // Unreadable: start empty, as when there is none, but keep the file
        // aside instead of letting the next save overwrite it unseen.
        ::rename(path.c_str(), (path + ".corrupt").c_str());
        return;
    }
    take(std::move(root));
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
    std::string path = playedTrackIdentifiersStoragePathForMeUserIdentifer(meUserIdentifier);
    createParentFolder(path);
    KeyedArchiver::archiveRootObject(m_playedTrackIdentifiers.get(), path);
}

Ref<MutableSet> VXResourceController::deserializePlayedTrackIdentifiersForMeUserIdentifer(String* meUserIdentifier)
{
    RefPtr<MutableSet> played;
    loadArchive(playedTrackIdentifiersStoragePathForMeUserIdentifer(meUserIdentifier), [&played](RefPtr<Object> root) {
        if (auto* set = dynamicDowncast<Set>(root.get()))
            played = set->mutableCopy();
    });
    return played ? played.releaseNonNull() : MutableSet::create();
}

void VXResourceController::serializeLastPlayedTimestampsForMeUserIdentifer(String* meUserIdentifier)
{
    std::string path = lastPlayedTimestampsStoragePathForMeUserIdentifer(meUserIdentifier);
    createParentFolder(path);
    KeyedArchiver::archiveRootObject(m_lastRefreshTimestamps.get(), path);
}

Ref<MutableDictionary> VXResourceController::deserializeLastPlayedTimestampsForMeUserIdentifer(String* meUserIdentifier)
{
    RefPtr<MutableDictionary> timestamps;
    loadArchive(lastPlayedTimestampsStoragePathForMeUserIdentifer(meUserIdentifier), [&timestamps](RefPtr<Object> root) {
        if (auto* dictionary = dynamicDowncast<Dictionary>(root.get()))
            timestamps = dictionary->mutableCopy();
    });
    return timestamps ? timestamps.releaseNonNull() : MutableDictionary::create();
}

void VXResourceController::applicationWillTerminate(Notification*)
{
    KeyedArchiver::archiveRootObject(m_resourceCache.ptr(), resourceCacheFilePath());
    if (m_meUserIdentifier) {
        serializeLastPlayedTimestampsForMeUserIdentifer(m_meUserIdentifier.get());
        serializePlayedTrackIdentifiersForMeUserIdentifer(m_meUserIdentifier.get());
    }
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
