#pragma once

// The store's files: where they live (the folder "Velvox" of the per-user
// data folder: "ressources.archive", and per account
// "<id>-playedTracks.archive" and "<id>-lastPlayedTimestamps.archive"), how
// each is read (only a root of the expected shape, with anything else in it
// dropped; an unreadable file set aside as "<name>.corrupt") and how each is
// written (atomically; a failure answered, the earlier contents kept).

#include <Platform/Collections.h>
#include <Platform/Error.h>

#include <functional>
#include <string>

namespace velvox {

class VXArchiveStore {
public:
    // The folder; "made" here only when it exists already (a missing one comes
    // into being when a file is first written).
    static std::string folder();
    static std::string identityMapPath();
    // When the identity map's objects came in, for freshness by age
    // ("receipts.archive"); written only by stores that record it.
    static std::string receiptsPath();
    // Changes made while the service could not be reached ("changes.archive").
    static std::string changesPath();
    static std::string playedTracksPath(String* account);
    static std::string refreshDatesPath(String* account);

    // Hands the root of the file at `path` to `take`, which answers whether it
    // is of the expected shape; an unreadable file, or one whose root is not,
    // is set aside. Nothing happens when there is no file.
    static void read(const std::string& path, const std::function<bool(RefPtr<Object>)>& take);
    // The account's played tracks (strings) and refresh dates (dates under
    // strings), empty when there are none.
    static Ref<MutableSet> readPlayedTracks(String* account);
    static Ref<MutableDictionary> readRefreshDates(String* account);

    // Writes the root to the path. The per-account files make their folder
    // first when it is missing; the identity map's termination save does not
    // (the folder comes into being through the account's files, or save()).
    enum class Folder { AsItIs,
        MadeWhenMissing };
    static RefPtr<Error> write(Object* root, const std::string& path, Folder);
    // Makes the folder (0700); the failure, if any.
    static RefPtr<Error> makeFolder();
};

} // namespace velvox
