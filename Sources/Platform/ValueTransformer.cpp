#include "ValueTransformer.h"

#include "Exception.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>

namespace velvox {

VX_DEFINE_CLASS(ValueTransformer, Object)

RefPtr<Object> ValueTransformer::transformedValue(Object* value) const
{
    return value;
}

RefPtr<Object> ValueTransformer::reverseTransformedValue(Object* value) const
{
    if (!allowsReverseTransformation())
        Exception::raise(InternalInconsistencyException, "%s: reverse transformation is not allowed.", className());
    return transformedValue(value);
}

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, RefPtr<ValueTransformer>, std::less<>> transformers;
};

Registry& registry()
{
    static Registry* registry = new Registry;
    return *registry;
}

std::atomic<uint64_t> s_generation { 1 };

} // namespace

void ValueTransformer::setValueTransformer(ValueTransformer* transformer, std::string_view name)
{
    RefPtr<ValueTransformer> old;
    std::lock_guard lock(registry().mutex);
    s_generation.fetch_add(1, std::memory_order_release);
    auto& transformers = registry().transformers;
    auto it = transformers.find(name);
    if (it != transformers.end()) {
        old = std::move(it->second);
        if (!transformer) {
            transformers.erase(it);
            return;
        }
        it->second = transformer;
        return;
    }
    if (transformer)
        transformers.emplace(std::string(name), transformer);
}

uint64_t ValueTransformer::registrationGeneration()
{
    return s_generation.load(std::memory_order_acquire);
}

RefPtr<ValueTransformer> ValueTransformer::valueTransformerForName(std::string_view name)
{
    std::lock_guard lock(registry().mutex);
    auto& transformers = registry().transformers;
    auto it = transformers.find(name);
    return it == transformers.end() ? nullptr : it->second;
}

} // namespace velvox
