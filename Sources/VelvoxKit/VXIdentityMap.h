#pragma once

// The identity map: one model object per class and identifier, so that every
// view of the host shares one object per remote resource. JSON enters it by
// one road, updateCacheForResource(): the cached object refreshed in place,
// or a new one filed. It also knows what it may keep across runs: an
// archive's map checked entry by entry, and, under a bound per class, the
// most recently used objects of each class. Under a memory budget it lets
// go of the least recently used objects that nobody else holds.

#include "VXResource.h"

#include <Platform/Collections.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace velvox {

class VXIdentityMap {
public:
    VXIdentityMap();
    ~VXIdentityMap();
    VXIdentityMap(const VXIdentityMap&) = delete;
    VXIdentityMap& operator=(const VXIdentityMap&) = delete;

    // Class name, then identifier, then the object.
    MutableDictionary& dictionary() const { return m_dictionary; }
    // What the map knew of the objects it held (use order, receipts) goes with them.
    void setDictionary(MutableDictionary&);

    RefPtr<VXResource> cachedResource(std::string_view className, String* identifier) const;
    RefPtr<VXResource> cachedResource(std::string_view className, std::string_view identifier) const;
    // Files the resource under its class and identifier and posts
    // VXResourceAttributesDidChangeNotification.
    void cacheResource(VXResource&);
    // The cached object refreshed in place from the dictionary (announced only
    // when something changed), or a new one made by `make` and filed. A null
    // identifier is taken from the dictionary's "id"; a dictionary without one
    // gives an object that is not filed.
    Ref<VXResource> updateCacheForResource(const ClassInfo&, Ref<VXResource> (*make)(Dictionary*), String* identifier, Dictionary*);
    void clear();
    // Changes whenever an object may have left the map (cleared, replaced,
    // let go, another map taken): equal values mean every object filed in
    // between is still filed (as long as the map is changed through this class).
    uint64_t generation() const { return m_generation; }

    // With a bound per class (0: none), the map remembers the order in which
    // objects were last filed or updated, so that the bounded part can be chosen.
    void setArchivedObjectsPerClass(size_t bound) { m_bound = bound; }
    // Takes an archive's root as the map: only what cacheResource() would have
    // filed there is kept (an object of exactly that class, under its own
    // identifier), at most the bound's last of each class. False, with the
    // map unchanged, when the root is not a dictionary of dictionaries.
    bool adoptArchivedRoot(Object* root);
    // What to archive: the whole map, or under a bound the most recently used
    // objects of each class, oldest first.
    Ref<Dictionary> archivedDictionary() const;

    // When each object's record last came in (seconds since 1970, on the run
    // loop's clock), kept only while asked for: freshness by age needs it.
    void setRecordsReceipts(bool records) { m_recordsReceipts = records; }
    bool recordsReceipts() const { return m_recordsReceipts; }
    // A cached object whose record came in again unchanged (an answer the
    // service confirmed): its use and receipt as if it had been updated.
    void noteReceived(VXResource&);
    // 0 when unknown (never received while recording, nor read back).
    double receivedAt(const VXResource&) const;
    // How long the service said the object's record stays fresh ("Cache-Control:
    // max-age" of the answer it came in), or a negative number when it said nothing.
    double serviceMaximumAge(const VXResource&) const;
    // The maximum age the service gave the answer being read now (negative: none);
    // recorded with the receipts of what it brings in.
    void setAnswerMaximumAge(double seconds) { m_answerMaximumAge = seconds; }
    // Class name, then identifier, then the time (a Number) of every object of
    // the map whose time is known: what the receipts' archive holds.
    Ref<Dictionary> receiptsDictionary() const;
    // Takes an archive of receipts: only finite, non-negative times of
    // objects the map holds under that class and identifier are kept; false
    // when the root is not a dictionary of dictionaries.
    bool adoptReceipts(Object* root);

    // A memory budget: bytes of the estimate statistics() makes (nullopt:
    // none, nothing is tracked). Under one, the map notes each object's
    // estimate when it is filed or refreshed and keeps every object in the
    // order it was last filed, updated or received, and collect() lets go of
    // the least recently used objects nobody else holds.
    void setMemoryBudget(std::optional<size_t> bytes);
    std::optional<size_t> memoryBudget() const { return m_budget; }
    // Called when a filing finds the estimate over the budget (once per
    // filing: the caller coalesces).
    void setOverBudgetHandler(std::function<void()> handler) { m_overBudget = std::move(handler); }
    // The estimate of the objects tracked (0 without a budget).
    size_t trackedBytes() const { return m_trackedBytes; }
    bool isOverBudget() const { return m_budget && m_trackedBytes > *m_budget; }
    // How many objects the budget has let go since the map was made.
    uint64_t letGoCount() const { return m_letGoCount; }
    enum class Collection {
        UnderBudget, // nothing (more) to do
        Unfinished, // over budget at the deadline: call again
        NothingToLetGo, // over budget, but every object is held elsewhere
    };
    // Lets go of the least recently used objects that only the map holds
    // (no other reference, no observer) until the estimate is within the
    // budget or the deadline passes (checked every few objects). An object
    // found held moves to the recent end, so that each is looked at once per
    // pass. Objects let go leave the map: the generation changes, and the
    // next request for one makes a new object.
    Collection collect(std::chrono::steady_clock::time_point deadline);
    // The length of a slice of collection on the run loop: a millisecond at
    // most, with the objects let go after the last look at the clock.
    static constexpr std::chrono::microseconds sliceLength { 900 };

    struct ClassStatistics {
        std::string className;
        size_t objectCount { 0 };
        size_t estimatedBytes { 0 };
    };
    struct Statistics {
        std::vector<ClassStatistics> classes; // by class name
        size_t objectCount { 0 };
        size_t estimatedBytes { 0 };
    };
    Statistics statistics() const;

private:
    void noteUse(VXResource&);
    // The budget's bookkeeping: an object filed or refreshed (estimated
    // again), one used (moved to the recent end), one that left the map.
    void noteFiled(VXResource&);
    void noteTouched(VXResource&);
    void unlink(VXResource&);
    void unlinkAll();
    // Lists every object of the map (an archive's, another dictionary).
    void trackDictionary();
    void letGo(VXResource&);

    mutable Ref<MutableDictionary> m_dictionary;
    uint64_t m_generation { 0 };
    size_t m_bound { 0 };
    // Under a bound: when each object was last filed or updated (loaded ones
    // in their archived order, oldest first).
    std::unordered_map<const Object*, uint64_t> m_lastUse;
    uint64_t m_nextUse { 1 };
    bool m_recordsReceipts { false };
    struct Receipt {
        double at;
        double maximumAge; // negative: the service said nothing
    };
    std::unordered_map<const Object*, Receipt> m_receivedAt;
    double m_answerMaximumAge { -1 };

    std::optional<size_t> m_budget;
    std::function<void()> m_overBudget;
    // Least recently used first; each listed object holds one reference of the list's.
    VXResource* m_oldest { nullptr };
    VXResource* m_newest { nullptr };
    size_t m_listed { 0 };
    size_t m_trackedBytes { 0 };
    // Objects found held since the last one let go or filed: a whole list's
    // worth means there is nothing to let go until something changes.
    size_t m_heldInARow { 0 };
    uint64_t m_letGoCount { 0 };
};

} // namespace velvox
