// tarnwick-index, an index server for private networks.
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "host/PosixHost.h"
#include "i4min/file/output.h"
#include "index/IndexServer.h"
#include "index/options.h"
#include "protocol/version.h"

namespace {

// SIGINT and SIGTERM make it readable from now on.
i4_descriptor stopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return i4_descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Each client takes a descriptor, and one more while its door is tested.
void allowDescriptors(u32 clients, EventLog& log) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    const rlim_t wanted = 2 * rlim_t{clients} + 64;
    if (limit.rlim_cur >= wanted) return;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < wanted) {
        log.always("The system allows %llu open files; %u clients may need %llu",
                   static_cast<unsigned long long>(limit.rlim_cur), clients,
                   static_cast<unsigned long long>(wanted));
    }
}

}  // namespace

int main(int argc, char** argv) {
    i4_hold_standard_descriptors();
    IndexOptions options;
    std::string error;
    if (!readOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
        std::fprintf(stderr, "tarnwick-index: %s\nTry tarnwick-index --help\n", error.c_str());
        return 2;
    }
    if (options.help) return std::fputs(indexHelp, stdout) < 0;
    if (options.version) {
        std::printf("tarnwick-index %d.%d.%u\n", versionMajor, versionMinor, protocolVersion);
        return 0;
    }
    const i4_descriptor stop = stopSignals();
    i4_standard_output().start();  // behind the mask, so that no signal reaches its thread
    EventLog log(options.level);
    allowDescriptors(options.identity.maxClients, log);
    PosixHost host;
    IndexServer server(host.host, options.identity, IndexLimits(), log);
    const bool listening = server.listen(options.ip, options.port);
    if (listening) {
        server.start();
        pollfd waiting{stop.get(), POLLIN, 0};
        while (::poll(&waiting, 1, -1) < 0 && errno == EINTR) continue;
        server.stop();
        server.close();
    }
    i4_standard_output().finish();
    return listening ? 0 : 1;
}
