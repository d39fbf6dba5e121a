// Reaching the network through a SOCKS4, SOCKS5 or HTTP CONNECT proxy.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "i4min/memory/types.h"
#include "i4min/network/address.h"
#include "i4min/network/socket.h"
#include "i4min/string/string.h"

enum i4_proxy_type : i32 {
    I4_PROXY_NONE = 0,
    I4_PROXY_SOCKS4 = 1,
    I4_PROXY_SOCKS5 = 2,
    I4_PROXY_HTTP = 3,
};

// Which proxy to use, and as whom. A plain value; copies are deep.
struct i4_proxy_settings {
    i4_proxy_settings() = default;
    i4_proxy_settings(const i4_proxy_settings& other);
    i4_proxy_settings& operator=(const i4_proxy_settings& other);

    bool inForce() const { return pType >= I4_PROXY_SOCKS4 && pType <= I4_PROXY_HTTP; }

    i32 pType = I4_PROXY_NONE;
    i4_string server = nullptr;
    i32 port = 0;
    i4_string user = nullptr;             // may be null
    i4_string password = nullptr;         // may be null
    std::unique_ptr<i4_address> address;  // the proxy's, resolved at the first connect and kept
};

// A host by its name, for a proxy to resolve; its address bytes are 0.
class i4_proxy_address : public i4_tcpip_address {
  public:
    i4_proxy_address(const char* host, u16 port);

    void print(i4_file* stream) override;  // the name
    std::unique_ptr<i4_address> copy() const override;
    bool get_name(i4_file* stream) const override;
};

// A stream through a proxy. The handshake runs inside ready(), as a machine of states:
//
//   state               waits for  event                          to
//   0 httpSend          write      the request is sent            2
//   2 httpAnswer        read       a whole header with 200        14
//   3 socks4Send        write      the request is sent            4
//   4 socks4Reply       read       granted                        14, or 5 when listening
//   5 socks4Incoming    read       the other side has connected   12
//   6 socks5Greet       write      the greeting is sent           7
//   7 socks5Method      read       no authentication              9
//                                  user and password, sent        8
//   8 socks5Accepted    read       the password is right          9
//   9 socks5Send                   the request is sent            10
//   10 socks5Reply      read       granted                        14, or 11 when listening
//   11 socks5Incoming   read       the other side has connected   12
//   12 gotIncoming                 accept_remote has taken it     13
//   13 failed
//   14 connected
//
// Every other event, the end of the time among them, leads to 13. An answer is taken with one read: one that
// comes in pieces fails. Thread: as i4_tcpip_sock. Until state 14 read and write give 0.
class i4_proxy_sock : public i4_tcpip_sock {
  public:
    enum State : u32 {
        httpSend = 0,
        httpAnswer = 2,
        socks4Send = 3,
        socks4Reply = 4,
        socks4Incoming = 5,
        socks5Greet = 6,
        socks5Method = 7,
        socks5Accepted = 8,
        socks5Send = 9,
        socks5Reply = 10,
        socks5Incoming = 11,
        gotIncoming = 12,
        failed = 13,
        connected = 14,
    };

    // Takes over the descriptor of `socket`, which is on its way to the proxy or connected to it.
    i4_proxy_sock(const i4_proxy_settings& settings, std::unique_ptr<i4_tcpip_sock> socket, State first_state,
                  bool listening, const i4_address& target);
    static State first_state(i32 pType);

    i32 read(std::span<u8> to) override;
    i32 write(std::span<const u8> bytes) override;
    i32 write_more(std::span<const u8> bytes) override;
    // Goes on with the handshake until it stands (the write bit; for a listener's incoming connection the
    // read bit), has failed (the error bit) or needs another call (0). Each result is limited by `mask`. A
    // time of 0 or below sets no limit to a handshake. In state 14, the plain ready.
    u32 ready(u32 mask, i32 timeout_ms, i4_status_class* status) override;
    // The same, but no further than without waiting: its caller sets the limit to the time.
    u32 proceed(u32 mask) override;
    u32 awaited() const override;

    // For a listener: waits for the connection that the proxy takes for it, and gives it as a plain blocking
    // socket, with the address that the proxy reports.
    [[nodiscard]] virtual bool accept_remote(std::unique_ptr<i4_socket>& out_socket,
                                             std::unique_ptr<i4_address>& out_address);
    virtual std::unique_ptr<i4_address> target_address() const;

    State state() const { return state_; }

  private:
    struct Step;
    static const Step steps_[];
    // What a step has come to: another round, or a result for the caller.
    enum class Outcome { goOn, writable, readable };

    const Step& step() const;
    Outcome act();
    Outcome sendHttp();
    Outcome readHttp();
    Outcome sendSocks4();
    Outcome readSocks4();
    Outcome readSocks4Incoming();
    Outcome greetSocks5();
    Outcome readSocks5Method();
    Outcome readSocks5Accepted();
    Outcome sendSocks5();
    Outcome readSocks5();
    Outcome readSocks5Incoming();

    Outcome enter(State state);
    Outcome fail() { return enter(failed); }
    Outcome granted(State when_listening);
    Outcome arrived();
    [[nodiscard]] bool sendAll(std::string_view bytes);
    [[nodiscard]] bool readWhole(std::span<u8> answer);
    [[nodiscard]] bool takeSocks4Reply();
    [[nodiscard]] bool takeSocks5Reply();
    void takeTarget(const u8* ip, const u8* port);
    in_port_t requestedPort() const;  // network order
    std::string targetText() const;
    void tellState(i4_status_class& status) const;

    const std::unique_ptr<const i4_proxy_settings> settings_;
    std::array<char, 1024> response_{};  // the HTTP answer as it arrives, terminated
    u32 response_length_ = 0;
    const bool listening_;
    std::unique_ptr<i4_tcpip_address> target_;  // on success, what the proxy reports
    State state_;
};

// The standard alphabet, padded with '='.
std::string i4_base64(std::string_view bytes);

// Looks at the lines of an HTTP header: 0 while it isn't complete, 1 when it is, 2 when one of its lines
// begins with "Authorization: Basic ".
u32 i4_scan_http_header(const char* text);
