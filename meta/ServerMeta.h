// ServerMeta, what is said about an index server.
#pragma once

#include "meta/Meta.h"

// A record of a server. Thread, ownership and errors: see Meta. Tags: TAG_NAME, TAG_DESCRIPTION, TAG_PING,
// TAG_HISTORY, TAG_PREF, and the ints "users" and "files". After reading, what an earlier run measured is
// forgotten: TAG_PING, "users" and "files" are 0.
//
//     bytes  disk form                 bytes  network form
//     4      ip, u32                   16     0, and dropped by readers
//     2      port, u16                 4      ip, u32
//     ...    the record, see Meta      2      port, u16
//                                      ...    the record, see Meta
class ServerMeta : public Meta {
  public:
    [[nodiscard]] bool toNetwork(i4_file& file) const override;
    [[nodiscard]] bool fromNetwork(i4_file& file) override;
    [[nodiscard]] bool toDisk(i4_file& file) override;  // TAG_HISTORY takes `history` first
    [[nodiscard]] bool fromDisk(i4_file& file) override;
    u32 byteSize() const override { return Meta::byteSize() + 22; }
    void copyFrom(const Meta* other) override;  // the tags, and of another ServerMeta every field

    bool setAddress(const char* text, u32 tcpPort);  // dotted; true if `ip` isn't 0 then
    bool sameServer(const ServerMeta* other) const;  // false for null, and while this ip is 0
    void setPing(i32 value);                         // a value other than 0 ends the history of silence
    void setPref(u32 value);
    void setCounts(u32 users, u32 files);
    u32 getUsers() const { return getInt("users"); }
    u32 getFiles() const { return getInt("files"); }
    const char* getDescription() const { return getText(TAG_DESCRIPTION); }
    void setDescription(const char* text) { setText(TAG_DESCRIPTION, text); }
    const char* getName(i4_string& out) const;  // TAG_NAME, else the dotted ip; the text of `out`
    void setName(const char* text) { setText(TAG_NAME, text); }

    i32 ping = 1;      // last round trip, ms; below 2 is no answer
    u32 history = 0;   // pings since the last answer
    u32 pref = 0;      // 0 normal, 1 high, 2 low
    u32 rating = 0;    // larger is better; follows from pref and ping
    u32 ip = 0;        // see address.h
    u32 port = 0;      // TCP
    u32 idleTime = 0;  // ms since the last ping went out; in no stream

  private:
    void rate();
    void forgetMeasurements();
};
