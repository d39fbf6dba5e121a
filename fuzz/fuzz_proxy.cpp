// Answers of a proxy. The first byte selects the proxy's type, and whether there is a password, the target
// has a name, and the socket listens. The second sets how many bytes arrive at once. The rest is what the
// proxy sends before it closes the connection.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "fuzz/fuzz.h"
#include "i4min/network/proxy.h"

FUZZ_TARGET(proxy) {
    if (size < 2) return;
    const std::uint8_t choice = data[0];
    i4_proxy_settings settings;
    settings.pType = (choice & 0x0f) % 3 + I4_PROXY_SOCKS4;
    if (choice & 0x40) {
        settings.user = "user";
        settings.password = "secret";
    }
    const bool listening = choice & 0x80;
    std::unique_ptr<i4_address> target;
    if (choice & 0x20) {
        target = std::make_unique<i4_proxy_address>("index.example", 4661);
    } else {
        target = std::make_unique<i4_tcpip_address>();
    }

    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return;
    i4_proxy_sock tunnel(settings, std::make_unique<i4_tcpip_sock>(ends[0], I4_STREAM),
                         i4_proxy_sock::first_state(settings.pType), listening, *target);
    tunnel.set_blocking(false);
    const std::size_t answer = std::min<std::size_t>(size - 2, 4096);
    const std::size_t at_once = std::min<std::size_t>(answer, data[1]);
    const auto send = [&](const std::uint8_t* bytes, std::size_t length) {
        require(::send(ends[1], bytes, length, MSG_NOSIGNAL) >= 0);
    };
    send(data + 2, at_once);
    if (listening) tunnel.ready(I4_SELECT_READ, 1, nullptr);
    send(data + 2 + at_once, answer - at_once);
    ::shutdown(ends[1], SHUT_WR);
    // The proxy has closed the connection: the handshake must end without waiting.
    for (int i = 0; i < 2; ++i)
        tunnel.ready(I4_SELECT_READ | I4_SELECT_WRITE | I4_SELECT_ERROR, 1000, nullptr);
    require(tunnel.state() >= i4_proxy_sock::gotIncoming);
    std::uint8_t byte = 0;
    const bool open = tunnel.state() == i4_proxy_sock::connected;
    require(tunnel.read({&byte, 1}) == 0 || open);
    ::close(ends[1]);
}
