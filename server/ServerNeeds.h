// The interfaces that the `server` module calls.
#pragma once

#include "core/Core.h"
#include "meta/MD4Hash.h"
#include "transport/Transport.h"

class FileList;
class FileMeta;
class UserList;
class UserMeta;

// Events of the server connection that the user interface shows. CoreUIInterface implements it.
// Thread: any. Callers keep ownership of what they pass.
class ServerUI {
  public:
    virtual void connected(const char* name) = 0;
    virtual void disconnected() = 0;
    virtual void serverStats(u32 files, u32 users) = 0;
    virtual void extending(const char* name) = 0;

  protected:
    ~ServerUI() = default;
};

// Events of the server connection that other modules act on. Engine implements it.
// Thread: the socket pool's; serverGone() may be called on any.
class ServerEvents {
  public:
    virtual void loggedOn() = 0;    // the server has assigned us a client ID
    virtual void serverGone() = 0;  // what we published there is forgotten
    virtual bool wantsSources(const MD4Hash& file) = 0;
    virtual void foundSource(const MD4Hash& file, const UserMeta& user) = 0;
    virtual void callbackAsked(const UserMeta& user) = 0;  // the server asks us to call this user
    virtual void callbackFailed(u32 serverIp, u32 clientId) = 0;
    // Ownership passes, of lists with their records.
    virtual void gotResult(std::unique_ptr<FileMeta> file) = 0;
    virtual void gotResults(FileList* list, bool more) = 0;
    virtual void gotUserList(UserList* list) = 0;

  protected:
    ~ServerEvents() = default;
};

// References to what the module uses.
// Thread: any. Must outlive every object of the module.
struct ServerNeeds {
    Core& core;
    Transport& transport;
    ServerUI& ui;
    ServerEvents& events;
};
