#include "sim/SimClient.h"

#include <algorithm>
#include <cstdio>

#include "server/Search.h"

SimScreen::~SimScreen() = default;

void SimScreen::say(Text kind, const char* format, va_list list) {
    char line[1024];
    std::vsnprintf(line, sizeof line, format, list);
    text += line;
    if (kind == Text::line) text += '\n';
    if (onLine) onLine(line);
}

void SimScreen::setResults(FileList* list, u8) {
    const std::unique_ptr<FileList> owned(list);
    results.clear();
    for (FileMeta* file : list->snapshot()) results.emplace_back(file);
}

void SimScreen::addResult(std::unique_ptr<FileMeta> file) {
    ++added;
    results.push_back(std::move(file));
}

void SimScreen::downloadRemoved(Download* download) {
    const Ref<PartialFile> partial = download->partialRef();
    if (!partial || !partial->isFinished() || partial->status() == PartialFile::gone) return;
    finished.push_back(partial->getHash());
    if (onFinished) onFinished(partial->getHash(), partial->finalPath().c_str());
}

SimClient::SimClient(Simulation& simulation, SimMachine& machine, SimDisk& disk)
    : host_(simulation, machine, disk), engine(host_.host, home, screen) {
    engine.clientApp.init();
    engine.messageQ.post(MESSAGE_LOAD);
}

SimClient::~SimClient() { engine.clientApp.shutdown(); }

void SimClient::connect(u32 serverAddress, u16 port) {
    engine.serverPool.addServer(serverAddress, port);
    engine.messageQ.post(MESSAGE_CONNECT, ServerAddress{serverAddress, port});
}

void SimClient::share(const std::string& directory) {
    std::vector<i4_string> dirs;
    engine.clientApp.getSharedDirs(dirs);
    dirs.emplace_back(directory.c_str());
    engine.clientApp.setSharedDirs(dirs);
}

void SimClient::search(const std::string& words, const char* type) {
    const auto search = makeRef<Search>();
    search->add(std::make_unique<SN_FindStr>(words.c_str()), SEARCH_AND);
    if (type) search->add(std::make_unique<SN_StrTagCompare>(tagTable[TAG_TYPE].wireName, type), SEARCH_AND);
    engine.clientApp.startSearch(search);
}

void SimClient::extendSearch() { engine.clientApp.extendSearch(); }

void SimClient::download(const FileMeta& file) {
    std::shared_ptr<FileMeta> record = copyOf(file);
    engine.messageQ.post(MESSAGE_DOWNLOAD, std::move(record));
}

void SimClient::limitUp(f32 kilobytes) {
    engine.preferences.setMaxUp(kilobytes);
    engine.preferences.userMaxUpF = kilobytes;
}

bool SimClient::isOnline() { return engine.serverPool.isOnline(); }
Ref<Download> SimClient::find(const MD4Hash& hash) { return engine.dlPool.findAny(hash); }

bool SimClient::hasFinished(const MD4Hash& hash) const {
    return std::find(screen.finished.begin(), screen.finished.end(), hash) != screen.finished.end();
}
