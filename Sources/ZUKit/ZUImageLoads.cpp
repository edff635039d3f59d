// The loads in flight of the loading image cache (see ZUImageLoads.h).

#include "ZUImageLoads.h"

#include <Platform/RunLoop.h>

namespace velvox {

ZUImageLoads::Load* ZUImageLoads::find(const std::string& url)
{
    auto it = m_loads.find(url);
    return it == m_loads.end() ? nullptr : &it->second;
}

ZUImageLoads::Load& ZUImageLoads::add(const std::string& url)
{
    return m_loads[url];
}

std::optional<ZUImageLoads::Load> ZUImageLoads::take(const std::string& url)
{
    auto it = m_loads.find(url);
    if (it == m_loads.end())
        return std::nullopt;
    Load load = std::move(it->second);
    m_loads.erase(it);
    return load;
}

void ZUImageLoads::cancelWaiter(const std::string& url, uint64_t identifier)
{
    auto it = m_loads.find(url);
    if (it == m_loads.end())
        return;
    auto& waiters = it->second.waiters;
    std::erase_if(waiters, [identifier](const Waiter& waiter) { return waiter.identifier == identifier; });
    if (waiters.empty()) {
        if (it->second.task)
            it->second.task->cancel();
        m_loads.erase(it);
    }
}

void ZUImageLoads::cancelAll()
{
    for (auto& [url, load] : m_loads) {
        if (load.task)
            load.task->cancel();
    }
    m_loads.clear();
}

void ZUImageLoads::deliver(std::vector<Waiter>&& waiters, Image* image, Error* error)
{
    RefPtr<Image> protectedImage = image;
    RefPtr<Error> protectedError = error;
    for (size_t i = 0; i < waiters.size(); ++i) {
        try {
            if (auto block = std::exchange(*waiters[i].block, nullptr))
                block(image, error);
        } catch (...) {
            // The run loop's rule: the exception leaves this turn, and the
            // callers not served yet are served on the next one.
            for (size_t j = i + 1; j < waiters.size(); ++j) {
                RunLoop::current().post([slot = std::move(waiters[j].block), protectedImage, protectedError] {
                    if (auto block = std::exchange(*slot, nullptr))
                        block(protectedImage.get(), protectedError.get());
                });
            }
            throw;
        }
    }
}

} // namespace velvox
