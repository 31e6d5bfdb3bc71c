#include "spool.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "durable_file.h"

namespace {

constexpr char SUFFIX[] = ".spool";
constexpr unsigned int ID_BYTES = 16;
constexpr std::size_t CHECK_BYTES = 1UL << 20;  // read at a time when a segment is checked

void Put4(unsigned char* to, unsigned int value) {
    for (unsigned int i = 0; i < 4; ++i) to[i] = static_cast<unsigned char>(value >> (8 * i));
}

unsigned int Get4(unsigned char const* from) {
    return from[0] | static_cast<unsigned int>(from[1]) << 8 | static_cast<unsigned int>(from[2]) << 16 |
           static_cast<unsigned int>(from[3]) << 24;
}

// The library takes a null pointer, which no bytes may have, for a wish to begin anew.
unsigned long Checksum(unsigned long before, unsigned char const* data, std::size_t bytes) {
    return bytes == 0 ? before : crc32_z(before, data, bytes);
}

// Reads until everything is there or the file ends. Returns the bytes read, -1 with errno on failure.
long ReadAt(int file, unsigned char* to, std::size_t bytes, unsigned long offset) {
    std::size_t done = 0;
    while (done < bytes) {
        ssize_t const got = pread(file, to + done, bytes - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno != EINTR) return -1;
        if (got == 0) break;
        if (got > 0) done += static_cast<std::size_t>(got);
    }
    return static_cast<long>(done);
}

enum class Found : std::uint8_t { WHOLE, TORN, WRONG, FAILED };

// Reads one entry. TORN when the file ends inside it, WRONG when its bytes are not those that were written.
Found ReadEntry(int file, unsigned long offset, unsigned long fileBytes, std::vector<unsigned char>& entry) {
    unsigned char header[Spool::HEADER_BYTES];
    long const got = ReadAt(file, header, sizeof header, offset);
    if (got < 0) return Found::FAILED;
    if (got < static_cast<long>(sizeof header)) return Found::TORN;
    unsigned long const length = Get4(header);
    if (length > fileBytes - offset - sizeof header) return Found::TORN;
    entry.resize(length);
    long const body = ReadAt(file, entry.data(), length, offset + sizeof header);
    if (body < 0) return Found::FAILED;
    if (body < static_cast<long>(length)) return Found::TORN;
    unsigned long const checksum = Checksum(Checksum(0, header, 4), entry.data(), length);
    return checksum == Get4(header + 4) ? Found::WHOLE : Found::WRONG;
}

// What the system had made room for and never written is zeros.
bool IsZeroFrom(int file, unsigned long offset, unsigned long end) {
    std::vector<unsigned char> piece(CHECK_BYTES);
    while (offset < end) {
        long const got = ReadAt(file, piece.data(), std::min<unsigned long>(piece.size(), end - offset), offset);
        if (got <= 0) return false;
        auto const past = piece.begin() + got;
        if (std::find_if(piece.begin(), past, [](unsigned char byte) { return byte != 0; }) != past) return false;
        offset += static_cast<unsigned long>(got);
    }
    return true;
}

}  // namespace

std::string Spool::PathOf(unsigned long segment) const { return fmt::format("{}/{}{}", path_, segment, SUFFIX); }

Spool::OpenResult Spool::OpenFailed(std::string const& what) {
    int const error = errno;
    problem_ = fmt::format("{}: {}", what, strerror(error));
    errno = error;
    return OPEN_FAILED;
}

Spool::OpenResult Spool::Open(std::string const& path, bool setAside) {
    path_ = path;
    if (mkdir(path.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) return OpenFailed(path);
    std::string const lockPath = path + "/lock";
    lock_ = sutl_OpenFile(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, FILE_MODE);
    if (!lock_.IsOpen()) return OpenFailed(lockPath);
    if (flock(lock_.Get(), LOCK_EX | LOCK_NB) != 0) {
        problem_ = fmt::format("{}: another process uses it", path);
        return errno == EWOULDBLOCK ? IN_USE : OpenFailed(lockPath);
    }
    if (OpenResult const loaded = LoadId(); loaded != OPENED) return loaded;
    if (OpenResult const found = FindSegments(); found != OPENED) return found;
    if (!segments_.empty()) {
        if (OpenResult const checked = CheckLastSegment(setAside); checked != OPENED) return checked;
        if (!Sync()) return OpenFailed(PathOf(segments_.back().number));
    }
    // What is appended now never stands where an entry stood that has been read already and that a power cut took away.
    return StartSegment(lastNumber_ + 1) ? OPENED : OpenFailed(PathOf(lastNumber_ + 1));
}

Spool::OpenResult Spool::LoadId() {
    std::string const path = path_ + "/id";
    std::error_code error;
    bool isOther = false;
    for (auto const& file : std::filesystem::directory_iterator(path_, error)) {
        isOther = isOther || file.path().filename() != "lock";
    }
    if (isOther && !std::filesystem::exists(path, error)) {
        problem_ = fmt::format("{}: is no spool, and not empty; give a directory of its own", path_);
        return NO_SPOOL;
    }
    if (auto const text = ReadFile(path)) {
        id_ = *text;
        if (!id_.empty()) return OPENED;
    } else if (errno != ENOENT) {
        return OpenFailed(path);
    }
    unsigned char bytes[ID_BYTES];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) return OpenFailed("random bytes");
    id_.clear();
    for (unsigned char const byte : bytes) id_ += fmt::format("{:02x}", byte);
    return ReplaceFile(path, id_) ? OPENED : OpenFailed(path);
}

Spool::OpenResult Spool::FindSegments() {
    std::error_code error;
    for (auto const& file : std::filesystem::directory_iterator(path_, error)) {
        std::string const name = file.path().filename().string();
        unsigned long number = 0;
        auto const [end, wrong] = std::from_chars(name.data(), name.data() + name.size(), number);
        if (wrong != std::errc() || std::string_view(end) != SUFFIX) continue;
        lastNumber_ = std::max(lastNumber_, number);
        unsigned long const bytes = file.file_size(error);
        if (!error && bytes > 0) segments_.push_back({number, bytes});
    }
    // An empty one holds nothing but its number, which is not used again.
    for (unsigned long number = 1; !error && number <= lastNumber_; ++number) {
        bool const isEmpty = std::none_of(segments_.begin(), segments_.end(),
                                          [number](Segment const& segment) { return segment.number == number; });
        if (isEmpty && number < lastNumber_) unlink(PathOf(number).c_str());
    }
    if (error) {
        errno = error.value();
        return OpenFailed(path_);
    }
    std::sort(segments_.begin(), segments_.end(), [](auto const& a, auto const& b) { return a.number < b.number; });
    return OPENED;
}

// Only the last segment can hold an entry that was not finished: it is synced before the next one begins.
Spool::OpenResult Spool::CheckLastSegment(bool setAside) {
    Segment& last = segments_.back();
    std::string const path = PathOf(last.number);
    writing_ = sutl_OpenFile(path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
    if (!writing_.IsOpen()) return OpenFailed(path);
    std::vector<unsigned char> entry;
    unsigned long offset = 0;
    Found found = Found::WHOLE;
    while (offset < last.bytes && found == Found::WHOLE) {
        found = ReadEntry(writing_.Get(), offset, last.bytes, entry);
        if (found == Found::WHOLE) offset += HEADER_BYTES + entry.size();
    }
    if (found == Found::FAILED) return OpenFailed(path);
    if (found == Found::WHOLE) return OPENED;
    // A header that was written has a checksum, which is not zero.
    bool const wasNeverWritten =
        IsZeroFrom(writing_.Get(), offset, std::min<unsigned long>(offset + HEADER_BYTES, last.bytes));
    bool const isLast = found == Found::TORN || offset + HEADER_BYTES + entry.size() == last.bytes;
    if (!isLast && !wasNeverWritten) {
        problem_ = fmt::format("{}: damaged at byte {}", path, offset);
        if (!setAside) return DAMAGED;
        std::string const aside = fmt::format("{}.damaged", path);
        std::error_code error;
        std::filesystem::copy_file(path, aside, std::filesystem::copy_options::overwrite_existing, error);
        if (error) {
            errno = error.value();
            return OpenFailed(aside);
        }
        problem_ += fmt::format("; the {} bytes from there on are not used; a copy of the file is {}",
                                last.bytes - offset, aside);
    }
    if (ftruncate(writing_.Get(), static_cast<off_t>(offset)) != 0 || fsync(writing_.Get()) != 0) {
        return OpenFailed(path);
    }
    last.bytes = offset;
    return OPENED;
}

bool Spool::StartSegment(unsigned long number) {
    std::string const path = PathOf(number);
    sutl_Descriptor file = sutl_OpenFile(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, FILE_MODE);
    if (!file.IsOpen() || !SyncDirectory(path_)) return false;
    writing_ = std::move(file);
    std::lock_guard const lock(mutex_);
    segments_.push_back({number, 0});
    lastNumber_ = number;
    return true;
}

bool Spool::Append(std::span<std::span<unsigned char const> const> pieces) {
    SpoolPosition const end = End();
    if (end.offset >= SEGMENT_BYTES_MAX && (!Sync() || !StartSegment(end.segment + 1))) return false;
    std::size_t length = 0;
    for (auto const& piece : pieces) length += piece.size();
    unsigned char header[HEADER_BYTES];
    Put4(header, static_cast<unsigned int>(length));
    unsigned long checksum = Checksum(0, header, 4);
    std::vector<iovec> parts = {{header, sizeof header}};
    for (auto const& piece : pieces) {
        checksum = Checksum(checksum, piece.data(), piece.size());
        parts.push_back({const_cast<unsigned char*>(piece.data()), piece.size()});
    }
    Put4(header + 4, static_cast<unsigned int>(checksum));
    std::size_t left = sizeof header + length;
    for (std::size_t first = 0; left > 0;) {
        ssize_t const written = writev(writing_.Get(), &parts[first], static_cast<int>(parts.size() - first));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            int const error = written < 0 ? errno : EIO;
            // Half an entry in the middle would make those behind it unreadable.
            bool const mended = ftruncate(writing_.Get(), static_cast<off_t>(End().offset)) == 0;
            errno = mended ? error : errno;
            return false;
        }
        left -= static_cast<std::size_t>(written);
        auto passed = static_cast<std::size_t>(written);
        for (; first < parts.size() && passed >= parts[first].iov_len; ++first) passed -= parts[first].iov_len;
        if (first == parts.size()) break;
        parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + passed;
        parts[first].iov_len -= passed;
    }
    std::lock_guard const lock(mutex_);
    segments_.back().bytes += sizeof header + length;
    grown_.notify_all();
    return true;
}

bool Spool::Sync() { return fdatasync(writing_.Get()) == 0; }

SpoolPosition Spool::Begin() const {
    std::lock_guard const lock(mutex_);
    return {segments_.front().number, 0};
}

SpoolPosition Spool::End() const {
    std::lock_guard const lock(mutex_);
    return {segments_.back().number, segments_.back().bytes};
}

unsigned long Spool::Bytes() const {
    std::lock_guard const lock(mutex_);
    unsigned long bytes = 0;
    for (Segment const& segment : segments_) bytes += segment.bytes;
    bool const isInside = trimmed_.segment == segments_.front().number;
    return bytes - (isInside ? std::min(trimmed_.offset, bytes) : 0);
}

Spool::ReadResult Spool::Read(SpoolPosition& position, std::vector<unsigned char>& entry) {
    unsigned long bytes = 0;
    {
        std::lock_guard const lock(mutex_);
        auto segment = std::find_if(segments_.begin(), segments_.end(),
                                    [&](Segment const& s) { return s.number >= position.segment; });
        if (segment == segments_.end()) return AT_END;
        if (segment->number != position.segment) position = {segment->number, 0};
        if (position.offset >= segment->bytes) {
            if (++segment == segments_.end()) return AT_END;
            position = {segment->number, 0};
            if (segment->bytes == 0) return AT_END;
        }
        bytes = segment->bytes;
    }
    if (!reading_.IsOpen() || readingNumber_ != position.segment) {
        reading_ = sutl_OpenFile(PathOf(position.segment).c_str(), O_RDONLY | O_CLOEXEC);
        if (!reading_.IsOpen()) return READ_FAILED;
        readingNumber_ = position.segment;
    }
    switch (ReadEntry(reading_.Get(), position.offset, bytes, entry)) {
        case Found::WHOLE:
            position.offset += HEADER_BYTES + entry.size();
            return ENTRY;
        case Found::FAILED:
            return READ_FAILED;
        case Found::TORN:
        case Found::WRONG:
            break;
    }
    problem_ = fmt::format("{}: damaged at byte {}", PathOf(position.segment), position.offset);
    return READ_DAMAGED;
}

void Spool::Trim(SpoolPosition const& position) {
    std::lock_guard const lock(mutex_);
    trimmed_ = position;
    while (segments_.size() > 1 &&
           (segments_.front().number < position.segment ||
            (segments_.front().number == position.segment && segments_.front().bytes <= position.offset))) {
        unlink(PathOf(segments_.front().number).c_str());
        segments_.erase(segments_.begin());
    }
}

void Spool::WaitFor(SpoolPosition const& position, std::chrono::milliseconds wait) const {
    std::unique_lock lock(mutex_);
    SpoolPosition const end = {segments_.back().number, segments_.back().bytes};
    if (position < end) return;
    grown_.wait_for(lock, wait);
}

void Spool::Remove(std::vector<std::string> const& names) {
    std::error_code error;
    for (auto const& file : std::filesystem::directory_iterator(path_, error)) {
        std::string const name = file.path().filename().string();
        bool const isOwn = name == "id" || name == "lock" || name.ends_with(SUFFIX) ||
                           std::find(names.begin(), names.end(), name) != names.end();
        if (!isOwn) return;
    }
    // A spool that is half gone must not be taken for one.
    std::string const gone = fmt::format("{}.gone.{}", path_, getpid());
    if (error || rename(path_.c_str(), gone.c_str()) != 0) return;
    if (SyncDirectory(FolderOf(path_))) std::filesystem::remove_all(gone, error);
}
