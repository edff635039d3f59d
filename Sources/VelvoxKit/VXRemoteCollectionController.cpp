#include "VXRemoteCollectionController.h"

#include "VXResourceStore.h"

#include <Platform/Platform.h>

namespace velvox {

VX_DEFINE_CLASS(VXRemoteCollectionController, ZURemoteCollectionController)

VXRemoteCollectionController::VXRemoteCollectionController(const String& resource, Dictionary* parameters)
    : m_resource(downcast<String>(resource.copyObject()))
    , m_parameters(parameters ? parameters->copy() : Dictionary::create())
{
}

Ref<VXRemoteCollectionController> VXRemoteCollectionController::create(const String& resource, Dictionary* parameters)
{
    return adoptRef(*new VXRemoteCollectionController(resource, parameters));
}

void VXRemoteCollectionController::loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType operation, bool forEnd)
{
    checkThread(__func__);
    if (isLoadingItems())
        return;
    Ref protectedThis { *this };
    ZURemoteCollectionController::loadMoreItemsForReloadOperationType(operation, forEnd);
    VXResourceStore::shared().loadForCollectionController(*this, &m_fetch);
}

void VXRemoteCollectionController::stopFetching()
{
    m_fetch.cancel();
}

RefPtr<Dictionary> VXRemoteCollectionController::requestParameters() const
{
    auto parameters = m_parameters->mutableCopy();
    parameters->setObject(String::format("%d", static_cast<int>(m_pageSize)), "limit");
    parameters->setObject(String::format("%d", static_cast<int>(offset())), "offset");
    return parameters;
}

Ref<Array> VXRemoteCollectionController::itemsFromResult(Object* result)
{
    auto* page = dynamicDowncast<Array>(result);
    VXAssert(page, "unexpected result");
    std::vector<Ref<Object>> items;
    items.reserve(page->count());
    for (auto* element : *page)
        items.push_back(itemFromDictionary(element));
    setHasMoreItems(items.size() == m_pageSize);
    return Array::create(std::move(items));
}

Ref<Array> VXRemoteCollectionController::itemsFromUnchangedPage(Array& items)
{
    setHasMoreItems(items.count() == m_pageSize);
    return items;
}

Ref<Object> VXRemoteCollectionController::itemFromDictionary(Object* dictionary)
{
    VXAssert(dictionary, "a page holds a null item");
    return *dictionary;
}

void VXRemoteCollectionController::setResource(const String& resource)
{
    checkThread(__func__);
    m_resource = downcast<String>(resource.copyObject());
}

void VXRemoteCollectionController::setParameters(Dictionary& parameters)
{
    checkThread(__func__);
    m_parameters = parameters;
}

void VXRemoteCollectionController::setPageSize(uint64_t pageSize)
{
    checkThread(__func__);
    if (pageSize == m_pageSize)
        return;
    VXAssert(pageSize != 0, "You need to request at least 1 item");
    VXAssert(pageSize <= 50, "Velvox maximum collection size is %d items", 50);
    Ref protectedThis { *this };
    willChangeValueForKey("pageSize");
    m_pageSize = pageSize;
    didChangeValueForKey("pageSize");
}

Ref<String> VXRemoteCollectionController::description() const
{
    return String::format("<%@ = 0x%08X | resource = %@ | hasMoreItems = %@ | loaded item count = %d >", className(), this, m_resource,
        hasMoreItems() ? "YES" : "NO", static_cast<int>(items().count()));
}

RefPtr<Object> VXRemoteCollectionController::valueForKey(std::string_view key) const
{
    if (key == "pageSize")
        return Number::create(m_pageSize);
    if (key == "resource")
        return m_resource.ptr();
    if (key == "parameters")
        return m_parameters.ptr();
    return ZURemoteCollectionController::valueForKey(key);
}

Ref<Object> VXRemoteCollectionController::storedItem(RefPtr<Object> item)
{
    VXAssert(item, "a page holds an item that is not a record");
    return item.releaseNonNull();
}

} // namespace velvox
