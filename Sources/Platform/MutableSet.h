#pragma once

#include "Set.h"

namespace velvox {

class MutableSet : public Set {
    VX_OBJECT(MutableSet)
public:
    static Ref<MutableSet> create(size_t capacity = 0);

    // Adds the object unless an equal one is a member. Raises InvalidArgumentException for null.
    virtual void addObject(Object* object) = 0;
    virtual void removeObject(const Object* object) = 0;
    virtual void removeAllObjects();
    // Owning pointers, temporaries included.
    template<typename T> void addObject(const Ref<T>& object) { addObject(object.ptr()); }
    template<typename T> void addObject(const RefPtr<T>& object) { addObject(object.get()); }

    Ref<Object> copyObject() const override;

protected:
    MutableSet() = default;
};

} // namespace velvox
