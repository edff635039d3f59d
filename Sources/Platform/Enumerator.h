#pragma once

#include "Object.h"

namespace velvox {

class Array;

// Walks the objects of an enumeration once.
class Enumerator : public Object {
    VX_OBJECT(Enumerator)
public:
    // Null at the end.
    virtual Object* nextObject() = 0;
    // The objects not yet walked.
    Ref<Array> allObjects();

protected:
    Enumerator() = default;
};

} // namespace velvox
