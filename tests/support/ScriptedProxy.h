// A proxy on loopback that answers by a script.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "i4min/network/proxy.h"
#include "tests/support/systemNetwork.h"

// One turn: the proxy reads exactly these bytes, then sends its answer, as a whole or byte by byte.
struct ProxyTurn {
    std::string expected;
    std::string answer;
    bool inPieces = false;
};

// Plays its turns with the one connection that it accepts, then closes it or waits until the client closes
// it. The destructor cancels the accept and waits for the script.
class ScriptedProxy {
  public:
    enum class Then { stay, close };

    explicit ScriptedProxy(std::vector<ProxyTurn> turns, Then then = Then::stay, u16 port = 0)
        : door_(open(port)), turns_(std::move(turns)), then_(then), thread_([this] { play(); }) {}
    ~ScriptedProxy() {
        door_->cancel();
        thread_.join();
    }
    u16 port() const { return door_->local_address()->get_port(); }

  private:
    static constexpr i32 limit = 20000;  // ms
    static constexpr i32 pause = 50;     // ms between the bytes of an answer

    static std::unique_ptr<i4_socket> open(u16 port) {
        systemNetwork().setProxy(nullptr);
        return systemNetwork().listen(port, 0, I4_STREAM, nullptr);
    }
    void play() {
        std::unique_ptr<i4_socket> client;
        if (!door_->accept(client)) return;
        for (const ProxyTurn& turn : turns_) {
            std::string got;
            while (got.size() < turn.expected.size() && readByte(*client)) got += byte_;
            EXPECT_EQ(got, turn.expected);
            send(*client, turn);
        }
        if (then_ == Then::close) return;
        while (readByte(*client)) continue;  // the client may send more than the script expects
    }
    bool readByte(i4_socket& client) {
        return client.ready(I4_SELECT_READ, limit, nullptr) != 0 && client.read(i4_room({&byte_, 1})) == 1;
    }
    void send(i4_socket& client, const ProxyTurn& turn) {
        const std::size_t piece = turn.inPieces ? 1 : turn.answer.size();
        for (std::size_t at = 0; at < turn.answer.size(); at += piece) {
            client.write(i4_bytes(turn.answer.substr(at, piece)));
            // Time for the client to take the piece, or to give up.
            while (turn.inPieces && client.ready(I4_SELECT_READ, pause, nullptr) &&
                   client.read(i4_room({&byte_, 1})) == 1) {
            }
        }
    }

    const std::unique_ptr<i4_socket> door_;
    const std::vector<ProxyTurn> turns_;
    const Then then_;
    char byte_ = 0;
    std::thread thread_;
};
