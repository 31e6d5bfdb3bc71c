#include "recovery_syncer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>

#include "durable_file.h"

namespace {

constexpr char KEY_FILE[] = "KeyFile";

unsigned long NumberOf(std::string const& name) { return strtoul(name.c_str() + 1, nullptr, 10); }

}  // namespace

void RecoverySyncer::Watch(std::string const& directory) {
    directory_ = directory;
    files_.clear();
    hasNewNames_ = false;
}

bool RecoverySyncer::LookForFiles() {
    std::unique_ptr<DIR, int (*)(DIR*)> const names(opendir(directory_.c_str()), closedir);
    if (names == nullptr) return false;
    std::set<std::string> present;
    while (dirent const* const entry = readdir(names.get())) {
        std::string const name = entry->d_name;
        if (name == KEY_FILE || name.front() == 'F') present.insert(name);
    }
    std::erase_if(files_, [&present](auto const& known) { return present.count(known.first) == 0; });
    for (std::string const& name : present) {
        if (files_.count(name) != 0) continue;
        sutl_Descriptor file = sutl_OpenFile((directory_ + '/' + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (!file.IsOpen() && errno == ENOENT) continue;
        if (!file.IsOpen()) return false;
        files_[name].file = std::move(file);
        hasNewNames_ = true;
    }
    return true;
}

bool RecoverySyncer::Sync() {
    if (!LookForFiles()) return false;
    unsigned long newest = 0;
    for (auto const& [name, file] : files_) {
        if (name != KEY_FILE) newest = std::max(newest, NumberOf(name));
    }
    bool isSynced = true;
    for (auto& [name, file] : files_) {
        if (file.isDone) continue;
        struct stat now = {};
        bool good = fstat(file.file.Get(), &now) == 0;
        if (good && now.st_size != file.syncedBytes) good = fdatasync(file.file.Get()) == 0;
        isSynced = isSynced && good;
        if (!good) continue;
        file.syncedBytes = now.st_size;
        // A later file was there before the size was asked for, so this one had its last byte.
        file.isDone = name != KEY_FILE && NumberOf(name) < newest;
        if (file.isDone) file.file.Close();
    }
    if (hasNewNames_ && isSynced) {
        isSynced = SyncDirectory(directory_);
        hasNewNames_ = !isSynced;
    }
    return isSynced;
}
