#include "recovery_view.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "spec_text.h"
#include "sutl_descriptor.h"
#include "uts_formats.h"

namespace {

constexpr std::size_t SAMPLE_BYTES = 64UL * 1024;
constexpr int READS_MAX = 64;                  // of the KeyFile in one look
constexpr unsigned int KEY_LENGTH_END = 1024;  // from here on four bytes are no length, but a copied key's start
constexpr std::size_t KEY_LENGTH_BYTES = 4;

// The number of a recovery file; 0 for any other name.
unsigned long FileNumber(std::string_view name) {
    unsigned long number = 0;
    if (!name.starts_with('F')) return 0;
    auto const [end, error] = std::from_chars(name.data() + 1, name.data() + name.size(), number);
    return error == std::errc() && end == name.data() + name.size() ? number : 0;
}

template <typename Call>
void ForNames(std::string const& directory, Call call) {
    std::unique_ptr<DIR, int (*)(DIR*)> const names(opendir(directory.c_str()), closedir);
    if (names == nullptr) return;
    while (dirent const* const entry = readdir(names.get())) call(entry->d_name);
}

}  // namespace

void RecoveryView::Watch(std::string const& directory, std::string const& specPath) {
    *this = RecoveryView();
    directory_ = directory;
    char resolved[PATH_MAX];
    if (realpath(directory.c_str(), resolved) != nullptr) realDirectory_ = resolved;
    std::string const text = ReadSmallFile(specPath);
    if (text.empty() || !CheckSpec(text).empty()) return;
    spec_ = std::make_shared<suts_tsspec>();
    if (spec_->Init(specPath.c_str()) != suts_tsspec::LOADED) spec_.reset();
}

void RecoveryView::Look(pid_t server) {
    LookAtFiles();
    if (spec_ != nullptr) CountKeys();
    if (spec_ != nullptr) SampleRecords();
    LookAtReader(server);
}

void RecoveryView::LookAtFiles() {
    std::map<unsigned long, long> sizes;
    exists = false;
    files = bytes = keyFileBytes = 0;
    ForNames(directory_, [&](std::string_view name) {
        exists = true;
        struct stat status = {};
        unsigned long const number = FileNumber(name);
        if (number == 0 && name != "KeyFile") return;
        if (stat(fmt::format("{}/{}", directory_, name).c_str(), &status) != 0) return;
        if (number == 0) {
            keyFileBytes = status.st_size;
            return;
        }
        ++files;
        bytes += status.st_size;
        sizes[number] = status.st_size;
    });
    for (auto const& [number, size] : sizes_) {
        if (sizes.count(number) == 0) goneBytes_ += size;
    }
    sizes_ = std::move(sizes);
    loggedBytes = goneBytes_ + bytes;
}

// The bytes of an entry of the KeyFile; 0 when it is not whole.
std::size_t RecoveryView::EntryBytes(unsigned char const* at, std::size_t left) const {
    if (spec_->Type(0) != SUTS_STRING64) {
        std::size_t const size = spec_->Type(0) == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
        return left < size ? 0 : size;
    }
    if (left < KEY_LENGTH_BYTES) return 0;
    unsigned int length = 0;
    memcpy(&length, at, sizeof length);
    if (length < KEY_LENGTH_END) return left < KEY_LENGTH_BYTES + length ? 0 : KEY_LENGTH_BYTES + length;
    void const* const nul = memchr(at, 0, left);
    return nul == nullptr ? 0 : static_cast<std::size_t>(static_cast<unsigned char const*>(nul) - at) + 1;
}

void RecoveryView::CountKeys() {
    sutl_Descriptor const file(open((directory_ + "/KeyFile").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen()) return;
    if (!keys) keys = 0;
    std::vector<unsigned char> piece(SAMPLE_BYTES);
    for (int read = 0; read < READS_MAX; ++read) {
        ssize_t const got = pread(file.Get(), piece.data(), piece.size(), keyOffset_);
        if (got <= 0) return;
        std::size_t at = 0;
        auto const end = static_cast<std::size_t>(got);
        while (std::size_t const entry = EntryBytes(piece.data() + at, end - at)) {
            at += entry;
            ++*keys;
        }
        if (at == 0) return;
        keyOffset_ += static_cast<off_t>(at);
    }
}

// The bytes of a stored record's key; 0 when it is not whole.
std::size_t RecoveryView::KeyBytes(unsigned char const* at, std::size_t left) const {
    if (spec_->Type(0) != SUTS_STRING64) {
        return spec_->Type(0) == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
    }
    void const* const nul = memchr(at, 0, left);
    return nul == nullptr ? 0 : static_cast<std::size_t>(static_cast<unsigned char const*>(nul) - at) + 1;
}

// Walks the records at the start of the newest file, once it has grown to a sample.
void RecoveryView::SampleRecords() {
    if (sizes_.empty()) return;
    auto const& [number, size] = *sizes_.rbegin();
    if (number == sampledFile_ && (sampledBytes_ >= static_cast<long>(SAMPLE_BYTES) || size == sampledBytes_)) return;
    // A file that has just begun tells less than the one before it did.
    if (number != sampledFile_ && recordBytes && size < sampledBytes_) return;
    sutl_Descriptor const file(
        open(fmt::format("{}/F{}", directory_, number).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::vector<unsigned char> piece(SAMPLE_BYTES);
    ssize_t const got = file.IsOpen() ? pread(file.Get(), piece.data(), piece.size(), 0) : -1;
    if (got <= 0) return;
    auto const end = static_cast<std::size_t>(got);
    std::size_t at = 0;
    unsigned long records = 0;
    while (end - at > SUTS_LOG_HEAD_BYTES) {
        unsigned char const* const head = piece.data() + at;
        std::size_t const key = KeyBytes(head + SUTS_LOG_HEAD_BYTES, end - at - SUTS_LOG_HEAD_BYTES);
        int valueBytes = 0;
        memcpy(&valueBytes, head + SUTS_NUMBER8_BYTES, sizeof valueBytes);
        if (key == 0 || valueBytes < 0) break;
        std::size_t const record = SUTS_LOG_HEAD_BYTES + key + static_cast<std::size_t>(valueBytes);
        if (record > end - at) break;
        at += record;
        ++records;
    }
    if (records == 0) return;
    recordBytes = static_cast<double>(at) / static_cast<double>(records);
    sampledFile_ = number;
    sampledBytes_ = static_cast<long>(end);
}

// While the organizer is behind what its queue holds in memory, the server holds a file of its own log open to read.
void RecoveryView::LookAtReader(pid_t server) {
    unplacedBytes.reset();
    std::string const folder = fmt::format("/proc/{}/fd", server);
    if (server == 0 || realDirectory_.empty() || access(folder.c_str(), R_OK | X_OK) != 0) return;
    unsigned long readFile = 0;
    long readPosition = 0;
    bool isWritten = false;
    ForNames(folder, [&](std::string const& name) {
        char target[PATH_MAX] = {};
        if (readlink(fmt::format("{}/{}", folder, name).c_str(), target, sizeof target - 1) <= 0) return;
        std::string_view path = target;
        constexpr std::string_view GONE = " (deleted)";
        if (path.ends_with(GONE)) path.remove_suffix(GONE.size());
        if (!path.starts_with(realDirectory_ + "/F")) return;
        unsigned long const number = FileNumber(path.substr(realDirectory_.size() + 1));
        long position = 0;
        unsigned int flags = 0;
        std::string const info = ReadSmallFile(fmt::format("/proc/{}/fdinfo/{}", server, name));
        if (number == 0 || sscanf(info.c_str(), "pos: %ld flags: %o", &position, &flags) != 2) return;
        if ((flags & O_ACCMODE) == O_RDONLY) {
            readFile = number;
            readPosition = position;
        } else {
            isWritten = true;
        }
    });
    if (!isWritten && readFile == 0) return;
    long unplaced = 0;
    for (auto at = sizes_.lower_bound(readFile); readFile != 0 && at != sizes_.end(); ++at) unplaced += at->second;
    unplacedBytes = readFile == 0 ? 0 : std::max(0L, unplaced - (sizes_.count(readFile) > 0 ? readPosition : 0));
}
