// Handlers, which message of a protocol goes to which function of its receiver.
#pragma once

#include <cstddef>
#include <type_traits>

#include "i4min/file/file.h"
#include "protocol/OpcodeTable.h"

// A row of a receiver's table. `handle` gets the body behind the opcode; false, or an i4_err such as of a
// read past its end, drops the connection.
template <class Receiver>
struct Handler {
    u8 opcode;
    bool (*handle)(Receiver& receiver, i4_ram_file_class& body);
};

// A member function as a handler: with the body or without, and one that returns nothing is true.
template <class Receiver, auto member>
bool handleBy(Receiver& receiver, i4_ram_file_class& body) {
    if constexpr (std::is_invocable_r_v<bool, decltype(member), Receiver&, i4_ram_file_class&>) {
        return (receiver.*member)(body);
    } else if constexpr (std::is_invocable_v<decltype(member), Receiver&, i4_ram_file_class&>) {
        (receiver.*member)(body);
        return true;
    } else if constexpr (std::is_invocable_r_v<bool, decltype(member), Receiver&>) {
        return (receiver.*member)();
    } else {
        (receiver.*member)();
        return true;
    }
}

// Null where nobody handles it.
template <class Receiver, std::size_t N>
const Handler<Receiver>* findHandler(const Handler<Receiver> (&rows)[N], u8 opcode) {
    for (const Handler<Receiver>& row : rows) {
        if (row.opcode == opcode) return &row;
    }
    return nullptr;
}

// Whether each message that comes in by that direction has one handler; for static_assert.
template <class Receiver, std::size_t N>
constexpr bool handlesAll(const OpcodeTable& messages, Direction direction,
                          const Handler<Receiver> (&rows)[N]) {
    for (const Opcode& message : messages) {
        if ((static_cast<u8>(message.direction) & static_cast<u8>(direction)) == 0) continue;
        std::size_t handlers = 0;
        for (const Handler<Receiver>& row : rows) handlers += row.opcode == message.number ? 1 : 0;
        if (handlers != 1) return false;
    }
    return true;
}
