// Preferences: all settings, the names of all files, and the client's own user record.
#pragma once

#include <memory>

#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"

class i4_file;
class Meta;
class UserMeta;
struct i4_proxy_settings;

// The settings of the process, read from pref.met at start and written back by save(). A first run makes an
// identity of its own: user hash and name.
// Thread: any. Single words are shared as they stand; texts that commands change are guarded by pathLock and
// handed out as copies; the user record is guarded by selfLock. The paths are constant after load().
class Preferences {
  public:
    Preferences();
    ~Preferences();
    Preferences(const Preferences&) = delete;
    Preferences& operator=(const Preferences&) = delete;

    // Once, at start. A pref.met that is missing means a first run; one that is damaged is set aside and
    // means one too. Fills the string table.
    void load();
    void save();

    // The client's own record.
    u32 clientId() const EXCLUDES(selfLock);
    // A changed ID empties the record of remote queues and tells every download.
    void setClientId(u32 id) EXCLUDES(selfLock);
    u32 serverIp() const EXCLUDES(selfLock);
    u16 serverPort() const EXCLUDES(selfLock);
    void setServer(u32 ip, u16 port) EXCLUDES(selfLock);  // the server that gave the present client ID
    u32 selfByteSize() const EXCLUDES(selfLock);
    bool writeSelf(i4_file& stream) const EXCLUDES(selfLock);  // the network form
    void copySelf(UserMeta& out) const EXCLUDES(selfLock);
    void setName(const char* name) EXCLUDES(selfLock);  // cut to 64 characters
    i4_string getName() const EXCLUDES(selfLock);
    // The listener keeps its port until the next start.
    void setDoorPort(u16 port) EXCLUDES(selfLock);

    i4_string incomingDir() const EXCLUDES(pathLock);
    i4_string tempDir() const EXCLUDES(pathLock);
    void setIncoming(const char* path) EXCLUDES(pathLock);  // and creates the directory
    // Refused with a message while there are downloads; nothing where it is the present one.
    void setTemp(const char* path) EXCLUDES(pathLock);

    i4_string adminName() const EXCLUDES(pathLock);
    i4_string adminPass() const EXCLUDES(pathLock);
    void setAdmin(const char* name, const char* password) EXCLUDES(pathLock);

    // Limits in KB/s, 0 for none. The download limit is kept in proportion to a small upload limit: at most
    // three times an upload limit below 5, four times one below 10.
    void setMaxUp(f32 limit);
    void setMaxDown(f32 limit);

    // Makes NAME.str of the working directory the language file, and renames the common tags.
    void setLanguage(const char* name);

    // The proxy that pref.met holds; type 0 for none. Owned here.
    const i4_proxy_settings& proxy() const { return *proxy_; }
    // Stored by the next save(); takes effect at the next start.
    void setProxy(const i4_proxy_settings& settings);

    // File names, in the working directory; constant after load().
    i4_string workDir;
    i4_string knownPath;
    i4_string serverPath;
    i4_string partsPath;
    i4_string friendPath;
    i4_string sharePath;
    i4_string prefPath;
    i4_string filterPath;
    i4_string stringFile;  // changed by setLanguage on the thread of the command alone
    const char pathSeparator = '/';

    Relaxed<f32> maxUpSpeed{5.0F};    // KB/s, the estimate of what the line can carry
    Relaxed<f32> maxDownSpeed{5.0F};  // KB/s
    Relaxed<f32> curUpSpeed;          // KB/s, written by UploadPool
    Relaxed<f32> curDownSpeed;        // KB/s, written by DLPool
    Relaxed<f32> lineDown;            // KB/s, as the user told
    Relaxed<f32> userMaxUpF;          // KB/s, the user's limit, 0 for none
    Relaxed<f32> userMaxDownF;        // KB/s
    Relaxed<i32> maxDown{5};
    Relaxed<i32> maxNumUp{5};
    Relaxed<i32> maxCon{45};
    Relaxed<i32> workerCount{1};
    Relaxed<i32> pSize{184'320};  // most bytes that one request to a source covers
    Relaxed<i32> ipOver;
    Relaxed<i32> pmAllow;  // who may open a call: 0 all, 1 users with a call, 2 those and friends
    Relaxed<i32> trayCheck{1};
    Relaxed<i32> verifyCancel{1};
    Relaxed<i32> saveCor{1};   // keep a completed download whose hash failed
    Relaxed<i32> autoConnect;  // the setting `auto`: connect to a server by itself
    Relaxed<i32> servRemove{1};
    Relaxed<i32> doorPort{4662};
    Relaxed<i32> adminDoorPort{4663};

  private:
    mutable i4_mutex pathLock{LockRank::preferences};
    mutable i4_mutex selfLock{LockRank::preferences};
    std::unique_ptr<Meta> settings_;
    std::unique_ptr<UserMeta> self_ PT_GUARDED_BY(selfLock);
    std::unique_ptr<i4_proxy_settings> proxy_;
    i4_string incomingDir_ GUARDED_BY(pathLock);
    i4_string tempDir_ GUARDED_BY(pathLock);
    i4_string userName_;
    i4_string password_;
    i4_string adminName_ GUARDED_BY(pathLock);
    i4_string adminPass_ GUARDED_BY(pathLock);
};

extern Preferences preferences;
