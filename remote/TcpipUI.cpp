#include "remote/TcpipUI.h"

#include <cstdio>
#include <string>

#include "engine/Engine.h"
#include "i4min/network/socket.h"
#include "meta/UserMeta.h"
#include "peer/Upload.h"
#include "peer/UploadSlot.h"
#include "protocol/ControllerProtocol.h"
#include "remote/GUIController.h"
#include "remote/GUIControllerDoor.h"

namespace {

constexpr i32 doorTimeout = 10'000;  // ms
constexpr std::size_t textSize = 256;
constexpr std::size_t longestWireName = 0xFFFE;  // longest string on the wire
constexpr u32 mostStrangers = 32;

// Names from the network may be longer than a wire string.
void writeName(i4_file& stream, const char* name) {
    if (i4_strlen(name) <= longestWireName) return i4_write_string(stream, name);
    i4_write_string(stream, std::string(name, longestWireName).c_str());
}

// A text cut to at most 255 bytes, but never inside a UTF-8 character. A plain value.
struct ShortText {
    char bytes[textSize];

    ShortText(const char* format, va_list list) {
        bytes[0] = 0;
        const int length = std::vsnprintf(bytes, textSize, format, list);
        if (length >= static_cast<int>(textSize)) cutInsideCharacter();
    }

  private:
    u8 at(std::size_t place) const { return static_cast<u8>(bytes[place]); }

    // Removes a UTF-8 sequence whose end was cut off.
    void cutInsideCharacter() {
        const std::size_t end = textSize - 1;
        std::size_t lead = end - 1;
        while (lead > end - 4 && (at(lead) & 0xC0) == 0x80) --lead;
        const std::size_t wanted = at(lead) >= 0xF0 ? 4 : at(lead) >= 0xE0 ? 3 : at(lead) >= 0xC0 ? 2 : 1;
        if (at(lead) >= 0xC0 && lead + wanted > end) bytes[lead] = 0;
    }
};

}  // namespace

bool GUIControllerDoor::canAccept() { return ui_.strangers < mostStrangers; }

Ref<Connection> GUIControllerDoor::newConnection(std::unique_ptr<i4_socket> accepted) {
    return makeRef<GUIController>(pool(), ui_, std::move(accepted));
}

TcpipUI::TcpipUI(Engine& engine, Commands& commands, CoreUIInterface& inner)
    : engine_(engine),
      commands_(commands),
      door_(makeRef<GUIControllerDoor>(engine.clientApp.socketPool,
                                       static_cast<u16>(engine.preferences.adminDoorPort.get()), *this)),
      inner_(inner) {
    door_->listen(doorTimeout);
}

TcpipUI::~TcpipUI() = default;

bool TcpipUI::attach(GUIController& controller) {
    i4_lock guard(lock_);
    if (controller_) return false;
    controller_ = Ref<GUIController>(&controller);
    return true;
}

void TcpipUI::detach(const GUIController& controller) {
    Ref<GUIController> old;
    i4_lock guard(lock_);
    if (controller_.get() == &controller) std::swap(old, controller_);
}

Ref<GUIController> TcpipUI::controller() {
    i4_lock guard(lock_);
    return controller_;
}

std::shared_ptr<FileMeta> TcpipUI::findResult(const MD4Hash& hash) {
    const i4_guard guard(results_);
    const FileMeta* file = results_.findUnsafe(hash);
    return file ? copyOf(*file) : nullptr;
}

bool TcpipUI::sendText(u8 opcode, const char* text) {
    const Ref<GUIController> to = controller();
    if (!to) return false;
    auto packet = makePacket(opcode, 2);
    writeName(packet->stream, text);
    packet->finish();
    to->send(std::move(packet));
    return true;
}

bool TcpipUI::sendEmpty(u8 opcode) { return sendWords(opcode, {}); }

bool TcpipUI::sendWords(u8 opcode, std::initializer_list<u32> words) {
    const Ref<GUIController> to = controller();
    if (!to) return false;
    auto packet = makePacket(opcode, static_cast<u32>(4 * words.size()));
    for (const u32 word : words) packet->stream.write_32(word);
    to->send(std::move(packet));
    return true;
}

bool TcpipUI::sendList(u8 opcode, const MetaList& list) {
    const Ref<GUIController> to = controller();
    if (!to) return false;
    to->send(makePacket(opcode, list));
    return true;
}

// Lines go to both, other text to the controller only. Text that isn't meant for controllers stays local.
void TcpipUI::say(Text kind, const char* format, va_list list) {
    const ShortText text(format, list);
    switch (kind) {
        case Text::line:
            sendText(CTL_PRINT_LINE, text.bytes);
            return inner_.printLine("%s", text.bytes);
        case Text::plain:
            if (!sendText(CTL_PRINT, text.bytes)) inner_.print("%s", text.bytes);
            return;
        case Text::verbose:
            return inner_.printVerbose("%s", text.bytes);
        case Text::flush:
            return inner_.printFlush("%s", text.bytes);
    }
}

void TcpipUI::connected(const char* name) {
    if (!sendText(CTL_CONNECTED, name)) inner_.connected(name);
}

void TcpipUI::disconnected() {
    if (!sendEmpty(CTL_DISCONNECTED)) inner_.disconnected();
}

void TcpipUI::serverStats(u32 files, u32 users) {
    if (!sendWords(CTL_SERVER_STATS, {files, users})) inner_.serverStats(files, users);
}

void TcpipUI::extending(const char* name) {
    if (!sendText(CTL_EXTENDING, name)) inner_.extending(name);
}

void TcpipUI::addResult(std::unique_ptr<FileMeta> file) {
    const Ref<GUIController> to = controller();
    if (!to) return inner_.addResult(std::move(file));
    if (results_.isFull()) return;
    auto packet = makePacket(CTL_RESULT, *file);
    results_.add(file.release());  // before the controller can ask for it
    to->send(std::move(packet));
}

void TcpipUI::setResults(FileList* list, u8 more) {
    const Ref<GUIController> to = controller();
    if (!to) return inner_.setResults(list, more);
    const std::unique_ptr<FileList> owned(list);
    auto packet = makePacket(CTL_RESULTS, list->byteSize() + 1);
    packet->put(*list);
    packet->stream.write_8(more);
    packet->finish();
    results_.replaceBy(*list);
    to->send(std::move(packet));
}

void TcpipUI::downloadAdded(Download* download) {
    inner_.downloadAdded(download);  // first: a controller that attaches in between finds it in the list
    if (const Ref<GUIController> to = controller()) to->sendDownload(*download);
}

// Removed from the list first: a controller that attaches in between must not find it there.
void TcpipUI::downloadRemoved(Download* download) {
    inner_.downloadRemoved(download);
    if (const Ref<GUIController> to = controller()) {
        const Ref<PartialFile> partial = download->partialRef();
        const MD4Hash hash = partial ? partial->getHash() : MD4Hash();
        auto packet = makePacket(CTL_DOWNLOAD_REMOVED, MD4Hash::streamSize);
        hash.write(packet->stream);
        to->send(std::move(packet));
    }
}

void TcpipUI::uploadAdded(Upload* upload) {
    inner_.uploadAdded(upload);
    if (const Ref<GUIController> to = controller()) to->sendUpload(*upload);
}

void TcpipUI::uploadRemoved(Upload* upload) {
    inner_.uploadRemoved(upload);
    if (const Ref<GUIController> to = controller()) to->sendUploadGone(*upload);
}

void TcpipUI::slotAdded(UploadSlot* slot, const char* name) {
    const Ref<GUIController> to = controller();
    if (!to) return inner_.slotAdded(slot, name);
    auto packet = makePacket(CTL_SLOT_ADDED, 6);
    packet->stream.write_32(slot->identity());
    writeName(packet->stream, name);
    packet->finish();
    to->send(std::move(packet));
}

void TcpipUI::slotRemoved(UploadSlot* slot) {
    if (!sendWords(CTL_SLOT_REMOVED, {slot->identity()})) inner_.slotRemoved(slot);
}

void TcpipUI::hashing(const char* name) {
    if (!sendText(CTL_HASHING, name)) inner_.hashing(name);
}

void TcpipUI::friendsChanged() {
    if (!sendEmpty(CTL_FRIENDS)) inner_.friendsChanged();
}

void TcpipUI::friendFiles() {
    if (!sendList(CTL_FRIEND_FILES, engine_.friendList.getFiles())) inner_.friendFiles();
}

LLsafe<Upload>* TcpipUI::getUploads() { return inner_.getUploads(); }
LLsafe<Download>* TcpipUI::getDownloads() { return inner_.getDownloads(); }
