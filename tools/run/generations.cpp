#include "generations.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include "durable_file.h"
#include "recovery_directory.h"
#include "recovery_repair.h"
#include "replay_directory.h"
#include "spec_text.h"

namespace {

constexpr std::size_t MANY_GENERATIONS = 10;

constexpr char GENERATION[] = "gen";
constexpr char REPLAY[] = "replay";
constexpr char ASIDE[] = "aside";
constexpr char KEPT[] = "kept";
constexpr char NEW[] = "new";
constexpr char GONE[] = "gone";
constexpr char REPAIR_TEMPORARY[] = ".brindle-repair-";

// The number in a name of this kind; 0 for another name.
unsigned NumberIn(std::string_view name, std::string_view kind) {
    if (!name.starts_with(kind) || name.size() < kind.size() + 2 || name[kind.size()] != '-') return 0;
    name.remove_prefix(kind.size() + 1);
    unsigned number = 0;
    auto const [end, error] = std::from_chars(name.begin(), name.end(), number);
    // Another spelling of a number is no name of ours.
    bool const isOurs = error == std::errc() && end == name.end() && fmt::format("{:06}", number) == name;
    return isOurs ? number : 0;
}

// False with errno set when the directory cannot be read to its end.
bool NamesIn(std::string const& directory, std::vector<std::string>& names) {
    std::unique_ptr<DIR, int (*)(DIR*)> const entries(opendir(directory.c_str()), closedir);
    if (entries == nullptr) return false;
    for (;;) {
        errno = 0;
        dirent const* const entry = readdir(entries.get());
        if (entry == nullptr) return errno == 0;
        std::string const name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
}

bool Exists(std::string const& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

// What a record consists of is the same, by name, too.
bool IsSameSchema(suts_tsspec const& a, suts_tsspec const& b) {
    if (a.fieldCount != b.fieldCount) return false;
    for (int i = 0; i < a.fieldCount; ++i) {
        if (a.Type(i) != b.Type(i) || strcmp(a.fieldNames[i].get(), b.fieldNames[i].get()) != 0) return false;
    }
    return true;
}

// What is wrong with a schema first; empty if nothing is.
std::string SchemaTrouble(std::string const& text) {
    std::vector<SpecProblem> const problems = CheckSpec(text);
    if (problems.empty()) return "";
    return fmt::format("{}:{}: {}", problems.front().line, problems.front().column, problems.front().text);
}

// Brings a file to the disk. One that is gone has been shipped meanwhile.
bool SyncFile(std::string const& path) {
    sutl_Descriptor const file = sutl_OpenFile(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (!file.IsOpen()) return errno == ENOENT;
    return fsync(file.Get()) == 0;
}

std::string ListOf(std::vector<unsigned> const& numbers) {
    return fmt::format("{} {}", numbers.size() == 1 ? "generation" : "generations", fmt::join(numbers, ", "));
}

}  // namespace

std::string Generations::PathOf(char const* kind, unsigned number) const {
    return fmt::format("{}/{}-{:06}", directory_, kind, number);
}

std::string Generations::RecoveryOf(unsigned number) const { return PathOf(GENERATION, number) + "/recovery"; }

bool Generations::Fail(std::string const& what) {
    error_ = what + ": " + strerror(errno);
    return false;
}

bool Generations::RemoveAll(std::string const& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    errno = error.value();
    return !error || Fail(path + ": cannot be removed");
}

bool Generations::Open(std::string const& directory) {
    error_.clear();
    directory_ = directory;
    std::error_code error;
    std::filesystem::create_directories(directory_, error);
    errno = error.value();
    if (error || !SyncDirectory(FolderOf(directory_))) return Fail(directory_);
    return true;
}

// Removes what an end in between has left, and finds the generations, oldest first.
bool Generations::CleanUp(std::vector<unsigned>& numbers, Notes& notes) {
    std::vector<std::string> names;
    if (!NamesIn(directory_, names)) return Fail(directory_);
    for (std::string const& name : names) {
        std::string const path = fmt::format("{}/{}", directory_, name);
        for (char const* const kind : {GENERATION, REPLAY, ASIDE, KEPT, NEW, GONE}) {
            last_ = std::max(last_, NumberIn(name, kind));
        }
        bool const isLeft = NumberIn(name, REPLAY) + NumberIn(name, NEW) + NumberIn(name, GONE) > 0;
        // Its number is not given again, so it harms nobody but by its size.
        if ((isLeft || name.starts_with(REPAIR_TEMPORARY)) && !RemoveAll(path)) notes.push_back(error_);
        unsigned const number = NumberIn(name, GENERATION);
        if (number == 0) continue;
        numbers.push_back(number);
        std::vector<std::string> inside;
        if (!NamesIn(path, inside)) return Fail(path);
        for (std::string const& left : inside) {
            bool const isUnfinished = left == "mending" || left.starts_with(REPAIR_TEMPORARY);
            if (isUnfinished && !RemoveAll(fmt::format("{}/{}", path, left))) return false;
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return true;
}

// Moves a generation out of the way as it is.
bool Generations::Keep(unsigned number, std::string const& why, Notes& notes) {
    std::string const path = PathOf(KEPT, number);
    if (rename(PathOf(GENERATION, number).c_str(), path.c_str()) != 0 || !SyncDirectory(directory_)) return Fail(path);
    notes.push_back(fmt::format("{}: generation {} is kept here: {}", path, number, why));
    return true;
}

// Its records must be on disk elsewhere.
bool Generations::Remove(unsigned number, Notes& notes) {
    std::string const path = PathOf(GENERATION, number);
    bool hasBytes = false;
    std::vector<std::string> alien;
    if (!LookIntoGeneration(RecoveryOf(number), hasBytes, alien)) return Fail(RecoveryOf(number));
    if (!alien.empty()) {
        return Keep(number, fmt::format("{} does not belong into it", fmt::join(alien, ", ")), notes);
    }
    if (Exists(path + "/unread")) return Keep(number, "not all of it could be read", notes);
    std::string const gone = PathOf(GONE, number);
    if (rename(path.c_str(), gone.c_str()) != 0 || !SyncDirectory(directory_)) return Fail(path);
    // What is left of it now is removed by the next preparation.
    std::error_code ignored;
    std::filesystem::remove_all(gone, ignored);
    return true;
}

bool Generations::FindOlder(std::vector<unsigned> const& numbers, std::vector<Older>& older, Notes& notes) {
    for (unsigned const number : numbers) {
        bool hasBytes = false;
        std::vector<std::string> alien;
        if (!LookIntoGeneration(RecoveryOf(number), hasBytes, alien)) return Fail(RecoveryOf(number));
        if (!hasBytes) {
            if (!Remove(number, notes)) return false;
            continue;
        }
        std::string const path = PathOf(GENERATION, number) + "/schema.spec";
        std::optional<std::string> text = ReadFile(path);
        if (!text.has_value() && errno != ENOENT) return Fail(path);
        Older generation;
        generation.number = number;
        std::string const trouble = text.has_value() ? SchemaTrouble(*text) : "is missing";
        if (!trouble.empty() || generation.spec.Init(path.c_str()) != suts_tsspec::LOADED) {
            std::string const why = fmt::format(
                "it is not replayed, because its schema.spec cannot be used ({}); put the right one there, rename the "
                "directory to gen-{:06} and start again",
                trouble, number);
            if (!Keep(number, why, notes)) return false;
            continue;
        }
        generation.schemaText = std::move(*text);
        older.push_back(std::move(generation));
    }
    return true;
}

bool Generations::Mend(Older const& generation, std::string const& damage, Notes& notes) {
    std::string const path = PathOf(GENERATION, generation.number);
    std::string const aside = PathOf(ASIDE, generation.number);
    // Without its mended/ this is the left-over of a mending that was interrupted.
    if (!RemoveAll(aside)) return false;
    RecoveryRepair repair(generation.spec, path + "/mending", aside);
    if (!repair.Run({RecoveryOf(generation.number)})) {
        error_ = repair.Problem();
        return false;
    }
    RepairReport const& report = repair.Report();
    // The mark comes first: with mended/ there, nobody would find out again.
    if (report.unread > 0 && !ReplaceFile(path + "/unread", damage + "\n")) return Fail(path + "/unread");
    if (rename((path + "/mending").c_str(), (path + "/mended").c_str()) != 0 || !SyncDirectory(path)) {
        return Fail(path + "/mended");
    }
    notes.push_back(
        fmt::format("{}: damaged: {}; {} records are saved", RecoveryOf(generation.number), damage, report.records));
    if (!report.parts.empty()) {
        notes.push_back(
            fmt::format("{}: holds {} bytes that cannot be replayed; contents.txt there tells where they "
                        "come from",
                        aside, report.setAsideBytes));
    }
    notes.insert(notes.end(), report.notes.begin(), report.notes.end());
    return true;
}

// Finds out what is to be replayed of a generation.
bool Generations::Judge(Older& generation, Notes& notes) {
    std::string const recovery = RecoveryOf(generation.number);
    std::string const mended = PathOf(GENERATION, generation.number) + "/mended";
    GenerationLog& log = generation.log;
    if (Exists(mended)) {
        bool const isRead = ReadGenerationLog(generation.spec, mended, log);
        if (isRead && log.isReadable && log.keyTrouble.empty()) return true;
        // Renamed first: half of it must not be taken for the whole.
        std::string const mending = PathOf(GENERATION, generation.number) + "/mending";
        if (rename(mended.c_str(), mending.c_str()) != 0) return Fail(mended);
        if (!RemoveAll(mending)) return false;
    }
    if (!ReadGenerationLog(generation.spec, recovery, log)) return Fail(recovery);
    if (!log.damage.empty()) {
        return Mend(generation, log.damage, notes) && (ReadGenerationLog(generation.spec, mended, log) || Fail(mended));
    }
    if (!log.keyTrouble.empty()) {
        notes.push_back(
            fmt::format("{}/KeyFile: {}; the keys missing come from the records", recovery, log.keyTrouble));
    }
    for (std::string const& name : log.alien) {
        notes.push_back(fmt::format("{}/{}: does not belong there; it is left out and kept", recovery, name));
    }
    return true;
}

// A server that died before it had more than what it replayed leaves nothing new, and one that had all of it and more
// makes the older ones needless. Without this, every death before a replay was settled would double what the next start
// replays.
bool Generations::DropRepeated(suts_tsspec const& spec, std::vector<Older>& older, Notes& notes) {
    std::vector<LogPiece> pieces;
    std::vector<Older> needed;
    unsigned long doubles = 0;
    for (Older& generation : older) {
        LogOverlap const overlap = CompareLogs(spec, pieces, generation.log.pieces);
        if (overlap.isWhole) {
            for (Older const& original : needed) {
                if (!SyncLog(original.log.directory)) return false;
            }
            if (!Remove(generation.number, notes)) return false;
            continue;
        }
        unsigned long olderRecords = 0;
        for (Older const& original : needed) olderRecords += original.log.records;
        if (olderRecords > 0 && overlap.records == olderRecords) {
            // It holds all of theirs and more. The oldest goes last, so that what is left stands in its order.
            if (!SyncLog(generation.log.directory)) return false;
            for (; !needed.empty(); needed.pop_back()) {
                if (!Remove(needed.back().number, notes)) return false;
            }
            pieces.clear();
        } else {
            doubles += overlap.records;
        }
        pieces.insert(pieces.end(), generation.log.pieces.begin(), generation.log.pieces.end());
        needed.push_back(std::move(generation));
    }
    older = std::move(needed);
    if (doubles > 0) notes.push_back(fmt::format("{} records are replayed twice", doubles));
    return true;
}

bool Generations::MakeNew(std::string const& schemaText) {
    std::string const path = PathOf(NEW, ++last_);
    bool const isMade = mkdir(path.c_str(), DIRECTORY_MODE) == 0 &&
                        mkdir((path + "/recovery").c_str(), DIRECTORY_MODE) == 0 &&
                        ReplaceFile(path + "/schema.spec", schemaText) && SyncDirectory(path);
    return isMade || Fail(path);
}

bool Generations::PrepareReplay(suts_tsspec const& spec, std::vector<Older>& older, GenerationStart& start,
                                Notes& notes) {
    for (Older& generation : older) {
        if (!Judge(generation, notes)) return false;
    }
    if (!DropRepeated(spec, older, notes)) return false;
    if (older.empty()) return true;
    std::vector<GenerationLog> logs;
    unsigned long records = 0;
    for (Older& generation : older) {
        replayed_.push_back(generation.number);
        records += generation.log.records;
        logs.push_back(std::move(generation.log));
    }
    notes.push_back(fmt::format("{} records of {} are to be replayed", records, ListOf(replayed_)));
    if (older.size() >= MANY_GENERATIONS) {
        notes.push_back(
            fmt::format("{} generations wait: every server of late has died before it had replayed them; "
                        "look for why, and watch the disk",
                        older.size()));
    }
    if (logs.size() == 1 && logs.front().ReplaysAsItStands()) {
        start.replay = logs.front().directory;
        return true;
    }
    start.replay = PathOf(REPLAY, last_);
    return MakeReplayDirectory(spec, start.replay, logs, error_);
}

// Gives the new generation its name.
bool Generations::Finish(GenerationStart& start) {
    std::string const path = PathOf(GENERATION, last_);
    if (rename(PathOf(NEW, last_).c_str(), path.c_str()) != 0 || !SyncDirectory(directory_)) return Fail(path);
    newest_ = last_;
    start.number = newest_;
    start.schema = path + "/schema.spec";
    start.recovery = RecoveryOf(newest_);
    return true;
}

Generations::Result Generations::Prepare(std::string const* schemaFile, GenerationStart& start, Notes& notes) {
    error_.clear();
    start = {};
    newest_ = 0;
    replayed_.clear();
    replayFinished_ = false;
    mark_ = {};
    isDrain_ = schemaFile == nullptr;
    std::vector<unsigned> numbers;
    std::vector<Older> older;
    if (!CleanUp(numbers, notes) || !FindOlder(numbers, older, notes)) return FAILED;
    std::string text;
    if (schemaFile != nullptr) {
        std::optional<std::string> const read = ReadFile(*schemaFile);
        if (!read.has_value()) {
            Fail(*schemaFile);
            return FAILED;
        }
        text = *read;
        if (std::string const trouble = SchemaTrouble(text); !trouble.empty()) {
            error_ = *schemaFile + ":" + trouble;
            return FAILED;
        }
    } else if (older.empty()) {
        error_ = directory_ + ": no generation holds records, so there is nothing to drain";
        return FAILED;
    } else {
        text = older.front().schemaText;
    }
    suts_tsspec spec;
    Result result = FAILED;
    // The copy is read, which nobody changes meanwhile.
    if (MakeNew(text) && spec.Init((PathOf(NEW, last_) + "/schema.spec").c_str()) == suts_tsspec::LOADED) {
        auto const other = std::stable_partition(older.begin(), older.end(), [&spec](Older const& generation) {
            return IsSameSchema(generation.spec, spec);
        });
        bool const isOther = schemaFile != nullptr && other != older.end();
        if (isOther) {
            result = SCHEMA_CHANGED;
            notes.push_back(fmt::format("{} holds records of another schema than {}", PathOf(GENERATION, other->number),
                                        *schemaFile));
        } else {
            older.erase(other, older.end());
            if (PrepareReplay(spec, older, start, notes) && Finish(start)) return READY;
        }
    }
    // The room on the disk may be what is missing.
    std::error_code ignored;
    for (char const* const kind : {REPLAY, NEW}) std::filesystem::remove_all(PathOf(kind, last_), ignored);
    replayed_.clear();
    start = {};
    return result;
}

Generations::Result Generations::PrepareStart(std::string const& schemaFile, GenerationStart& start, Notes& notes) {
    return Prepare(&schemaFile, start, notes);
}

Generations::Result Generations::PrepareDrain(GenerationStart& start, Notes& notes) {
    return Prepare(nullptr, start, notes);
}

// Settling ------------------------------------------------------------------------------------------------------------

bool Generations::SyncLog(std::string const& recovery) {
    RecoveryDirectory names;
    if (!names.Read(recovery)) return Fail(recovery);
    for (LogFile const& file : names.files) {
        if (!SyncFile(file.path)) return Fail(file.path);
    }
    if (!SyncFile(names.KeyFilePath())) return Fail(names.KeyFilePath());
    return SyncDirectory(recovery) || Fail(recovery);
}

bool Generations::SyncNewest() {
    std::string const path = PathOf(GENERATION, newest_);
    if (!SyncLog(RecoveryOf(newest_))) return false;
    return (SyncDirectory(path) && SyncDirectory(directory_)) || Fail(path);
}

bool Generations::RemoveReplayed(Notes& notes) {
    // The oldest last: if this ends in between, what is left still stands in its order before the newest.
    while (!replayed_.empty()) {
        if (!Remove(replayed_.back(), notes)) return false;
        replayed_.pop_back();
    }
    return RemoveAll(PathOf(REPLAY, newest_));
}

bool Generations::FindNewestFile(Mark& newest) {
    RecoveryDirectory names;
    newest = {};
    if (!names.Read(RecoveryOf(newest_))) return Fail(RecoveryOf(newest_));
    struct stat status = {};
    // A file that goes between the two looks is found to be gone by the next call.
    if (names.files.empty() || stat(names.files.back().path.c_str(), &status) != 0) return true;
    newest = {names.files.back().number, status.st_size};
    return true;
}

void Generations::ReplayFinished() {
    replayFinished_ = newest_ != 0;
    if (replayFinished_) static_cast<void>(FindNewestFile(mark_));  // or the first Settle does
}

bool Generations::Settle(Notes& notes) {
    error_.clear();
    if (!replayFinished_) return false;
    if (replayed_.empty()) return true;
    Mark now;
    if (!FindNewestFile(now) || now.file == 0) return false;
    // A mark that is set later is as good: more will have to be seen.
    if (mark_.file == 0) mark_ = now;
    // A closed file was written to its end; a block that was begun before the mark is full with the next one written.
    bool const isWritten =
        now.file > mark_.file || (now.file == mark_.file && now.bytes >= mark_.bytes + SUTS_LOG_BLOCK_BYTES);
    if (!isWritten) return false;
    // The system tells of a block that the disk has refused only once, so the next call would find everything synced.
    replayFinished_ = SyncNewest();
    return replayFinished_ && RemoveReplayed(notes);
}

bool Generations::Ended(bool shippedAll, Notes& notes) {
    error_.clear();
    unsigned const ended = newest_;
    replayFinished_ = false;
    if (!shippedAll || ended == 0) {
        newest_ = 0;
        return true;
    }
    bool hasBytes = false;
    std::vector<std::string> alien;
    bool done = LookIntoGeneration(RecoveryOf(ended), hasBytes, alien) || Fail(RecoveryOf(ended));
    // Records of times near zero are never shipped: they stay in their files.
    if (done && hasBytes) done = SyncNewest();
    done = done && RemoveReplayed(notes);
    if (done && !hasBytes) done = Remove(ended, notes);
    if (done && hasBytes && isDrain_) done = Keep(ended, "the server ships no records of times so near zero", notes);
    newest_ = 0;
    return done;
}
