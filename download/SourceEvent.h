// What the network says about a download's sources.
#pragma once

#include <variant>

#include "i4min/memory/types.h"

class BoolArray;
class i4_ram_file_class;

struct PeerConnected {};  // it has said who it is
struct PeerGone {};
struct SlotGranted {};
struct SlotEnded {};
struct NoSuchFile {};
struct GotFileStatus {
    const BoolArray& parts;  // that it has, one flag a part
};
struct GotFileName {
    const char* name;
};
struct GotData {
    i4_ram_file_class& packet;  // u32 start, u32 end, the bytes
};

// From one peer. Those that bear on one file are passed to its download only.
using PeerEvent = std::variant<PeerConnected, PeerGone, SlotGranted, SlotEnded, NoSuchFile, GotFileStatus,
                               GotFileName, GotData>;

// A way to a user that has failed: by a server's word, or by an address.
struct CallbackFailed {
    u32 serverIp;
    u32 clientId;
};
struct ConnectFailed {
    u32 ip;
    u16 port;
};
using ReachEvent = std::variant<CallbackFailed, ConnectFailed>;
