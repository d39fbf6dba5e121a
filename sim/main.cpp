// tarnwick-sim runs scenes of whole networks in virtual time.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "sim/Scene.h"
#include "sim/scenes.h"

namespace {

const char usage[] =
    "Usage: tarnwick-sim [SCENE] [--seed N] [--svg FILE] [--quiet]\n"
    "Plays a scene of clients, an index server and a network, all in this process and in virtual time. The "
    "same\n"
    "seed gives the same log, byte for byte. Without a scene: lists them.\n"
    "  --seed N    another run; 1 without it\n"
    "  --svg FILE  writes a picture of who gave how much to whom and when\n"
    "  --quiet     leaves the log out\n"
    "Returns 0 where the scene went as it should, 1 where it didn't, 2 for a wrong argument.\n";

// The arguments of the command line. A plain value.
struct Options {
    const SceneRow* scene = nullptr;
    u64 seed = 1;
    std::string svg;
    bool quiet = false;
    bool list = true;
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (argument == "--quiet") {
            options.quiet = true;
        } else if (argument == "--seed" && value) {
            char* end = nullptr;
            options.seed = std::strtoull(argv[++i], &end, 10);
            if (*end != '\0' || end == value) return false;
        } else if (argument == "--svg" && value) {
            options.svg = argv[++i];
        } else {
            options.scene = findScene(argument.c_str());
            if (!options.scene) return false;
            options.list = false;
        }
    }
    return true;
}

void list() {
    std::fputs(usage, stdout);
    std::puts("Scenes:");
    for (std::size_t n = 0; n < sceneCount; ++n) std::printf("  %-12s %s\n", scenes[n].name, scenes[n].about);
}

bool writePicture(const Scene& scene, const Options& options) {
    std::ofstream out(options.svg);
    out << scene.picture.svg(std::string(options.scene->name) + ", seed " + std::to_string(options.seed));
    return out.flush().good();
}

int play(const Options& options) {
    Scene scene(options.seed);
    int status = 0;
    try {
        options.scene->play(scene);
        if (!options.quiet) std::fputs(scene.log().c_str(), stdout);
    } catch (const SceneFailure& failure) {
        std::printf("%s: %s", options.scene->name, failure.what());
        std::printf("Again: tarnwick-sim %s --seed %llu\n", options.scene->name,
                    static_cast<unsigned long long>(options.seed));
        status = 1;
    }
    std::printf("%s: %.1f s of virtual time in %.1f s of processor time, %llu turns, digest %016llx\n",
                options.scene->name, scene.now(), static_cast<double>(std::clock()) / CLOCKS_PER_SEC,
                static_cast<unsigned long long>(scene.world.turns()),
                static_cast<unsigned long long>(scene.world.digest()));
    if (!options.svg.empty() && !writePicture(scene, options)) {
        std::fprintf(stderr, "tarnwick-sim: %s can't be written\n", options.svg.c_str());
        return 1;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // A simulation frees and allocates the same blocks all the time, so the heap keeps them.
    ::mallopt(M_MMAP_THRESHOLD, 1 << 30);
    ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
    Options options;
    if (!parse(argc, argv, options)) {
        std::fputs(usage, stderr);
        return 2;
    }
    if (options.list) {
        list();
        return 0;
    }
    return play(options);
}
