#pragma once

// Changes the signed-in user made while the service could not be reached
// (follows, favorites and their undoing, comments), kept in order until they
// are sent. Saved with the store's archives ("changes.archive", atomically,
// private) after every change of its own, so that a crash loses none and a
// change that may have reached the service is known as such. It is a list
// and its file; sending is the store's.

#include <Platform/Collections.h>
#include <Platform/Error.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace velvox {

class VXChangeJournal {
public:
    enum class Kind { Follow, Unfollow, Favorite, Unfavorite, Comment };
    // "follow", "unfollow", "favorite", "unfavorite", "comment".
    static std::string_view nameOfKind(Kind);
    static std::optional<Kind> kindNamed(std::string_view);

    struct Entry {
        Entry() = default;
        Entry(Kind kind, std::string target)
            : kind(kind)
            , target(std::move(target))
        {
        }
        Kind kind { Kind::Follow };
        std::string target;                   // the user's or the track's identifier
        std::string body;                     // a comment's text
        std::optional<int64_t> timestamp;     // a comment's position, as sent ("comment[timestamp]")
        std::string account;                  // whose change: a digest of the token, never the token
        double madeAt { 0 };                  // seconds since 1970
        // Sent at least once without an answer: the service may have it.
        bool attempted { false };
        // When a comment last sent may be looked for on the service (a
        // request whose answer was lost may still be taken a little later),
        // seconds since 1970.
        double lookAfter { 0 };
        // The model's value before the change (1, 0, or -1 when unknown), for
        // undoing it when the service refuses the change.
        int32_t previous { -1 };
        // Tells entries apart while the journal is in memory (not saved).
        uint64_t sequence { 0 };
        // The value the change sets (follow and favorite 1, their undoing 0).
        int32_t value() const { return kind == Kind::Follow || kind == Kind::Favorite ? 1 : 0; }
        bool isComment() const { return kind == Kind::Comment; }
    };

    explicit VXChangeJournal(std::string path = {});

    const std::string& path() const { return m_path; }
    // Reads the file: a crafted, truncated or foreign one reads as empty (and
    // is set aside); entries that do not make sense (an unknown kind, no
    // target, a comment without text, values of the wrong type) are dropped.
    void load();
    // Writes the file (removes it when empty); the failure, if any.
    RefPtr<Error> save() const;

    const std::deque<Entry>& entries() const { return m_entries; }
    bool empty() const { return m_entries.empty(); }
    size_t countForAccount(std::string_view account) const;
    // The first entry of the account, or null.
    Entry* firstForAccount(std::string_view account);
    Entry* entryWithSequence(uint64_t sequence);
    void removeEntryWithSequence(uint64_t sequence);
    // The value the latest follow or favorite entry of a target sets, or none.
    std::optional<int32_t> pendingValue(bool follow, std::string_view target, std::string_view account) const;

    void append(Entry);
    void removeAll() { m_entries.clear(); }

    // Entries beyond this many are refused: a journal never grows without bound.
    static constexpr size_t maximumEntries = 10000;
    static constexpr size_t maximumTextLength = 64 * 1024;

private:
    std::string m_path;
    std::deque<Entry> m_entries;
    uint64_t m_nextSequence { 1 };
};

} // namespace velvox
