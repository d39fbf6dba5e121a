// The way to the network: name look-up, connecting, listening, with a proxy in between where one is set.
#pragma once

#include <memory>
#include <vector>

#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"
#include "i4min/network/address.h"
#include "i4min/network/socket.h"
#include "i4min/network/socket_set.h"
#include "i4min/string/string.h"

struct i4_proxy_settings;

// What is known about this machine by its own name. Owns its addresses.
struct i4_host_info {
    i4_string name;  // the official one
    std::vector<i4_string> aliases;
    std::vector<std::unique_ptr<i4_address>> addresses;
};

// A family of addresses and sockets. Thread: any. Owns the proxy's settings; sockets that it made outlive it.
class i4_protocol {
  public:
    explicit i4_protocol(const i4_proxy_settings* settings);
    i4_protocol(const i4_protocol&) = delete;
    i4_protocol& operator=(const i4_protocol&) = delete;

    virtual const char* protocol_name() const = 0;
    virtual u32 protocol_type() const = 0;
    [[nodiscard]] virtual std::unique_ptr<i4_socket_set> new_socket_set(u32 size) = 0;
    virtual u32 reserved() { return 0; }
    // The address of a name, with port 0; null where the look-up fails. It may take seconds, but for dotted
    // text, which needs no look-up, and with a SOCKS5 or HTTP proxy, which gets the name as it stands. The
    // last two arguments are not used.
    [[nodiscard]] virtual std::unique_ptr<i4_address> resolve(const char* name, u16 port, u32 flags) = 0;
    // A socket that is connected, or, without `blocking`, on its way: ready(I4_SELECT_WRITE |
    // I4_SELECT_ERROR) then gives exactly I4_SELECT_WRITE when it stands. Null on failure.
    [[nodiscard]] virtual std::unique_ptr<i4_socket> connect(const i4_address& address, u32 type,
                                                             bool blocking) = 0;
    [[nodiscard]] virtual bool get_local_host(i4_host_info& out) = 0;
    // A socket bound to the port on every address (0: any free port), listening if it is a stream. Null on
    // failure. With a proxy, which is asked to listen for `target` within the time, a stream alone, and not
    // without a target.
    [[nodiscard]] virtual std::unique_ptr<i4_socket> listen(u16 port, i32 timeout_ms, u32 type,
                                                            const i4_address* target) = 0;
    // The same at one address of this host's, 0 for all of them, and never through a proxy.
    [[nodiscard]] virtual std::unique_ptr<i4_socket> listenAt(u32 ip, u16 port, u32 type) = 0;
    // A socket for datagrams, which gets a port with the first one that it sends. Null on failure.
    [[nodiscard]] virtual std::unique_ptr<i4_socket> datagrams() = 0;
    virtual ~i4_protocol();

    // Takes a deep copy, or no proxy for null. Sockets that are on their way keep the settings they began
    // with.
    void setProxy(const i4_proxy_settings* settings) EXCLUDES(lock_);

  protected:
    i4_mutex lock_{LockRank::protocol};
    std::unique_ptr<i4_proxy_settings> proxy_ GUARDED_BY(lock_);
};

// TCP and UDP over IPv4. Thread: any; lock_ is held while a connection through a proxy is begun.
// Errors: null or false; nothing is printed.
class i4_tcpip_protocol : public i4_protocol {
  public:
    explicit i4_tcpip_protocol(const i4_proxy_settings* settings) : i4_protocol(settings) {}

    const char* protocol_name() const override { return "TCP/IP"; }
    u32 protocol_type() const override { return 0; }
    std::unique_ptr<i4_socket_set> new_socket_set(u32 size) override;
    std::unique_ptr<i4_address> resolve(const char* name, u16 port, u32 flags) override;
    std::unique_ptr<i4_socket> connect(const i4_address& address, u32 type, bool blocking) override;
    bool get_local_host(i4_host_info& out) override;
    std::unique_ptr<i4_socket> listen(u16 port, i32 timeout_ms, u32 type, const i4_address* target) override;
    std::unique_ptr<i4_socket> listenAt(u32 ip, u16 port, u32 type) override;
    std::unique_ptr<i4_socket> datagrams() override;

  private:
    // Starts the way to the proxy, and on to the target through it.
    std::unique_ptr<i4_socket> throughProxy(const i4_address& target, bool blocking, bool listening)
        REQUIRES(lock_);
    std::unique_ptr<i4_socket> listenThroughProxy(i32 timeout_ms, u32 type, const i4_address* target)
        REQUIRES(lock_);
};

// This host's first address by its own name. False where the name doesn't resolve.
[[nodiscard]] bool i4_find_local_ip(sockaddr_in& out);

// Asks the program nslookup for a name's address, for hosts whose resolver library fails. Tells its steps on
// standard error. Only a name of letters, digits, dots, hyphens and underscores is asked for.
[[nodiscard]] bool i4_nslookup(const char* name, u32& out_ip);
