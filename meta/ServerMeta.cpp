#include "meta/ServerMeta.h"

#include "i4min/memory/error.h"
#include "meta/address.h"

bool ServerMeta::toNetwork(i4_file& file) const {
    const u8 unused[16] = {};
    return file.writeAll(unused) && file.write_32(ip) == 4 && file.write_16(static_cast<u16>(port)) == 2 &&
           Meta::toNetwork(file);
}

bool ServerMeta::fromNetwork(i4_file& file) {
    return i4_attempt([&] {
        u8 unused[16];
        file.readAll(unused);
        ip = file.read_32();
        port = file.read_16();
        if (!Meta::fromNetwork(file)) return false;
        forgetMeasurements();
        return true;
    });
}

bool ServerMeta::toDisk(i4_file& file) {
    setInt(TAG_HISTORY, history);
    return file.write_32(ip) == 4 && file.write_16(static_cast<u16>(port)) == 2 && Meta::toDisk(file);
}

bool ServerMeta::fromDisk(i4_file& file) {
    return i4_attempt([&] {
        ip = file.read_32();
        port = file.read_16();
        if (!Meta::fromDisk(file)) return false;
        forgetMeasurements();
        return true;
    });
}

void ServerMeta::copyFrom(const Meta* other) {
    if (other == this) return;
    Meta::copyFrom(other);
    if (const auto* server = dynamic_cast<const ServerMeta*>(other)) {
        ping = server->ping;
        history = server->history;
        pref = server->pref;
        rating = server->rating;
        ip = server->ip;
        port = server->port;
        idleTime = server->idleTime;
    }
}

bool ServerMeta::setAddress(const char* text, u32 tcpPort) {
    port = tcpPort;
    ip = stringToIp(text);
    return ip != 0;
}

bool ServerMeta::sameServer(const ServerMeta* other) const {
    return other && ip != 0 && ip == other->ip && port == other->port;
}

void ServerMeta::setPing(i32 value) {
    if (value != 0) {
        history = 0;
        setInt(TAG_HISTORY, 0);
    }
    ping = value;
    rate();
    setInt(TAG_PING, static_cast<u32>(value));
}

void ServerMeta::setPref(u32 value) {
    pref = value;
    setInt(TAG_PREF, value);
    rate();
}

void ServerMeta::setCounts(u32 users, u32 files) {
    setInt("users", users);
    setInt("files", files);
}

const char* ServerMeta::getName(i4_string& out) const {
    const char* name = getText(TAG_NAME);
    if (name) {
        out = name;
    } else {
        ipToString(ip, out);
    }
    return out.c_str();
}

// One that answered ranks above all that didn't; then `pref` counts, then the shorter round trip.
void ServerMeta::rate() {
    if (ping < 2) {
        rating = 0;
        return;
    }
    const u32 base = pref == 0 ? 2000000 : pref == 2 ? 1000000 : pref * 3000000;
    rating = base + 100000 - static_cast<u32>(ping);
}

void ServerMeta::forgetMeasurements() {
    pref = getInt(TAG_PREF);
    history = getInt(TAG_HISTORY);
    setInt(TAG_PING, 0);
    setCounts(0, 0);
    rate();
}
