#pragma once

// Arrays, dictionaries and sets.
//
// Array, Dictionary and Set are interfaces that any class can implement (the
// JSON codec's collections do); Array::create() and friends make the plain
// implementations. Elements are retained by the collection and handed out as
// borrowed pointers, never null: the Null singleton stands for nil. Copying an
// immutable collection answers the collection itself; mutableCopy() always
// makes a new plain mutable one. Changing a mutable collection while a
// range-for walks it raises GenericException.

#include "Array.h"
#include "Dictionary.h"
#include "Enumerator.h"
#include "MutableArray.h"
#include "MutableDictionary.h"
#include "MutableSet.h"
#include "Set.h"
