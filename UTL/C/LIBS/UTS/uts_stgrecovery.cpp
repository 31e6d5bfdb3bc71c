#include "uts_stgrecovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

constexpr sutl_AssertSite SITE_BLOCK_WRITE = {"UTL/C/LIBS/UTS/uts_stgrecovery.h", 98};
constexpr sutl_AssertSite SITE_CLOSING_WRITE = {"UTL/C/LIBS/UTS/uts_stgrecovery.h", 105};
constexpr sutl_AssertSite SITE_READ = {"UTL/C/LIBS/UTS/uts_stgrecovery.h", 153};
constexpr sutl_AssertSite SITE_READ_STRING = {"UTL/C/LIBS/UTS/uts_stgrecovery.h", 187};
constexpr sutl_AssertSite SITE_DIRECTORY_USED = {"uts_stgrecovery.cpp", 68};
constexpr sutl_AssertSite SITE_FLUSH = {"uts_stgrecovery.cpp", 209};

constexpr mode_t FILE_MODE = 0700;

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

// The number of a recovery file's name, 0 and up; -1 for a name that is none.
int NumberOf(std::string_view name) {
    if (!name.starts_with('F')) return -1;
    name.remove_prefix(1);
    if (name.empty() || name.find_first_not_of("0123456789") != std::string_view::npos) return -1;
    int number = 0;
    auto const [end, error] = std::from_chars(name.begin(), name.end(), number);
    return error == std::errc() && end == name.end() ? number : -1;
}

// Null at the end. A directory that cannot be read to its end ends the process: what it holds is not known.
dirent const* NextEntry(DIR* entries) {
    errno = 0;
    dirent const* const entry = readdir(entries);
    if (entry == nullptr && errno != 0) {
        perror("Recovery directory read failed: ");
        abort();
    }
    return entry;
}

std::string FilePath(std::string const& directory, unsigned long number) {
    return directory + "/F" + std::to_string(number);
}

}  // namespace

unsigned int suts_Recovery_LowestRecovFileIndex(char const* directory, int after) {
    std::unique_ptr<DIR, DirectoryCloser> const entries(opendir(directory));
    if (entries == nullptr) {
        perror("Recovery directory open failed: ");
        abort();
    }
    int lowest = 0;
    while (dirent const* const entry = NextEntry(entries.get())) {
        std::string_view const name = entry->d_name;
        if (name == "KeyFile" || name.starts_with('.')) continue;
        int const number = NumberOf(name);
        if (number < 0) {
            fputs("Illegal name in recovery directory!\n", stderr);
            abort();
        }
        if (number > after && (lowest == 0 || number < lowest)) lowest = number;
    }
    return static_cast<unsigned int>(lowest);
}

sutl_Descriptor suts_CreateLogFile(std::string const& path) {
    sutl_Descriptor file = sutl_OpenFile(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, FILE_MODE);
    if (!file.IsOpen()) {
        int const openError = errno;
        fprintf(stderr, "ERROR: File %s could not be created: ", path.c_str());
        errno = openError;
        perror("\n ");
    }
    return file;
}

// Writer --------------------------------------------------------------------------------------------------------------

void suts_StgRecovery::RefuseUsedDirectory(char const* directory) {
    if (suts_Recovery_LowestRecovFileIndex(directory, 0) != 0) {
        sutl_AssertFailed(SITE_DIRECTORY_USED, "ERROR, Recovery directory not empty!\n");
    }
}

suts_StgRecovery::suts_StgRecovery(char const* directory) : directory_(directory) {
    RefuseUsedDirectory(directory);
    NewFile();
}

suts_StgRecovery::~suts_StgRecovery() = default;

std::string suts_StgRecovery::PathOf(unsigned long number) const { return FilePath(directory_, number); }

void suts_StgRecovery::NewFile() {
    currentFile_ = suts_CreateLogFile(PathOf(currentNumber_));
    if (!currentFile_.IsOpen()) abort();
    sutl_MutexLock lock(mutex_);
    sutl_list_base_iter const at = files_.Append();
    currentRecord_ = &files_.Value(at);
    currentRecord_->self = at;
    currentRecord_->number = currentNumber_;
}

void suts_StgRecovery::RemoveFirstFile() { remove(PathOf(1).c_str()); }

void suts_StgRecovery::WriteBlock() {
    if (sutl_FileWrite(currentFile_.Get(), block_, SUTS_LOG_BLOCK_BYTES) != SUTS_LOG_BLOCK_BYTES) {
        sutl_AssertFailed(SITE_BLOCK_WRITE, "ERROR, Write incomplete!\n");
    }
    fillBytes_ = 0;
    fileBytes_ += SUTS_LOG_BLOCK_BYTES;
}

void suts_StgRecovery::AsyncWrite(void const* data, int length, int endOfRecord) {
    auto const* from = static_cast<unsigned char const*>(data);
    auto left = static_cast<unsigned int>(length);
    while (left > 0) {
        unsigned int const piece = std::min(left, SUTS_LOG_BLOCK_BYTES - fillBytes_);
        memcpy(block_ + fillBytes_, from, piece);
        from += piece;
        left -= piece;
        fillBytes_ += piece;
        if (fillBytes_ == SUTS_LOG_BLOCK_BYTES) WriteBlock();
    }
    if (endOfRecord == 0) return;
    ++recordsAppended_;
    if (fileBytes_ >= sizeLimitBytes_) CloseFile();
}

suts_StgLogPosition suts_StgRecovery::AppendRecord(long time, sutl_RawBytefield const& key,
                                                   sutl_RawBytefield const& value) {
    suts_StgLogPosition const position = {currentNumber_, fileBytes_ + fillBytes_};
    unsigned char head[SUTS_LOG_HEAD_BYTES];
    memcpy(head, &time, sizeof time);
    memcpy(head + sizeof time, &value.length, sizeof value.length);
    long const recordBytes = SUTS_LOG_HEAD_BYTES + static_cast<long>(key.length) + value.length;
    if (fillBytes_ + recordBytes < SUTS_LOG_BLOCK_BYTES) {
        // The common case: no block is completed, so there is nothing to write and no file to close.
        unsigned char* const to = block_ + fillBytes_;
        memcpy(to, head, sizeof head);
        memcpy(to + sizeof head, key.Data(), static_cast<unsigned int>(key.length));
        memcpy(to + sizeof head + key.length, value.Data(), static_cast<unsigned int>(value.length));
        fillBytes_ += static_cast<unsigned int>(recordBytes);
        ++recordsAppended_;
        return position;
    }
    AsyncWrite(head, sizeof head, 0);
    AsyncWrite(key.Data(), key.length, 0);
    AsyncWrite(value.Data(), value.length, 1);
    return position;
}

void suts_StgRecovery::CloseFile() {
    if (fillBytes_ > 0 && sutl_FileWrite(currentFile_.Get(), block_, fillBytes_) != static_cast<long>(fillBytes_)) {
        sutl_AssertFailed(SITE_CLOSING_WRITE, "ERROR, Closing write incomplete!\n");
    }
    fileBytes_ += fillBytes_;
    fillBytes_ = 0;
    ++currentNumber_;
    {
        sutl_MutexLock lock(mutex_);
        ReviewKept();
        suts_StgFileRecord& file = *currentRecord_;
        file.closed = true;
        file.recordsBefore = recordsAppended_;
        currentFile_.Close();
        if (file.Committed == file.Elements.load(std::memory_order_relaxed)) {
            Forget(file);
        } else {
            outstandingBytes_ += fileBytes_;
            if (outstandingBytes_ > OUTSTANDING_LIMITS_MAX * sizeLimitBytes_) {
                sizeLimitBytes_ *= SIZE_LIMIT_STEP;
            } else if (outstandingBytes_ < sizeLimitBytes_ && sizeLimitBytes_ > SIZE_LIMIT_MIN) {
                sizeLimitBytes_ /= SIZE_LIMIT_STEP;
            }
        }
    }
    NewFile();
    fileBytes_ = 0;
}

void suts_StgRecovery::Mark(void* fileRecord, unsigned long records) {
    auto& file = *static_cast<suts_StgFileRecord*>(fileRecord);
    sutl_MutexLock lock(mutex_);
    ReviewKept();
    file.Committed += records;
    if (file.closed && file.Committed == file.Elements.load(std::memory_order_relaxed)) {
        // A count of records off a sum of bytes: the total tracks the undelivered volume only roughly, and the size
        // limit is tuned to exactly this sum.
        outstandingBytes_ -= file.Committed;
        Forget(file);
    }
}

void suts_StgRecovery::Forget(suts_StgFileRecord& file) {
    // Narrowed to an int on the way, as file numbers are everywhere in a directory scan.
    auto const number = static_cast<unsigned long>(static_cast<int>(file.number));
    bool const trailNeedsPath = KeepForTrail(file);
    files_.Delete(file.self);
    if (!trailNeedsPath) DeleteFile(number);
}

// The last record of a closed file may still have to be read back although everything counted in the file is shipped.
// The file is then kept by a descriptor. Only the highest removed number can matter: every file from the second on
// counts at least the last record of the one before, and records are taken in order, so whatever made a higher file
// removable was taken after the last record of every lower one. True when no descriptor can be had: the file itself
// must stay then.
bool suts_StgRecovery::KeepForTrail(suts_StgFileRecord const& file) {
    bool const allTaken = taken_.load(std::memory_order_acquire) >= file.recordsBefore;
    if (allTaken || file.number < kept_.number) return false;
    LetGoOfKept();
    kept_ = {sutl_OpenFile(PathOf(file.number).c_str(), O_RDONLY), file.number, file.recordsBefore};
    return !kept_.descriptor.IsOpen();
}

void suts_StgRecovery::LetGoOfKept() {
    if (kept_.number == 0) return;
    // Without a descriptor it was the file itself that was kept.
    if (!kept_.descriptor.IsOpen()) DeleteFile(kept_.number);
    kept_ = {};
}

void suts_StgRecovery::ReviewKept() {
    if (kept_.number != 0 && taken_.load(std::memory_order_acquire) >= kept_.recordsBefore) LetGoOfKept();
}

sutl_Descriptor suts_StgRecovery::OpenForTrail(unsigned long number) {
    sutl_MutexLock lock(mutex_);
    if (number == kept_.number && kept_.descriptor.IsOpen()) {
        // The one reader comes once for a file's rest; a second descriptor would share the offset, so this one is
        // given.
        sutl_Descriptor given = std::move(kept_.descriptor);
        kept_ = {};
        return given;
    }
    return sutl_OpenFile(PathOf(number).c_str(), O_RDONLY);
}

void suts_StgRecovery::DeleteFile(unsigned long number) {
    std::string const path = PathOf(number);
    int result;
    do { result = remove(path.c_str()); } while (result != 0 && errno == EINTR);
    if (result != 0) perror("File removal failed!\n");
}

// The ship thread is joined by now: nothing here is contended, so no lock is taken.
void suts_StgRecovery::Terminate() SUTL_NO_THREAD_SAFETY_ANALYSIS {
    if (fillBytes_ > 0 && sutl_FileWrite(currentFile_.Get(), block_, fillBytes_) != static_cast<long>(fillBytes_)) {
        sutl_AssertFailed(SITE_FLUSH, "ERROR: Flush write incomplete!\n");
    }
    fillBytes_ = 0;
    LetGoOfKept();  // everything was taken
    suts_StgFileRecord& file = *currentRecord_;
    file.closed = true;
    currentFile_.Close();
    if (file.Committed == file.Elements.load(std::memory_order_relaxed)) {
        unsigned long const number = file.number;
        files_.Delete(file.self);
        DeleteFile(number);
    }
}

void suts_StgRecovery::PrintStatus() {
    sutl_MutexLock lock(mutex_);
    for (sutl_list_base_iter at = files_.First(); !at.IsEnd(); at.StepNext()) {
        suts_StgFileRecord const& file = files_.Value(at);
        fprintf(stderr, " F%ld Elements: %ld Committed: %ld \n", static_cast<long>(file.number),
                static_cast<long>(file.Elements.load(std::memory_order_relaxed)), static_cast<long>(file.Committed));
    }
}

// Playback ------------------------------------------------------------------------------------------------------------

suts_StgRecoveryPlayback::suts_StgRecoveryPlayback(suts_tsspec const& spec, char const* directory)
    : directory_(directory), spec_(spec), valueBytes_(suts_FixedBytes(spec, 1, spec.fieldCount)), writer_(nullptr) {
    fileNumber_ = StartAsyncRead();
    done_ = fileNumber_ < 0;
}

suts_StgRecoveryPlayback::suts_StgRecoveryPlayback(suts_tsspec const& spec, suts_StgRecovery& writer)
    : spec_(spec), valueBytes_(suts_FixedBytes(spec, 1, spec.fieldCount)), writer_(&writer) {}

int suts_StgRecoveryPlayback::StartAsyncRead() {
    auto const number = static_cast<int>(suts_Recovery_LowestRecovFileIndex(directory_.c_str(), 0));
    if (number > 0) file_ = NewFileToRead(number);
    if (!file_.IsOpen()) {
        if (number > 0 && ReportUnopened(number)) return -1;
        fprintf(stderr, " Playback info, only keyfile, no uncovered data,  in %s \n", directory_.c_str());
        return -1;
    }
    readPosition_ = 0;
    fillBytes_ = 0;
    return number;
}

sutl_Descriptor suts_StgRecoveryPlayback::NewFileToRead(int number) const {
    if (writer_ != nullptr) return writer_->OpenForTrail(static_cast<unsigned long>(number));
    return sutl_OpenFile(FilePath(directory_, static_cast<unsigned long>(number)).c_str(), O_RDONLY);
}

bool suts_StgRecoveryPlayback::Seek(suts_StgLogPosition const& position) {
    auto const number = static_cast<int>(position.fileNumber);
    readPosition_ = 0;
    fillBytes_ = 0;
    done_ = false;
    if (!file_.IsOpen() || fileNumber_ != number) {
        file_.Close();
        file_ = NewFileToRead(number);
        fileNumber_ = number;
    }
    return file_.IsOpen() && lseek(file_.Get(), static_cast<off_t>(position.offset), SEEK_SET) >= 0;
}

void suts_StgRecoveryPlayback::Detach() { file_.Close(); }

// A running writer's files have no gaps between their numbers, and none of them is empty before it is closed.
bool suts_StgRecoveryPlayback::OpenNextFile() {
    int const next = writer_ != nullptr
                         ? fileNumber_ + 1
                         : static_cast<int>(suts_Recovery_LowestRecovFileIndex(directory_.c_str(), fileNumber_));
    file_.Close();
    if (next <= fileNumber_) return false;
    fileNumber_ = next;
    file_ = NewFileToRead(next);
    if (writer_ == nullptr && !file_.IsOpen()) ReportUnopened(next);
    return file_.IsOpen();
}

// After a failed open: false, and no report, when there is no such file.
bool suts_StgRecoveryPlayback::ReportUnopened(int number) const {
    int const openError = errno;
    if (openError == ENOENT) return false;
    fprintf(stderr, "ERROR: Recovery file %s could not be opened, the replay ends before it: %s\n",
            FilePath(directory_, static_cast<unsigned long>(number)).c_str(), strerror(openError));
    return true;
}

bool suts_StgRecoveryPlayback::Refill(sutl_AssertSite const& site) {
    while (file_.IsOpen()) {
        long const got = sutl_ReadSome(file_.Get(), block_, sizeof block_);
        if (got < 0) sutl_AssertFailed(site, "Read error!\n");
        readPosition_ = 0;
        fillBytes_ = static_cast<unsigned int>(got);
        if (got > 0) return true;
        if (!OpenNextFile()) return false;
    }
    return false;
}

int suts_StgRecoveryPlayback::ReadBytes(unsigned char* to, int length) {
    int got = 0;
    while (got < length) {
        if (readPosition_ == fillBytes_ && !Refill(SITE_READ)) break;
        auto const piece = std::min(length - got, static_cast<int>(fillBytes_ - readPosition_));
        memcpy(to + got, block_ + readPosition_, static_cast<unsigned int>(piece));
        readPosition_ += static_cast<unsigned int>(piece);
        got += piece;
    }
    return got;
}

int suts_StgRecoveryPlayback::AsyncRead(int& number, char const* /*directory*/, char* destination, int length) {
    int const got = ReadBytes(reinterpret_cast<unsigned char*>(destination), length);
    number = fileNumber_;
    return got;
}

suts_StgRecoveryPlayback::Piece suts_StgRecoveryPlayback::ReadString(long end) {
    bool any = false;
    for (;;) {
        if (readPosition_ == fillBytes_ && !Refill(SITE_READ_STRING)) return any ? CUT : NOTHING;
        unsigned char const* const from = block_ + readPosition_;
        unsigned int const there = fillBytes_ - readPosition_;
        auto const* const nul = static_cast<unsigned char const*>(memchr(from, 0, there));
        auto const piece = nul != nullptr ? static_cast<unsigned int>(nul - from) + 1 : there;
        // Beyond its record's end the text was never written: the log is damaged.
        if (piece > end - record_.Size()) return CUT;
        record_.Append(from, static_cast<int>(piece));
        readPosition_ += piece;
        if (nul != nullptr) return WHOLE;
        any = true;
    }
}

// end: where in the scratch the record ends at the latest.
suts_StgRecoveryPlayback::Piece suts_StgRecoveryPlayback::ReadField(int index, long end) {
    int bytes = 0;
    switch (spec_.Type(index)) {
        case SUTS_STRING64:
            return ReadString(end);
        case SUTS_INT32:
            bytes = SUTS_INT32_BYTES;
            break;
        case SUTS_INT64:
        case SUTS_FLOAT64:
            bytes = SUTS_NUMBER8_BYTES;
            break;
    }
    unsigned char number[SUTS_NUMBER8_BYTES];
    int const got = ReadBytes(number, bytes);
    if (got == 0 && bytes > 0) return NOTHING;
    if (got < bytes || bytes > end - record_.Size()) return CUT;
    record_.Append(number, bytes);
    return WHOLE;
}

unsigned int suts_StgRecoveryPlayback::End(Piece piece) {
    if (piece == CUT) fputs("WARNING: Incomplete recovery file\n", stderr);
    done_ = true;
    return 1;
}

unsigned int suts_StgRecoveryPlayback::QNext(suts_StgEntry& entry) {
    entry.key.length = 0;
    entry.value.length = 0;
    if (done_) return 1;
    if (TakeFromBlock(entry)) return 0;
    unsigned char head[SUTS_LOG_HEAD_BYTES];
    int const got = ReadBytes(head, sizeof head);
    if (got < static_cast<int>(sizeof head)) return End(got == 0 ? NOTHING : CUT);
    int valueBytesMax;
    memcpy(&entry.time, head, sizeof entry.time);
    memcpy(&valueBytesMax, head + sizeof entry.time, sizeof valueBytesMax);
    if (valueBytesMax < 0) return End(CUT);

    record_.Reset();
    int keyBytes = 0;
    for (int i = 0; i < spec_.fieldCount; ++i) {
        // The key's length is not told; the other fields may take what the head says.
        Piece const piece =
            ReadField(i, i == 0 ? INT32_MAX : std::min<long>(INT32_MAX, static_cast<long>(keyBytes) + valueBytesMax));
        if (piece != WHOLE) return End(piece);
        if (i == 0) keyBytes = record_.Size();
    }
    entry.key.Share(record_.Data(), keyBytes);
    entry.value.Share(record_.Data() + keyBytes, record_.Size() - keyBytes);
    return 0;
}

// The common case: a sound record that lies in the block as a whole. False, and nothing taken, where it is neither.
bool suts_StgRecoveryPlayback::TakeFromBlock(suts_StgEntry& entry) {
    unsigned char const* const head = block_ + readPosition_;
    unsigned char const* const end = block_ + fillBytes_;
    if (end - head < SUTS_LOG_HEAD_BYTES) return false;
    int valueBytesMax;
    memcpy(&entry.time, head, sizeof entry.time);
    memcpy(&valueBytesMax, head + sizeof entry.time, sizeof valueBytesMax);
    unsigned char const* const key = head + SUTS_LOG_HEAD_BYTES;
    unsigned char const* const value = suts_BehindStored(key, end, spec_, 0, 1);
    if (value == nullptr || valueBytesMax < 0 || valueBytesMax > end - value) return false;
    unsigned char const* behind = nullptr;
    if (valueBytes_ < 0) {
        behind = suts_BehindStored(value, value + valueBytesMax, spec_, 1, spec_.fieldCount);
    } else if (valueBytes_ <= valueBytesMax) {
        behind = value + valueBytes_;
    }
    if (behind == nullptr) return false;
    entry.key.Share(key, static_cast<int>(value - key));
    entry.value.Share(value, static_cast<int>(behind - value));
    readPosition_ = static_cast<unsigned int>(behind - block_);
    return true;
}

// Dump ----------------------------------------------------------------------------------------------------------------

namespace {

// Prints the field at offset to standard error; returns the offset behind it.
int PrintField(sutl_RawBytefield const& bytes, suts_FieldType type, int offset) {
    unsigned char const* const at = bytes.Data() + offset;
    switch (type) {
        case SUTS_STRING64: {
            auto const* const text = reinterpret_cast<char const*>(at);
            fprintf(stderr, " %s ", text);
            return offset + static_cast<int>(strlen(text)) + 1;
        }
        case SUTS_INT32: {
            int value;
            memcpy(&value, at, sizeof value);
            fprintf(stderr, " %d ", value);
            return offset + SUTS_INT32_BYTES;
        }
        case SUTS_INT64: {
            long value;
            memcpy(&value, at, sizeof value);
            fprintf(stderr, " %ld ", value);
            return offset + SUTS_NUMBER8_BYTES;
        }
        case SUTS_FLOAT64: {
            double value;
            memcpy(&value, at, sizeof value);
            fprintf(stderr, " %lf ", value);
            return offset + SUTS_NUMBER8_BYTES;
        }
    }
    return offset;
}

}  // namespace

void suts_StgPrintRecoverData(FILE* out, suts_tsspec const& spec, char const* directory) {
    suts_StgRecoveryPlayback playback(spec, directory);
    suts_StgEntry entry;
    while (playback.QNext(entry) == 0) {
        if (spec.HasKeyField()) PrintField(entry.key, spec.Type(0), 0);
        fprintf(out, " -> %lu ", static_cast<unsigned long>(entry.time));
        int offset = 0;
        for (int i = 1; i < spec.fieldCount; ++i) offset = PrintField(entry.value, spec.Type(i), offset);
        fputc('\n', stderr);
    }
}
