#include "recovery_repair.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <unordered_set>

#include "key_file_walker.h"
#include "recovery_check.h"
#include "recovery_directory.h"
#include "terminal_text.h"

namespace {

constexpr char CONTENTS[] = "contents.txt";

std::string NameOf(std::string const& path) { return std::filesystem::path(path).filename(); }

// Makes what was created in a directory last over a crash of the machine.
bool SyncDirectory(std::string const& path) {
    sutl_Descriptor const directory = sutl_OpenFile(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return directory.IsOpen() && fsync(directory.Get()) == 0;
}

std::string ParentOf(std::string const& path) { return std::filesystem::path(path).parent_path(); }

}  // namespace

// One file of a log on its way: what is kept of it, and the whole records that are not.
class RecoveryRepair::Log {
 public:
    Log(RecoveryRepair& repair, LogFile const& file, std::size_t index)
        : repair_(repair),
          path_(file.path),
          name_(fmt::format("{}-{}-refused", index + 1, NameOf(file.path))),
          from_(sutl_OpenFile(file.path.c_str(), O_RDONLY | O_CLOEXEC)) {}

    [[nodiscard]] bool Take(LogRecord const& record) {
        bool const tooLarge = record.keyBytes + record.valueBytes > repair_.recordBytesMax_;
        if (record.timeUs < 0 || tooLarge) return Refuse(record, tooLarge);
        if (!repair_.keys_->Add(record.hash, record.key, record.keyBytes, from_,
                                record.start.offset + SUTS_LOG_HEAD_BYTES)) {
            return false;
        }
        if (record.start.offset != keptTo_ && !WriteKept()) return false;
        if (keptFrom_ == keptTo_) keptFrom_ = record.start.offset;
        keptTo_ = record.start.offset + record.bytes;
        ++repair_.report_.records;
        repair_.report_.inexact += record.IsExact() ? 0 : 1;
        repair_.report_.bytes += record.bytes;
        return true;
    }

    [[nodiscard]] bool Finish() {
        if (!WriteKept() || (out_.IsOpen() && !out_.Finish())) return false;
        if (!refused_.IsOpen()) return true;
        if (!refused_.Finish()) return false;
        repair_.report_.parts.push_back(
            {path_, refusedFrom_, refusedBytes_, Count(refusedCount_, "whole record") + " refused by a replay", name_});
        repair_.report_.setAsideBytes += refusedBytes_;
        repair_.report_.leftOut += refusedCount_;
        return true;
    }

 private:
    // Copies the records that follow each other since the last time.
    bool WriteKept() {
        if (keptFrom_ == keptTo_) return true;
        if (!out_.IsOpen()) {
            ++repair_.report_.files;
            if (!out_.Create(fmt::format("{}/F{}", repair_.temporaryInto_, repair_.report_.files))) return false;
        }
        long copied = 0;
        if (!out_.CopyFrom(from_, keptFrom_, keptTo_ - keptFrom_, copied)) return false;
        bool const whole = copied == keptTo_ - keptFrom_;
        keptFrom_ = keptTo_;
        errno = EIO;
        return whole;
    }

    bool Refuse(LogRecord const& record, bool tooLarge) {
        if (!refused_.IsOpen()) {
            if (!repair_.MakeFolder(repair_.aside_, repair_.temporaryAside_)) return false;
            if (!refused_.Create(repair_.temporaryAside_ + "/" + name_)) return false;
            refusedFrom_ = record.start.offset;
        }
        ++refusedCount_;
        refusedBytes_ += record.bytes;
        long copied = 0;
        if (!refused_.CopyFrom(from_, record.start.offset, record.bytes, copied)) return false;
        return repair_.contents_->Append(fmt::format(
            "{}: from {}, offset {}, {}: {}\n", name_, path_, record.start.offset,
            Count(static_cast<unsigned long>(record.bytes), "byte"),
            tooLarge ? "too large for a ship message" : fmt::format("the time {} is negative", record.timeUs)));
    }

    RecoveryRepair& repair_;
    std::string const path_;
    std::string const name_;  // of the file with what is refused
    sutl_Descriptor from_;
    RecoveryFileWriter out_;  // opened with the first record
    RecoveryFileWriter refused_;
    long keptFrom_ = 0;  // the records not yet copied
    long keptTo_ = 0;
    long refusedFrom_ = 0;
    long refusedBytes_ = 0;
    unsigned long refusedCount_ = 0;
};

RecoveryRepair::RecoveryRepair(suts_tsspec const& spec, std::string into, std::string aside)
    : spec_(spec), recordBytesMax_(RecordBytesMax(spec)), into_(std::move(into)), aside_(std::move(aside)) {}

RecoveryRepair::~RecoveryRepair() {
    std::error_code ignored;
    for (std::string const& folder : {temporaryInto_, temporaryAside_}) {
        if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
    }
}

bool RecoveryRepair::Fail(std::string const& what) {
    if (problem_.empty()) problem_ = what + ": " + strerror(errno);
    return false;
}

void RecoveryRepair::NoteUnread(std::string const& what) {
    ++report_.unread;
    report_.notes.push_back(fmt::format("{}: cannot be read: {}", what, strerror(errno)));
}

// Makes the directory, under another name, that becomes the final one; once.
bool RecoveryRepair::MakeFolder(std::string const& final, std::string& temporary) {
    if (!temporary.empty()) return true;
    std::error_code error;
    if (std::filesystem::exists(final, error) && !std::filesystem::is_empty(final, error)) {
        errno = ENOTEMPTY;
        return Fail(final);
    }
    std::string pattern = ParentOf(final) + "/.brindle-repair-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return Fail(final + ": cannot be made");
    temporary = pattern;
    mode_t const mask = umask(0);
    umask(mask);
    if (chmod(pattern.c_str(), 0777 & ~mask) != 0) return Fail(pattern);
    if (&temporary != &temporaryAside_) return true;
    contents_ = std::make_unique<RecoveryFileWriter>();
    if (!contents_->Create(temporary + "/" + CONTENTS)) return Fail(temporary);
    return contents_->Append(
        "Parts of damaged recovery directories that repair has not put into the clean one. Each line: the file here,\n"
        "the file and the offset it comes from, its bytes, and why. A file 'refused' holds whole records one after "
        "the\n"
        "other, with a line for each.\n\n");
}

bool RecoveryRepair::SetAside(std::string const& from, std::size_t index, long offset, long bytes,
                              std::string const& reason) {
    if (bytes <= 0) return true;
    if (!MakeFolder(aside_, temporaryAside_)) return false;
    SetAsidePart part = {from, offset, bytes, reason, fmt::format("{}-{}-from-{}", index + 1, NameOf(from), offset)};
    sutl_Descriptor const source = sutl_OpenFile(from.c_str(), O_RDONLY | O_CLOEXEC);
    RecoveryFileWriter out;
    if (!out.Create(temporaryAside_ + "/" + part.name)) return Fail(temporaryAside_);
    if (!out.CopyFrom(source, offset, bytes, part.bytes)) {
        NoteUnread(fmt::format("{} behind offset {}", from, offset + part.bytes));
    }
    if (!out.Finish()) return Fail(temporaryAside_);
    report_.setAsideBytes += part.bytes;
    if (!contents_->Append(fmt::format("{}: from {}, offset {}, {}: {}\n", part.name, from, offset,
                                       Count(static_cast<unsigned long>(part.bytes), "byte"), reason))) {
        return Fail(temporaryAside_);
    }
    report_.parts.push_back(std::move(part));
    return true;
}

bool RecoveryRepair::RepairKeyFile(std::string const& path, std::size_t index) {
    KeyFileWalker walker(spec_, path);
    sutl_Descriptor const from = sutl_OpenFile(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    KeyFileWalker::Key key;
    KeyFileWalker::Result result;
    long wholeEnd = 0;
    while ((result = walker.Next(key)) == KeyFileWalker::KEY && !walker.IsCut()) {
        wholeEnd = walker.Offset();
        if (!keys_->Add(key.hash, key.start, key.bytes, from, key.textOffset)) return Fail("the new KeyFile");
    }
    if (result == KeyFileWalker::END) return true;
    if (result == KeyFileWalker::READ_ERROR) {
        NoteUnread(path);
        return true;
    }
    struct stat status = {};
    if (fstat(from.Get(), &status) != 0) return Fail(path);
    return SetAside(path, index, wholeEnd, status.st_size - wholeEnd, "no whole entry of a key begins here");
}

bool RecoveryRepair::RepairLog(LogFile const& file, std::size_t index) {
    std::vector<LogFile> const one = {file};
    LogWalker walker(spec_, one);
    Log log(*this, file, index);
    LogRecord record;
    std::optional<LogRecord> doubtful;  // its length is not that of its fields
    std::string doubtfulKey;
    LogWalker::Result result;
    bool followsSound = false;
    while ((result = walker.Next(record)) == LogWalker::RECORD) {
        if (doubtful.has_value()) {
            followsSound = record.IsExact();
            if (!followsSound) break;
            if (!log.Take(*doubtful)) return Fail(file.path + " to " + into_);
            doubtful.reset();
        }
        if (!record.IsExact()) {
            doubtful = record;
            doubtfulKey = record.key;
            doubtful->key = doubtfulKey;
        } else if (!log.Take(record)) {
            return Fail(file.path + " to " + into_);
        }
    }
    if (result == LogWalker::READ_ERROR) {
        NoteUnread(file.path);
        return log.Finish() || Fail(file.path + " to " + into_);
    }
    if (result == LogWalker::END && doubtful.has_value()) {
        if (!log.Take(*doubtful)) return Fail(file.path + " to " + into_);
        doubtful.reset();
    }
    if (!log.Finish()) return Fail(file.path + " to " + into_);
    if (result == LogWalker::END) return true;
    long const from = doubtful.has_value() ? doubtful->start.offset : walker.Torn().offset;
    std::string const reason = doubtful.has_value()
                                   ? "a record's length is not that of its fields, and no sound record follows"
                                   : TextOf(walker.TornReason());
    if (!walker.ReadRest()) NoteUnread(file.path);
    return SetAside(file.path, index, from, walker.FileBytes(0) - from, reason);
}

bool RecoveryRepair::RepairDirectory(std::string const& path, std::size_t index) {
    RecoveryDirectory directory;
    if (!directory.Read(path)) return Fail(path + ": cannot be read");
    auto const leave = [&](std::vector<std::string> const& names, char const* why) {
        for (std::string const& name : names) report_.notes.push_back(fmt::format("{}/{}: {}", path, name, why));
    };
    leave(directory.foreign, "does not belong into a recovery directory; left where it is");
    leave(directory.passedOver, "is never read by a replay; left where it is");
    leave(directory.notFiles, "is no file; left where it is");
    auto const isNoFile = [&](std::string const& file) {
        return std::binary_search(directory.notFiles.begin(), directory.notFiles.end(), NameOf(file));
    };
    std::string const keyFile = directory.KeyFilePath();
    if (!directory.hasKeyFile) {
        report_.notes.push_back(fmt::format("{}: is missing; the keys are those of the records", keyFile));
    } else if (!isNoFile(keyFile) && !RepairKeyFile(keyFile, index)) {
        return false;
    }
    for (LogFile const& file : directory.AllFiles()) {
        if (!isNoFile(file.path) && !RepairLog(file, index)) return false;
    }
    return true;
}

// Reads back what was written: a replay must bring back just what was kept.
bool RecoveryRepair::Verify() {
    RecoveryReport read(0);
    bool const isRead = CheckRecovery(spec_, temporaryInto_, {}, read);
    if (isRead && !read.EndsWithError() && read.end == LogWalker::END && read.records == report_.records &&
        read.recordBytes == report_.bytes && read.bytes == report_.bytes && read.inexact == report_.inexact &&
        read.keyFileKeys == report_.keys && read.directory.files.size() == report_.files) {
        return true;
    }
    errno = EIO;
    return Fail(into_ + ": what was written does not read back; were the originals changed meanwhile?");
}

bool RecoveryRepair::Finish() {
    if (!SyncDirectory(temporaryInto_)) return Fail(into_);
    // Complete before the clean directory can be taken for the whole.
    if (!temporaryAside_.empty()) {
        if (!contents_->Finish() || !SyncDirectory(temporaryAside_)) return Fail(aside_);
        if (rename(temporaryAside_.c_str(), aside_.c_str()) != 0) return Fail(aside_);
        temporaryAside_.clear();
        if (!SyncDirectory(ParentOf(aside_))) return Fail(aside_);
    }
    if (rename(temporaryInto_.c_str(), into_.c_str()) != 0) return Fail(into_);
    temporaryInto_.clear();
    return SyncDirectory(ParentOf(into_)) || Fail(into_);
}

bool RecoveryRepair::Run(std::vector<std::string> const& directories) {
    if (!MakeFolder(into_, temporaryInto_)) return false;
    keys_ = std::make_unique<KeyFileWriter>(spec_, temporaryInto_ + "/KeyFile");
    if (!keys_->IsOpen()) return Fail(temporaryInto_ + "/KeyFile");
    for (std::size_t i = 0; i < directories.size(); ++i) {
        if (!RepairDirectory(directories[i], i)) return false;
    }
    report_.keys = keys_->Count();
    if (!keys_->Finish()) return Fail(into_ + "/KeyFile");
    return Verify() && Finish();
}
