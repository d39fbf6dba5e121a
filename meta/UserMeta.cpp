#include "meta/UserMeta.h"

#include "i4min/memory/error.h"

bool UserMeta::toNetwork(i4_file& file) const {
    return hash.write(file) && file.write_32(id) == 4 && file.write_16(port) == 2 && Meta::toNetwork(file);
}

bool UserMeta::fromNetwork(i4_file& file) {
    return i4_attempt([&] {
        hash = MD4Hash::read(file);
        id = file.read_32();
        port = file.read_16();
        return Meta::fromNetwork(file);
    });
}

bool UserMeta::toDisk(i4_file& file) {
    const bool lasting = !isLowId(id);
    return file.write_32(lasting ? id : 0) == 4 && file.write_16(lasting ? port : u16{0}) == 2 &&
           hash.write(file) && Meta::toDisk(file);
}

bool UserMeta::fromDisk(i4_file& file) {
    return i4_attempt([&] {
        id = file.read_32();
        port = file.read_16();
        hash = MD4Hash::read(file);
        return Meta::fromDisk(file);
    });
}

void UserMeta::copyFrom(const Meta* other) {
    if (other == this) return;
    Meta::copyFrom(other);
    if (const auto* user = dynamic_cast<const UserMeta*>(other)) {
        id = user->id;
        serverIp = user->serverIp;
        port = user->port;
        serverPort = user->serverPort;
        hash = user->hash;
    }
}

bool UserMeta::sameUser(const UserMeta* other) const {
    if (!other) return false;
    if (!isLowId(id) && id == other->id) return true;
    if (id == other->id && serverIp == other->serverIp) return true;
    return !hash.isZero() && hash == other->hash;
}
