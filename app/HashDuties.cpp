#include "app/HashDuties.h"

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "download/Download.h"
#include "import/ImporterList.h"

FileList& ApplicationHashDuties::known() { return clientApp.known; }
FileList& ApplicationHashDuties::shared() { return clientApp.shared; }
ShareList& ApplicationHashDuties::shareDirs() { return clientApp.shareDirs(); }
void ApplicationHashDuties::addSharedFile(FileMeta* file) { clientApp.addSharedFile(file); }

void ApplicationHashDuties::changeFile(FileMeta* file, const std::function<void(FileMeta&)>& change) {
    clientApp.changeFile(file, change);
}

bool ApplicationHashDuties::importFile(FileMeta& file, const char* path, const char* name) {
    return clientApp.importers().importFile(file, path, name);
}

void ApplicationHashDuties::verify(const Ref<Download>& download, const GiveUp& giveUp) {
    download->verify(giveUp);
}

void ApplicationHashDuties::publish() { messageQ.postOnce(MESSAGE_PUBLISH); }
