#pragma once

#include <cstdint>

namespace velvox::bench {

// Every malloc, calloc and realloc of the process (operator new included) since start.
uint64_t allocationCount();

} // namespace velvox::bench
