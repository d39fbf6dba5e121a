// pref.met: two sections, one after the other, all numbers little-endian.
//
//   bytes  field
//   4      client ID, 0 if it is 0xFFFFFF or less         the user's own record
//   2      door port, 0 if the client ID is that small
//   16     user hash
//   ...    u32 count and that many tags
//   ...    u32 count and that many tags                   the settings, by key
//
// Tags stand in the order in which they were first added, and keep their place; keys that aren't ours stay.
#include "core/Preferences.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/StringTable.h"
#include "core/UIInterface.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "i4min/network/proxy.h"
#include "meta/Meta.h"
#include "meta/MetaTag.h"
#include "meta/UserMeta.h"
#include "protocol/version.h"

namespace {

constexpr std::size_t longestName = 64;
constexpr u32 largestFile = 16 * 1024 * 1024;
constexpr i32 defaultDoorPort = 4662;
constexpr i32 defaultAdminDoorPort = 4663;
constexpr f32 defaultSpeed = 5.0F;  // KB/s
constexpr const char* defaultStringFile = "default.str";

void take(const Meta& settings, const char* key, Relaxed<i32>& field) {
    if (const u32* value = settings.getValue<u32>(key)) field = static_cast<i32>(*value);
}

// In KB/s; what can't be a speed counts as no limit.
f32 asLimit(f32 value) { return std::isfinite(value) && value > 0 ? value : 0; }

f32 takeLimit(const Meta& settings, const char* key) { return asLimit(settings.getFloat(key)); }

// Estimates stand in thousandths.
f32 takeEstimate(const Meta& settings, const char* key) {
    const u32 value = settings.getInt(key);
    return value == 0 ? defaultSpeed : static_cast<f32>(value) / 1000;
}

bool isPort(i32 value) { return value > 0 && value <= 0xFFFF; }

i4_string takeText(const Meta& settings, const char* key) {
    return i4_string(orEmpty(settings.getText(key)));
}

// What is unset is saved as an empty text.
i4_string takeOptionalText(const Meta& settings, const char* key) {
    const i4_string text = takeText(settings, key);
    return text.length() > 0 ? text : i4_string(nullptr);
}

void store(Meta& settings, const char* key, i32 value) { settings.setInt(key, static_cast<u32>(value)); }

void store(Meta& settings, const char* key, f32 value) { settings.setTag(key, value); }

void store(Meta& settings, const char* key, const i4_string& value) {
    settings.setText(key, value.isNull() ? "" : value.c_str());
}

// Thousandths, cut. A stored number that stands for this very speed stays: a float holds no thousandths of a
// fast line, and what is saved mustn't drift from run to run.
void storeEstimate(Meta& settings, const char* key, f32 speed) {
    constexpr f32 most = 2'147'483'520.0F;  // the largest float that an i32 holds
    if (settings.getInt(key) != 0 && takeEstimate(settings, key) == speed) return;
    store(settings, key, static_cast<i32>(std::clamp(asLimit(speed) * 1000, 0.0F, most)));
}

}  // namespace

void Preferences::makeDirectory(const char* path) {
    if (disk_.makeDirectory(path)) return;
    const int error = errno;
    i4_file_status status;
    if (disk_.status(path, status) && status.kind == i4_file_kind::directory) return;
    log_.printLine("Couldn't create directory %s: %s", path, std::strerror(error));
}

i4_string Preferences::randomName() {
    i4_string name("     ");
    for (std::size_t i = 0; i < name.length(); ++i) name[i] = static_cast<char>('a' + random_.below(25));
    return name;
}

struct Preferences::Texts {
    i4_string incoming;
    i4_string temp;
    i4_string userName;
    i4_string password;
    i4_string adminName;
    i4_string adminPass;
    i4_string stringFile = defaultStringFile;
    i4_proxy_settings proxy;
};

Preferences::Preferences(Host& host, UIInterface& log, StringTable& strings, const char* directory)
    : workDir(directory),
      disk_(host.disk),
      random_(host.random),
      log_(log),
      strings_(strings),
      files_(host.disk, log),
      settings_(std::make_unique<Meta>()),
      self_(std::make_unique<UserMeta>()),
      texts_(std::make_unique<Texts>()) {}

Preferences::~Preferences() = default;

void Preferences::load() {
    makePaths();
    i4_string link;
    const bool isThere = disk_.exists(prefPath.c_str()) || disk_.readLink(prefPath.c_str(), link);
    if (!isThere || !readFile()) {
        if (isThere) files_.setAside(prefPath.c_str());
        makeFirstRun();
    }
    strings_.reload(disk_, inWorkDir(stringFile().c_str()).c_str());
}

void Preferences::makePaths() {
    knownPath = inWorkDir("known.met");
    serverPath = inWorkDir("server.met");
    partsPath = inWorkDir("parts.met");
    friendPath = inWorkDir("friend.met");
    sharePath = inWorkDir("share.dat");
    prefPath = inWorkDir("pref.met");
    filterPath = inWorkDir("filters.txt");
}

// Without a known working directory, names stay relative to it.
i4_string Preferences::inWorkDir(const char* name) const {
    if (workDir.length() == 0) return i4_string(name);
    i4_string path;
    path.format("%s%c%s", workDir.c_str(), pathSeparator, name);
    return path;
}

// The file is taken into memory whole, so that its size bounds whatever its counts and lengths promise.
bool Preferences::readFile() {
    const std::unique_ptr<i4_file> file = disk_.open(prefPath.c_str(), I4_FILE_READ);
    if (!file) return false;
    const u32 size = file->bytesLeft().value_or(0);
    if (size == 0 || size > largestFile) return false;
    std::vector<u8> bytes(size);
    try {
        file->readAll(bytes.data(), size);
    } catch (const i4_err&) {
        return false;
    }
    i4_ram_file_class stream(bytes.data(), size, 0);
    stream.setLog(&log_);
    return fromDisk(stream);
}

bool Preferences::fromDisk(i4_file& stream) {
    Texts texts;
    {
        i4_lock guard(selfLock);
        try {
            if (!self_->fromDisk(stream) || !settings_->fromDisk(stream)) return false;
        } catch (const i4_err&) {
            return false;
        }
        if (!self_->getName() || self_->hash.isZero()) return false;
        takeNumbers();
        texts = readTexts();
    }
    takeTexts(texts);
    return true;
}

Preferences::Texts Preferences::readTexts() const {
    const Meta& tags = *settings_;
    Texts texts;
    texts.incoming = takeText(tags, "incoming");
    texts.temp = takeText(tags, "temp");
    texts.userName = takeText(tags, "userName");
    texts.password = takeText(tags, "password");
    texts.adminName = takeText(tags, "adminName");
    texts.adminPass = takeText(tags, "adminPass");
    texts.stringFile = takeText(tags, "lang");
    texts.proxy.pType = static_cast<i32>(tags.getInt("pType"));
    if (texts.proxy.pType != 0) {
        texts.proxy.server = takeText(tags, "pSName");
        texts.proxy.port = static_cast<i32>(tags.getInt("pPort"));
        texts.proxy.user = takeOptionalText(tags, "pUName");
        texts.proxy.password = takeOptionalText(tags, "pUPass");
    }
    return texts;
}

void Preferences::takeNumbers() {
    self_->setInt(TAG_VERSION, protocolVersion);
    userMaxUpF = takeLimit(*settings_, "userMaxUpF");
    userMaxDownF = takeLimit(*settings_, "userMaxDownF");
    setMaxUp(userMaxUpF);
    setMaxDown(userMaxDownF);
    lineDown = takeLimit(*settings_, "lineDown");
    maxUpSpeed = takeEstimate(*settings_, "maxUpSpeed");
    maxDownSpeed = takeEstimate(*settings_, "maxDownSpeed");
    // maxNumUp and pSize are saved, and never read back.
    take(*settings_, "maxDown", maxDown);
    take(*settings_, "maxCon", maxCon);
    take(*settings_, "adminDoorPort", adminDoorPort);
    if (!isPort(adminDoorPort)) adminDoorPort = defaultAdminDoorPort;
    take(*settings_, "ipOver", ipOver);
    take(*settings_, "pmAllow", pmAllow);
    take(*settings_, "auto", autoConnect);
    take(*settings_, "saveCor", saveCor);
    take(*settings_, "trayCheck", trayCheck);
    take(*settings_, "verifyCancel", verifyCancel);
    take(*settings_, "servRemove", servRemove);
    const i32 port = static_cast<i32>(self_->getInt(TAG_PORT));
    doorPort = isPort(port) ? port : defaultDoorPort;
    self_->port = static_cast<u16>(doorPort);
}

// A directory that is missing or empty takes its default: an empty path would mean the root.
void Preferences::takeTexts(const Texts& texts) {
    i4_lock guard(pathLock);
    *texts_ = texts;
    if (texts_->incoming.length() == 0) texts_->incoming = inWorkDir("incoming");
    if (texts_->temp.length() == 0) texts_->temp = inWorkDir("temp");
    if (texts_->stringFile.length() == 0) texts_->stringFile = defaultStringFile;
}

void Preferences::makeFirstRun() {
    takeTexts(Texts());
    const Texts texts = copyTexts();
    i4_lock guard(selfLock);
    const UserMeta nobody;
    self_->copyFrom(&nobody);
    self_->port = static_cast<u16>(doorPort);
    random_.fill(self_->hash.bytes.data(), self_->hash.bytes.size());
    self_->setName(randomName().c_str());
    self_->setInt(TAG_VERSION, protocolVersion);
    store(*settings_, "incoming", texts.incoming);
    store(*settings_, "temp", texts.temp);
    store(*settings_, "pSize", pSize);
    store(*settings_, "maxNumUp", maxNumUp);
    store(*settings_, "maxDown", maxDown);
    store(*settings_, "adminName", texts.adminName);
    store(*settings_, "adminPass", texts.adminPass);
}

bool Preferences::save() {
    return files_.save(prefPath.c_str(), [this](i4_file& file) { return toDisk(file); });
}

bool Preferences::toDisk(i4_file& stream) {
    const Texts texts = copyTexts();
    i4_lock guard(selfLock);
    storeTags(texts);
    return self_->toDisk(stream) && settings_->toDisk(stream);
}

Preferences::Texts Preferences::copyTexts() const {
    i4_lock guard(pathLock);
    return *texts_;
}

void Preferences::storeTags(const Texts& texts) {
    Meta& tags = *settings_;
    store(tags, "pmAllow", pmAllow);
    store(tags, "pSize", pSize);
    store(tags, "maxNumUp", maxNumUp);
    store(tags, "userMaxUpF", userMaxUpF);
    store(tags, "userMaxDownF", userMaxDownF);
    store(tags, "maxDown", maxDown);
    store(tags, "maxCon", maxCon);
    store(tags, "incoming", texts.incoming);
    store(tags, "temp", texts.temp);
    store(tags, "adminName", texts.adminName);
    store(tags, "adminPass", texts.adminPass);
    store(tags, "auto", autoConnect);
    store(tags, "saveCor", saveCor);
    store(tags, "verifyCancel", verifyCancel);
    store(tags, "trayCheck", trayCheck);
    store(tags, "servRemove", servRemove);
    store(tags, "userName", texts.userName);
    store(tags, "password", texts.password);
    store(tags, "ipOver", ipOver);
    store(tags, "lang", texts.stringFile);
    store(tags, "lineDown", lineDown);
    store(tags, "adminDoorPort", adminDoorPort);
    storeEstimate(tags, "maxUpSpeed", maxUpSpeed);
    storeEstimate(tags, "maxDownSpeed", maxDownSpeed);
    self_->setInt(TAG_PORT, static_cast<u32>(doorPort.get()));
    store(tags, "pType", texts.proxy.pType);
    store(tags, "pSName", texts.proxy.server);
    store(tags, "pUName", texts.proxy.user);
    store(tags, "pUPass", texts.proxy.password);
    store(tags, "pPort", texts.proxy.port);
}

u32 Preferences::clientId() const {
    i4_lock guard(selfLock);
    return self_->id;
}

void Preferences::setClientId(u32 id) {
    {
        i4_lock guard(selfLock);
        if (self_->id == id) return;
        self_->id = id;
    }
    if (onClientIdChanged) onClientIdChanged();
}

u32 Preferences::serverIp() const {
    i4_lock guard(selfLock);
    return self_->serverIp;
}

u16 Preferences::serverPort() const {
    i4_lock guard(selfLock);
    return self_->serverPort;
}

void Preferences::setServer(u32 ip, u16 port) {
    i4_lock guard(selfLock);
    self_->serverIp = ip;
    self_->serverPort = port;
}

u32 Preferences::selfByteSize() const {
    i4_lock guard(selfLock);
    return self_->byteSize();
}

bool Preferences::writeSelf(i4_file& stream) const {
    i4_lock guard(selfLock);
    return self_->toNetwork(stream);
}

void Preferences::copySelf(UserMeta& out) const {
    i4_lock guard(selfLock);
    out.copyFrom(self_.get());
}

void Preferences::setName(const char* name) {
    const i4_string text(name, std::min(i4_strlen(name), longestName));
    i4_lock guard(selfLock);
    self_->setName(text.c_str());
}

i4_string Preferences::getName() const {
    i4_lock guard(selfLock);
    return i4_string(self_->getName());
}

void Preferences::setDoorPort(u16 port) {
    i4_lock guard(selfLock);
    self_->port = port;
    doorPort = port;
}

i4_string Preferences::incomingDir() const {
    i4_lock guard(pathLock);
    return texts_->incoming;
}

i4_string Preferences::tempDir() const {
    i4_lock guard(pathLock);
    return texts_->temp;
}

void Preferences::setIncoming(const char* path) {
    {
        i4_lock guard(pathLock);
        texts_->incoming = path;
    }
    makeDirectory(path);
}

void Preferences::setTemp(const char* path) {
    {
        i4_lock guard(pathLock);
        if (texts_->temp == path) return;
    }
    if (hasDownloads && hasDownloads()) {
        log_.printLine("%s", strings_.get(STRINGS_CANT_CHANGE_TEMP));
        return;
    }
    {
        i4_lock guard(pathLock);
        texts_->temp = path;
    }
    makeDirectory(path);
}

i4_string Preferences::adminName() const {
    i4_lock guard(pathLock);
    return texts_->adminName;
}

i4_string Preferences::adminPass() const {
    i4_lock guard(pathLock);
    return texts_->adminPass;
}

void Preferences::setAdmin(const char* name, const char* password) {
    i4_lock guard(pathLock);
    texts_->adminName = name;
    texts_->adminPass = password;
}

void Preferences::setMaxUp(f32 wish) {
    const f32 limit = asLimit(wish);
    const f32 down = userMaxDownF;
    if (limit != 0 && down != 0) {
        if (limit < 5 && down > 3 * limit) {
            userMaxDownF = 3 * limit;
        } else if (limit < 10 && down > 4 * limit) {
            userMaxDownF = 4 * limit;
        }
    }
    userMaxUpF = limit;
}

void Preferences::setMaxDown(f32 wish) {
    const f32 limit = asLimit(wish);
    const f32 up = userMaxUpF;
    const bool tooMuch = limit == 0 || limit > 4 * up;
    if (up != 0 && up < 5 && tooMuch) {
        userMaxDownF = 3 * up;
    } else if (up != 0 && up < 10 && tooMuch) {
        userMaxDownF = 4 * up;
    } else {
        userMaxDownF = limit;
    }
}

void Preferences::setLanguage(const char* name) {
    i4_string file;
    file.format("%s.str", name);
    {
        i4_lock guard(pathLock);
        texts_->stringFile = file;
    }
    strings_.reload(disk_, inWorkDir(file.c_str()).c_str());
    strings_.nameTags();
}

i4_string Preferences::stringFile() const {
    i4_lock guard(pathLock);
    return texts_->stringFile;
}

i4_proxy_settings Preferences::proxy() const {
    i4_lock guard(pathLock);
    return texts_->proxy;
}

void Preferences::setProxy(const i4_proxy_settings& settings) {
    i4_lock guard(pathLock);
    texts_->proxy = settings;
}
