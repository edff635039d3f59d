#pragma once

#include "Dictionary.h"

#include <type_traits>

namespace velvox {

class MutableDictionary : public Dictionary {
    VX_OBJECT(MutableDictionary)
public:
    static Ref<MutableDictionary> create(size_t capacity = 0);

    // Stores an immutable copy of the key. Raises InvalidArgumentException for a null key or object.
    virtual void setObject(Object* object, Object* forKey) = 0;
    virtual void removeObjectForKey(const Object* key) = 0;
    virtual void removeAllObjects();

    void setObject(Object* object, std::string_view forKey);
    // Owning pointers, temporaries included.
    template<typename T> void setObject(const Ref<T>& object, std::string_view forKey) { setObject(object.ptr(), forKey); }
    template<typename T> void setObject(const RefPtr<T>& object, std::string_view forKey) { setObject(object.get(), forKey); }
    template<typename T, typename K>
        requires(!std::is_convertible_v<const K&, std::string_view>)
    void setObject(const Ref<T>& object, const K& forKey) { setObject(object.ptr(), rawObject(forKey)); }
    template<typename T, typename K>
        requires(!std::is_convertible_v<const K&, std::string_view>)
    void setObject(const RefPtr<T>& object, const K& forKey) { setObject(object.get(), rawObject(forKey)); }
    void removeObjectForKey(std::string_view key)
    {
        StackString stackKey(key);
        removeObjectForKey(&stackKey);
    }
    void addEntriesFromDictionary(const Dictionary&);

    Ref<Object> copyObject() const override;

protected:
    MutableDictionary() = default;
};

} // namespace velvox
