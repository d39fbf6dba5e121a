// replay TARGET DIRECTORY: runs a fuzz target with each file of a directory: the seeds and all inputs that
// ever broke it. Short ones are also run with every prefix and every changed byte.
#include <cstdio>
#include <span>

#include "fuzz/fuzz.h"
#include "tests/support/damage.h"
#include "tests/support/files.h"

namespace {

constexpr std::size_t longestSwept = 600;  // bytes: a sweep runs the target six times for each

}  // namespace

int main(int argc, char** argv) {
    const FuzzTarget* target = argc == 3 ? findTarget(argv[1]) : nullptr;
    if (!target) return 2;
    int replayed = 0;
    const auto replay = [&](std::span<const std::uint8_t> bytes) {
        target->run(bytes.data(), bytes.size());
        ++replayed;
    };
    for (const auto& entry : std::filesystem::directory_iterator(argv[2])) {
        const std::string text = contentOf(entry.path());
        const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
        replay(bytes);
        if (bytes.size() <= longestSwept) sweepDamage(bytes, replay);
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
