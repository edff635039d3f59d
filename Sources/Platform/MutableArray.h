#pragma once

#include "Array.h"

namespace velvox {

class MutableArray : public Array {
    VX_OBJECT(MutableArray)
public:
    static Ref<MutableArray> create(size_t capacity = 0);

    // Raises InvalidArgumentException for a null object, RangeException for an index beyond count().
    virtual void insertObject(Object* object, size_t atIndex) = 0;
    virtual void removeObjectAtIndex(size_t index) = 0;
    virtual void replaceObjectAtIndex(size_t index, Object* withObject) = 0;

    void addObject(Object* object) { insertObject(object, count()); }
    // Owning pointers, temporaries included: the array retains before the temporary goes.
    template<typename T> void addObject(const Ref<T>& object) { addObject(object.ptr()); }
    template<typename T> void addObject(const RefPtr<T>& object) { addObject(object.get()); }
    template<typename T> void insertObject(const Ref<T>& object, size_t atIndex) { insertObject(object.ptr(), atIndex); }
    template<typename T> void insertObject(const RefPtr<T>& object, size_t atIndex) { insertObject(object.get(), atIndex); }
    template<typename T> void replaceObjectAtIndex(size_t index, const Ref<T>& object) { replaceObjectAtIndex(index, object.ptr()); }
    template<typename T> void replaceObjectAtIndex(size_t index, const RefPtr<T>& object) { replaceObjectAtIndex(index, object.get()); }
    void addObjectsFromArray(const Array&);
    void removeLastObject();
    void removeObject(const Object*);
    virtual void removeAllObjects();

    // An immutable plain copy.
    Ref<Object> copyObject() const override;

protected:
    MutableArray() = default;
};

} // namespace velvox
