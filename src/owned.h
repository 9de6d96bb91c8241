// The owner of a block of malloc's or zoltLogMalloc's.
#pragma once

#include <cstdlib>
#include <memory>

struct LogFree {
    void operator()(void *block) const { free(block); }
};
template<typename T>
using LogOwned = std::unique_ptr<T, LogFree>;
