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

// The settings of one client, read from pref.met at start and written back by save(). A first run generates a
// user hash and a name.
// Thread: any. Numbers are atomic. Texts that commands change are guarded by pathLock and returned as copies;
// the user record and the tags of pref.met are guarded by selfLock. The file paths are constant.
// Owns: the records and texts. Errors: printed in one line.
class Preferences : public LineSpeeds {
  public:
    // All files are in `directory`; if it is empty, their names stay relative.
    Preferences(Host& host, UIInterface& log, StringTable& strings, const char* directory);
    ~Preferences();
    Preferences(const Preferences&) = delete;
    Preferences& operator=(const Preferences&) = delete;

    // Call it once, at start. A missing pref.met means a first run. A damaged one, or one without name or
    // user hash, is reported in one line, renamed to pref.met.bad, and treated as a first run. Also fills the
    // string table.
    void load() EXCLUDES(selfLock, pathLock);
    // Returns true if the new file is in place. A failure is printed in one line and keeps the old file.
    bool save() EXCLUDES(selfLock, pathLock);
    // Read and write the format of pref.met. fromDisk returns false if the bytes aren't a complete file with
    // a name and a user hash; it then keeps the tags that it read, but changes no setting.
    bool fromDisk(i4_file& stream) EXCLUDES(selfLock, pathLock);
    bool toDisk(i4_file& stream) EXCLUDES(selfLock, pathLock);

    // Gets or sets any row of the table in Settings.h, through the row's own function if it has one.
    SettingValue value(const Setting& row) const EXCLUDES(selfLock, pathLock);
    void set(const Setting& row, const SettingValue& value) EXCLUDES(selfLock, pathLock);

    // The client's own record.
    u32 clientId() const EXCLUDES(selfLock);
    // Calls onClientIdChanged if the ID changes.
    void setClientId(u32 id) EXCLUDES(selfLock);
    u32 serverIp() const EXCLUDES(selfLock);
    u16 serverPort() const EXCLUDES(selfLock);
    void setServer(u32 ip, u16 port) EXCLUDES(selfLock);  // the server that assigned the current client ID
    u32 selfByteSize() const EXCLUDES(selfLock);
    bool writeSelf(i4_file& stream) const EXCLUDES(selfLock);  // the network form
    void copySelf(UserMeta& out) const EXCLUDES(selfLock);
    void setName(const char* name) EXCLUDES(selfLock);  // cut to 64 characters
    i4_string getName() const EXCLUDES(selfLock);
    // The listener keeps its port until the next start.
    void setDoorPort(i32 port) EXCLUDES(selfLock);

    i4_string incomingDir() const EXCLUDES(pathLock);
    i4_string tempDir() const EXCLUDES(pathLock);
    // Both create the directory. A failure is printed, but the setting changes all the same.
    void setIncoming(const char* path) EXCLUDES(pathLock);
    // Does nothing if it is the current one. Refuses with a message while hasDownloads returns true.
    void setTemp(const char* path) EXCLUDES(pathLock);

    i4_string adminName() const EXCLUDES(pathLock);
    i4_string adminPass() const EXCLUDES(pathLock);
    void setAdmin(const char* name, const char* password) EXCLUDES(pathLock);

    // Sets a limit in KB/s; 0 or less means none. A small upload limit bounds the download limit: it is reset
    // to three times an upload limit below 5, or to four times one below 10, if it is too high for it.
    void setMaxUp(f32 wish);
    void setMaxDown(f32 wish);

    // Sets NAME.str in the working directory as the language file, and renames the common tags.
    void setLanguage(const char* name) EXCLUDES(pathLock);
    i4_string stringFile() const EXCLUDES(pathLock);  // the file's name, such as fr.str

    // The proxy stored in pref.met; type 0 for none.
    i4_proxy_settings proxy() const EXCLUDES(pathLock);
    // Stored by the next save(); takes effect at the next start.
    void setProxy(const i4_proxy_settings& settings) EXCLUDES(pathLock);

    // Verbose mode of the log, for this run only.
    bool isVerbose() const;
    void setVerbose(i32 verbose);

    // Set by the engine before its threads start; empty without an engine. They are called without a lock
    // held.
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

    // The numbers of the table in Settings.h, and workerCount, which isn't in it.
    Relaxed<f32> lineDown;  // KB/s, as entered by the user
    Relaxed<i32> maxCon;
    Relaxed<i32> workerCount{1};
    Relaxed<i32> pSize;         // most bytes that one request to a source may cover
    Relaxed<i32> pmAllow;       // who may open a call: 0 all, 1 users with a call, 2 those and friends
    Relaxed<i32> verifyCancel;  // for controllers
    Relaxed<i32> saveCor;       // keep a completed download whose hash failed
    Relaxed<i32> autoConnect;   // the setting `auto`: connect to a server automatically
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
