#include "ZUCoalescedNotification.h"

#include <Platform/NotificationCenter.h>
#include <Platform/RunLoop.h>

#include <deque>
#include <string>
#include <unordered_set>
#include <vector>

namespace velvox {

namespace {

struct PendingPost {
    std::string name;
    RefPtr<Object> object;
};

struct PendingKey {
    std::string_view name;
    const Object* object;
    bool operator==(const PendingKey&) const = default;
};
struct PendingKeyHash {
    size_t operator()(const PendingKey& key) const
    {
        return std::hash<std::string_view>()(key.name) ^ (std::hash<const void*>()(key.object) * 31);
    }
};

// One batch per thread, flushed by one task on that thread's run loop.
struct PendingBatch {
    // A deque, so that the names the keys point into never move.
    std::deque<PendingPost> posts;
    std::unordered_set<PendingKey, PendingKeyHash> keys;
    bool flushScheduled { false };
};

PendingBatch& pendingBatch()
{
    thread_local PendingBatch batch;
    return batch;
}

void flushPendingPosts()
{
    auto& batch = pendingBatch();
    // Take the batch first: observers may post again, for the next turn.
    std::deque<PendingPost> posts = std::move(batch.posts);
    batch.posts.clear();
    batch.keys.clear();
    batch.flushScheduled = false;
    auto& center = NotificationCenter::defaultCenter();
    for (size_t i = 0; i < posts.size(); ++i) {
        try {
            center.postNotification(posts[i].name, posts[i].object.get());
        } catch (...) {
            // The run loop's rule: the exception leaves the turn and the
            // posts not delivered yet go out on the next one.
            for (size_t j = i + 1; j < posts.size(); ++j)
                zu_postCoalenscedNotificationName(posts[j].name, posts[j].object.get());
            throw;
        }
    }
}

} // namespace

void zu_postCoalenscedNotificationName(std::string_view name, Object* object)
{
    auto& batch = pendingBatch();
    if (batch.keys.count(PendingKey { name, object }))
        return;
    auto& post = batch.posts.emplace_back(PendingPost { std::string(name), object });
    batch.keys.insert(PendingKey { post.name, object });
    if (!batch.flushScheduled) {
        batch.flushScheduled = true;
        RunLoop::current().post(flushPendingPosts);
    }
}

size_t zu_pendingCoalescedNotificationCount()
{
    return pendingBatch().posts.size();
}

} // namespace velvox
