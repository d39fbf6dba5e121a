// The commands for downloads.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "console/ConClientApp.h"
#include "console/commands.h"
#include "download/Collection.h"
#include "engine/Engine.h"

namespace {

// Copies the record at a position of the list, for a message to carry. Null if there is none.
std::shared_ptr<FileMeta> copyAt(FileList& list, std::optional<u16> place) {
    if (!place) return nullptr;
    const i4_guard guard(list);
    u16 index = 0;
    for (FileList::Cursor c; const FileMeta* file = list.next(c); ++index) {
        if (index == *place) return copyOf(*file);
    }
    return nullptr;
}

Ref<Download> downloadAt(LLsafe<Download>& downloads, u16 place) {
    const i4_guard guard(downloads);
    return Ref<Download>(downloads.getAtUnsafe(place));
}

}  // namespace

void downloadResult(ConClientApp& console, char* line) {
    if (auto file = copyAt(console.results, listPlace(numberArgument(line)))) {
        console.engine().messageQ.post(MESSAGE_DOWNLOAD, std::move(file));
    } else {
        console.log().printLine("Invalid Result number\n");
    }
}

// tnwk://|file|NAME|SIZE|HASH|; text before "|file|" is ignored.
void downloadLink(ConClientApp& console, char* line) {
    const char* fields = std::strstr(line, "|file|");
    if (!fields) return;
    char name[256];
    char sizeText[21];
    char hashText[256];
    errno = 0;
    const bool read =
        std::sscanf(fields, "|file|%255[^|]| %20[0-9]|%255[0-9a-fA-F]", name, sizeText, hashText) == 3;
    const unsigned long long size = read ? std::strtoull(sizeText, nullptr, 10) : 0;
    if (!read || errno != 0 || size > std::numeric_limits<u32>::max()) {
        console.log().printLine("This is not a valid tnwk-link. see help screen for format required.");
        return;
    }
    auto file = std::make_shared<FileMeta>();
    file->setName(name);
    file->setInt(TAG_SIZE, static_cast<u32>(size));
    if (!file->hash.fromText(hashText)) {
        console.log().printLine("Invalid hash in tnwk-link.");
        return;
    }
    console.engine().messageQ.post(MESSAGE_DOWNLOAD, std::move(file));
}

// Shows the members of a shared collection; they have the numbers that `p` takes.
void openCollection(ConClientApp& console, char* line) {
    const auto file = copyAt(console.engine().clientApp.shared, listPlace(numberArgument(line)));
    const auto collection = std::make_shared<Collection>(console.engine().core);
    if (!file || file->path.isNull() || !Collection::isOne(*file) ||
        collection->load(console.engine().host.disk, file->path.c_str()) != LoadResult::whole) {
        console.log().printLine("Invalid Collection number.\n");
        return;
    }
    console.selectCollection(collection);
    console.printList(collection.get());
}

void downloadPart(ConClientApp& console, char* line) {
    const std::shared_ptr<Collection> collection = console.selectedCollection();
    const std::optional<i32> number = numberArgument(line);
    if (!collection || !number) {
        console.log().printLine("No Collection selected.\n");
        return;
    }
    auto file = copyAt(*collection, listPlace(number));
    if (!file) {
        console.log().printLine("Invalid Part number.\n");
        return;
    }
    const i4_string name(file->getName());
    console.engine().messageQ.post(MESSAGE_DOWNLOAD, std::move(file));
    console.log().printLine("Downloading: %s\n", orEmpty(name));
}

void changeDownload(ConClientApp& console, char* line) {
    Tokens tokens = argumentsOf(line);
    const char* number = tokens.next();
    const char* option = tokens.next();
    if (!number || !option) return;
    const i32 counted = numberIn(number);
    if (counted == 0) {
        console.log().printLine("Invalid Download number.\n");
        return;
    }
    const std::optional<u16> place = listPlace(counted);
    const Ref<Download> download = place ? downloadAt(console.downloads, *place) : Ref<Download>();
    if (!download) return;
    switch (option[0]) {
        case 'c':
            console.engine().messageQ.post(MESSAGE_CANCEL, download);
            break;
        case 'p':
            console.engine().messageQ.post(MESSAGE_PAUSE, download);
            break;
        case 'r':
            console.engine().messageQ.post(MESSAGE_RESUME, download);
            break;
        case 'l':
            download->priority = 0;
            break;
        case 'n':
            download->priority = 1;
            break;
        case 'h':
            download->priority = 2;
            break;
        default:
            break;
    }
}
