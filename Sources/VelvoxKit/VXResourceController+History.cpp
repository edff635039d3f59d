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

RefPtr<MutableDictionary> VXResourceController::validatedResourceCache(Object* root)
{
    auto* archived = dynamicDowncast<Dictionary>(root);
    if (!archived)
        return nullptr;
    for (auto& entry : *archived) {
        if (!is<String>(entry.key) || !is<Dictionary>(entry.object))
            return nullptr;
    }
    // Only what cacheResource() itself would have filed there is kept: an
    // object of exactly that class, under its own identifier. Anything else
    // would surface later as an object of an unexpected class.
    size_t limit = m_options.archivedObjectsPerClass;
    auto cache = MutableDictionary::create();
    for (auto& entry : *archived) {
        auto& className = downcast<String>(*entry.key);
        auto& archivedClass = downcast<Dictionary>(*entry.object);
        std::vector<VXResource*> kept;
        for (auto& item : archivedClass) {
            auto* identifier = dynamicDowncast<String>(item.key);
            auto* resource = dynamicDowncast<VXResource>(item.object);
            if (!identifier || !resource || resource->className() != className.view() || !resource->resourceIdentifier()
                || !resource->resourceIdentifier()->isEqual(identifier))
                continue;
            kept.push_back(resource);
        }
        // Archives list each class oldest first: the last ones are the most recent.
        size_t skipped = limit && kept.size() > limit ? kept.size() - limit : 0;
        if (kept.size() == skipped)
            continue;
        auto classCache = MutableDictionary::create(kept.size() - skipped);
        for (size_t i = skipped; i < kept.size(); ++i) {
            classCache->setObject(kept[i], kept[i]->resourceIdentifier());
            if (limit)
                noteUse(*kept[i]);
        }
        cache->setObject(classCache, &className);
    }
    return cache;
}

Ref<Dictionary> VXResourceController::archivedResourceCache() const
{
    size_t limit = m_options.archivedObjectsPerClass;
    if (!limit)
        return m_resourceCache;
    auto archived = MutableDictionary::create();
    for (auto& entry : *m_resourceCache) {
        auto* classCache = dynamicDowncast<Dictionary>(entry.object);
        if (!classCache)
            continue;
        std::vector<std::pair<uint64_t, Object*>> byUse;
        byUse.reserve(classCache->count());
        for (auto& item : *classCache) {
            auto found = m_lastUse.find(item.object);
            byUse.emplace_back(found == m_lastUse.end() ? 0 : found->second, item.object);
        }
        // The most recent last, so that the next load knows the order.
        std::stable_sort(byUse.begin(), byUse.end(), [](auto& a, auto& b) { return a.first < b.first; });
        size_t skipped = byUse.size() > limit ? byUse.size() - limit : 0;
        auto bounded = MutableDictionary::create(byUse.size() - skipped);
        for (size_t i = skipped; i < byUse.size(); ++i)
            bounded->setObject(byUse[i].second, downcast<VXResource>(*byUse[i].second).resourceIdentifier());
        archived->setObject(bounded, entry.key);
    }
    return archived;
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
    RefPtr<Error> first = archive(archivedResourceCache().ptr(), resourceCacheFilePath());
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
