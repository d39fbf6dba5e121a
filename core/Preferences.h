// Preferences: all settings, the names of all files, and the client's own user record.
#pragma once

#include <functional>
#include <memory>

#include "core/LineSpeeds.h"
#include "core/StateFiles.h"
#include "host/Host.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"

class i4_file;
class Meta;
class StringTable;
class UserMeta;
struct Setting;
struct SettingTexts;
struct SettingValue;
struct i4_proxy_settings;

// The settings of the process, read from pref.met at start and written back by save(). A first run makes an
// identity of its own: user hash and name.
// Thread: any. Single words are shared as they stand; texts that commands change are guarded by pathLock and
// handed out as copies; the user record and the tags of pref.met are guarded by selfLock. The paths are
// constant.
class Preferences : public LineSpeeds {
  public:
    // All files lie in `directory`; for an empty one their names stay relative.
    Preferences(Host& host, UIInterface& log, StringTable& strings, const char* directory);
    ~Preferences();
    Preferences(const Preferences&) = delete;
    Preferences& operator=(const Preferences&) = delete;

    // Once, at start. A pref.met that is missing means a first run; one that is damaged, or has no name or
    // user hash in it, is named in one line, set aside as pref.met.bad, and means a first run too. Fills
    // the string table.
    void load() EXCLUDES(selfLock, pathLock);
    // A failure is told in one line; the old file then stays. True when the new one is in place.
    bool save() EXCLUDES(selfLock, pathLock);
    // The same on a stream, in the form of pref.met. fromDisk is false where the bytes are no whole file with
    // a name and a user hash: the tags that were read then stay, and no setting takes a value.
    bool fromDisk(i4_file& stream) EXCLUDES(selfLock, pathLock);
    bool toDisk(i4_file& stream) EXCLUDES(selfLock, pathLock);

    // Any row of the table in Settings.h. What has a rule of its own is set by it.
    SettingValue value(const Setting& row) const EXCLUDES(selfLock, pathLock);
    void set(const Setting& row, const SettingValue& value) EXCLUDES(selfLock, pathLock);

    // The client's own record.
    u32 clientId() const EXCLUDES(selfLock);
    // A changed ID goes on to onClientIdChanged.
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
    void setDoorPort(i32 port) EXCLUDES(selfLock);

    i4_string incomingDir() const EXCLUDES(pathLock);
    i4_string tempDir() const EXCLUDES(pathLock);
    // Both create the directory; one that can't be had is told in a line, and set all the same.
    void setIncoming(const char* path) EXCLUDES(pathLock);
    // Refused with a message while hasDownloads; nothing where it is the present one.
    void setTemp(const char* path) EXCLUDES(pathLock);

    i4_string adminName() const EXCLUDES(pathLock);
    i4_string adminPass() const EXCLUDES(pathLock);
    void setAdmin(const char* name, const char* password) EXCLUDES(pathLock);

    // Limits in KB/s, 0 for none, as is anything below. The download limit is kept in proportion to a small
    // upload limit: where it would pass four times the upload limit, it becomes three times one below 5, and
    // four times one below 10.
    void setMaxUp(f32 wish);
    void setMaxDown(f32 wish);

    // Makes NAME.str of the working directory the language file, and renames the common tags.
    void setLanguage(const char* name) EXCLUDES(pathLock);
    i4_string stringFile() const EXCLUDES(pathLock);  // its name, such as fr.str

    // The proxy that pref.met holds; type 0 for none.
    i4_proxy_settings proxy() const EXCLUDES(pathLock);
    // Stored by the next save(); takes effect at the next start.
    void setProxy(const i4_proxy_settings& settings) EXCLUDES(pathLock);

    // Of the log, for this run.
    bool isVerbose() const;
    void setVerbose(i32 verbose);

    // What the engine above has to do with a setting; the engine sets both before any thread of it runs. They
    // are called without a lock held. Empty where there is no engine.
    std::function<void()> onClientIdChanged;
    std::function<bool()> hasDownloads;

    static constexpr char pathSeparator = '/';
    // File names, in the working directory.
    const i4_string workDir;
    const i4_string knownPath = inWorkDir("known.met");
    const i4_string serverPath = inWorkDir("server.met");
    const i4_string partsPath = inWorkDir("parts.met");
    const i4_string friendPath = inWorkDir("friend.met");
    const i4_string sharePath = inWorkDir("share.dat");
    const i4_string prefPath = inWorkDir("pref.met");
    const i4_string filterPath = inWorkDir("filters.txt");

    // Where Settings.h keeps its numbers, and one that isn't in it.
    Relaxed<f32> lineDown;  // KB/s, as the user told
    Relaxed<i32> maxCon;
    Relaxed<i32> workerCount{1};
    Relaxed<i32> pSize;         // most bytes that one request to a source covers
    Relaxed<i32> pmAllow;       // who may open a call: 0 all, 1 users with a call, 2 those and friends
    Relaxed<i32> verifyCancel;  // for controllers
    Relaxed<i32> saveCor;       // keep a completed download whose hash failed
    Relaxed<i32> autoConnect;   // the setting `auto`: connect to a server by itself
    Relaxed<i32> servRemove;
    Relaxed<i32> doorPort, adminDoorPort;
    Relaxed<i32> maxDown, maxNumUp, ipOver, trayCheck;  // kept for other front ends

  private:
    void makeDirectory(const char* path);
    i4_string randomName();
    bool readFile() EXCLUDES(selfLock, pathLock);
    void makeFirstRun() EXCLUDES(selfLock, pathLock);
    SettingValue stored(const Meta& tags, const Setting& row) const;
    void takeAll(const Meta& user, const Meta& tags, SettingTexts& texts);
    void setText(i4_string SettingTexts::*field, const char* text) EXCLUDES(pathLock);
    SettingTexts copyTexts() const EXCLUDES(pathLock);
    void store(const Setting& row, const SettingTexts& texts) REQUIRES(selfLock);
    i4_string inWorkDir(const char* name) const;

    Disk& disk_;
    Random& random_;
    UIInterface& log_;
    StringTable& strings_;
    StateFiles files_;
    // Neither is taken while the other is held.
    mutable i4_mutex pathLock{LockRank::preferences};
    mutable i4_mutex selfLock{LockRank::preferences};
    const std::unique_ptr<Meta> settings_ PT_GUARDED_BY(selfLock);
    const std::unique_ptr<UserMeta> self_ PT_GUARDED_BY(selfLock);
    const std::unique_ptr<SettingTexts> texts_ PT_GUARDED_BY(pathLock);
};
