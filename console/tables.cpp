// Printing of records as tables, for the views of results, files and servers.
#include <string>

#include "console/Servant.h"
#include "core/StringTable.h"
#include "core/UIInterface.h"
#include "meta/Meta.h"
#include "meta/MetaList.h"

namespace {

constexpr std::size_t rowSize = 255;  // characters of a header or a row

// Cuts a line at the limit, but never inside a UTF-8 character.
std::string cut(std::string line) {
    if (line.size() <= rowSize) return line;
    constexpr std::size_t mostFollowing = 3;  // the most continuation bytes of a character
    std::size_t end = rowSize;
    while (end > rowSize - mostFollowing && (static_cast<unsigned char>(line[end]) & 0xC0) == 0x80) --end;
    line.resize(end);
    return line;
}

}  // namespace

void Servant::printHeader(const Meta* record, Keys& keys) {
    if (!record) return;
    std::string line;
    for (const auto& tag : record->getTags()) {
        const char* name = strings_->nameOf(*tag);
        if (!name || !tag->name()) continue;
        // Each column takes at least one character of a row.
        if (keys.size() > rowSize) break;
        keys.emplace_back(tag->name());
        line += name;
        line += '\t';
    }
    log_->printLine("%s", cut(std::move(line)).c_str());
}

void Servant::printRow(const Meta* record, const Keys& keys, u32 index) {
    if (!record) return;
    std::string line = "(" + std::to_string(index + 1) + ") ";
    for (const std::string& key : keys) {
        if (line.size() > rowSize) break;
        char value[256] = "";  // stays as it is for what has no text
        line += record->printable(key.c_str(), value, sizeof value) ? value : "";
        line += '\t';
    }
    log_->printLine("%s", cut(std::move(line)).c_str());
}

void Servant::printList(MetaList* list) {
    if (!list) return;
    const i4_guard guard(*list);
    Keys keys;
    u32 index = 0;
    for (MetaList::Cursor c; const Meta* record = list->next(c); ++index) {
        if (index == 0) printHeader(record, keys);
        printRow(record, keys, index);
    }
    if (index == 0) log_->printLine("None.");
}
