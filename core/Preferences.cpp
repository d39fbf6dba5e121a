// pref.met: two sections, one after the other, all numbers little-endian.
//
//   bytes  field
//   4      client ID, 0 if it is 0xFFFFFF or less         the user's own record
//   2      door port, 0 if the client ID is that small
//   16     user hash
//   ...    u32 count and that many tags
//   ...    u32 count and that many tags                   the settings, by key
//
// New tags are added at the end; existing ones keep their place. Unknown keys are kept.
#include "core/Preferences.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <variant>
#include <vector>

#include "core/Settings.h"
#include "core/StringTable.h"
#include "core/UIInterface.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "meta/Meta.h"
#include "meta/MetaTag.h"
#include "meta/UserMeta.h"
#include "protocol/version.h"

namespace {

constexpr std::size_t longestUserName = 64;
constexpr u32 largestFile = 16 * 1024 * 1024;

// In KB/s; a value that can't be a speed means no limit.
f32 asLimit(f32 value) { return setting::speed.allows(value) ? value : 0; }

// Calls `use` with the row's field, unless the row has a function instead.
template <class P, class T, class Use>
void withField(const Setting& row, P& preferences, T& texts, Use use) {
    const auto visit = [&](auto field) {
        if constexpr (requires { preferences.*field; }) {
            use(preferences.*field);
        } else if constexpr (requires { texts.*field; }) {
            use(texts.*field);
        }
    };
    std::visit(visit, row.field);
}

SettingValue valueIn(const Setting& row, const Preferences& preferences, const SettingTexts& texts) {
    SettingValue value;
    withField(row, preferences, texts, [&](const auto& field) { value = SettingValue(field); });
    return value;
}

void assign(const Setting& row, const SettingValue& value, Preferences& preferences, SettingTexts& texts) {
    withField(row, preferences, texts, [&](auto& field) { field = value; });
}

f32 fromThousandths(f64 value) { return static_cast<f32>(value) / 1000; }

// Returns the stored number if it stands for the same speed: a float can't hold thousandths of a high speed,
// and the saved value must not drift from run to run.
u32 toThousandths(f32 speed, const u32* stored) {
    constexpr f32 most = 2'147'483'520.0F;  // the largest float that an i32 holds
    if (stored && *stored != 0 && fromThousandths(*stored) == speed) return *stored;
    return static_cast<u32>(std::clamp(asLimit(speed) * 1000, 0.0F, most));
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

Preferences::Preferences(Host& host, UIInterface& log, StringTable& strings, const char* directory)
    : workDir(directory),
      disk_(host.disk),
      random_(host.random),
      log_(log),
      strings_(strings),
      files_(host.disk, log),
      settings_(std::make_unique<Meta>()),
      self_(std::make_unique<UserMeta>()),
      texts_(std::make_unique<SettingTexts>()) {
    takeAll(Meta(), Meta(), *texts_);
}

Preferences::~Preferences() = default;

void Preferences::load() {
    i4_string link;
    const bool isThere = disk_.exists(prefPath.c_str()) || disk_.readLink(prefPath.c_str(), link);
    if (!isThere || !readFile()) {
        if (isThere) files_.setAside(prefPath.c_str());
        makeFirstRun();
    }
    strings_.reload(disk_, inWorkDir(stringFile().c_str()).c_str());
}

// Names stay relative if the working directory isn't known.
i4_string Preferences::inWorkDir(const char* name) const {
    if (workDir.length() == 0) return i4_string(name);
    i4_string path;
    path.format("%s/%s", workDir.c_str(), name);
    return path;
}

// Reads the whole file into memory, so that its size bounds every count and length in it.
bool Preferences::readFile() {
    const std::unique_ptr<i4_file> file = disk_.open(prefPath.c_str(), I4_FILE_READ);
    if (!file) return false;
    const u32 size = file->bytesLeft().value_or(0);
    if (size == 0 || size > largestFile) return false;
    std::vector<u8> bytes(size);
    try {
        file->readAll(bytes);
    } catch (const i4_err&) {
        return false;
    }
    i4_ram_file_class stream(bytes.data(), size, 0);
    stream.setLog(&log_);
    return fromDisk(stream);
}

bool Preferences::fromDisk(i4_file& stream) {
    SettingTexts texts;
    {
        i4_lock guard(selfLock);
        try {
            if (!self_->fromDisk(stream) || !settings_->fromDisk(stream)) return false;
        } catch (const i4_err&) {
            return false;
        }
        if (!self_->getName() || self_->hash.isZero()) return false;
        self_->setInt(TAG_VERSION, protocolVersion);
        takeAll(*self_, *settings_, texts);
        self_->port = static_cast<u16>(doorPort);
    }
    i4_lock guard(pathLock);
    *texts_ = texts;
    return true;
}

// An empty path would mean the root directory, so the preset applies.
SettingValue Preferences::stored(const Meta& tags, const Setting& row) const {
    const SettingForm& form = row.form;
    if (row.isText()) {
        const i4_string text(orEmpty(row.key ? tags.getText(row.key) : nullptr));
        if (text.length() > 0) return text;
        return form.isPath ? inWorkDir(row.preset) : i4_string(row.preset);
    }
    f64 value = std::strtod(row.preset, nullptr);
    std::optional<f64> kept;
    if (form.type == META_TAG_FLOAT) {
        if (const f32* tag = row.key ? tags.getValue<f32>(row.key) : nullptr) kept = *tag;
    } else if (const u32* tag = row.key ? tags.getValue<u32>(row.key) : nullptr) {
        kept = form.isThousandths ? static_cast<f64>(*tag) : static_cast<f64>(static_cast<i32>(*tag));
    }
    if (kept && form.allows(*kept)) value = *kept;
    return form.isThousandths ? fromThousandths(value) : value;
}

void Preferences::takeAll(const Meta& user, const Meta& tags, SettingTexts& texts) {
    for (const Setting& row : setting::table)
        assign(row, stored(row.isInUserRecord() ? user : tags, row), *this, texts);
    setMaxUp(userMaxUpF);
    setMaxDown(userMaxDownF);
    // Without a proxy type, the other proxy settings don't apply. Unset texts are saved as empty ones.
    if (texts.pType == I4_PROXY_NONE) static_cast<i4_proxy_settings&>(texts) = {};
    for (i4_string* text : {&texts.user, &texts.password})
        if (text->length() == 0) *text = nullptr;
}

void Preferences::makeFirstRun() {
    const SettingTexts texts = copyTexts();
    i4_lock guard(selfLock);
    const UserMeta nobody;
    self_->copyFrom(&nobody);
    self_->port = static_cast<u16>(doorPort);
    random_.fill(self_->hash.bytes);
    self_->setName(randomName().c_str());
    self_->setInt(TAG_VERSION, protocolVersion);
    for (u8 place = 1; const Setting* row = setting::at(place, &Setting::firstRun); ++place)
        store(*row, texts);
}

bool Preferences::save() {
    return files_.save(prefPath.c_str(), [this](i4_file& file) { return toDisk(file); });
}

bool Preferences::toDisk(i4_file& stream) {
    const SettingTexts texts = copyTexts();
    i4_lock guard(selfLock);
    for (const Setting& row : setting::table) store(row, texts);
    return self_->toDisk(stream) && settings_->toDisk(stream);
}

SettingTexts Preferences::copyTexts() const {
    i4_lock guard(pathLock);
    return *texts_;
}

void Preferences::store(const Setting& row, const SettingTexts& texts) {
    if (!row.key) return;
    Meta& tags = *settings_;
    const SettingValue value = valueIn(row, *this, texts);
    const f32 speed = value;
    if (row.isInUserRecord()) {
        self_->setInt(static_cast<TagIndex>(row.key[0]), static_cast<u32>(i32{value}));
    } else if (row.isText()) {
        tags.setText(row.key, value);
    } else if (row.form.type == META_TAG_FLOAT) {
        tags.setTag(row.key, speed);
    } else if (row.form.isThousandths) {
        tags.setInt(row.key, toThousandths(speed, tags.getValue<u32>(row.key)));
    } else {
        tags.setInt(row.key, static_cast<u32>(i32{value}));
    }
}

SettingValue Preferences::value(const Setting& row) const {
    if (const auto* tell = std::get_if<Setting::Teller>(&row.field)) return (*tell)(*this);
    return valueIn(row, *this, copyTexts());
}

void Preferences::set(const Setting& row, const SettingValue& value) {
    if (row.command.set) return row.command.set(*this, value);
    i4_lock guard(pathLock);
    assign(row, value, *this, *texts_);
}

bool Preferences::isVerbose() const { return log_.isVerbose(); }
void Preferences::setVerbose(i32 verbose) { log_.setVerbose(verbose != 0); }

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
    const i4_string text(name, std::min(i4_strlen(name), longestUserName));
    i4_lock guard(selfLock);
    self_->setName(text.c_str());
}

i4_string Preferences::getName() const {
    i4_lock guard(selfLock);
    return i4_string(self_->getName());
}

void Preferences::setDoorPort(i32 port) {
    i4_lock guard(selfLock);
    self_->port = static_cast<u16>(port);
    doorPort = port;
}

i4_string Preferences::incomingDir() const { return copyTexts().incoming; }
i4_string Preferences::tempDir() const { return copyTexts().temp; }
i4_string Preferences::adminName() const { return copyTexts().adminName; }
i4_string Preferences::adminPass() const { return copyTexts().adminPass; }
i4_string Preferences::stringFile() const { return copyTexts().stringFile; }
i4_proxy_settings Preferences::proxy() const { return copyTexts(); }

void Preferences::setText(i4_string SettingTexts::*field, const char* text) {
    i4_lock guard(pathLock);
    (*texts_).*field = text;
}

void Preferences::setIncoming(const char* path) {
    setText(&SettingTexts::incoming, path);
    makeDirectory(path);
}

void Preferences::setTemp(const char* path) {
    if (tempDir() == path) return;
    if (hasDownloads && hasDownloads()) {
        log_.printLine("%s", strings_.get(STRINGS_CANT_CHANGE_TEMP));
        return;
    }
    setText(&SettingTexts::temp, path);
    makeDirectory(path);
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
    setText(&SettingTexts::stringFile, file.c_str());
    strings_.reload(disk_, inWorkDir(file.c_str()).c_str());
    strings_.nameTags();
}

void Preferences::setProxy(const i4_proxy_settings& settings) {
    i4_lock guard(pathLock);
    static_cast<i4_proxy_settings&>(*texts_) = settings;
}
