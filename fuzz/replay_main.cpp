// Runs a fuzz target over the files of the directories that the command line names: the seed corpus and every
// input that ever broke it. Behind --sweep, every prefix and every flip of a byte of the short ones follow.
#include <cstdio>
#include <span>
#include <string_view>

#include "fuzz/fuzz.h"
#include "tests/support/damage.h"
#include "tests/support/files.h"

namespace {

constexpr std::size_t longestSwept = 600;  // bytes: a sweep runs the target six times for each

int replayed = 0;

void replay(std::span<const std::uint8_t> bytes) {
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++replayed;
}

}  // namespace

int main(int argc, char** argv) {
    bool sweep = false;
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--sweep") {
            sweep = true;
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            const std::string text = contentOf(entry.path());
            const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
            replay(bytes);
            if (sweep && bytes.size() <= longestSwept) sweepDamage(bytes, replay);
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
