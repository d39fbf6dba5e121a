// A socket that follows a script, for code that moves packets.
#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>

#include "i4min/network/socket.h"

// Each read takes from the next piece of `pieces`, and returns 0 if that is empty. After the last one the
// stream ends if `ends` is set; otherwise reads would block. Each write takes at most `room` bytes, and fails
// if that is below 0.
class ScriptedSocket : public i4_socket {
  public:
    std::deque<std::string> pieces;
    bool ends = false;
    i32 room = 1 << 30;
    std::string written;

    i32 read(std::span<u8> to) override {
        if (pieces.empty()) {
            at_end_ = ends;
            return 0;
        }
        std::string& piece = pieces.front();
        const std::size_t n = std::min(to.size(), piece.size());
        std::memcpy(to.data(), piece.data(), n);
        piece.erase(0, n);
        if (piece.empty()) pieces.pop_front();
        return static_cast<i32>(n);
    }
    i32 write(std::span<const u8> bytes) override {
        if (room < 0) return -1;
        bytes = bytes.first(std::min(bytes.size(), static_cast<std::size_t>(room)));
        written += i4_text(bytes);
        return static_cast<i32>(bytes.size());
    }
    i32 write_more(std::span<const u8> bytes) override { return write(bytes); }
    bool atEnd() const override { return at_end_; }

    bool accept(std::unique_ptr<i4_socket>&) override { return false; }
    i32 read_from(std::span<u8>, std::unique_ptr<i4_address>*) override { return -1; }
    i32 write_to(std::span<const u8>, const i4_address&) override { return -1; }
    u32 ready(u32, i32, i4_status_class*) override { return 0; }
    void add_to_set(i4_socket_set&, u32, i4_set_owner*) override {}
    void remove_from_set(i4_socket_set&) override {}
    u32 check_in_set(const i4_socket_set&, u32) override { return 0; }
    bool cancel() override { return true; }
    void set_blocking(bool) override {}
    std::unique_ptr<i4_address> local_address() override { return nullptr; }
    std::unique_ptr<i4_address> remote_address() override { return nullptr; }
    void change_in_set(i4_socket_set&, u32) override {}

  private:
    bool at_end_ = false;
};
