#include "VXIdentityMap.h"

#include "VXNumberToStringValueTransformer.h"

#include <Platform/Platform.h>
#include <ZUKit/ZUPropertyTable.h>

#include <algorithm>
#include <charconv>
#include <span>
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

// The descriptors of a table whose values may be objects: scalars box into
// Numbers, which the estimate does not count, so they need not be read.
std::span<const ZUPropertyDescriptor* const> objectDescriptors(const ZUPropertyTable& table)
{
    struct Entry {
        const ZUPropertyTable* table;
        std::vector<const ZUPropertyDescriptor*> descriptors;
    };
    // Tables are few (one per model class); each thread keeps its own list.
    constexpr size_t kept = 32;
    thread_local std::vector<Entry> entries;
    for (auto& entry : entries) {
        if (entry.table == &table)
            return entry.descriptors;
    }
    if (entries.size() >= kept)
        return table.descriptors();
    Entry entry { &table, {} };
    for (auto* descriptor : table.descriptors()) {
        std::string_view type = descriptor->accessor().typeName();
        if (type != "bool" && type != "double" && type != "integer")
            entry.descriptors.push_back(descriptor);
    }
    entries.push_back(std::move(entry));
    return entries.back().descriptors;
}

// What statistics() counts for one object: the object and its map entry, a
// slot per described property, and the values that are not numbers.
size_t objectBytes(const ZUObject& object)
{
    auto& table = object.propertyTable();
    size_t bytes = 64 + 48 + 8 * table.descriptors().size();
    for (auto* descriptor : objectDescriptors(table)) {
        auto& accessor = descriptor->accessor();
        const Object* value;
        if (accessor.peekObject(object, value)) {
            if (value && !is<Number>(value))
                bytes += estimatedBytes(value);
            continue;
        }
        auto boxed = accessor.get(object);
        if (boxed && !is<Number>(boxed.get()))
            bytes += estimatedBytes(boxed.get());
    }
    return bytes;
}

} // namespace

VXIdentityMap::VXIdentityMap()
    : m_dictionary(MutableDictionary::create())
{
}

VXIdentityMap::~VXIdentityMap()
{
    unlinkAll();
}

void VXIdentityMap::setDictionary(MutableDictionary& dictionary)
{
    ++m_generation;
    unlinkAll();
    m_dictionary = dictionary;
    m_lastUse.clear();
    m_receivedAt.clear();
    trackDictionary();
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
        if (auto* listed = m_budget ? dynamicDowncast<VXResource>(replaced) : nullptr) {
            m_receivedAt.erase(listed);
            unlink(*listed);
        }
    }
    if (m_bound)
        noteUse(resource);
    classCache->setObject(&resource, identifier);
    if (m_budget)
        noteFiled(resource);
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
    else {
        if (m_bound)
            noteUse(*cached);
        if (m_budget)
            noteTouched(*cached);
    }
    if (m_recordsReceipts)
        m_receivedAt.insert_or_assign(cached.get(), Receipt { Date::now()->timeIntervalSince1970(), m_answerMaximumAge });
    return cached.releaseNonNull();
}

void VXIdentityMap::noteReceived(VXResource& resource)
{
    if (m_bound)
        noteUse(resource);
    if (m_budget)
        noteTouched(resource);
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
    unlinkAll();
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
    unlinkAll();
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
    trackDictionary();
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
            // Under a budget, what was counted when the object was filed,
            // so that the figures are the ones the budget acts on.
            auto* listed = dynamicDowncast<VXResource>(object);
            perClass.estimatedBytes += listed && listed->m_useList == this ? listed->m_countedBytes : objectBytes(*object);
        }
        statistics.objectCount += perClass.objectCount;
        statistics.estimatedBytes += perClass.estimatedBytes;
        statistics.classes.push_back(std::move(perClass));
    }
    std::sort(statistics.classes.begin(), statistics.classes.end(), [](auto& a, auto& b) { return a.className < b.className; });
    return statistics;
}

// MARK: The memory budget

void VXIdentityMap::setMemoryBudget(std::optional<size_t> bytes)
{
    bool tracked = m_budget.has_value();
    m_budget = bytes;
    if (!bytes)
        unlinkAll();
    else if (!tracked)
        trackDictionary();
    else if (isOverBudget() && m_overBudget)
        m_overBudget();
}

void VXIdentityMap::noteFiled(VXResource& resource)
{
    if (resource.m_useList && resource.m_useList != this)
        return; // filed in another store's map too: that one counts it
    size_t bytes = objectBytes(resource);
    if (resource.m_useList == this) {
        m_trackedBytes -= resource.m_countedBytes;
        noteTouched(resource);
    } else {
        resource.ref();
        resource.m_useList = this;
        resource.m_usePrevious = m_newest;
        (m_newest ? m_newest->m_useNext : m_oldest) = &resource;
        m_newest = &resource;
        ++m_listed;
    }
    resource.m_countedBytes = bytes;
    m_trackedBytes += bytes;
    // Something new may be let go now (and the held ones are looked at again).
    m_heldInARow = 0;
    if (isOverBudget() && m_overBudget)
        m_overBudget();
}

void VXIdentityMap::noteTouched(VXResource& resource)
{
    if (resource.m_useList != this || m_newest == &resource)
        return;
    (resource.m_usePrevious ? resource.m_usePrevious->m_useNext : m_oldest) = resource.m_useNext;
    resource.m_useNext->m_usePrevious = resource.m_usePrevious;
    resource.m_usePrevious = m_newest;
    resource.m_useNext = nullptr;
    m_newest->m_useNext = &resource;
    m_newest = &resource;
}

void VXIdentityMap::unlink(VXResource& resource)
{
    if (resource.m_useList != this)
        return;
    (resource.m_usePrevious ? resource.m_usePrevious->m_useNext : m_oldest) = resource.m_useNext;
    (resource.m_useNext ? resource.m_useNext->m_usePrevious : m_newest) = resource.m_usePrevious;
    resource.m_usePrevious = resource.m_useNext = nullptr;
    resource.m_useList = nullptr;
    m_trackedBytes -= resource.m_countedBytes;
    resource.m_countedBytes = 0;
    --m_listed;
    resource.deref();
}

void VXIdentityMap::unlinkAll()
{
    while (m_oldest)
        unlink(*m_oldest);
    m_heldInARow = 0;
}

void VXIdentityMap::trackDictionary()
{
    if (!m_budget)
        return;
    auto overBudget = std::exchange(m_overBudget, nullptr);
    for (auto& entry : *m_dictionary) {
        if (auto* classCache = dynamicDowncast<Dictionary>(entry.object)) {
            for (auto& item : *classCache) {
                if (auto* resource = dynamicDowncast<VXResource>(item.object))
                    noteFiled(*resource);
            }
        }
    }
    m_overBudget = std::move(overBudget);
    if (isOverBudget() && m_overBudget)
        m_overBudget();
}

void VXIdentityMap::letGo(VXResource& resource)
{
    // The key may be the object's own identifier, which goes with it.
    RefPtr<String> identifier = resource.resourceIdentifier();
    auto* classCache = m_dictionary->objectForKey<MutableDictionary>(resource.className());
    m_lastUse.erase(&resource);
    m_receivedAt.erase(&resource);
    ++m_letGoCount;
    unlink(resource);
    classCache->removeObjectForKey(identifier.get());
}

VXIdentityMap::Collection VXIdentityMap::collect(std::chrono::steady_clock::time_point deadline)
{
    constexpr size_t objectsBetweenClockReads = 16;
    Collection result = Collection::UnderBudget;
    bool letAnyGo = false;
    size_t looked = 0;
    while (isOverBudget()) {
        if (!m_oldest || m_heldInARow >= m_listed) {
            result = Collection::NothingToLetGo;
            break;
        }
        if (++looked % objectsBetweenClockReads == 0 && std::chrono::steady_clock::now() >= deadline) {
            result = Collection::Unfinished;
            break;
        }
        auto& oldest = *m_oldest;
        auto* identifier = oldest.resourceIdentifier();
        auto* classCache = m_dictionary->objectForKey<MutableDictionary>(oldest.className());
        if (!identifier || !classCache || classCache->objectForKey(identifier) != &oldest) {
            // It left the map by another road (the map's dictionary changed
            // directly): no longer the map's to count.
            unlink(oldest);
            continue;
        }
        // One reference is the map's entry, one the list's: any other is a holder's.
        if (oldest.refCount() == 2 && !oldest.hasObservers()) {
            letGo(oldest);
            letAnyGo = true;
            m_heldInARow = 0;
        } else {
            noteTouched(oldest);
            ++m_heldInARow;
        }
    }
    if (letAnyGo)
        ++m_generation;
    return result;
}

} // namespace velvox
