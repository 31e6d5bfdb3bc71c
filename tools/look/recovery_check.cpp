#include "recovery_check.h"

#include <algorithm>
#include <cerrno>

#include "uts_fieldtranslation.h"

KeyCounts::Entry* KeyCounts::Find(KeyHash const& hash, std::string_view start, long bytes) {
    auto const found = index_.find(hash);
    if (found != index_.end()) return &entries_[found->second];
    if (index_.size() >= keysMax_) {
        isCut_ = true;
        return nullptr;
    }
    index_.emplace(hash, entries_.size());
    return &entries_.emplace_back(Entry{std::string(start), bytes, 0, false});
}

void KeyCounts::AddFromKeyFile(KeyFileWalker::Key const& key) {
    Entry* const entry = Find(key.hash, key.start, key.bytes);
    if (entry == nullptr) return;
    if (entry->inKeyFile) ++twiceInKeyFile_;
    entry->inKeyFile = true;
}

void KeyCounts::AddRecord(LogRecord const& record) {
    Entry* const entry = Find(record.hash, record.key, record.keyBytes);
    if (entry == nullptr) {
        ++otherRecords_;
        return;
    }
    if (entry->records++ == 0 && !entry->inKeyFile) ++notInKeyFile_;
}

std::vector<KeyCounts::Entry const*> KeyCounts::InOrder() const {
    std::vector<Entry const*> entries;
    for (Entry const& entry : entries_) entries.push_back(&entry);
    return entries;
}

std::vector<KeyCounts::Entry const*> KeyCounts::ByRecords() const {
    std::vector<Entry const*> entries = InOrder();
    std::stable_sort(entries.begin(), entries.end(),
                     [](Entry const* a, Entry const* b) { return a->records > b->records; });
    return entries;
}

long RecordBytesMax(suts_tsspec const& spec) {
    return SUTS_MESSAGE_BYTES_MAX - SUTS_SHIP_TYPE_BYTES - 2L * SUTS_NUMBER8_BYTES -
           static_cast<long>(suts_StringFields(spec, 0, spec.fieldCount)) * SUTS_STRING_LENGTH_BYTES;
}

bool RecoveryReport::EndsWithError() const {
    return !directory.foreign.empty() || !directory.notFiles.empty() || keyFileEnd != KeyFileWalker::END ||
           (end == LogWalker::READ_ERROR && !couldNotOpen);
}

bool RecoveryReport::IsClean() const {
    return !EndsWithError() && end == LogWalker::END && directory.misnamed.empty() && directory.passedOver.empty() &&
           negative.records + future.records + epoch.records + tooLarge + inexact + zeroRunCount == 0 &&
           keyFileCut + keys.KeysTwiceInKeyFile() == 0;
}

namespace {

void Note(OddTimes& times, LogRecord const& record) {
    if (times.records++ > 0) return;
    times.first = record.start;
    times.firstUs = record.timeUs;
}

void CheckKeyFile(suts_tsspec const& spec, RecoveryReport& report) {
    KeyFileWalker walker(spec, report.directory.KeyFilePath());
    KeyFileWalker::Key key;
    while ((report.keyFileEnd = walker.Next(key)) == KeyFileWalker::KEY) {
        ++report.keyFileKeys;
        report.keyFileCut += walker.IsCut() ? 1 : 0;
        report.keys.AddFromKeyFile(key);
    }
    if (report.keyFileEnd == KeyFileWalker::READ_ERROR) report.keyFileError = errno;
    report.keyFileOffset = walker.Offset();
}

void CountRecord(LogRecord const& record, CheckLimits const& limits, long recordBytesMax, RecoveryReport& report) {
    if (!record.IsExact() && report.inexact++ == 0) report.firstInexact = record.start;
    if (record.timeUs < 0) return Note(report.negative, record);
    if (record.keyBytes + record.valueBytes > recordBytesMax) {
        ++report.tooLarge;
        return;
    }
    if (record.timeUs > limits.futureUs) Note(report.future, record);
    if (record.timeUs < limits.epochUs) Note(report.epoch, record);
    if (report.records == 0) report.firstUs = report.lastUs = record.timeUs;
    report.firstUs = std::min(report.firstUs, record.timeUs);
    report.lastUs = std::max(report.lastUs, record.timeUs);
    ++report.records;
    report.recordBytes += record.bytes;
    ++report.fileRecords[record.start.file];
    report.keys.AddRecord(record);
}

}  // namespace

bool CheckRecovery(suts_tsspec const& spec, std::string const& directory, CheckLimits const& limits,
                   RecoveryReport& report) {
    if (!report.directory.Read(directory)) return false;
    CheckKeyFile(spec, report);
    std::vector<LogFile> const& files = report.directory.files;
    report.fileRecords.resize(files.size());
    report.fileBytes.resize(files.size());
    if (files.empty()) return true;
    LogWalker walker(spec, files);
    long const recordBytesMax = RecordBytesMax(spec);
    LogRecord record;
    while ((report.end = walker.Next(record)) == LogWalker::RECORD) {
        CountRecord(record, limits, recordBytesMax, report);
    }
    if (report.end == LogWalker::READ_ERROR) report.error = errno;
    bool const restWasRead = report.end == LogWalker::READ_ERROR || walker.ReadRest();
    if (!restWasRead || report.end == LogWalker::READ_ERROR) {
        // Behind a tear a replay reads no further.
        if (report.error == 0) report.error = errno;
        report.failedFile = walker.FailedFile();
        report.couldNotOpen = walker.CouldNotOpen();
    }
    for (std::size_t i = 0; i < files.size(); ++i) {
        report.fileBytes[i] = walker.FileBytes(i);
        report.bytes += report.fileBytes[i];
    }
    if (report.end == LogWalker::TORN) {
        report.torn = walker.Torn();
        report.tornReason = walker.TornReason();
        report.tornBytes = report.fileBytes[report.torn.file] - report.torn.offset;
        for (std::size_t i = report.torn.file + 1; i < files.size(); ++i) report.tornBytes += report.fileBytes[i];
    }
    report.zeroRuns = walker.ZeroRuns();
    report.zeroRunCount = walker.ZeroRunCount();
    return true;
}

char const* TextOf(LogWalker::Reason reason) {
    switch (reason) {
        case LogWalker::NO_REASON:
            break;
        case LogWalker::ENDS_IN_HEAD:
            return "the log ends inside a record's head";
        case LogWalker::ENDS_BEFORE_FIELD:
            return "the log ends between two fields of a record";
        case LogWalker::ENDS_IN_FIELD:
            return "the log ends inside a field";
        case LogWalker::LENGTH_NEGATIVE:
            return "a head's length is below 0";
        case LogWalker::LENGTH_TOO_SMALL:
            return "a head's length is too small for the fields";
        case LogWalker::KEY_TOO_LONG:
            return "a key does not end within 2^31 bytes";
    }
    return "nothing is wrong";
}
