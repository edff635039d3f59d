#pragma once

// The loads of the loading image cache that are in flight: one per URL, with
// the callers waiting on it in the order they came. Apart from the tiers
// because it is about requests and callers: who waits, who left, and how
// each is told, whatever the answer was.

#include <Platform/Image.h>
#include <Platform/URLLoading.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace velvox {

class ZUImageLoads {
public:
    using Block = std::function<void(Image* image, Error* error)>;
    struct Waiter {
        uint64_t identifier;
        // Shared with the caller's token, which empties it when cancelled:
        // a waiter cancelled during a delivery, by an earlier caller's
        // block, is not called.
        std::shared_ptr<Block> block;
    };
    struct Load {
        RefPtr<URLTask> task;
        std::vector<Waiter> waiters;
        // Whether the request carried validators (a 304 may answer it).
        bool conditional { false };
    };

    uint64_t nextIdentifier() { return m_nextIdentifier++; }
    // The load of a URL in flight, or null.
    Load* find(const std::string& url);
    // A new load of a URL, with no request or waiter yet.
    Load& add(const std::string& url);
    // The load of a URL taken out of flight, when there is one.
    std::optional<Load> take(const std::string& url);
    // Drops a caller's block; a load left without callers is cancelled.
    void cancelWaiter(const std::string& url, uint64_t identifier);
    // Cancels every request; their callers are not called.
    void cancelAll();

    // Calls each block once, in order. An exception from one leaves at once,
    // and the callers not served yet are served on the run loop's next turn.
    static void deliver(std::vector<Waiter>&&, Image*, Error*);

private:
    std::unordered_map<std::string, Load> m_loads;
    uint64_t m_nextIdentifier { 1 };
};

} // namespace velvox
