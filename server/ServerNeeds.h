// What the servers' room needs from outside, and whom it tells.
#pragma once

#include "core/Core.h"
#include "meta/MD4Hash.h"
#include "transport/Transport.h"

class FileList;
class FileMeta;
class UserList;
class UserMeta;

// The events of the connection to a server that a user interface shows. Thread: any.
class ServerUI {
  public:
    virtual void connected(const char* name) = 0;
    virtual void disconnected() = 0;
    virtual void serverStats(u32 files, u32 users) = 0;
    virtual void extending(const char* name) = 0;

  protected:
    ~ServerUI() = default;
};

// What a server's word means for the rest of the client. Thread: the socket pool's, but for serverGone():
// any.
class ServerEvents {
  public:
    virtual void loggedOn() = 0;    // it has given us an ID
    virtual void serverGone() = 0;  // what it was told is forgotten
    virtual bool wantsSources(const MD4Hash& file) = 0;
    virtual void foundSource(const MD4Hash& file, const UserMeta& user) = 0;
    virtual void callbackAsked(const UserMeta& user) = 0;  // a user whom we shall call
    virtual void callbackFailed(u32 serverIp, u32 clientId) = 0;
    // Ownership passes, of lists with their records.
    virtual void gotResult(std::unique_ptr<FileMeta> file) = 0;
    virtual void gotResults(FileList* list, bool more) = 0;
    virtual void gotUserList(UserList* list) = 0;

  protected:
    ~ServerEvents() = default;
};

// Outlives the room.
struct ServerNeeds {
    Core& core;
    Transport& transport;
    ServerUI& ui;
    ServerEvents& events;
};
