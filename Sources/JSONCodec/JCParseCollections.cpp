// Building the tree: a value token made into its object, arrays and
// dictionaries read into the object stack and made in one step from it,
// and one parse from its first token to the check for trailing text.

#include "JCCollections.h"
#include "JCTokens.h"

#include <Platform/Exception.h>
#include <Platform/SmallAllocator.h>

namespace velvox::detail {

// MARK: Building objects

Object* JCParser::jc_object_for_token(JCParseState* state)
{
    switch (state->token.type) {
    case JCTokenTypeNumber:
    case JCTokenTypeString:
        return jc_cachedObjects(state);
    case JCTokenTypeTrue:
        Number::trueValue().ref();
        return &Number::trueValue();
    case JCTokenTypeFalse:
        Number::falseValue().ref();
        return &Number::falseValue();
    case JCTokenTypeNull:
        Null::null().ref();
        return &Null::null();
    case JCTokenTypeArrayBegin:
    case JCTokenTypeObjectBegin: {
        if (state->depth >= maximumDepth) {
            jc_error(state, "Nesting is deeper than %zu levels.", maximumDepth);
            return nullptr;
        }
        ++state->depth;
        Object* object = state->token.type == JCTokenTypeArrayBegin ? jc_parse_array(state) : jc_parse_dictionary(state);
        --state->depth;
        return object;
    }
    default:
        return nullptr;
    }
}

Object* JCParser::jc_parse_array(JCParseState* state)
{
    auto& stack = state->objectStack;
    size_t startingObjectIndex = stack.index;
    int acceptMask = JCAcceptValue | JCAcceptEnd;
    Object* parsedArray = nullptr;

    while (!state->error && state->atIndex < state->stringLength) {
        if (stack.index > stack.count - 4
            && !makeObjectStackRoom(state, "Internal error: [array] objectsIndex > %zu, resize failed? %@ line %#ld", __LINE__))
            break;
        if (!nextToken(state))
            break;
        uint8_t type = state->token.type;
        if (isValueToken(type)) {
            if (!(acceptMask & JCAcceptValue)) {
                jc_error(state, "Unexpected value.");
                break;
            }
            Object* object = objectForValueToken(state);
            if (!object) {
                jc_error(state, "Internal error: Object == NULL");
                break;
            }
            stack.objects[stack.index++] = object;
            acceptMask = JCAcceptComma | JCAcceptEnd;
        } else if (type == JCTokenTypeComma) {
            if (!(acceptMask & JCAcceptComma)) {
                jc_error(state, "Unexpected ','.");
                break;
            }
            acceptMask = JCAcceptValue;
        } else if (type == JCTokenTypeArrayEnd) {
            if (!(acceptMask & JCAcceptEnd)) {
                jc_error(state, "Unexpected ']'.");
                break;
            }
            parsedArray = JCArrayFactory::JCArrayCreate(stack.objects + startingObjectIndex, stack.index - startingObjectIndex, state->mutableCollections);
            break;
        } else {
            jc_error_parse_accept_or3(state, acceptMask, "a value", "a ']'");
            break;
        }
    }

    if (!parsedArray) {
        state->cache.applyPendingRefs();
        for (size_t i = startingObjectIndex; i < stack.index; ++i) {
            if (stack.objects[i])
                stack.objects[i]->deref();
        }
    }
    for (size_t i = startingObjectIndex; i < stack.index; ++i)
        stack.objects[i] = nullptr;
    stack.index = startingObjectIndex;
    return parsedArray;
}

Object* JCParser::jc_parse_dictionary(JCParseState* state)
{
    auto& stack = state->objectStack;
    auto& cache = state->cache;
    size_t startingObjectIndex = stack.index;
    int acceptMask = JCAcceptValue | JCAcceptEnd;
    Object* parsedDictionary = nullptr;
    bool plainWhiteSpace = !(state->parseOptionFlags & (JCParseOptionComments | JCParseOptionUnicodeNewlines));
    uint16_t* predictedNext = &cache.firstKey[state->depth & (JCTokenCache::predictedDepths - 1)];
    uint16_t unpredictable; // follows a key the cache does not hold

    while (!state->error && state->atIndex < state->stringLength) {
        if (stack.index > stack.count - 4
            && !makeObjectStackRoom(state, "Internal error: [dictionary] objectsIndex > %zu, resize failed? %@ line #%ld", __LINE__))
            break;
        Object* key = nullptr;
        if ((acceptMask & JCAcceptValue) && plainWhiteSpace) {
            size_t at = skipWhiteSpace(state->stringBytes, state->atIndex, state->stringLength);
            state->atIndex = at;
            if (at < state->stringLength && state->stringBytes[at] == '"')
                key = predictedString(state, at, *predictedNext);
        }
        if (!key && !nextToken(state))
            break;
        uint8_t type = state->token.type;
        if (type == JCTokenTypeString) {
            if (!(acceptMask & JCAcceptValue)) {
                jc_error(state, "Unexpected string.");
                break;
            }
            if (!key && !(key = jc_cachedObjects(state))) {
                jc_error(state, "Internal error: Key == NULL.");
                break;
            }
            size_t keyHash;
            if (auto* item = state->token.value.cacheItem) {
                if (!item->keyHash)
                    item->keyHash = key->hash();
                keyHash = item->keyHash;
                auto keyBucket = static_cast<uint16_t>(item - cache.items);
                *predictedNext = keyBucket;
                predictedNext = &cache.nextKey[keyBucket];
            } else {
                keyHash = key->hash();
                *predictedNext = JCTokenCache::noBucket;
                unpredictable = JCTokenCache::noBucket;
                predictedNext = &unpredictable;
            }
            // The key joins the stack only with its value: a nested collection
            // builds itself in the slots from stack.index on.
            if (!nextToken(state) || state->token.type != JCTokenTypeSeparator) {
                jc_error(state, "Expected ':'.");
                state->cache.applyPendingRefs();
                key->deref();
                break;
            }
            Object* object = nullptr;
            if (nextToken(state)) {
                if (!isValueToken(state->token.type))
                    jc_error_parse_accept_or3(state, JCAcceptValue, "a value", "a '}'");
                else if (!(object = objectForValueToken(state)))
                    jc_error(state, "Internal error: Object == NULL.");
            }
            if (!object) {
                state->cache.applyPendingRefs();
                key->deref();
                break;
            }
            stack.keys[stack.index] = key;
            stack.cfHashes[stack.index] = keyHash;
            stack.objects[stack.index++] = object;
            acceptMask = JCAcceptComma | JCAcceptEnd;
        } else if (type == JCTokenTypeComma) {
            if (!(acceptMask & JCAcceptComma)) {
                jc_error(state, "Unexpected ','.");
                break;
            }
            acceptMask = JCAcceptValue;
        } else if (type == JCTokenTypeObjectEnd) {
            if (!(acceptMask & JCAcceptEnd)) {
                jc_error(state, "Unexpected '}'.");
                break;
            }
            // A repeated key releases the earlier pair: count the cache's pending references first.
            JCReleaseHook applyPending { [](void* cache) { static_cast<JCTokenCache*>(cache)->applyPendingRefs(); }, &state->cache };
            parsedDictionary = JCDictionaryFactory::JCDictionaryCreate(stack.keys + startingObjectIndex, stack.cfHashes + startingObjectIndex,
                stack.objects + startingObjectIndex, stack.index - startingObjectIndex, state->mutableCollections, applyPending);
            break;
        } else {
            jc_error_parse_accept_or3(state, acceptMask, "a \"STRING\"", "a '}'");
            break;
        }
    }

    if (!parsedDictionary) {
        state->cache.applyPendingRefs();
        for (size_t i = startingObjectIndex; i < stack.index; ++i) {
            if (stack.keys[i])
                stack.keys[i]->deref();
            if (stack.objects[i])
                stack.objects[i]->deref();
        }
    }
    for (size_t i = startingObjectIndex; i < stack.index; ++i) {
        stack.keys[i] = nullptr;
        stack.objects[i] = nullptr;
        stack.cfHashes[i] = 0;
    }
    stack.index = startingObjectIndex;
    return parsedDictionary;
}

// MARK: One parse

Object* JCParser::json_parse_it(JCParseState* state)
{
    Object* parsed = nullptr;
    while (!state->error && state->atIndex < state->stringLength) {
        if (!jc_parse_next_token(state))
            break;
        if (state->token.type != JCTokenTypeArrayBegin && state->token.type != JCTokenTypeObjectBegin) {
            jc_error(state, "Expected either '[' or '{'.");
            break;
        }
        parsed = jc_object_for_token(state);
        break;
    }
    return parsed;
}

Object* JCParser::JCParseUTF8String(JCParseState* parseState, bool mutableCollections, const uint8_t* string, size_t length, RefPtr<Error>* error)
{
    VXParameterAssert((parseState != NULL) && (string != NULL) && (parseState->cache.prng_lfsr != 0U));
    auto* state = parseState;
    state->stringBytes = string;
    state->stringLength = length;
    state->atIndex = 0;
    state->error = nullptr;
    state->mutableCollections = mutableCollections;
    state->depth = 0;

    uint8_t stackTokenBuffer[2048];
    Object* stackObjects[1024];
    Object* stackKeys[1024];
    size_t stackHashes[1024];
    state->tokenBuffer.setToStackBuffer(stackTokenBuffer, sizeof(stackTokenBuffer));
    jc_objectStack_setToStackBuffer(&state->objectStack, stackObjects, stackKeys, stackHashes, 1024);

    // Blocks that a freed earlier tree left on the lists and that this parse
    // does not need go back to the system allocator at its end.
    markSmallObjectLists();
    state->cache.beginParse();
    // Whatever way the parse ends (an exception included), the references
    // that its cache hits handed out are counted before it returns.
    struct ApplyPendingRefs {
        JCTokenCache& cache;
        ~ApplyPendingRefs() { cache.endParse(); }
    } applyPendingRefs { state->cache };
    Object* parsed = json_parse_it(state);
    if (parsed && state->atIndex < state->stringLength) {
        jc_parse_skip_whitespace(state);
        if (state->atIndex < state->stringLength && !(state->parseOptionFlags & JCParseOptionPermitTextAfterValidJSON)) {
            jc_error(state, "A valid JSON object was parsed but there were additional non-white-space characters remaining.");
            state->cache.applyPendingRefs();
            parsed->deref();
            parsed = nullptr;
        }
    } else if (!parsed) {
        if (state->atIndex >= state->stringLength)
            jc_error(state, "Reached the end of the buffer.");
        jc_error(state, "Unable to parse JSON.");
    }

    if (error)
        *error = state->error;
    state->tokenBuffer.release();
    jc_objectStack_release(&state->objectStack);
    state->objectStack.roundSizeUpToMultipleOf = 2048;
    state->tokenBuffer.roundSizeUpToMultipleOf = 4096;
    state->stringBytes = nullptr;
    state->stringLength = 0;
    state->atIndex = 0;
    state->token = JCParseToken {};
    state->error = nullptr;
    state->mutableCollections = false;
    trimSmallObjectLists();
    return parsed;
}

} // namespace velvox::detail
