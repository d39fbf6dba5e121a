// The hex examples of docs/*.md, decoded by the code that they document, and the tables of messages there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "core/Preferences.h"
#include "core/Settings.h"
#include "download/Collection.h"
#include "download/PartialList.h"
#include "download/ShareList.h"
#include "i4min/file/file.h"
#include "meta/FileList.h"
#include "meta/ServerList.h"
#include "meta/UserList.h"
#include "meta/address.h"
#include "protocol/ControllerProtocol.h"
#include "protocol/PeerProtocol.h"
#include "protocol/ServerProtocol.h"
#include "server/Search.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/bytes.h"
#include "transport/Packet.h"

namespace {

using namespace std::string_literals;

// The decoder of each kind of example: returns true if the bytes have the meaning given on the page and
// nothing is left over. A page may have several examples of one kind.
using Decoder = std::function<bool(std::span<const std::uint8_t>)>;

bool readsAsSettings(std::span<const std::uint8_t> bytes) {
    BytesFile stream(bytes);
    OwnEngine own;
    Preferences& settings = own.engine.preferences;
    return settings.fromDisk(stream) && stream.bytesLeft() == 0u && settings.getName() == "kit" &&
           settings.doorPort == 4662 && settings.maxCon == 300 && settings.lineDown == 50.0F;
}

bool readsAsCollection(std::span<const std::uint8_t> bytes) {
    BytesFile stream(bytes);
    OwnEngine own;
    Collection collection(own.engine.core);
    return collection.read(stream) && stream.bytesLeft() == 0u && collection.self.getName() == "Set"s &&
           collection.self.getText(TAG_TYPE) == "Col"s && collection.count() == 1 &&
           collection.get(0)->getName() == "a.txt"s && collection.get(0)->getSize() == 0;
}

bool readsAsTag(std::span<const std::uint8_t> bytes) {
    BytesFile file(bytes);
    const auto tag = MetaTag::readTag(file);
    if (!tag || file.bytesLeft() != 0u) return false;
    const u32 value = tag->getInt();
    return tag->id() == TAG_SIZE ? value == 1000 : tag->isNamed("users") && value == 5;
}

// Reads a list of one record and checks it with `holds`.
template <class List, class Holds>
Decoder listOfOne(Holds holds) {
    return [holds](std::span<const std::uint8_t> bytes) {
        BytesFile file(bytes);
        List list;
        const bool good =
            list.fromDisk(file) && file.bytesLeft() == 0u && list.count() == 1 && holds(*list.get(0));
        list.deleteAll();
        return good;
    };
}

bool readsAsDirectories(std::span<const std::uint8_t> bytes) {
    BytesFile file(bytes);
    std::vector<i4_string> paths;
    return ShareList::readPaths(file, paths) && paths == std::vector<i4_string>{"/a", "/bc"};
}

// Decodes the body of a protocol example, after checking the framing.
Decoder packet(u8 opcode, std::function<bool(i4_file&)> body) {
    return [=](std::span<const std::uint8_t> bytes) {
        BytesFile file(bytes);
        return file.read_8() == Packet::marker && file.read_32() == bytes.size() - Packet::headerSize &&
               file.read_8() == opcode && body(file) && file.bytesLeft() == 0u;
    };
}

bool readsAsUser(i4_file& file) {
    UserMeta user;
    return user.fromNetwork(file) && user.id == 0 && user.port == 4662 && user.hash.bytes[15] == 15 &&
           user.getName() == "abcde"s && user.getInt(TAG_VERSION) == 59;
}

bool readsAsResults(i4_file& file) {
    FileList list;
    const bool good = list.fromNetwork(file) && list.count() == 1 && list.get(0)->getName() == "a"s &&
                      list.get(0)->getInt(TAG_AVAILABILITY) == 2 && file.read_8() == 0;
    list.deleteAll();
    return good;
}

bool readsAsFileStatus(i4_file& file) {
    MD4Hash hash;
    BoolArray parts(0);
    file.readAll(hash.bytes);
    parts.read(file);
    return hash.bytes[15] == 15 && parts.toText() == "101";
}

bool readsAsTree(std::span<const std::uint8_t> bytes) {
    BytesFile file(bytes);
    Search search;
    if (!search.fromBytes(file) || file.bytesLeft() != 0u) return false;
    FileMeta record;
    record.setName("a film");
    const bool without = search.matches(record);
    record.setText(TAG_TYPE, "Audio");
    return search.matches(record) && !without;
}

bool readsAsPartMeta(std::span<const std::uint8_t> bytes) {
    BytesFile file(bytes);
    FileMeta record;
    return PartialList::readMeta(file, record) == PartialList::MetaFile::whole && file.bytesLeft() == 0u &&
           record.getName() == "a"s && record.getSize() == 1000 && record.getInt(TAG_PART_TRANS) == 100 &&
           record.getText(TAG_TEMPFILENAME) == "7.part"s && record.getInt(TAG_PRIORITY) == 1 &&
           record.getInt("\t0") == 100 && record.getInt("\n0") == 1000;
}

const std::map<std::string, Decoder> decoders = {
    {"tree", readsAsTree},
    {"log-on", packet(1, readsAsUser)},
    {"hello", packet(1,
                     [](i4_file& file) {
                         return file.read_8() == 16 && readsAsUser(file) && file.read_32() == 0 &&
                                file.read_16() == 0;
                     })},
    {"controller", packet(100, [](i4_file& file) { return file.read_16() == 0 && file.read_16() == 0; })},
    {"results", packet(51, readsAsResults)},
    {"ping answer",
     [](std::span<const std::uint8_t> bytes) {
         BytesFile file(bytes);
         return file.read_8() == Packet::marker && file.read_8() == 151 && file.read_32() == 10'000 &&
                file.read_32() == 5 && file.read_32() == 42 && file.bytesLeft() == 0u;
     }},
    {"file status", packet(80, readsAsFileStatus)},
    {"download status", packet(197,
                               [](i4_file& file) {
                                   return file.read_16() == 1 && file.read_16() == 0 && file.read_8() == 2 &&
                                          file.read_float() == 50.0F && file.read_32() == 1'048'576 &&
                                          file.read_8() == 100 && file.read_8() == 3;
                               })},
    {"part.met", readsAsPartMeta},
    {"pref.met", readsAsSettings},
    {"collection", readsAsCollection},
    {"share.dat", readsAsDirectories},
    {"tag", readsAsTag},
    {"server.met", listOfOne<ServerList>([](const ServerMeta& server) {
         return ipToString(server.ip) == "1.2.3.4" && server.port == 4661;
     })},
    {"known.met", listOfOne<FileList>([](const FileMeta& file) {
         return file.matches(0, 1007496960, "empty") && file.partHashes.empty() &&
                file.hash.toText() == "31d6cfe0d16ae931b73c59d7e0c089c0";
     })},
    {"friend.met", listOfOne<UserList>([](const UserMeta& user) {
         return user.id == 0 && user.port == 0 && user.hash.bytes[0] == 0x6e &&
                std::string(user.getName()) == "kit";
     })},
};

// The bytes of an example: a fenced block with the language `hex NAME`. Its lines are pairs of hexadecimal
// digits separated by blanks; text after a `;` is a remark.
struct HexExample {
    std::string name;
    int line;  // the line of the opening fence, from 1
    std::vector<std::uint8_t> bytes;
};

// Reads the hex examples of a page. Fails the test for an unclosed block and for anything that isn't a byte.
std::vector<HexExample> readHexExamples(const std::filesystem::path& path) {
    std::vector<HexExample> examples;
    std::ifstream page(path);
    bool open = false;
    int line = 0;
    for (std::string text; std::getline(page, text);) {
        ++line;
        if (!open) {
            if (text.rfind("```hex", 0) != 0) continue;
            examples.push_back({text.substr(std::min<std::size_t>(7, text.size())), line, {}});
            open = true;
        } else if (text == "```") {
            open = false;
        } else {
            text.resize(std::min(text.find(';'), text.size()));
            std::erase(text, ' ');
            EXPECT_TRUE(text.size() % 2 == 0 && text.find_first_not_of("0123456789abcdefABCDEF") == text.npos)
                << path << ":" << line;
            for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
                const auto byte = std::strtoul(text.substr(at, 2).c_str(), nullptr, 16);
                examples.back().bytes.push_back(static_cast<std::uint8_t>(byte));
            }
        }
    }
    EXPECT_FALSE(open) << path;
    return examples;
}

TEST(FormatPages, EveryHexExampleDecodesAndEveryDecoderHasAnExample) {
    std::set<std::string> unused;
    for (const auto& [name, decoder] : decoders) unused.insert(name);
    const std::filesystem::path docs = std::filesystem::path(TARNWICK_SOURCE_DIR) / "docs";
    ASSERT_TRUE(std::filesystem::is_directory(docs));
    for (const auto& entry : std::filesystem::directory_iterator(docs)) {
        if (entry.path().extension() != ".md") continue;
        for (const HexExample& example : readHexExamples(entry.path())) {
            SCOPED_TRACE(entry.path().filename().string() + ":" + std::to_string(example.line));
            const auto decoder = decoders.find(example.name);
            ASSERT_NE(decoder, decoders.end()) << "no decoder is called " << example.name;
            unused.erase(example.name);
            EXPECT_TRUE(decoder->second(example.bytes)) << "the example doesn't decode";
        }
    }
    EXPECT_THAT(unused, testing::IsEmpty()) << "decoders of examples that no page has";
}

// The messages in a section of docs/protocol.md: opcode, name if there is one, and body, one line each.
std::set<std::string> messagesOnPage(const std::string& section) {
    std::ifstream page(std::string(TARNWICK_SOURCE_DIR) + "/docs/protocol.md");
    std::set<std::string> messages;
    bool within = false;
    std::size_t bodyColumn = 0;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind("## ", 0) == 0) within = line == "## " + section;
        if (!within || line.rfind("| ", 0) != 0) continue;
        std::vector<std::string> cells;
        std::istringstream row(line.substr(2));
        for (std::string cell; std::getline(row, cell, '|');)
            cells.push_back(cell.substr(cell[0] == ' ' ? 1 : 0));
        for (std::string& cell : cells) cell.erase(cell.find_last_not_of(' ') + 1);
        if (cells[0] == "Opcode" || cells[0] == "Bytes") {
            bodyColumn =
                static_cast<std::size_t>(std::find(cells.begin(), cells.end(), "Body") - cells.begin());
        }
        if (cells[0].find_first_not_of("0123456789, ") != std::string::npos || bodyColumn >= cells.size())
            continue;
        const std::string name = bodyColumn > 1 ? cells[bodyColumn - 1] + ": " : "";
        std::istringstream opcodes(cells[0]);
        for (int number = 0; opcodes >> number; opcodes.ignore())
            messages.insert(std::to_string(number) + " " + name + cells[bodyColumn]);
    }
    return messages;
}

std::set<std::string> messagesOf(const OpcodeTable& table, bool named) {
    std::set<std::string> messages;
    for (const Opcode& row : table)
        messages.insert(std::to_string(row.number) + " " + (named ? row.name + ": "s : ""s) + row.body);
    return messages;
}

TEST(FormatPages, TheMessagesAreThoseOfTheTables) {
    using testing::ContainerEq;
    EXPECT_THAT(messagesOnPage("Client and index server"), ContainerEq(messagesOf(serverMessages, true)));
    EXPECT_THAT(messagesOnPage("Datagrams between client and index servers"),
                ContainerEq(messagesOf(serverDatagrams, true)));
    EXPECT_THAT(messagesOnPage("Client and client"), ContainerEq(messagesOf(peerMessages, true)));
    EXPECT_THAT(messagesOnPage("Controller and client"), ContainerEq(messagesOf(controllerMessages, false)));
}

std::vector<std::string> wordsOf(const std::string& cell) {
    std::vector<std::string> words;
    std::istringstream list(cell);
    for (std::string word; std::getline(list, word, ',');) {
        word.erase(0, word.find_first_not_of(" `"));
        words.push_back(word.substr(0, word.find_last_not_of(" `") + 1));
    }
    return words;
}

// The settings in docs/formats.md: key, type and default. A row may list several keys, with one type and
// default for all or one for each.
std::set<std::string> settingsOnPage() {
    std::ifstream page(TARNWICK_SOURCE_DIR "/docs/formats.md");
    std::set<std::string> settings;
    std::string line;
    while (std::getline(page, line) && line.rfind("| Key | Type |", 0) != 0) continue;
    std::getline(page, line);
    while (std::getline(page, line) && line.rfind("| ", 0) == 0) {
        std::istringstream row(line.substr(1));
        std::string keys, types, defaults;
        std::getline(std::getline(std::getline(row, keys, '|'), types, '|'), defaults, '|');
        const auto key = wordsOf(keys), type = wordsOf(types), preset = wordsOf(defaults);
        for (std::size_t i = 0; i < key.size(); ++i) {
            settings.insert(key[i] + ", " + type.at(type.size() == 1 ? 0 : i) + ", " +
                            preset.at(preset.size() == 1 ? 0 : i));
        }
    }
    return settings;
}

TEST(FormatPages, TheSettingsAreThoseOfTheTable) {
    std::set<std::string> inTable;
    for (const Setting& row : setting::table) {
        if (!row.key || row.isInUserRecord()) continue;
        const char* type = row.isText() ? "text" : row.form.type == META_TAG_FLOAT ? "float" : "integer";
        const std::string preset = (row.form.isPath ? "./"s : ""s) + row.preset;
        inTable.insert(row.key + ", "s + type + ", " + (preset.empty() ? "empty" : preset));
    }
    EXPECT_THAT(settingsOnPage(), testing::ContainerEq(inTable));

    // The labels of `vo` on docs/console.md.
    std::ifstream page(TARNWICK_SOURCE_DIR "/docs/console.md");
    std::string line;
    while (std::getline(page, line) && line.rfind("`vo` shows one", 0) != 0) continue;
    while (std::getline(page, line) && line != "```") continue;
    std::vector<std::string> shown, labels;
    while (std::getline(page, line) && line != "```") shown.push_back(line.substr(0, line.find(':')));
    for (u8 place = 1; const Setting* row = setting::at(place, &Setting::view); ++place)
        labels.emplace_back(row->view.label);
    EXPECT_THAT(shown, testing::ContainerEq(labels));
}

}  // namespace
