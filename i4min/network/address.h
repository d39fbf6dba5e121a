// Addresses: where a socket is bound, where it connects to, who sent a datagram.
#pragma once

#include <netinet/in.h>

#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"

// An address of any family: a plain value behind an interface. Thread: one at a time.
class i4_address : public i4_printable {
  public:
    // print(stream): the address as text, without its port.
    virtual std::unique_ptr<i4_address> copy() const = 0;
    virtual void set_port(u16 port) = 0;  // host order, as all ports here
    virtual u16 get_port() const = 0;
    virtual bool equals(const i4_address& other) const = 0;  // the address alone, not the port
    virtual u32 write_ip(i4_file* stream) const = 0;         // the four bytes; returns the bytes written
    // Looks up the host's name, which may take seconds, and prints it. False where there is none.
    virtual bool get_name(i4_file* stream) const = 0;
    virtual ~i4_address() = default;
};

// An IPv4 address and a port. A plain value. Thread: one at a time.
class i4_tcpip_address : public i4_address {
  public:
    i4_tcpip_address();  // 0.0.0.0, port 0
    explicit i4_tcpip_address(const sockaddr_in& address);

    void print(i4_file* stream) override;
    std::unique_ptr<i4_address> copy() const override;
    void set_port(u16 port) override;
    u16 get_port() const override;
    bool equals(const i4_address& other) const override;
    u32 write_ip(i4_file* stream) const override;
    bool get_name(i4_file* stream) const override;

    sockaddr_in address;  // family AF_INET, port and address in network order
    i4_string name;       // null, except in an address that a proxy resolves
};

// The four octets as the u32 that they are in memory, so that write_32 puts the first octet first on any
// little-endian stream.
u32 ipOfAddress(const i4_address& address);
// The same as dotted text.
void addressToString(const i4_address& address, i4_string& out);
