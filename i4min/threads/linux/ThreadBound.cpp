#include "i4min/threads/linux/ThreadBound.h"

#include <cstdio>
#include <cstdlib>

void ThreadBound::fail(const char* function) {
    std::fprintf(stderr, "thread: %s was called on another thread than its own\n", function);
    std::abort();
}
