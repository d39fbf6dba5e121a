#include "app/entry.h"
#include "app/options.h"
#include "i4min/file/output.h"
#include "i4min/threads/linux/linux_threads.h"

int main(int argc, char** argv) {
    i4_hold_standard_descriptors();
    const std::vector<std::string> arguments(argv + (argc > 0), argv + argc);
    if (const std::optional<int> status = takeOptions(arguments)) return *status;
    return i4_main(argc, argv, runApplication);
}
