#include "run_log.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "time_text.h"

namespace {

constexpr std::size_t LINE_BYTES_MAX =
    4000;                      // a longer one goes on in the next; with what is before it within PIPE_BUF
constexpr int READS_MAX = 32;  // in a row
constexpr int STUCK_MS = 100;  // for a reader of standard error that takes nothing

// Standard error goes to the journal; the variable alone may have been inherited by what writes elsewhere.
bool WritesToJournal() {
    char const* const stream = getenv("JOURNAL_STREAM");
    struct stat own = {};
    return stream != nullptr && fstat(STDERR_FILENO, &own) == 0 &&
           fmt::format("{}:{}", own.st_dev, own.st_ino) == stream;
}

std::string Now() {
    std::string text;
    AppendIsoTime(text, NowUs());
    return text;
}

}  // namespace

bool RunLog::Open(Options const& options) {
    options_ = options;
    isJournal_ = !IsFile() && WritesToJournal();
    return Reopen();
}

bool RunLog::Reopen() {
    if (!IsFile()) return true;
    sutl_Descriptor file = sutl_OpenFile(options_.path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    struct stat now = {};
    if (!file.IsOpen() || fstat(file.Get(), &now) != 0) return false;
    file_ = std::move(file);
    bytes_ = now.st_size;
    return true;
}

bool RunLog::TakeServerOutput(int descriptor, std::function<void(std::string_view)> const& look) {
    char piece[8192];
    for (int i = 0; i < READS_MAX; ++i) {
        long const got = sutl_ReadSome(descriptor, piece, sizeof piece);
        if (got < 0) return errno == EAGAIN;
        if (got == 0) return false;
        rest_.append(piece, static_cast<std::size_t>(got));
        std::size_t from = 0;
        for (;;) {
            std::size_t end = rest_.find('\n', from);
            bool const isWhole = end != std::string::npos && end - from <= LINE_BYTES_MAX;
            if (!isWhole && rest_.size() - from <= LINE_BYTES_MAX) break;
            if (!isWhole) end = from + LINE_BYTES_MAX;
            std::string_view const line(rest_.data() + from, end - from);
            look(line);
            // Assertion failures come with empty lines around them.
            if (!line.empty()) Write("brindle", line);
            from = end + (isWhole ? 1 : 0);
        }
        rest_.erase(0, from);
    }
    return true;
}

void RunLog::EndServerOutput(std::function<void(std::string_view)> const& look) {
    if (rest_.empty()) return;
    look(rest_);
    Write("brindle", rest_);
    rest_.clear();
}

void RunLog::Write(std::string_view program, std::string_view line) {
    std::string const stamp = isJournal_ ? "" : Now() + ' ';
    if (dropped_ > 0 &&
        Append(fmt::format("{}brindlectl run: {} lines could not be written and are lost\n", stamp, dropped_))) {
        dropped_ = 0;
    }
    // A pipe takes so many bytes as a whole, and says beforehand whether it has room for them.
    do {
        std::string_view const piece = line.substr(0, LINE_BYTES_MAX);
        if (dropped_ > 0 || !Append(fmt::format("{}{}: {}\n", stamp, program, piece))) ++dropped_;
        line.remove_prefix(piece.size());
    } while (!line.empty());
}

// In one write, so that lines stay whole.
bool RunLog::Append(std::string_view text) {
    if (IsFile() && bytes_ > 0 && bytes_ + static_cast<off_t>(text.size()) > options_.bytesMax) Rotate();
    int const target = IsFile() ? file_.Get() : STDERR_FILENO;
    pollfd room = {target, POLLOUT, 0};
    // Where lines are lost already nothing is waited for.
    if (poll(&room, 1, dropped_ > 0 ? 0 : STUCK_MS) != 1) return false;
    ssize_t const written = write(target, text.data(), text.size());
    if (written > 0) bytes_ += written;
    return written == static_cast<ssize_t>(text.size());
}

void RunLog::Rotate() {
    auto const older = [this](long number) { return fmt::format("{}.{}", options_.path, number); };
    // What cannot be moved is written on: a log that grows is better than none.
    for (long i = options_.filesMax - 1; i > 1; --i) rename(older(i - 1).c_str(), older(i).c_str());
    int const moved =
        options_.filesMax > 1 ? rename(options_.path.c_str(), older(1).c_str()) : unlink(options_.path.c_str());
    bytes_ = 0;
    if (moved == 0) static_cast<void>(Reopen());
}
