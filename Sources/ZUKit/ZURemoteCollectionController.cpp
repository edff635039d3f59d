#include "ZURemoteCollectionController.h"

#include <Platform/Platform.h>

#include <unordered_set>
#include <vector>

namespace velvox {

VX_DEFINE_CLASS(ZURemoteCollectionController, ZUObject)

namespace {

// Model objects are one per resource, so identity decides; other values
// (dictionaries, strings) compare by content.
bool sameItem(const Object* a, const Object* b)
{
    if (is<ZUObject>(a) || is<ZUObject>(b))
        return a == b;
    return objectsEqual(a, b);
}

struct ItemHash {
    size_t operator()(const Object* object) const
    {
        return is<ZUObject>(object) ? std::hash<const void*>()(object) : object->hash();
    }
};
struct ItemEqual {
    bool operator()(const Object* a, const Object* b) const { return sameItem(a, b); }
};
using ItemSet = std::unordered_set<const Object*, ItemHash, ItemEqual>;

// Appends the items of `page` that are not in `seen` (nor earlier in the page).
void appendNewItems(std::vector<Ref<Object>>& merged, ItemSet& seen, Array& page)
{
    for (auto* item : page) {
        VXAssert(item, "a page holds a null item");
        if (seen.insert(item).second)
            merged.emplace_back(*item);
    }
}

// The common page: model objects, none twice. Checked by address (what
// sameItem compares them by) in a sorted copy, without a hash set's nodes.
bool isPageOfDistinctModelObjects(Array& page)
{
    std::vector<const Object*> addresses;
    addresses.reserve(page.count());
    for (auto* item : page) {
        if (!item || !is<ZUObject>(item))
            return false;
        addresses.push_back(item);
    }
    std::sort(addresses.begin(), addresses.end());
    return std::adjacent_find(addresses.begin(), addresses.end()) == addresses.end();
}

int64_t offsetFor(ZURemoteCollectionReloadOperationType operation, bool forEnd, int64_t receivedCount)
{
    if (operation == ZURemoteCollectionReloadOperationType::Reload || !forEnd)
        return 0;
    return receivedCount;
}

} // namespace

ZURemoteCollectionController::ZURemoteCollectionController()
    : m_items(Array::create())
{
}

ZURemoteCollectionController::~ZURemoteCollectionController() = default;

void ZURemoteCollectionController::loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType operation, bool forEnd)
{
    checkThread(__func__);
    Ref protectedThis { *this };
    bool offsetChanges = offsetFor(operation, forEnd, m_receivedCount) != offset();
    if (offsetChanges)
        willChangeValueForKey("offset");
    m_operation = operation;
    m_forEnd = forEnd;
    if (offsetChanges)
        didChangeValueForKey("offset");
    setLastError(nullptr);
    setLoadingItems(true);
}

int64_t ZURemoteCollectionController::offset() const
{
    return offsetFor(m_operation, m_forEnd, m_receivedCount);
}

void ZURemoteCollectionController::remoteConnectionDidReceiveNewItems(Array* page)
{
    checkThread(__func__);
    Ref protectedThis { *this };
    Ref<Array> received = page ? Ref<Array>(*page) : Array::create();
    std::vector<Ref<Object>> merged;
    ItemSet seen;
    int64_t receivedCount = m_receivedCount;
    if (m_operation == ZURemoteCollectionReloadOperationType::Reload && isPageOfDistinctModelObjects(received)) {
        // The page is the list as it stands (copied only when a caller may still change it).
        setItems(received->copy(), static_cast<int64_t>(received->count()));
        setLoadingItems(false);
        tellWaiters();
        return;
    }
    if (m_operation == ZURemoteCollectionReloadOperationType::Reload) {
        merged.reserve(received->count());
        appendNewItems(merged, seen, received);
        receivedCount = static_cast<int64_t>(received->count());
    } else if (m_forEnd) {
        merged.reserve(m_items->count() + received->count());
        appendNewItems(merged, seen, m_items);
        appendNewItems(merged, seen, received);
        receivedCount += static_cast<int64_t>(received->count());
    } else {
        // Newer items at the head: the service's list grew by those we did not have.
        ItemSet old;
        for (auto* item : *m_items)
            old.insert(item);
        merged.reserve(m_items->count() + received->count());
        for (auto* item : *received) {
            VXAssert(item, "a page holds a null item");
            if (!old.count(item) && seen.insert(item).second)
                merged.emplace_back(*item);
        }
        receivedCount += static_cast<int64_t>(merged.size());
        appendNewItems(merged, seen, m_items);
    }
    setItems(Array::create(std::move(merged)), receivedCount);
    setLoadingItems(false);
    tellWaiters();
}

void ZURemoteCollectionController::remoteConnectionDidFailReceivingItemsWithError(Error* error)
{
    checkThread(__func__);
    Ref protectedThis { *this };
    setLastError(error);
    setLoadingItems(false);
    tellWaiters();
}

void ZURemoteCollectionController::loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType type, bool forEnd, LoadCompletion completion, Subscription* subscription)
{
    checkThread(__func__);
    Ref protectedThis { *this };
    auto waiter = std::make_shared<LoadWaiter>(LoadWaiter { this, std::move(completion) });
    bool starts = !m_loadingItems;
    m_waiters.push_back(waiter);
    if (starts) {
        m_loadStartedByWaiter = true;
        loadMoreItemsForReloadOperationType(type, forEnd);
    }
    if (subscription) {
        std::weak_ptr<LoadWaiter> weakWaiter = waiter;
        *subscription = m_affinity.token([weakWaiter] {
            if (auto waiter = weakWaiter.lock(); waiter && waiter->collection)
                waiter->collection->cancelWaiter(waiter);
        },
            weakWaiter);
    }
}

void ZURemoteCollectionController::cancelWaiter(const std::shared_ptr<LoadWaiter>& waiter)
{
    Ref protectedThis { *this };
    std::erase(m_waiters, waiter);
    waiter->collection = nullptr;
    // Released now; moved out first, as the completion may be the caller.
    { auto released = std::move(waiter->completion); }
    if (!m_waiters.empty() || !m_loadStartedByWaiter || !m_loadingItems)
        return;
    m_loadStartedByWaiter = false;
    stopFetching();
    setLoadingItems(false);
}

void ZURemoteCollectionController::tellWaiters()
{
    m_loadStartedByWaiter = false;
    auto waiters = std::move(m_waiters);
    m_waiters.clear();
    for (auto& waiter : waiters) {
        // A completion before this one may have cancelled it.
        if (!waiter->collection)
            continue;
        waiter->collection = nullptr;
        if (auto completion = std::move(waiter->completion))
            completion(m_lastError.get());
    }
}

void ZURemoteCollectionController::setItems(Ref<Array>&& items, int64_t receivedCount)
{
    bool offsetChanges = offsetFor(m_operation, m_forEnd, receivedCount) != offset();
    if (offsetChanges)
        willChangeValueForKey("offset");
    willChangeValueForKey("items");
    m_items = std::move(items);
    m_receivedCount = receivedCount;
    didChangeValueForKey("items");
    if (offsetChanges)
        didChangeValueForKey("offset");
}

void ZURemoteCollectionController::setHasMoreItems(bool hasMoreItems)
{
    checkThread(__func__);
    if (hasMoreItems == m_hasMoreItems)
        return;
    Ref protectedThis { *this };
    willChangeValueForKey("hasMoreItems");
    m_hasMoreItems = hasMoreItems;
    didChangeValueForKey("hasMoreItems");
}

void ZURemoteCollectionController::setLoadingItems(bool loading)
{
    if (loading == m_loadingItems)
        return;
    willChangeValueForKey("isLoadingItems");
    m_loadingItems = loading;
    didChangeValueForKey("isLoadingItems");
}

void ZURemoteCollectionController::setLastError(Error* error)
{
    if (error == m_lastError.get())
        return;
    willChangeValueForKey("lastError");
    m_lastError = error;
    didChangeValueForKey("lastError");
}

RefPtr<Object> ZURemoteCollectionController::valueForKey(std::string_view key) const
{
    if (key == "items")
        return m_items.ptr();
    if (key == "isLoadingItems")
        return Number::withBool(m_loadingItems);
    if (key == "hasMoreItems")
        return Number::withBool(m_hasMoreItems);
    if (key == "offset")
        return Number::create(offset());
    if (key == "lastError")
        return m_lastError;
    return ZUObject::valueForKey(key);
}

} // namespace velvox
