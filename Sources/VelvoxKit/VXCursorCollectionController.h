#pragma once

// A remote collection paged by an opaque cursor that the service hands out
// with each page ("next_href"), instead of by limit and offset: the activity
// feeds. Its page size is the service's.

#include "VXRemoteCollectionController.h"

namespace velvox {

class VXCursorCollectionController : public VXRemoteCollectionController {
    VX_OBJECT(VXCursorCollectionController)
public:
    static Ref<VXCursorCollectionController> create(const String& resource, Dictionary* parameters);

    // A load from the start (forEnd false) forgets the cursor first.
    void loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType, bool forEnd) override;
    using VXRemoteCollectionController::loadMoreItemsForReloadOperationType;
    // The fixed parameters with "cursor" when there is one; no limit, no offset.
    RefPtr<Dictionary> requestParameters() const override;
    // The answer must be an object ("unexpected result" otherwise): the cursor
    // comes from the "cursor" query parameter of "next_href" as it stands
    // (the last one wins; none keeps the old cursor; no "next_href" clears
    // it), the items from "collection"; more items exist while there is a cursor.
    Ref<Array> itemsFromResult(Object* result) override;
    // The cursor is in the answer.
    bool takesUnchangedPages() const override { return false; }

    String* cursor() const { return m_cursor.get(); }
    void setCursor(String*);

    RefPtr<Object> valueForKey(std::string_view key) const override;

protected:
    using VXRemoteCollectionController::VXRemoteCollectionController;

private:
    RefPtr<String> m_cursor;
};

} // namespace velvox
