#include "VXIdentityMap.h"

#include "VXNumberToStringValueTransformer.h"

#include <Platform/Platform.h>
#include <ZUKit/ZUPropertyTable.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <unordered_map>

namespace velvox {

namespace {

// The key of a class's table, kept so that its hash is computed once. The
// model classes are few; names from elsewhere (an archive, a host's lookup)
// are not kept beyond a small bound, so that they cannot grow the table.
const String* classKey(std::string_view className)
{
    constexpr size_t kept = 64;
    // The views point into the kept strings, which live as long as the process.
    static auto* keys = new std::unordered_map<std::string_view, Ref<String>>;
    if (auto found = keys->find(className); found != keys->end())
        return found->second.ptr();
    if (keys->size() >= kept)
        return nullptr;
    auto key = String::create(className);
    std::string_view stable = key->view();
    return keys->emplace(stable, std::move(key)).first->second.ptr();
}

// The descriptor through which a resource takes its identifier from "id".
const ZUPropertyDescriptor& identifierDescriptor()
{
    static const ZUPropertyTable table(VXResource::propertyDescriptors());
    return *table.descriptorForKeyPath("resourceIdentifier");
}

size_t estimatedBytes(const Object* value, int depth = 0)
{
    if (!value || depth > 4)
        return 0;
    if (auto* string = dynamicDowncast<String>(value))
        return 32 + string->view().size();
    if (auto* url = dynamicDowncast<URL>(value))
        return 48 + url->absoluteString()->view().size();
    if (auto* array = dynamicDowncast<Array>(value)) {
        size_t bytes = 32 + 8 * array->count();
        for (auto* element : *array)
            bytes += estimatedBytes(element, depth + 1);
        return bytes;
    }
    return 32;
}

} // namespace

VXIdentityMap::VXIdentityMap()
    : m_dictionary(MutableDictionary::create())
{
}

RefPtr<VXResource> VXIdentityMap::cachedResource(std::string_view className, String* identifier) const
{
    if (!identifier)
        return nullptr;
    return cachedResource(className, identifier->view());
}

RefPtr<VXResource> VXIdentityMap::cachedResource(std::string_view className, std::string_view identifier) const
{
    auto* key = classKey(className);
    auto* classCache = dynamicDowncast<Dictionary>(key ? m_dictionary->objectForKey(key) : m_dictionary->objectForKey(className));
    if (!classCache)
        return nullptr;
    return dynamicDowncast<VXResource>(classCache->objectForKey(identifier));
}

void VXIdentityMap::cacheResource(VXResource& resource)
{
    Ref protectedResource { resource };
    auto* identifier = resource.resourceIdentifier();
    VXParameterAssert(identifier);
    auto* classCache = m_dictionary->objectForKey<MutableDictionary>(resource.className());
    if (!classCache) {
        auto created = MutableDictionary::create();
        m_dictionary->setObject(created, resource.className());
        classCache = created.ptr();
    }
    if (auto* replaced = classCache->objectForKey(identifier); replaced && replaced != &resource) {
        ++m_generation;
        if (m_bound)
            m_lastUse.erase(replaced);
    }
    if (m_bound)
        noteUse(resource);
    classCache->setObject(&resource, identifier);
    NotificationCenter::defaultCenter().postNotification(VXResourceAttributesDidChangeNotification, &resource);
}

Ref<VXResource> VXIdentityMap::updateCacheForResource(const ClassInfo& info, Ref<VXResource> (*make)(Dictionary*), String* identifier, Dictionary* dictionary)
{
    RefPtr<String> key = identifier;
    RefPtr<VXResource> cached;
    if (!key) {
        // The identifier a temporary instance would take from the dictionary:
        // the "id" through the resource's own descriptor and transformer.
        auto& descriptor = identifierDescriptor();
        auto* raw = dictionary ? dictionary->objectForKey(&descriptor.source()) : nullptr;
        auto* number = dynamicDowncast<Number>(raw);
        bool builtInTransformer = is<VXNumberToStringValueTransformer>(descriptor.cachedTransformer());
        if (builtInTransformer && number && !number->isBoolean() && (number->objCType() == 'q' || number->objCType() == 'Q')) {
            // The service's usual integer id: its decimal text, as the
            // transformer gives it, looked up without making a string.
            char digits[24];
            auto end = number->objCType() == 'q' ? std::to_chars(digits, digits + sizeof(digits), number->longLongValue()).ptr
                                                 : std::to_chars(digits, digits + sizeof(digits), number->unsignedLongLongValue()).ptr;
            cached = cachedResource(info.name, std::string_view(digits, end - digits));
        }
        if (!cached && raw && !is<Null>(raw)) {
            auto* transformer = descriptor.cachedTransformer();
            RefPtr<Object> value = raw;
            if (transformer) {
                try {
                    value = transformer->transformedValue(raw);
                } catch (...) {
                    ZUObject::noteUnreadableValue(info.name, descriptor.source().view());
                    throw;
                }
            }
            key = dynamicDowncast<String>(std::move(value));
        }
    }
    if (!cached)
        cached = cachedResource(info.name, key.get());
    if (!cached) {
        auto created = make(dictionary);
        // A record without an identifier (an upload's own fields, say) makes
        // an object that cannot be shared, so it is not cached.
        if (created->resourceIdentifier()) {
            cacheResource(created);
            if (m_recordsReceipts)
                m_receivedAt.insert_or_assign(created.ptr(), Receipt { Date::now()->timeIntervalSince1970(), m_answerMaximumAge });
        }
        return created;
    }
    if (cached->updateWithDictionary(dictionary))
        cacheResource(*cached);
    else if (m_bound)
        noteUse(*cached);
    if (m_recordsReceipts)
        m_receivedAt.insert_or_assign(cached.get(), Receipt { Date::now()->timeIntervalSince1970(), m_answerMaximumAge });
    return cached.releaseNonNull();
}

void VXIdentityMap::noteReceived(VXResource& resource)
{
    if (m_bound)
        noteUse(resource);
    if (m_recordsReceipts)
        m_receivedAt.insert_or_assign(&resource, Receipt { Date::now()->timeIntervalSince1970(), m_answerMaximumAge });
}

double VXIdentityMap::receivedAt(const VXResource& resource) const
{
    auto found = m_receivedAt.find(&resource);
    return found == m_receivedAt.end() ? 0 : found->second.at;
}

double VXIdentityMap::serviceMaximumAge(const VXResource& resource) const
{
    auto found = m_receivedAt.find(&resource);
    return found == m_receivedAt.end() ? -1 : found->second.maximumAge;
}

Ref<Dictionary> VXIdentityMap::receiptsDictionary() const
{
    auto receipts = MutableDictionary::create();
    for (auto& entry : *m_dictionary) {
        auto* classCache = dynamicDowncast<Dictionary>(entry.object);
        if (!classCache)
            continue;
        auto times = MutableDictionary::create();
        for (auto& item : *classCache) {
            auto found = m_receivedAt.find(item.object);
            if (found == m_receivedAt.end())
                continue;
            // A time, or a time and the service's maximum age.
            if (found->second.maximumAge < 0)
                times->setObject(Number::create(found->second.at), item.key);
            else
                times->setObject(Array::create({ Number::create(found->second.at).ptr(), Number::create(found->second.maximumAge).ptr() }), item.key);
        }
        if (times->count())
            receipts->setObject(times, entry.key);
    }
    return receipts;
}

namespace {

// An archive's root of the map's shape (class names to dictionaries), or null.
Dictionary* dictionaryOfDictionaries(Object* root)
{
    auto* archived = dynamicDowncast<Dictionary>(root);
    if (!archived)
        return nullptr;
    for (auto& entry : *archived) {
        if (!is<String>(entry.key) || !is<Dictionary>(entry.object))
            return nullptr;
    }
    return archived;
}

} // namespace

bool VXIdentityMap::adoptReceipts(Object* root)
{
    auto* archived = dictionaryOfDictionaries(root);
    if (!archived)
        return false;
    for (auto& entry : *archived) {
        auto* classCache = dynamicDowncast<Dictionary>(m_dictionary->objectForKey(entry.key));
        if (!classCache)
            continue;
        for (auto& item : *downcast<Dictionary>(entry.object)) {
            auto* object = classCache->objectForKey(item.key);
            Number* time = dynamicDowncast<Number>(item.object);
            Number* maximumAge = nullptr;
            if (auto* pair = dynamicDowncast<Array>(item.object); pair && pair->count() == 2) {
                time = dynamicDowncast<Number>(pair->objectAtIndex(0));
                maximumAge = dynamicDowncast<Number>(pair->objectAtIndex(1));
                if (!maximumAge)
                    continue;
            }
            if (!time || !object)
                continue;
            double seconds = time->doubleValue();
            double age = maximumAge ? maximumAge->doubleValue() : -1;
            if (std::isfinite(seconds) && seconds >= 0 && std::isfinite(age))
                m_receivedAt.insert_or_assign(object, Receipt { seconds, maximumAge ? std::max(age, 0.0) : -1 });
        }
    }
    return true;
}

void VXIdentityMap::noteUse(VXResource& resource)
{
    m_lastUse.insert_or_assign(&resource, m_nextUse++);
}

void VXIdentityMap::clear()
{
    ++m_generation;
    m_dictionary = MutableDictionary::create();
    m_lastUse.clear();
    m_receivedAt.clear();
}

bool VXIdentityMap::adoptArchivedRoot(Object* root)
{
    auto* archived = dictionaryOfDictionaries(root);
    if (!archived)
        return false;
    // Only what cacheResource() itself would have filed there is kept: an
    // object of exactly that class, under its own identifier. Anything else
    // would surface later as an object of an unexpected class.
    size_t limit = m_bound;
    ++m_generation;
    m_lastUse.clear();
    auto cache = MutableDictionary::create();
    for (auto& entry : *archived) {
        auto& className = downcast<String>(*entry.key);
        auto& archivedClass = downcast<Dictionary>(*entry.object);
        std::vector<VXResource*> kept;
        for (auto& item : archivedClass) {
            auto* identifier = dynamicDowncast<String>(item.key);
            auto* resource = dynamicDowncast<VXResource>(item.object);
            if (!identifier || !resource || resource->className() != className.view() || !resource->resourceIdentifier()
                || !resource->resourceIdentifier()->isEqual(identifier))
                continue;
            kept.push_back(resource);
        }
        // Archives list each class oldest first: the last ones are the most recent.
        size_t skipped = limit && kept.size() > limit ? kept.size() - limit : 0;
        if (kept.size() == skipped)
            continue;
        auto classCache = MutableDictionary::create(kept.size() - skipped);
        for (size_t i = skipped; i < kept.size(); ++i) {
            classCache->setObject(kept[i], kept[i]->resourceIdentifier());
            if (limit)
                noteUse(*kept[i]);
        }
        cache->setObject(classCache, &className);
    }
    m_dictionary = cache;
    return true;
}

Ref<Dictionary> VXIdentityMap::archivedDictionary() const
{
    size_t limit = m_bound;
    if (!limit)
        return m_dictionary;
    auto archived = MutableDictionary::create();
    for (auto& entry : *m_dictionary) {
        auto* classCache = dynamicDowncast<Dictionary>(entry.object);
        if (!classCache)
            continue;
        std::vector<std::pair<uint64_t, Object*>> byUse;
        byUse.reserve(classCache->count());
        for (auto& item : *classCache) {
            auto found = m_lastUse.find(item.object);
            byUse.emplace_back(found == m_lastUse.end() ? 0 : found->second, item.object);
        }
        // The most recent last, so that the next load knows the order.
        std::stable_sort(byUse.begin(), byUse.end(), [](auto& a, auto& b) { return a.first < b.first; });
        size_t skipped = byUse.size() > limit ? byUse.size() - limit : 0;
        auto bounded = MutableDictionary::create(byUse.size() - skipped);
        for (size_t i = skipped; i < byUse.size(); ++i)
            bounded->setObject(byUse[i].second, downcast<VXResource>(*byUse[i].second).resourceIdentifier());
        archived->setObject(bounded, entry.key);
    }
    return archived;
}

VXIdentityMap::Statistics VXIdentityMap::statistics() const
{
    Statistics statistics;
    for (auto& entry : *m_dictionary) {
        auto* classCache = dynamicDowncast<Dictionary>(entry.object);
        auto* name = dynamicDowncast<String>(entry.key);
        if (!classCache || !name)
            continue;
        ClassStatistics perClass { name->str(), 0, 0 };
        for (auto& item : *classCache) {
            auto* object = dynamicDowncast<ZUObject>(item.object);
            if (!object)
                continue;
            ++perClass.objectCount;
            size_t bytes = 64 + 48; // the object and its map entry
            for (auto* descriptor : object->propertyTable().descriptors()) {
                bytes += 8;
                auto value = descriptor->accessor().get(*object);
                if (value && !is<Number>(value.get()))
                    bytes += estimatedBytes(value.get());
            }
            perClass.estimatedBytes += bytes;
        }
        statistics.objectCount += perClass.objectCount;
        statistics.estimatedBytes += perClass.estimatedBytes;
        statistics.classes.push_back(std::move(perClass));
    }
    std::sort(statistics.classes.begin(), statistics.classes.end(), [](auto& a, auto& b) { return a.className < b.className; });
    return statistics;
}

} // namespace velvox
