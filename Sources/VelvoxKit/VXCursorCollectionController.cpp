#include "VXCursorCollectionController.h"

#include <Platform/Platform.h>

namespace velvox {

VX_DEFINE_CLASS(VXCursorCollectionController, VXRemoteCollectionController)

Ref<VXCursorCollectionController> VXCursorCollectionController::create(const String& resource, Dictionary* parameters)
{
    return adoptRef(*new VXCursorCollectionController(resource, parameters));
}

void VXCursorCollectionController::loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType operation, bool forEnd)
{
    if (isLoadingItems())
        return;
    if (!forEnd)
        setCursor(nullptr);
    VXRemoteCollectionController::loadMoreItemsForReloadOperationType(operation, forEnd);
}

RefPtr<Dictionary> VXCursorCollectionController::requestParameters() const
{
    auto parameters = this->parameters().mutableCopy();
    if (m_cursor)
        parameters->setObject(m_cursor, "cursor");
    return parameters;
}

namespace {

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> pieces;
    size_t start = 0;
    for (size_t at; (at = text.find(separator, start)) != std::string_view::npos; start = at + 1)
        pieces.push_back(text.substr(start, at - start));
    pieces.push_back(text.substr(start));
    return pieces;
}

} // namespace

Ref<Array> VXCursorCollectionController::itemsFromResult(Object* result)
{
    auto* answer = dynamicDowncast<Dictionary>(result);
    VXAssert(answer, "unexpected result");
    Ref protectedThis { *this };
    auto* next = answer->objectForKey("next_href");
    if (next && !is<Null>(next)) {
        auto text = next->description();
        auto url = URL::create(text->view());
        auto query = url ? url->query() : nullptr;
        if (query) {
            for (auto part : split(query->view(), '&')) {
                auto pieces = split(part, '=');
                if (pieces[0] != "cursor")
                    continue;
                // The pieces as the platform's array, whose bounds check raises for a part without "=".
                std::vector<Ref<Object>> texts;
                for (auto piece : pieces)
                    texts.push_back(String::create(piece));
                auto array = Array::create(std::move(texts));
                setCursor(downcast<String>(array->objectAtIndex(1)));
                VXLog("new cursor is = %@", m_cursor);
            }
        }
    } else {
        setCursor(nullptr);
    }
    std::vector<Ref<Object>> items;
    if (auto* collection = answer->objectForKey<Array>("collection")) {
        items.reserve(collection->count());
        for (auto* element : *collection)
            items.push_back(itemFromDictionary(element));
    }
    setHasMoreItems(static_cast<bool>(m_cursor));
    return Array::create(std::move(items));
}

void VXCursorCollectionController::setCursor(String* cursor)
{
    m_cursor = cursor;
}

RefPtr<Object> VXCursorCollectionController::valueForKey(std::string_view key) const
{
    if (key == "cursor")
        return m_cursor;
    return VXRemoteCollectionController::valueForKey(key);
}

} // namespace velvox
