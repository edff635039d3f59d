#pragma once

// The coalescing post of the application kit: a model object that changes in
// several ways during one turn of the run loop is announced once.

#include <Platform/Object.h>

#include <string_view>

namespace velvox {

// Posts `name` with `object` on the current run loop's next turn through the
// default notification centre. Repeated posts of the same name and object
// (compared by identity) before then are delivered once; different names or
// objects are not merged. Notifications go out in the order of their first
// post. The object is kept alive until its notification has gone out. A post
// made while the coalesced notifications are going out waits for the turn
// after. (The spelling of the name is the interface's.)
void zu_postCoalenscedNotificationName(std::string_view name, Object* object);

// How many coalesced notifications wait for the current thread's next turn.
size_t zu_pendingCoalescedNotificationCount();

} // namespace velvox
