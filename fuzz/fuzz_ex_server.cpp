// A datagram from an index server, or from anyone.
#include <algorithm>

#include "fuzz/fuzz.h"
#include "i4min/memory/error.h"
#include "server/ExServerAnnex.h"
#include "tests/support/systemNetwork.h"
#include "transport/STSocketPool.h"

namespace {

// Handles bytes as if they came from 10.1.1.1:4665. Thread: one.
class FuzzedAnnex : public ExServerAnnex {
  public:
    using ExServerAnnex::ExServerAnnex;
    void handle(const std::uint8_t* data, std::size_t size) {
        std::copy_n(data, size, buffer_.buffer());
        buffer_.setUsed(static_cast<u32>(size));
        buffer_.seek(0);
        from_ = systemNetwork().resolve("10.1.1.1", 4665, 0);
        try {
            handleDatagram();
        } catch (const i4_err&) {
            // Drops this datagram only.
        }
        from_.reset();
    }
};

}  // namespace

FUZZ_TARGET(ex_server) {
    static OwnEngine& own = quietEngine();
    static STSocketPool pool(own.engine.transport);
    static const Ref<FuzzedAnnex> annex = [] {
        return Ref<FuzzedAnnex>(new FuzzedAnnex(pool, own.serverPool, own.engine.serverNeeds));
    }();
    own.serverPool.addServer(0x0101010A, 4661);
    annex->handle(data, std::min<std::size_t>(size, largestDatagram));
    own.serverPool.servers().deleteAll();
}
