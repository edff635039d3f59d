// The parse's scratch memory: the object stack that collections build in
// (three parallel arrays that start on the caller's stack and move to the
// heap together) and the token buffer that unescaped strings are decoded into.

#include "JCParser.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace velvox::detail {

void JCParser::jc_objectStack_setToStackBuffer(JCObjectStack* stack, Object** objects, Object** keys, size_t* hashes, size_t count)
{
    memset(objects, 0, count * sizeof(Object*));
    memset(keys, 0, count * sizeof(Object*));
    memset(hashes, 0, count * sizeof(size_t));
    stack->objects = objects;
    stack->keys = keys;
    stack->cfHashes = hashes;
    stack->count = count;
    stack->index = 0;
    stack->flags = JCObjectStack::JCObjectStackOnStack;
}

bool JCParser::jc_objectStack_resize(JCObjectStack* stack, size_t newCount)
{
    size_t granularity = stack->roundSizeUpToMultipleOf;
    newCount = (newCount + granularity - 1) / granularity * granularity;
    auto grow = [&](auto*& array, bool onStack) {
        using T = std::remove_reference_t<decltype(*array)>;
        T* grown;
        if (onStack) {
            grown = static_cast<T*>(malloc(newCount * sizeof(T)));
            if (grown)
                memcpy(grown, array, stack->count * sizeof(T));
        } else
            grown = static_cast<T*>(realloc(array, newCount * sizeof(T)));
        if (!grown)
            return false;
        memset(grown + stack->count, 0, (newCount - stack->count) * sizeof(T));
        array = grown;
        return true;
    };
    bool onStack = (stack->flags & JCObjectStack::JCObjectStackLocationMask) == JCObjectStack::JCObjectStackOnStack;
    // Each array moves on its own; the stack flag changes only once all three have.
    Object** objects = stack->objects;
    Object** keys = stack->keys;
    size_t* hashes = stack->cfHashes;
    if (!grow(objects, onStack))
        return false;
    if (!grow(keys, onStack)) {
        if (onStack)
            free(objects);
        return false;
    }
    if (!grow(hashes, onStack)) {
        if (onStack) {
            free(objects);
            free(keys);
        }
        return false;
    }
    stack->objects = objects;
    stack->keys = keys;
    stack->cfHashes = hashes;
    stack->count = newCount;
    stack->flags = JCObjectStack::JCObjectStackOnHeap | JCObjectStack::JCObjectStackMustFree;
    return true;
}

bool JCParser::makeObjectStackRoom(JCParseState* state, std::string_view failureFormat, long line)
{
    auto& stack = state->objectStack;
    if (stack.index <= stack.count - 4 || jc_objectStack_resize(&stack, stack.count + 128))
        return true;
    jc_error(state, failureFormat, stack.count - 4, sourcePath, line);
    return false;
}

void JCParser::jc_objectStack_release(JCObjectStack* stack)
{
    if (stack->flags & JCObjectStack::JCObjectStackMustFree) {
        free(stack->objects);
        free(stack->keys);
        free(stack->cfHashes);
    }
    *stack = JCObjectStack {};
}

bool JCParser::growTokenBuffer(JCParseState* state, size_t needed)
{
    // Keep 16 bytes of head room, so a code point can always be written.
    if (needed + 15 <= state->tokenBuffer.length)
        return true;
    return state->tokenBuffer.resize(needed + 1023);
}

} // namespace velvox::detail
