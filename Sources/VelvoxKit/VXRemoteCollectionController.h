#pragma once

// A list of remote items (tracks, users, comments, activities) loaded from
// one resource of the service, page by page, by "limit" and "offset". The
// store creates collections; loading goes through the store to the API
// controller, where identical running loads are merged.

#include "VXAPIController.h"

#include <ZUKit/ZURemoteCollectionController.h>

#include <string_view>

namespace velvox {

// An observation context for hosts that observe collections.
inline constexpr std::string_view VXRemoteCollectionControllerRefreshContext = "VXRemoteCollectionControllerRefreshContext";
// The error a load ends with when its answer had the wrong shape (the
// assertion that says so is raised after it).
inline constexpr std::string_view VXRemoteCollectionErrorDomain = "VXRemoteCollectionErrorDomain";

class VXRemoteCollectionController : public ZURemoteCollectionController, public VXAPICollectionRequest {
    VX_OBJECT(VXRemoteCollectionController)
public:
    // initWithResource:parameters: — the path exactly as the store writes it
    // (with or without a leading "/"), and fixed request parameters (a copy is
    // kept; none is an empty dictionary). The page size starts at 20.
    static Ref<VXRemoteCollectionController> create(const String& resource, Dictionary* parameters);

    // Does nothing while a load runs; otherwise records the operation and
    // asks the shared store to load the page.
    void loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType, bool forEnd) override;
    // The load with word of its end (see ZURemoteCollectionController).
    using ZURemoteCollectionController::loadMoreItemsForReloadOperationType;

    // The fixed parameters with "limit" (the page size) and "offset".
    RefPtr<Dictionary> requestParameters() const override;
    // One page's items from a decoded answer, which must be an array
    // ("unexpected result" otherwise); sets hasMoreItems to whether the page was full.
    virtual Ref<Array> itemsFromResult(Object* result);
    // Whether a page that the service confirmed unchanged may be given as
    // the items made from it before, without itemsFromResult() (a subclass
    // that reads more than items from an answer says no), and that page.
    virtual bool takesUnchangedPages() const { return true; }
    virtual Ref<Array> itemsFromUnchangedPage(Array& items);
    // One item from one element of an answer; here the element itself.
    virtual Ref<Object> itemFromDictionary(Object* dictionary);

    Ref<String> resource() const override { return m_resource; }
    void setResource(const String&);
    Dictionary& parameters() const { return m_parameters; }
    void setParameters(Dictionary&);
    uint64_t pageSize() const { return m_pageSize; }
    // 1 to 50; announced to observers of "pageSize". The current value again changes nothing.
    void setPageSize(uint64_t);

    // "<VXTrackCollectionController = 0x0000ABCD | resource = me/favorites | hasMoreItems = YES | loaded item count = 20 >".
    Ref<String> description() const override;
    RefPtr<Object> valueForKey(std::string_view key) const override;

protected:
    // The item a typed list makes of a record through the store: the store's
    // object, or a raise when the page held something that is not a record.
    static Ref<Object> storedItem(RefPtr<Object> item);
    VXRemoteCollectionController(const String& resource, Dictionary* parameters);
    void stopFetching() override;

private:
    // The running load's request.
    Subscription m_fetch;
    Ref<String> m_resource;
    Ref<Dictionary> m_parameters;
    uint64_t m_pageSize { 20 };
};

} // namespace velvox
