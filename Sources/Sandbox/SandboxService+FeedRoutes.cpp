// The activity feeds of the signed-in account, paged by cursor.

#include "SandboxServiceImpl.h"

#include <Platform/Platform.h>

#include <algorithm>
#include <cstdlib>

namespace velvox::sandbox {

using namespace detail;

// The cursor-paged dashboard; "exclusive" holds what was shared with the user.
void SandboxService::Impl::installActivityRoutes()
{
    server.Get(R"(/me/activities/tracks(/exclusive)?)", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        bool exclusive = request.matches[1].length() > 0;
        std::vector<Ref<Dictionary>> feed;
        for (auto& activity : activities) {
            if (!exclusive || textOf(*activity, "type").ends_with("-sharing"))
                feed.push_back(activity);
        }
        size_t start = 0;
        if (request.has_param("cursor")) {
            std::string cursor = request.get_param_value("cursor");
            if (!cursor.starts_with("c") || cursor.size() < 2)
                return sendError(response, 400, "400 - Bad cursor");
            start = std::strtoull(cursor.c_str() + 1, nullptr, 10);
        }
        size_t pageSize = static_cast<size_t>(std::max(1, options.activityPageSize));
        auto collection = MutableArray::create();
        for (size_t i = start; i < feed.size() && i < start + pageSize; ++i)
            collection->addObject(activityRecord(*feed[i]));
        auto answer = MutableDictionary::create();
        answer->setObject(collection, "collection");
        if (start + pageSize < feed.size())
            answer->setObject(String::format("{base}%s?cursor=c%zu", request.path, start + pageSize), "next_href");
        sendJSON(response, answer.ptr());
    });
}

} // namespace velvox::sandbox
