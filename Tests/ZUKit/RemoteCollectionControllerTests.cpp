// The remote collection base: loading states, merging, offsets, and a list
// that grows at its head between two page loads.

#include <Platform/Platform.h>
#include <ZUKit/ZURemoteCollectionController.h>

#include <gtest/gtest.h>

#include <deque>

using namespace velvox;
using Operation = ZURemoteCollectionReloadOperationType;

namespace {

class TestCollection final : public ZURemoteCollectionController {
public:
    static Ref<TestCollection> create() { return adoptRef(*new TestCollection); }
};

// A service's list that pages by offset and limit, as the Velvox service does.
class PagedList {
public:
    explicit PagedList(int count)
    {
        for (int i = 1; i <= count; ++i)
            m_items.push_back(i);
    }
    void insertAtHead(int value) { m_items.push_front(value); }
    Ref<Array> page(int64_t offset, int64_t limit) const
    {
        std::vector<Ref<Object>> page;
        for (int64_t i = offset; i < offset + limit && i < static_cast<int64_t>(m_items.size()); ++i)
            page.emplace_back(String::format("item %d", m_items[i]));
        return Array::create(std::move(page));
    }

private:
    std::deque<int> m_items;
};

std::vector<std::string> texts(Array& items)
{
    std::vector<std::string> out;
    for (auto* item : items)
        out.push_back(downcast<String>(item)->str());
    return out;
}

// Loads one page the way a subclass does: begin, fetch at offset(), merge.
void loadPage(TestCollection& collection, const PagedList& list, Operation operation, bool forEnd, int limit = 3)
{
    collection.loadMoreItemsForReloadOperationType(operation, forEnd);
    auto page = list.page(collection.offset(), limit);
    collection.setHasMoreItems(static_cast<int>(page->count()) == limit);
    collection.remoteConnectionDidReceiveNewItems(page.ptr());
}

} // namespace

TEST(RemoteCollection, PagesToTheEndWithoutRepeatsWhenTheListGrowsAtItsHead)
{
    PagedList list(10);
    auto collection = TestCollection::create();
    loadPage(collection, list, Operation::Reload, false);
    EXPECT_EQ(texts(collection->items()), (std::vector<std::string> { "item 1", "item 2", "item 3" }));
    EXPECT_EQ(collection->offset(), 0); // a reload would start again at 0

    // Two new items arrive at the head: the next page (offset 3) now starts
    // with items 2 and 3, which are already in the list.
    list.insertAtHead(0);
    list.insertAtHead(-1);
    loadPage(collection, list, Operation::LoadMore, true);
    EXPECT_EQ(texts(collection->items()), (std::vector<std::string> { "item 1", "item 2", "item 3", "item 4" }));
    // The offset counts what the service sent, so the next page is not shifted again.
    EXPECT_EQ(collection->offset(), 6);
    while (collection->hasMoreItems())
        loadPage(collection, list, Operation::LoadMore, true);
    std::vector<std::string> expected;
    for (int i = 1; i <= 10; ++i)
        expected.push_back("item " + std::to_string(i));
    EXPECT_EQ(texts(collection->items()), expected);

    // Newer items load at the start, before the old ones.
    loadPage(collection, list, Operation::LoadMore, false);
    EXPECT_EQ(texts(collection->items()).front(), "item -1");
    EXPECT_EQ(texts(collection->items()).at(1), "item 0");
    EXPECT_EQ(collection->items().count(), 12u);

    // A reload replaces the list with the first page.
    loadPage(collection, list, Operation::Reload, false);
    EXPECT_EQ(texts(collection->items()), (std::vector<std::string> { "item -1", "item 0", "item 1" }));
}

TEST(RemoteCollection, ModelObjectsAreMergedByIdentity)
{
    class Item final : public ZUObject {
    public:
        static Ref<Item> create() { return adoptRef(*new Item); }
        bool isEqual(const Object*) const override { return true; } // content equality must not merge models
    };
    auto collection = TestCollection::create();
    auto a = Item::create(), b = Item::create();
    collection->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    collection->remoteConnectionDidReceiveNewItems(Array::create({ a.ptr(), b.ptr(), a.ptr() }).ptr());
    ASSERT_EQ(collection->items().count(), 2u);
    EXPECT_EQ(collection->items()[0], a.ptr());
    EXPECT_EQ(collection->items()[1], b.ptr());
    collection->loadMoreItemsForReloadOperationType(Operation::LoadMore, true);
    collection->remoteConnectionDidReceiveNewItems(Array::create({ b.ptr() }).ptr());
    EXPECT_EQ(collection->items().count(), 2u);
    EXPECT_EQ(collection->offset(), 4); // three sent by the first page, one by the second
}

TEST(RemoteCollection, LoadingStatesAndErrorsAreObservableAndKeepTheItems)
{
    auto collection = TestCollection::create();
    std::vector<std::string> changes;
    std::vector<Subscription> observations;
    for (auto key : { "items", "isLoadingItems", "hasMoreItems", "lastError", "offset" }) {
        observations.push_back(collection->addObserver(key, [&changes](ZUObject& object, const String& key) {
            auto value = object.valueForKey(key.view());
            changes.push_back(key.str() + "=" + (value ? value->description()->str() : "nil"));
        }));
    }
    EXPECT_FALSE(collection->isLoadingItems());
    collection->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    EXPECT_TRUE(collection->isLoadingItems());
    collection->remoteConnectionDidReceiveNewItems(Array::create({ String::create("a").ptr(), String::create("b").ptr() }).ptr());
    EXPECT_EQ(changes, (std::vector<std::string> { "isLoadingItems=1", "items=(\n    a,\n    b\n)", "isLoadingItems=0" }));
    changes.clear();

    // A reload keeps the items until its page comes; a failure keeps them for good.
    collection->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    EXPECT_EQ(collection->items().count(), 2u);
    auto failure = Error::create(URLErrorDomain, 7, "Couldn't connect to server");
    collection->remoteConnectionDidFailReceivingItemsWithError(failure.ptr());
    EXPECT_FALSE(collection->isLoadingItems());
    EXPECT_EQ(collection->items().count(), 2u);
    EXPECT_EQ(collection->lastError(), failure.ptr());
    EXPECT_EQ(changes.size(), 3u); // loading on, lastError, loading off
    EXPECT_EQ(changes[1].substr(0, 10), "lastError=");

    // The next load clears the error.
    changes.clear();
    collection->loadMoreItemsForReloadOperationType(Operation::LoadMore, true);
    EXPECT_FALSE(collection->lastError());
    EXPECT_EQ(collection->offset(), 2);
    EXPECT_EQ(changes, (std::vector<std::string> { "offset=2", "lastError=nil", "isLoadingItems=1" }));
    collection->setHasMoreItems(false);
    EXPECT_FALSE(collection->valueForKey("hasMoreItems") == &Number::trueValue());
}
