#include "core/StateFiles.h"

#include "i4min/file/save_file.h"

LoadResult StateFiles::load(MetaList& list, const char* path) {
    const LoadResult result = list.load(disk_, path, &log_);
    if (result == LoadResult::damaged) setAside(path);
    return result;
}

bool StateFiles::save(MetaList& list, const char* path) {
    return save(path, [&list](i4_file& file) { return list.toDisk(file); });
}

bool StateFiles::save(const char* path, const std::function<bool(i4_file&)>& write) {
    const std::string reason = saveFile(disk_, path, [&](i4_file& file) {
        file.setLog(&log_);
        return write(file);
    });
    if (!reason.empty()) reportUnsaved(path, reason);
    return reason.empty();
}

void StateFiles::setAside(const char* path) {
    log_.printLine("Error loading: %s", path);
    const std::string reason = setAsideDamaged(disk_, path);
    if (!reason.empty()) reportUnsaved((std::string(path) + ".bad").c_str(), reason);
}

void StateFiles::reportUnsaved(const char* path, const std::string& reason) {
    log_.printLine("Couldn't save %s: %s", path, reason.c_str());
}
