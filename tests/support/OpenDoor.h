// A running socket pool for tests, with its own listener.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/CapturedLog.h"
#include "tests/support/Conversation.h"
#include "transport/Worker.h"

// A pool, a worker and a loopback listener that makes Talkers. Owns: all of them.
template <class Pool>
struct OpenDoor {
    explicit OpenDoor(Transport& transport) : pool(transport) {
        pool.start();
        worker.start();
        EXPECT_TRUE(door->listen(500));
        port = door->localPort();
    }
    ~OpenDoor() {
        worker.stop();
        pool.stop();
        door->takeLast();
        pool.deleteConnections();
        EXPECT_EQ(pool.count, 0);
    }
    // The last accepted connection, which the listener then releases.
    Ref<Talker> arrived() {
        Ref<Talker> found;
        EXPECT_TRUE(eventually([&] { return static_cast<bool>(found = door->takeLast()); }));
        return found;
    }
    // True if only the listener is left in the pool, and every other connection has ended exactly once.
    bool allGone(int connections) {
        return eventually([&] { return pool.count == 1 && told.ended == connections; });
    }

    Told told;
    Pool pool;
    Worker worker{pool};
    Ref<TalkerDoor> door{new TalkerDoor(pool, 0, told)};
    u32 port = 0;
};
