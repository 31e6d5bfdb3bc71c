#include "state_lock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "durable_file.h"
#include "recovery_directory.h"

bool StateLock::Take(std::string const& directory) {
    error_.clear();
    isTaken_ = false;
    std::error_code problem;
    std::filesystem::create_directories(directory, problem);
    std::string const path = directory + "/lock";
    sutl_Descriptor file = sutl_OpenFile(path.c_str(), O_RDWR | O_CREAT, FILE_MODE);
    if (!file.IsOpen()) {
        error_ = fmt::format("{}: {}", path, strerror(errno));
        return false;
    }
    int result;
    do { result = flock(file.Get(), LOCK_EX | LOCK_NB); } while (result != 0 && errno == EINTR);
    if (result == 0) {
        file_ = std::move(file);
        return true;
    }
    isTaken_ = errno == EWOULDBLOCK;
    if (!isTaken_) {
        error_ = fmt::format("{}: cannot be locked: {}", path, strerror(errno));
        return false;
    }
    std::vector<std::string> const users = ProcessesUsing(directory);
    error_ =
        fmt::format("{}: is in use by {}; end it first", directory,
                    users.empty() ? "a process that this user may not see" : fmt::format("{}", fmt::join(users, ", ")));
    return false;
}
