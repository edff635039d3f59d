#pragma once

// The base of every remote list: the items loaded so far, whether more exist,
// the loading state, the paging position and the last failure.
//
// A subclass starts a load with loadMoreItemsForReloadOperationType() (which
// only records the operation and enters the loading state), fetches a page in
// its own way, and ends the load with remoteConnectionDidReceiveNewItems() or
// remoteConnectionDidFailReceivingItemsWithError().
//
// Offset and merging (docs/zukit-services.md):
// - offset() is where the next page starts in the service's list: 0 for a
//   reload or a load at the start, else the number of items the service has
//   sent for this list since the last reload, duplicates included. It counts
//   what was sent, not what was kept, so that a list that grew at its head
//   between two loads is not shifted again on the next page.
// - A page never puts an item into items() twice: model objects (ZUObject)
//   are compared by identity, other values by isEqual(). An item of a page
//   loaded at the end that is already in the list is dropped; a page loaded at
//   the start puts its new items before the old ones.
// - A reload replaces the items when its page arrives, so a list does not
//   blank while it reloads; a failed load keeps the items and makes its error
//   readable through lastError() until the next load begins.
//
// items, isLoadingItems, hasMoreItems, offset and lastError are observable by
// key (addObserver) and readable by key-value coding. Everything runs on the
// run loop's thread: a list belongs to the thread that made it, and loading
// or ending a load from another raises WrongThreadException.

#include "ZUObject.h"

#include <Platform/Collections.h>
#include <Platform/Subscription.h>
#include <Platform/ThreadAffinity.h>
#include <Platform/Values.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace velvox {

enum class ZURemoteCollectionReloadOperationType : int32_t {
    // Reload from the start: the page replaces the items.
    Reload = 0,
    // Load more: a page at the end (forEnd) or newer items at the start.
    LoadMore = 1,
};

class ZURemoteCollectionController : public ZUObject {
    VX_OBJECT(ZURemoteCollectionController)
public:
    // Records the operation, clears lastError and enters the loading state;
    // fetches nothing. Subclasses override it to start their request, calling
    // this first.
    virtual void loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType, bool forEnd);

    // Told once when a load ends: a null error when its page is in, else the
    // load's error (also in lastError()).
    using LoadCompletion = std::function<void(Error* error)>;
    // The same load, with word of its end: starts it as the call above does,
    // or, while a load runs, waits for that one. `subscription`, when given,
    // receives a token: cancelled, the completion is never called and is
    // released at once; when no caller waits any more for a load that such a
    // call started, the load itself stops (its request too, unless another
    // list shares it) and the list leaves the loading state as it was, with
    // no error. A load started by the call above runs on for its own sake.
    void loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType, bool forEnd, LoadCompletion completion, Subscription* subscription = nullptr);

    // Merges one page as the recorded operation requires and ends the load.
    virtual void remoteConnectionDidReceiveNewItems(Array* items);
    // Ends the load; the items stay, the error is kept in lastError().
    virtual void remoteConnectionDidFailReceivingItemsWithError(Error* error);

    // The items loaded so far (an immutable array; a new one after each change).
    Array& items() const { return m_items; }
    // The same items typed, for lists of one class: items<VXTrack>() of a
    // track list. An item of another class is left out.
    template<typename T>
    std::vector<Ref<T>> items() const
    {
        std::vector<Ref<T>> typed;
        typed.reserve(m_items->count());
        for (auto* item : *m_items) {
            if (auto* object = dynamicDowncast<T>(item))
                typed.emplace_back(*object);
        }
        return typed;
    }
    bool isLoadingItems() const { return m_loadingItems; }
    bool hasMoreItems() const { return m_hasMoreItems; }
    void setHasMoreItems(bool);
    // Where the page of the pending (or next) load starts.
    int64_t offset() const;
    Error* lastError() const { return m_lastError.get(); }

    ZURemoteCollectionReloadOperationType reloadOperationType() const { return m_operation; }
    bool isLoadingForEnd() const { return m_forEnd; }

    RefPtr<Object> valueForKey(std::string_view key) const override;

protected:
    ZURemoteCollectionController();
    ~ZURemoteCollectionController() override;
    // Stops fetching the running load's page; its answer must not arrive.
    virtual void stopFetching() { }
    void checkThread(const char* function) const { m_affinity.check(classInfo()->name, function); }
    const ThreadAffinity& affinity() const { return m_affinity; }

private:
    struct LoadWaiter {
        ZURemoteCollectionController* collection;
        LoadCompletion completion;
    };
    void cancelWaiter(const std::shared_ptr<LoadWaiter>&);
    void tellWaiters();
    void setLoadingItems(bool);
    void setLastError(Error*);
    void setItems(Ref<Array>&&, int64_t receivedCount);

    ThreadAffinity m_affinity;
    Ref<Array> m_items;
    RefPtr<Error> m_lastError;
    // Items the service has sent since the last reload, kept or not.
    int64_t m_receivedCount { 0 };
    ZURemoteCollectionReloadOperationType m_operation { ZURemoteCollectionReloadOperationType::Reload };
    bool m_forEnd { true };
    bool m_loadingItems { false };
    bool m_hasMoreItems { true };
    // The callers told when the running load ends, and whether they, not a
    // plain call, started it.
    std::vector<std::shared_ptr<LoadWaiter>> m_waiters;
    bool m_loadStartedByWaiter { false };
};

} // namespace velvox
