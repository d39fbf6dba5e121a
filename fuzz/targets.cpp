// The fuzz targets by name, and libFuzzer's entry points. --target=NAME on the command line selects one.
#include <cstdio>
#include <vector>

#include "fuzz/fuzz.h"

namespace {

std::vector<const FuzzTarget*>& targets() {
    static std::vector<const FuzzTarget*> all;
    return all;
}

const FuzzTarget* chosen = nullptr;

}  // namespace

FuzzTarget::FuzzTarget(const char* itsName, Run* itsRun) : name(itsName), run(itsRun) {
    targets().push_back(this);
}

const FuzzTarget* findTarget(std::string_view name) {
    for (const FuzzTarget* target : targets())
        if (target->name == name) return target;
    std::fprintf(stderr, "no fuzz target '%.*s'\n", static_cast<int>(name.size()), name.data());
    return nullptr;
}

extern "C" int LLVMFuzzerInitialize(const int* argc, char*** argv) {
    constexpr std::string_view option = "--target=";
    for (int i = 1; i < *argc; ++i) {
        const std::string_view word = (*argv)[i];
        if (word.substr(0, option.size()) == option) chosen = findTarget(word.substr(option.size()));
    }
    if (!chosen) std::exit(2);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    chosen->run(data, size);
    return 0;
}
