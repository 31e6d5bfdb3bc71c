#include "generation_log.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "key_file_walker.h"
#include "recovery_check.h"
#include "recovery_directory.h"

namespace {

// The key of a torn record may be so long; where no end of it is in sight for longer, it is no tear but damage.
constexpr long TORN_KEY_BYTES_MAX = 64L * 1024;

std::string NameOf(LogFile const& file) { return "F" + std::to_string(file.number); }

std::vector<std::string> AlienNames(RecoveryDirectory const& directory) {
    std::vector<std::string> names = directory.foreign;
    names.insert(names.end(), directory.passedOver.begin(), directory.passedOver.end());
    names.insert(names.end(), directory.notFiles.begin(), directory.notFiles.end());
    return names;
}

bool IsFile(RecoveryDirectory const& directory, std::string const& name) {
    return std::find(directory.notFiles.begin(), directory.notFiles.end(), name) == directory.notFiles.end();
}

// The size of a file; what cannot be looked at counts as having bytes, so that reading it fails where it is reported.
long BytesOf(std::string const& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_size : 1;
}

// Whether the rest of a file can be what a kill leaves of a record on its way to the disk.
bool IsTear(LogWalker const& walker, LogRecord const& torn, long restBytes) {
    switch (walker.TornReason()) {
        case LogWalker::ENDS_IN_HEAD:
            return true;
        case LogWalker::ENDS_BEFORE_FIELD:
        case LogWalker::ENDS_IN_FIELD:
            return restBytes < SUTS_LOG_HEAD_BYTES + TORN_KEY_BYTES_MAX + torn.declaredBytes;
        default:
            return false;
    }
}

void NoteDamage(GenerationLog& log, std::string const& what) {
    if (log.damage.empty()) log.damage = what;
}

void ReadPiece(suts_tsspec const& spec, LogPiece& piece, bool isLast, GenerationLog& log) {
    std::vector<LogFile> const file = {piece.file};
    LogWalker walker(spec, file);
    LogRecord record;
    LogWalker::Result result;
    long const recordBytesMax = RecordBytesMax(spec);
    while ((result = walker.Next(record)) == LogWalker::RECORD) {
        piece.wholeBytes = record.start.offset + record.bytes;
        ++log.records;
        if (!record.IsExact()) {
            NoteDamage(log, fmt::format("{}: a record's length at offset {} is not that of its fields",
                                        NameOf(piece.file), record.start.offset));
        }
        if (record.timeUs < 0 || record.keyBytes + record.valueBytes > recordBytesMax) {
            NoteDamage(log, fmt::format("{}: a replay refuses the record at offset {}", NameOf(piece.file),
                                        record.start.offset));
        }
    }
    if (result == LogWalker::READ_ERROR) {
        log.isReadable = false;
        NoteDamage(log, fmt::format("{}: cannot be read: {}", NameOf(piece.file), strerror(errno)));
    }
    if (result != LogWalker::TORN || (isLast && IsTear(walker, record, piece.bytes - piece.wholeBytes))) return;
    log.isReadable = false;
    NoteDamage(log, fmt::format("{}: no record begins at offset {}", NameOf(piece.file), piece.wholeBytes));
}

std::string KeyTroubleOf(suts_tsspec const& spec, RecoveryDirectory const& directory) {
    if (!directory.hasKeyFile || !IsFile(directory, "KeyFile")) return "is missing";
    KeyFileWalker walker(spec, directory.KeyFilePath());
    KeyFileWalker::Key key;
    KeyFileWalker::Result result;
    do { result = walker.Next(key); } while (result == KeyFileWalker::KEY);
    if (result == KeyFileWalker::END) return "";
    if (result == KeyFileWalker::READ_ERROR) return std::string("cannot be read: ") + strerror(errno);
    return fmt::format("no whole key begins at offset {}", walker.Offset());
}

}  // namespace

bool ReadGenerationLog(suts_tsspec const& spec, std::string const& directory, GenerationLog& log) {
    log = {};
    log.directory = directory;
    RecoveryDirectory names;
    if (!names.Read(directory)) return false;
    log.alien = AlienNames(names);
    if (!names.misnamed.empty()) NoteDamage(log, names.misnamed + ": a replay ends at this name");
    for (LogFile const& file : names.files) {
        long const bytes = IsFile(names, NameOf(file)) ? BytesOf(file.path) : 0;
        if (bytes > 0) log.pieces.push_back({file, bytes, 0});
    }
    for (LogPiece& piece : log.pieces) {
        // Before a file is made, even if it stays empty, the one before it is whole.
        ReadPiece(spec, piece, piece.file.number == names.files.back().number, log);
    }
    log.keyTrouble = KeyTroubleOf(spec, names);
    return true;
}

bool LookIntoGeneration(std::string const& directory, bool& hasBytes, std::vector<std::string>& alien) {
    RecoveryDirectory names;
    hasBytes = false;
    alien.clear();
    if (!names.Read(directory)) return errno == ENOENT;
    alien = AlienNames(names);
    for (LogFile const& file : names.AllFiles()) {
        std::string const name = file.path.substr(directory.size() + 1);
        hasBytes = hasBytes || (IsFile(names, name) && BytesOf(file.path) > 0);
    }
    return true;
}

bool WholeRecords::Next() {
    for (;;) {
        LogRecord record;
        LogWalker::Result const result = walker_ != nullptr ? walker_->Next(record) : LogWalker::END;
        if (result == LogWalker::RECORD) {
            failed_ = !walker_->Read(record, bytes_);
            return !failed_;
        }
        failed_ = result == LogWalker::READ_ERROR;
        if (failed_ || piece_ == pieces_.size()) return false;
        file_ = {pieces_[piece_++].file};
        walker_ = std::make_unique<LogWalker>(spec_, file_);
    }
}

LogOverlap CompareLogs(suts_tsspec const& spec, std::vector<LogPiece> const& older,
                       std::vector<LogPiece> const& newer) {
    LogOverlap overlap;
    WholeRecords copied(spec, older);
    WholeRecords copy(spec, newer);
    while (copy.Next()) {
        // Those in between were shipped by the newer generation.
        do {
            if (!copied.Next()) return overlap;
        } while (copied.Bytes() != copy.Bytes());
        ++overlap.records;
    }
    overlap.isWhole = !copy.HasFailed();
    return overlap;
}
