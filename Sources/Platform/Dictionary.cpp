#include "Dictionary.h"

#include "PlainCollections.h"

namespace velvox {

using namespace detail;

VX_DEFINE_CLASS(Dictionary, Object)

Ref<Dictionary> Dictionary::create()
{
    return adoptRef(*new PlainDictionary);
}

Ref<Dictionary> Dictionary::create(std::initializer_list<std::pair<std::string_view, Object*>> entries)
{
    auto dictionary = adoptRef(*new PlainDictionary);
    for (auto& [key, object] : entries)
        dictionary->set(object, String::create(key).ptr());
    return dictionary;
}

Ref<Dictionary> Dictionary::create(std::span<Object* const> keys, std::span<Object* const> objects)
{
    VXParameterAssert(keys.size() == objects.size());
    auto dictionary = adoptRef(*new PlainDictionary);
    for (size_t i = 0; i < keys.size(); ++i)
        dictionary->set(objects[i], keys[i]);
    return dictionary;
}

Ref<Enumerator> Dictionary::keyEnumerator() const
{
    return adoptRef(*new DictionaryKeyEnumerator(*this));
}

Ref<Array> Dictionary::allKeys() const
{
    std::vector<Ref<Object>> keys;
    keys.reserve(count());
    for (auto& entry : *this)
        keys.emplace_back(*entry.key);
    return Array::create(std::move(keys));
}

Ref<Array> Dictionary::allValues() const
{
    std::vector<Ref<Object>> values;
    values.reserve(count());
    for (auto& entry : *this)
        values.emplace_back(*entry.object);
    return Array::create(std::move(values));
}

Ref<Dictionary> Dictionary::copy() const
{
    return *downcast<Dictionary>(copyObject().ptr());
}

Ref<MutableDictionary> Dictionary::mutableCopy() const
{
    auto copy = MutableDictionary::create(count());
    for (auto& entry : *this)
        copy->setObject(entry.object, entry.key);
    return copy;
}

Ref<String> Dictionary::description() const
{
    detail::DescriptionBudget budget;
    if (budget.exhausted())
        return String::create("…");
    std::string text = "{";
    for (auto& entry : *this) {
        text += "\n    ";
        text += indented(entry.key->description()->view());
        text += " = ";
        text += indented(entry.object->description()->view());
        text += ";";
    }
    text += "\n}";
    budget.spend(text.size());
    return String::create(text);
}

bool Dictionary::isEqual(const Object* other) const
{
    if (this == other)
        return true;
    auto* dictionary = dynamicDowncast<Dictionary>(other);
    if (!dictionary || dictionary->count() != count())
        return false;
    detail::CollectionComparison comparison(this, other);
    if (comparison.knownEqual())
        return true;
    for (auto& entry : *this) {
        if (!objectsEqual(entry.object, dictionary->objectForKey(entry.key)))
            return false;
    }
    comparison.markEqual();
    return true;
}

size_t Dictionary::nextEntries(size_t& state, HashedEntry* buffer, size_t capacity) const
{
    size_t count = 0;
    Entry entry;
    while (count < capacity && nextEntry(state, entry))
        buffer[count++] = { entry.key, entry.object, entry.key->hash() };
    return count;
}

} // namespace velvox
