// The store's memory across runs: the identity map, and per signed-in
// account the played tracks and the refresh dates, as keyed archives in the
// folder "Velvox" of the per-user data folder.

#include "VXResourceController.h"

#include "VXArchiveStore.h"

#include <Platform/Platform.h>

namespace velvox {

std::string VXResourceController::applicationSupportDirectory() const
{
    return VXArchiveStore::folder();
}

std::string VXResourceController::resourceCacheFilePath() const
{
    return VXArchiveStore::identityMapPath();
}

std::string VXResourceController::playedTrackIdentifiersStoragePathForMeUserIdentifer(String* meUserIdentifier) const
{
    return VXArchiveStore::playedTracksPath(meUserIdentifier);
}

std::string VXResourceController::lastPlayedTimestampsStoragePathForMeUserIdentifer(String* meUserIdentifier) const
{
    return VXArchiveStore::refreshDatesPath(meUserIdentifier);
}

void VXResourceController::serializePlayedTrackIdentifiersForMeUserIdentifer(String* meUserIdentifier)
{
    VXArchiveStore::write(m_playedTrackIdentifiers.get(), VXArchiveStore::playedTracksPath(meUserIdentifier), VXArchiveStore::Folder::MadeWhenMissing);
}

Ref<MutableSet> VXResourceController::deserializePlayedTrackIdentifiersForMeUserIdentifer(String* meUserIdentifier)
{
    return VXArchiveStore::readPlayedTracks(meUserIdentifier);
}

void VXResourceController::serializeLastPlayedTimestampsForMeUserIdentifer(String* meUserIdentifier)
{
    VXArchiveStore::write(m_lastRefreshTimestamps.get(), VXArchiveStore::refreshDatesPath(meUserIdentifier), VXArchiveStore::Folder::MadeWhenMissing);
}

Ref<MutableDictionary> VXResourceController::deserializeLastPlayedTimestampsForMeUserIdentifer(String* meUserIdentifier)
{
    return VXArchiveStore::readRefreshDates(meUserIdentifier);
}

RefPtr<Error> VXResourceController::writeArchives()
{
    using Folder = VXArchiveStore::Folder;
    RefPtr<Error> first = VXArchiveStore::write(m_identityMap.archivedDictionary().ptr(), VXArchiveStore::identityMapPath(), Folder::AsItIs);
    if (m_identityMap.recordsReceipts()) {
        auto receipts = VXArchiveStore::write(m_identityMap.receiptsDictionary().ptr(), VXArchiveStore::receiptsPath(), Folder::AsItIs);
        if (!first)
            first = receipts;
    }
    if (auto* account = m_meUserIdentifier.get()) {
        auto timestamps = VXArchiveStore::write(m_lastRefreshTimestamps.get(), VXArchiveStore::refreshDatesPath(account), Folder::MadeWhenMissing);
        auto played = VXArchiveStore::write(m_playedTrackIdentifiers.get(), VXArchiveStore::playedTracksPath(account), Folder::MadeWhenMissing);
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
    checkThread(__func__);
    auto folderError = VXArchiveStore::makeFolder();
    auto written = writeArchives();
    return folderError ? folderError : written;
}

void VXResourceController::applicationDidEnterBackground(Notification* notification)
{
    applicationWillTerminate(notification);
}

void VXResourceController::registerTrackPlayedForIdentifier(String* trackIdentifier)
{
    checkThread(__func__);
    VXAssert(trackIdentifier, "trackIdentifier needed to register play");
    if (m_playedTrackIdentifiers)
        m_playedTrackIdentifiers->addObject(trackIdentifier);
}

bool VXResourceController::hasTrackBeenPlayedForTrackIdentifier(String* trackIdentifier) const
{
    checkThread(__func__);
    VXAssert(trackIdentifier, "trackIdentifier needed find out if project has been played");
    return m_playedTrackIdentifiers && m_playedTrackIdentifiers->containsObject(trackIdentifier);
}

Ref<Date> VXResourceController::lastRefreshTimeStampForIdentifier(String* identifier) const
{
    checkThread(__func__);
    VXAssert(identifier, "identifier needed for retrieving timestamp");
    if (auto* date = m_lastRefreshTimestamps ? m_lastRefreshTimestamps->objectForKey<Date>(identifier->view()) : nullptr)
        return *date;
    return Date::distantPast();
}

void VXResourceController::registerLastRefreshDate(Date* date, String* identifier)
{
    checkThread(__func__);
    VXAssert(identifier, "identifier needed for registering timestamp");
    if (!m_lastRefreshTimestamps)
        return;
    m_lastRefreshTimestamps->setObject(date ? Ref<Date>(*date) : Date::now(), identifier->view());
}

} // namespace velvox
