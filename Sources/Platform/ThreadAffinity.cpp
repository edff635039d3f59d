#include "ThreadAffinity.h"

namespace velvox {

void ThreadAffinity::raise(std::string_view type, const char* function)
{
    throw Exception(WrongThreadException,
        std::string(type) + "::" + function + " was called on a thread other than the one it belongs to. The store, its API controller and its lists "
                            "belong to the thread that made them, whose run loop delivers their callbacks: call them there "
                            "(from another thread, post the work to that run loop).");
}

} // namespace velvox
