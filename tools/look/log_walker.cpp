#include "log_walker.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "uts_fieldtranslation.h"

namespace {

constexpr std::size_t LOG_WINDOW_BYTES = 256UL * 1024;
constexpr long ZERO_RUN_MIN = 512;

std::string_view TextAt(unsigned char const* from, long bytes) {
    return {reinterpret_cast<char const*>(from), static_cast<std::size_t>(bytes)};
}

}  // namespace

KeyHash KeyHash::Of(std::string_view key) {
    XXH128_hash_t const hash = XXH3_128bits(key.data(), key.size());
    return {hash.low64, hash.high64};
}

LogWalker::LogWalker(suts_tsspec const& spec, std::vector<LogFile> const& files)
    : spec_(spec),
      files_(files),
      window_(LOG_WINDOW_BYTES),
      // Two records of zeros in a row may be; more of them than that were never written.
      zeroRunMin_(std::max<long>(ZERO_RUN_MIN, 2L * (SUTS_LOG_HEAD_BYTES + SUTS_NUMBER8_BYTES * spec.fieldCount))) {}

LogPlace LogWalker::PlaceOf(long streamOffset) const {
    auto const next = std::upper_bound(starts_.begin(), starts_.end(), streamOffset);
    if (next == starts_.begin()) return {};
    return {static_cast<std::size_t>(next - starts_.begin()) - 1, streamOffset - *(next - 1)};
}

long LogWalker::FileBytes(std::size_t file) const {
    if (file >= starts_.size()) return 0;
    return (file + 1 < starts_.size() ? starts_[file + 1] : BytesRead()) - starts_[file];
}

// A run ends with its file: what is told of it names one place.
void LogWalker::EndZeroRun() {
    if (zeros_ >= zeroRunMin_) {
        ++zeroRunCount_;
        if (zeroRuns_.size() < ZERO_RUNS_KEPT) zeroRuns_.push_back({PlaceOf(BytesRead() - zeros_), zeros_});
    }
    zeros_ = 0;
}

void LogWalker::NoteZeros(unsigned char const* bytes, std::size_t count) {
    for (std::size_t at = 0; at < count;) {
        if (bytes[at] == 0) {
            std::size_t end = at;
            while (end < count && bytes[end] == 0) ++end;
            zeros_ += static_cast<long>(end - at);
            fill_ += end - at;
            at = end;
            continue;
        }
        EndZeroRun();
        void const* const zero = memchr(bytes + at, 0, count - at);
        std::size_t const end =
            zero != nullptr ? static_cast<std::size_t>(static_cast<unsigned char const*>(zero) - bytes) : count;
        fill_ += end - at;
        at = end;
    }
}

// One read, into the room at the window's end. False at the end of the stream.
bool LogWalker::ReadMore() {
    while (!ended_) {
        if (!file_.IsOpen()) {
            ended_ = opened_ == files_.size();
            if (ended_) break;
            // Not blocked by what is no file; the read tells what it is.
            file_ = sutl_OpenFile(files_[opened_].path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            starts_.push_back(BytesRead());
            couldNotOpen_ = !file_.IsOpen();
        }
        long const got =
            file_.IsOpen() ? sutl_ReadSome(file_.Get(), window_.data() + fill_, window_.size() - fill_) : -1;
        if (got < 0) {
            error_ = errno;
            failed_ = ended_ = true;
            break;
        }
        if (got > 0) {
            NoteZeros(window_.data() + fill_, static_cast<std::size_t>(got));
            return true;
        }
        EndZeroRun();
        file_.Close();
        ++opened_;
    }
    return false;
}

std::size_t LogWalker::Ahead(std::size_t bytes) {
    while (fill_ - position_ < bytes) {
        if (fill_ == window_.size()) {
            memmove(window_.data(), Here(), fill_ - position_);
            windowStart_ += static_cast<long>(position_);
            fill_ -= position_;
            position_ = 0;
        }
        if (!ReadMore()) break;
    }
    return std::min(bytes, fill_ - position_);
}

LogWalker::Result LogWalker::End(Result result, Reason reason) {
    result_ = failed_ ? READ_ERROR : result;
    reason_ = reason;
    if (failed_) errno = error_;
    return result_;
}

// False, and nothing taken, for what is no sound record or does not lie in the window as a whole.
bool LogWalker::TakeFromWindow(LogRecord& record) {
    unsigned char const* const head = Here();
    unsigned char const* const end = window_.data() + fill_;
    if (end - head < SUTS_LOG_HEAD_BYTES) return false;
    int declared;
    memcpy(&record.timeUs, head, sizeof record.timeUs);
    memcpy(&declared, head + sizeof record.timeUs, sizeof declared);
    unsigned char const* const key = head + SUTS_LOG_HEAD_BYTES;
    unsigned char const* const value = suts_BehindStored(key, end, spec_, 0, 1);
    if (value == nullptr || declared < 0) return false;
    unsigned char const* const behind =
        suts_BehindStored(value, value + std::min<long>(declared, end - value), spec_, 1, spec_.fieldCount);
    if (behind == nullptr) return false;
    record.declaredBytes = declared;
    record.keyBytes = value - key;
    record.valueBytes = behind - value;
    record.bytes = behind - head;
    record.key = TextAt(key, std::min<long>(record.keyBytes, LogRecord::KEY_BYTES_KEPT));
    record.hash = KeyHash::Of(TextAt(key, record.keyBytes));
    record.whole = TextAt(head, record.bytes);
    Pass(static_cast<std::size_t>(record.bytes));
    return true;
}

// Takes a field of at most bytesMax bytes and adds what it took to taken. The key's bytes go to its record.
LogWalker::Piece LogWalker::TakeField(int index, long bytesMax, long& taken, LogRecord* keyOf) {
    auto const keep = [&](std::size_t bytes) {
        if (keyOf != nullptr) {
            hasher_.Add(Here(), bytes);
            std::size_t const room = LogRecord::KEY_BYTES_KEPT - keyKept_.size();
            keyKept_ += TextAt(Here(), static_cast<long>(std::min(bytes, room)));
        }
        taken += static_cast<long>(bytes);
        Pass(bytes);
    };
    if (spec_.Type(index) != SUTS_STRING64) {
        std::size_t const bytes = spec_.Type(index) == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
        std::size_t const there = Ahead(bytes);
        if (failed_) return FAILED;
        if (there == 0) return NOTHING;
        if (there < bytes) return CUT;
        if (static_cast<long>(bytes) > bytesMax) return TOO_LONG;
        keep(bytes);
        return WHOLE;
    }
    for (long length = 0;;) {
        std::size_t const there = Ahead(1) == 0 ? 0 : fill_ - position_;
        if (failed_) return FAILED;
        if (there == 0) return length > 0 ? CUT : NOTHING;
        void const* const nul = memchr(Here(), 0, there);
        std::size_t const piece =
            nul != nullptr ? static_cast<std::size_t>(static_cast<unsigned char const*>(nul) - Here()) + 1 : there;
        length += static_cast<long>(piece);
        if (length > bytesMax) return TOO_LONG;
        keep(piece);
        if (nul != nullptr) return WHOLE;
    }
}

LogWalker::Result LogWalker::TakePiecewise(LogRecord& record) {
    std::size_t const headBytes = Ahead(SUTS_LOG_HEAD_BYTES);
    if (headBytes == 0) return End(END, NO_REASON);
    if (headBytes < SUTS_LOG_HEAD_BYTES) return End(TORN, ENDS_IN_HEAD);
    int declared;
    memcpy(&record.timeUs, Here(), sizeof record.timeUs);
    memcpy(&declared, Here() + sizeof record.timeUs, sizeof declared);
    if (declared < 0) return End(TORN, LENGTH_NEGATIVE);
    record.declaredBytes = declared;
    Pass(SUTS_LOG_HEAD_BYTES);
    keyKept_.clear();
    hasher_.Reset();
    record.keyBytes = record.valueBytes = 0;
    for (int i = 0; i < spec_.fieldCount; ++i) {
        // As in a replay: key and value together are no longer than 2^31 - 1 bytes.
        long const end = i == 0 ? INT_MAX : std::min<long>(declared, INT_MAX - record.keyBytes);
        Piece const piece = i == 0 ? TakeField(i, end, record.keyBytes, &record)
                                   : TakeField(i, end - record.valueBytes, record.valueBytes, nullptr);
        if (piece == NOTHING) return End(TORN, ENDS_BEFORE_FIELD);
        if (piece == CUT || piece == FAILED) return End(TORN, ENDS_IN_FIELD);
        if (piece == TOO_LONG) return End(TORN, i == 0 ? KEY_TOO_LONG : LENGTH_TOO_SMALL);
    }
    record.bytes = SUTS_LOG_HEAD_BYTES + record.keyBytes + record.valueBytes;
    record.key = keyKept_;
    record.hash = hasher_.Get();
    record.whole = {};
    return RECORD;
}

LogWalker::Result LogWalker::Next(LogRecord& record) {
    if (result_ != RECORD) return result_;
    recordStart_ = windowStart_ + static_cast<long>(position_);
    bool taken = TakeFromWindow(record);
    if (!taken && !ended_) {
        static_cast<void>(Ahead(window_.size() / 2));
        taken = TakeFromWindow(record);
    }
    Result const result = taken ? RECORD : TakePiecewise(record);
    if (result == RECORD) record.start = PlaceOf(recordStart_);
    return result;
}

bool LogWalker::ReadRest() {
    do { position_ = fill_; } while (Ahead(window_.size()) > 0);
    if (failed_) errno = error_;
    return !failed_;
}

bool LogWalker::Read(LogRecord const& record, std::string& bytes) const {
    if (!record.whole.empty()) {
        bytes = record.whole;
        return true;
    }
    bytes.clear();
    LogPlace place = record.start;
    char piece[4096];
    while (static_cast<long>(bytes.size()) < record.bytes && place.file < files_.size()) {
        sutl_Descriptor const file = sutl_OpenFile(files_[place.file].path.c_str(), O_RDONLY | O_CLOEXEC);
        if (!file.IsOpen() || lseek(file.Get(), place.offset, SEEK_SET) < 0) return false;
        long got = 1;
        while (got > 0 && static_cast<long>(bytes.size()) < record.bytes) {
            std::size_t const left = static_cast<std::size_t>(record.bytes) - bytes.size();
            got = sutl_ReadSome(file.Get(), piece, std::min(sizeof piece, left));
            if (got < 0) return false;
            bytes.append(piece, static_cast<std::size_t>(got));
        }
        place = {place.file + 1, 0};
    }
    return static_cast<long>(bytes.size()) == record.bytes;
}
