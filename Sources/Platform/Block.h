#pragma once

// A function held as an object, so that it can live in a dictionary (a
// caller's userInfo, say). Blocks of different signatures are different
// kinds: is<Block<void(int)>>(object) tells them apart.

#include "Object.h"

#include <functional>
#include <utility>

namespace velvox {

template<typename Signature>
class Block final : public Object {
public:
    static const ClassInfo s_info;
    const ClassInfo* classInfo() const override { return &s_info; }

    // Null for an empty function, as a nil block.
    static RefPtr<Block> create(std::function<Signature> function)
    {
        if (!function)
            return nullptr;
        return adoptRef(new Block(std::move(function)));
    }

    const std::function<Signature>& function() const { return m_function; }
    template<typename... Args>
    decltype(auto) operator()(Args&&... args) const
    {
        return m_function(std::forward<Args>(args)...);
    }

private:
    explicit Block(std::function<Signature>&& function)
        : m_function(std::move(function))
    {
    }
    std::function<Signature> m_function;
};

template<typename Signature>
const ClassInfo Block<Signature>::s_info { "Block", &Object::s_info };

} // namespace velvox
