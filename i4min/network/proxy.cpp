#include "i4min/network/proxy.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "i4min/threads/linux/i4_time.h"

namespace {

constexpr std::size_t longest_field = 255;  // names, users and passwords, where a byte gives the length
constexpr i32 status_ok = 200;
constexpr u8 socks4_granted = 90;

std::string textOf(const i4_string& text) { return std::string(text.view()); }

// A host's name that can stand in a request without being mistaken for another part of it.
bool isSendable(std::string_view name) {
    return !name.empty() && name.size() <= longest_field && std::all_of(name.begin(), name.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte > ' ' && byte != 0x7f;
    });
}

// Appends a value as it lies in memory.
template <class Value>
void append(std::string& out, const Value& value) {
    out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void appendWithLength(std::string& out, std::string_view text) {
    out += static_cast<char>(text.size());
    out += text;
}

std::unique_ptr<i4_tcpip_address> copyOf(const i4_address& address) {
    std::unique_ptr<i4_address> copy = address.copy();
    if (auto* known = dynamic_cast<i4_tcpip_address*>(copy.get())) {
        copy.release();
        return std::unique_ptr<i4_tcpip_address>(known);
    }
    auto plain = std::make_unique<i4_tcpip_address>();
    plain->address.sin_addr.s_addr = ipOfAddress(address);
    plain->set_port(address.get_port());
    return plain;
}

}  // namespace

std::string i4_base64(std::string_view bytes) {
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t length = std::min<std::size_t>(3, bytes.size() - at);
        u32 group = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            group = group << 8 | (i < length ? static_cast<u8>(bytes[at + i]) : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) out += i <= length ? alphabet[group >> (18 - 6 * i) & 63] : '=';
    }
    return out;
}

u32 i4_scan_http_header(const char* text) {
    static constexpr char authorization[] = "Authorization: Basic ";
    static constexpr std::size_t length = sizeof authorization - 1;
    u32 result = 1;
    for (const char* line = text;;) {
        if (std::strlen(line) >= length && i4_stricmp(i4_string(line, length).c_str(), authorization) == 0) {
            result = 2;
        }
        const char* feed = std::strchr(line, '\n');
        if (!feed) return 0;
        if (feed[1] != 0 && feed[2] == '\n') return result;
        line = feed + 1;
    }
}

i4_proxy_settings::i4_proxy_settings(const i4_proxy_settings& other) { *this = other; }

i4_proxy_settings& i4_proxy_settings::operator=(const i4_proxy_settings& other) {
    if (this == &other) return *this;
    pType = other.pType;
    server = other.server;
    port = other.port;
    user = other.user;
    password = other.password;
    address = other.address ? other.address->copy() : nullptr;
    return *this;
}

i4_proxy_address::i4_proxy_address(const char* host, u16 port) {
    name = host;
    set_port(port);
}

void i4_proxy_address::print(i4_file* stream) {
    if (name.isNull()) return i4_tcpip_address::print(stream);
    stream->write(i4_bytes(name.view()));
}

std::unique_ptr<i4_address> i4_proxy_address::copy() const {
    return std::make_unique<i4_proxy_address>(*this);
}

bool i4_proxy_address::get_name(i4_file* stream) const {
    if (name.isNull()) return i4_tcpip_address::get_name(stream);
    stream->write(i4_bytes(name.view()));
    return true;
}

// What a state waits for, and what it does then.
struct i4_proxy_sock::Step {
    State state;
    u32 waits_for;
    Outcome (i4_proxy_sock::*act)();
};

const i4_proxy_sock::Step i4_proxy_sock::steps_[] = {
    {httpSend, I4_SELECT_WRITE, &i4_proxy_sock::sendHttp},
    {httpAnswer, I4_SELECT_READ, &i4_proxy_sock::readHttp},
    {socks4Send, I4_SELECT_WRITE, &i4_proxy_sock::sendSocks4},
    {socks4Reply, I4_SELECT_READ, &i4_proxy_sock::readSocks4},
    {socks4Incoming, I4_SELECT_READ, &i4_proxy_sock::readSocks4Incoming},
    {socks5Greet, I4_SELECT_WRITE, &i4_proxy_sock::greetSocks5},
    {socks5Method, I4_SELECT_READ, &i4_proxy_sock::readSocks5Method},
    {socks5Accepted, I4_SELECT_READ, &i4_proxy_sock::readSocks5Accepted},
    {socks5Send, 0, &i4_proxy_sock::sendSocks5},
    {socks5Reply, I4_SELECT_READ, &i4_proxy_sock::readSocks5},
    {socks5Incoming, I4_SELECT_READ, &i4_proxy_sock::readSocks5Incoming},
};

i4_proxy_sock::i4_proxy_sock(const i4_proxy_settings& settings, std::unique_ptr<i4_tcpip_sock> socket,
                             State first_state, bool listening, const i4_address& target)
    : i4_tcpip_sock(socket->release_descriptor(), I4_STREAM),
      settings_(std::make_unique<const i4_proxy_settings>(settings)),
      listening_(listening),
      target_(copyOf(target)),
      state_(first_state) {}

i4_proxy_sock::State i4_proxy_sock::first_state(i32 pType) {
    switch (pType) {
        case I4_PROXY_SOCKS4:
            return socks4Send;
        case I4_PROXY_SOCKS5:
            return socks5Greet;
        case I4_PROXY_HTTP:
            return httpSend;
        default:
            return failed;
    }
}

i32 i4_proxy_sock::read(std::span<u8> to) { return state_ == connected ? i4_tcpip_sock::read(to) : 0; }

i32 i4_proxy_sock::write(std::span<const u8> bytes) {
    return state_ == connected ? i4_tcpip_sock::write(bytes) : 0;
}

i32 i4_proxy_sock::write_more(std::span<const u8> bytes) {
    return state_ == connected ? i4_tcpip_sock::write_more(bytes) : 0;
}

u32 i4_proxy_sock::ready(u32 mask, i32 timeout_ms, i4_status_class* status) {
    const u32 start = i4_ticks();
    const auto remaining = [&] {
        if (timeout_ms <= 0) return -1;
        const u32 gone = std::min<u32>(i4_ticks() - start, std::numeric_limits<i32>::max());
        return std::max(0, timeout_ms - static_cast<i32>(gone));
    };
    for (;;) {
        if (state_ == failed) return mask & I4_SELECT_ERROR;
        if (state_ == gotIncoming) return mask & I4_SELECT_READ;
        if (state_ == connected) {
            return i4_tcpip_sock::ready(mask, timeout_ms == 0 ? 0 : remaining(), status);
        }
        const State before = state_;
        const u32 waits_for = step().waits_for;
        const bool in_time = waits_for == 0 || i4_tcpip_sock::ready(waits_for, remaining(), status) != 0;
        const Outcome outcome = in_time ? act() : fail();
        if (status && before >= socks4Send && state_ != before) tellState(*status);
        if (outcome == Outcome::writable) return mask & I4_SELECT_WRITE;
        if (outcome == Outcome::readable) return mask & I4_SELECT_READ;
    }
}

u32 i4_proxy_sock::proceed(u32 mask) {
    for (;;) {
        if (state_ == failed || state_ == gotIncoming || state_ == connected) return ready(mask, 0, nullptr);
        const u32 waits_for = step().waits_for;
        if (waits_for != 0 && i4_tcpip_sock::ready(waits_for, 0, nullptr) == 0) return 0;
        switch (act()) {
            case Outcome::goOn:
                break;
            case Outcome::writable:
                return mask & I4_SELECT_WRITE;
            case Outcome::readable:
                return mask & I4_SELECT_READ;
        }
    }
}

u32 i4_proxy_sock::awaited() const {
    const bool underWay = state_ != failed && state_ != gotIncoming && state_ != connected;
    return (underWay ? step().waits_for : static_cast<u32>(I4_SELECT_WRITE)) | I4_SELECT_ERROR;
}

const i4_proxy_sock::Step& i4_proxy_sock::step() const {
    return *std::find_if(std::begin(steps_), std::end(steps_),
                         [this](const Step& one) { return one.state == state_; });
}

i4_proxy_sock::Outcome i4_proxy_sock::act() { return (this->*step().act)(); }

void i4_proxy_sock::tellState(i4_status_class& status) const {
    switch (state_) {
        case socks4Send:
        case socks5Greet:
        case socks5Method:
            return status.setText("Connecting to ");
        case socks4Reply:
        case socks5Reply:
            return status.setText(("Connecting to " + targetText()).c_str());
        default:
            return status.setText("SOCKS proxy connection");
    }
}

i4_proxy_sock::Outcome i4_proxy_sock::enter(State state) {
    state_ = state;
    return Outcome::goOn;
}

i4_proxy_sock::Outcome i4_proxy_sock::granted(State when_listening) {
    enter(listening_ ? when_listening : connected);
    return Outcome::writable;
}

i4_proxy_sock::Outcome i4_proxy_sock::arrived() {
    enter(gotIncoming);
    return Outcome::readable;
}

bool i4_proxy_sock::sendAll(std::string_view bytes) {
    return i4_tcpip_sock::write(i4_bytes(bytes)) == static_cast<i64>(bytes.size());
}

bool i4_proxy_sock::readWhole(std::span<u8> answer) {
    return i4_tcpip_sock::read(answer) == static_cast<i64>(answer.size());
}

std::string i4_proxy_sock::targetText() const {
    i4_owned_ram_file stream;
    target_->print(&stream);
    return std::string(i4_text({stream.buffer(), stream.size()}));
}

// A listener leaves its port to the proxy.
in_port_t i4_proxy_sock::requestedPort() const {
    return listening_ ? in_port_t{0} : target_->address.sin_port;
}

void i4_proxy_sock::takeTarget(const u8* ip, const u8* port) {
    std::memcpy(&target_->address.sin_addr, ip, sizeof target_->address.sin_addr);
    std::memcpy(&target_->address.sin_port, port, sizeof target_->address.sin_port);
}

// HTTP CONNECT: the request's lines, an empty line; the answer's status line, its header, an empty line.
i4_proxy_sock::Outcome i4_proxy_sock::sendHttp() {
    const std::string host = targetText();
    if (!isSendable(host)) return fail();
    std::string request = "CONNECT " + host + ":" + std::to_string(target_->get_port()) +
                          " HTTP/1.0\r\n"
                          "User-Agent: Mozilla/4.0 (compatible; MSIE 5.0; Windows 98)\r\n"
                          "Host: " +
                          host +
                          "\r\n"
                          "Content-Length: 0\r\n"
                          "Proxy-Connection: Keep-Alive\r\n"
                          "Pragma: no-cache\r\n";
    if (!settings_->user.view().empty()) {
        const std::string credentials = textOf(settings_->user) + ":" + textOf(settings_->password);
        request += "Proxy-authorization: Basic " + i4_base64(credentials) + "\r\n";
    }
    request += "\r\n";
    if (request.size() >= response_.size() || !sendAll(request)) return fail();
    response_length_ = 0;
    return enter(httpAnswer);
}

i4_proxy_sock::Outcome i4_proxy_sock::readHttp() {
    bool complete = false;
    do {
        if (response_length_ == response_.size() - 1) return fail();
        if (i4_tcpip_sock::read(i4_room({&response_[response_length_], 1})) != 1) return fail();
        response_[++response_length_] = 0;
        complete = i4_scan_http_header(response_.data()) != 0;
    } while (!complete && i4_tcpip_sock::ready(I4_SELECT_READ, 0, nullptr) != 0);
    const char* blank = complete ? std::strchr(response_.data(), ' ') : nullptr;
    return enter(blank && i4_atoi(blank + 1) == status_ok ? connected : failed);
}

// SOCKS4 request and reply:
//
//   1  4 in a request, 0 or 4 in a reply
//   1  command: 1 connect, 2 bind; in a reply 90 when granted
//   2  port, network order
//   4  address; 0.0.0.1 in a request with a name
//   then in a request: an empty user with its 0, and the name, if there is one, with its 0
i4_proxy_sock::Outcome i4_proxy_sock::sendSocks4() {
    std::string request{'\4', listening_ ? '\2' : '\1'};
    const in_port_t port = requestedPort();
    append(request, port);
    const bool named = !target_->name.isNull();
    if (named) {
        if (!isSendable(target_->name.view())) return fail();
        request += std::string_view("\0\0\0\1", 4);
    } else {
        append(request, target_->address.sin_addr);
    }
    request += '\0';
    if (named) request += textOf(target_->name) + '\0';
    return sendAll(request) ? enter(socks4Reply) : fail();
}

bool i4_proxy_sock::takeSocks4Reply() {
    u8 reply[8];
    if (!readWhole(reply)) return false;
    if ((reply[0] != 0 && reply[0] != 4) || reply[1] != socks4_granted) return false;
    takeTarget(reply + 4, reply + 2);
    return true;
}

i4_proxy_sock::Outcome i4_proxy_sock::readSocks4() {
    return takeSocks4Reply() ? granted(socks4Incoming) : fail();
}

i4_proxy_sock::Outcome i4_proxy_sock::readSocks4Incoming() { return takeSocks4Reply() ? arrived() : fail(); }

// SOCKS5 greeting: version, two methods: none, and user with password. Its answer: version, method.
i4_proxy_sock::Outcome i4_proxy_sock::greetSocks5() {
    static constexpr std::string_view greeting("\5\2\0\2", 4);
    return sendAll(greeting) ? enter(socks5Method) : fail();
}

// User and password: 1, length and user, length and password. The answer: 1, 0 when accepted.
i4_proxy_sock::Outcome i4_proxy_sock::readSocks5Method() {
    u8 answer[2];
    if (!readWhole(answer) || answer[0] != 5) return fail();
    if (answer[1] == 0) return enter(socks5Send);
    const i4_string& user = settings_->user;
    const i4_string& password = settings_->password;
    if (answer[1] != 2 || user.isNull() || password.isNull()) return fail();
    if (user.length() > longest_field || password.length() > longest_field) return fail();
    std::string credentials{'\1'};
    appendWithLength(credentials, user.view());
    appendWithLength(credentials, password.view());
    return sendAll(credentials) ? enter(socks5Accepted) : fail();
}

i4_proxy_sock::Outcome i4_proxy_sock::readSocks5Accepted() {
    u8 answer[2];
    if (!readWhole(answer) || answer[0] != 1 || answer[1] != 0) return fail();
    return enter(socks5Send);
}

// SOCKS5 request and reply:
//
//   1      5
//   1      command: 1 connect, 2 bind; in a reply 0 when granted
//   1      0
//   1      kind of address: 1 four bytes, 3 a name
//   4, 1+L the address, or the name behind its length; a reply must have four bytes
//   2      port, network order
i4_proxy_sock::Outcome i4_proxy_sock::sendSocks5() {
    std::string request{'\5', listening_ ? '\2' : '\1', '\0'};
    if (target_->name.isNull()) {
        request += '\1';
        append(request, target_->address.sin_addr);
    } else {
        if (!isSendable(target_->name.view())) return fail();
        request += '\3';
        appendWithLength(request, target_->name.view());
    }
    const in_port_t port = requestedPort();
    append(request, port);
    return sendAll(request) ? enter(socks5Reply) : fail();
}

bool i4_proxy_sock::takeSocks5Reply() {
    u8 reply[10];
    if (!readWhole(reply)) return false;
    if (reply[0] != 5 || reply[1] != 0 || reply[3] != 1) return false;
    takeTarget(reply + 4, reply + 8);
    return true;
}

i4_proxy_sock::Outcome i4_proxy_sock::readSocks5() {
    return takeSocks5Reply() ? granted(socks5Incoming) : fail();
}

i4_proxy_sock::Outcome i4_proxy_sock::readSocks5Incoming() { return takeSocks5Reply() ? arrived() : fail(); }

bool i4_proxy_sock::accept_remote(std::unique_ptr<i4_socket>& out_socket,
                                  std::unique_ptr<i4_address>& out_address) {
    while (state_ != gotIncoming) {
        if (state_ == failed || state_ == connected) return false;
        ready(I4_SELECT_READ, -1, nullptr);
    }
    out_socket = std::make_unique<i4_tcpip_sock>(release_descriptor(), I4_STREAM);
    out_socket->set_blocking(true);
    out_address = target_->copy();
    state_ = failed;
    return true;
}

std::unique_ptr<i4_address> i4_proxy_sock::target_address() const { return target_->copy(); }
