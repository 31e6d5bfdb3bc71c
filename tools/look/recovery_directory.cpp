#include "recovery_directory.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <memory>

#include "terminal_text.h"

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using OpenDirectory = std::unique_ptr<DIR, DirectoryCloser>;

// The number of a log file's name; -1 for a name that is none to the server.
int NumberOf(std::string_view name) {
    if (name.size() < 2 || name.front() != 'F' || name.find_first_not_of("0123456789", 1) != std::string_view::npos) {
        return -1;
    }
    int number = 0;  // as large as the server's own numbers can be
    bool const fits = std::from_chars(name.begin() + 1, name.end(), number).ec == std::errc();
    return fits ? number : -1;
}

// The first line of a file of /proc.
std::string LineOf(std::string const& path) {
    sutl_Descriptor const file = sutl_OpenFile(path.c_str(), 0);
    char text[64];
    long const got = file.IsOpen() ? sutl_ReadSome(file.Get(), text, sizeof text) : 0;
    std::string_view const all(text, static_cast<std::size_t>(std::max(got, 0L)));
    return std::string(all.substr(0, all.find('\n')));
}

// Whether a process has a file below this folder open.
bool HasOpen(std::string const& descriptors, std::string const& folder) {
    OpenDirectory const entries(opendir(descriptors.c_str()));
    if (entries == nullptr) return false;
    while (dirent const* const entry = readdir(entries.get())) {
        char target[PATH_MAX];
        ssize_t const bytes = readlink((descriptors + "/" + entry->d_name).c_str(), target, sizeof target);
        if (bytes > 0 && std::string_view(target, static_cast<std::size_t>(bytes)).starts_with(folder)) return true;
    }
    return false;
}

}  // namespace

bool RecoveryDirectory::Read(std::string const& directory) {
    *this = {};
    path = directory;
    OpenDirectory const entries(opendir(directory.c_str()));
    if (entries == nullptr) return false;
    std::vector<LogFile> found;
    for (;;) {
        errno = 0;
        dirent const* const entry = readdir(entries.get());
        if (entry == nullptr) break;
        std::string const name = entry->d_name;
        if (name.starts_with('.')) continue;
        int const number = NumberOf(name);
        if (name != "KeyFile" && number < 0) {
            foreign.push_back(name);
            continue;
        }
        struct stat status = {};
        bool const isRead = number != 0 && (number < 0 || name == "F" + std::to_string(number));
        // What cannot be looked at shows when it is opened.
        if (isRead && stat((path + "/" + name).c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
            notFiles.push_back(name);
        }
        if (number < 0) {
            hasKeyFile = true;
        } else if (number == 0) {
            passedOver.push_back(name);
        } else {
            found.push_back({number, path + "/" + name});
        }
    }
    if (errno != 0) return false;
    for (std::vector<std::string>* const names : {&foreign, &notFiles}) std::sort(names->begin(), names->end());
    // Among names of one number the right one, which has no leading zeros, comes first.
    std::sort(found.begin(), found.end(), [](LogFile const& a, LogFile const& b) {
        return a.number != b.number ? a.number < b.number : a.path.size() < b.path.size();
    });
    int last = 0;
    for (LogFile& file : found) {
        std::string const name = file.path.substr(path.size() + 1);
        if (file.number == last) {
            passedOver.push_back(name);
            continue;
        }
        if (last != 0) numbersMissing += file.number - last - 1;
        last = file.number;
        if (misnamed.empty() && name != "F" + std::to_string(file.number)) misnamed = name;
        (misnamed.empty() ? files : behindMisnamed).push_back(std::move(file));
    }
    std::sort(passedOver.begin(), passedOver.end());
    return true;
}

std::vector<LogFile> RecoveryDirectory::AllFiles() const {
    std::vector<LogFile> all = files;
    all.insert(all.end(), behindMisnamed.begin(), behindMisnamed.end());
    return all;
}

std::vector<std::string> ProcessesUsing(std::string const& directory) {
    std::vector<std::string> users;
    std::unique_ptr<char, decltype(&free)> const real(realpath(directory.c_str(), nullptr), free);
    OpenDirectory const processes(opendir("/proc"));
    if (real == nullptr || processes == nullptr) return users;
    std::string const folder = std::string(real.get()) + "/";
    std::string const own = std::to_string(getpid());
    while (dirent const* const entry = readdir(processes.get())) {
        std::string const id = entry->d_name;
        if (id.find_first_not_of("0123456789") != std::string::npos || id == own) continue;
        if (HasOpen("/proc/" + id + "/fd", folder)) {
            users.push_back(id + " (" + ForTerminal(LineOf("/proc/" + id + "/comm")) + ")");
        }
    }
    return users;
}
