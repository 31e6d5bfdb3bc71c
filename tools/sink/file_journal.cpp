#include "file_journal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "durable_file.h"

namespace {

constexpr std::string_view STATE_MARK = "brindle-files 1";

int SyncDescriptor(int descriptor) {
    while (fsync(descriptor) != 0) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

int WriteAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t const written = write(descriptor, bytes.data(), bytes.size());
        if (written >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// Takes a number and the blank or line end before it.
bool TakeNumber(std::string_view& text, unsigned long& number) {
    if (text.empty()) return false;
    auto const [end, error] = std::from_chars(text.begin() + 1, text.end(), number);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.begin()));
    return true;
}

// The mark, the lengths of the files, of the columns and of the state; a line end; columns; state.
bool ParseState(std::string_view text, std::size_t files, FilesState& state) {
    if (!text.starts_with(STATE_MARK)) return false;
    text.remove_prefix(STATE_MARK.size());
    state.lengths.resize(files);
    for (unsigned long& length : state.lengths) {
        if (!TakeNumber(text, length)) return false;
    }
    unsigned long columnsBytes = 0;
    unsigned long stateBytes = 0;
    if (!TakeNumber(text, columnsBytes) || !TakeNumber(text, stateBytes) || text.empty()) return false;
    text.remove_prefix(1);
    if (columnsBytes > text.size() || stateBytes != text.size() - columnsBytes) return false;
    state.columns = text.substr(0, columnsBytes);
    state.state = text.substr(columnsBytes);
    return true;
}

}  // namespace

std::string AppendedFile::Open(Destination::Status& status) {
    status = Destination::AWAY;
    // Not waiting for the other end, should it be a pipe.
    file_ = sutl_OpenFile(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, FILE_MODE);
    struct stat about = {};
    if (!file_.IsOpen() || fstat(file_.Get(), &about) != 0) {
        if (errno == EISDIR || errno == ENOTDIR) status = Destination::REFUSED;
        return fmt::format("{}: cannot be opened: {}", path_, strerror(errno));
    }
    status = Destination::REFUSED;
    if (!S_ISREG(about.st_mode)) return fmt::format("{}: is no regular file; give the name of one", path_);
    while (flock(file_.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno == EWOULDBLOCK) return fmt::format("{}: is another sink's; end that, or use another file", path_);
        return fmt::format("{}: cannot be locked: {}", path_, strerror(errno));
    }
    status = Destination::OK;
    length_ = static_cast<unsigned long>(about.st_size);
    return {};
}

int AppendedFile::CutTo(unsigned long length) {
    while (length < length_ && ftruncate(file_.Get(), static_cast<off_t>(length)) != 0) {
        if (errno != EINTR) return errno;
    }
    if (lseek(file_.Get(), static_cast<off_t>(length), SEEK_SET) < 0) return errno;
    length_ = length;
    return 0;
}

int AppendedFile::Append(std::string_view bytes) {
    length_ += bytes.size();
    return WriteAll(file_.Get(), bytes);
}

int AppendedFile::Sync() const { return SyncDescriptor(file_.Get()); }

bool ReadFilesState(std::string const& path, std::size_t files, FilesState& state, std::string& problem,
                    Destination::Status& status) {
    status = Destination::AWAY;
    auto const read = ReadFile(path);
    if (!read.has_value() && errno == ENOENT) {
        status = Destination::OK;
        return false;
    }
    int error = read.has_value() ? 0 : errno;
    std::string const text = read.value_or("");
    // A commit may have failed behind the renaming of the file; now it counts.
    if (error == 0 && !SyncDirectory(FolderOf(path))) error = errno;
    if (error != 0) {
        problem = fmt::format("{}: cannot be read: {}", path, strerror(error));
        return false;
    }
    if (!ParseState(text, files, state)) {
        status = Destination::REFUSED;
        problem = fmt::format("{}: is no state of a sink; move it and the files that it belongs to away", path);
        return false;
    }
    status = Destination::OK;
    return true;
}

int WriteFilesState(std::string const& path, FilesState const& state) {
    std::string text(STATE_MARK);
    for (unsigned long const length : state.lengths) fmt::format_to(std::back_inserter(text), " {}", length);
    fmt::format_to(std::back_inserter(text), " {} {}\n{}{}", state.columns.size(), state.state.size(), state.columns,
                   state.state);
    return ReplaceFile(path, text) ? 0 : errno;
}
