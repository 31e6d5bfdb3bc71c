// Generations of recovery directories against a plain model: what was once on disk, and not shipped, is replayed.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/syscall.h>

#include <functional>
#include <map>
#include <memory>

#include "../uts/uts_support.h"
#include "generations.h"
#include "recovery_check.h"
#include "state_lock.h"
#include "uts_stgkeyfile.h"

// Every call that changes a directory or a file passes here, so that a test can end the process or fill the disk at
// each.
namespace {

enum Trouble { NONE, END, DISK_FULL };
Trouble trouble = NONE;
long callsLeft = 0;    // before it comes
bool hasLinks = true;  // the file system knows hard links

bool MayGoOn(bool needsRoom) {
    if (trouble == NONE || --callsLeft >= 0) return true;
    if (trouble == END) _exit(9);
    errno = ENOSPC;
    return !needsRoom;
}

int Call(long number, auto... arguments) { return static_cast<int>(syscall(number, arguments...)); }

}  // namespace

extern "C" {
int mkdir(char const* path, mode_t mode) noexcept {
    return MayGoOn(true) ? Call(SYS_mkdirat, AT_FDCWD, path, mode) : -1;
}
int rename(char const* from, char const* to) noexcept {
    return MayGoOn(true) ? Call(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to) : -1;
}
int link(char const* from, char const* to) noexcept {
    errno = EPERM;
    return hasLinks && MayGoOn(true) ? Call(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0) : -1;
}
int unlink(char const* path) noexcept { return MayGoOn(false) ? Call(SYS_unlinkat, AT_FDCWD, path, 0) : -1; }
int unlinkat(int folder, char const* path, int flags) noexcept {
    return MayGoOn(false) ? Call(SYS_unlinkat, folder, path, flags) : -1;
}
// Nothing here outlives the machine, so nothing has to wait for the disk.
int fsync(int) { return MayGoOn(true) ? 0 : -1; }
ssize_t write(int file, void const* bytes, size_t count) {
    return MayGoOn(true) ? syscall(SYS_write, file, bytes, count) : -1;
}
}

namespace {

using test::Directory;
using test::Host;
using test::Record;
using Ids = std::set<long>;
using Notes = std::vector<std::string>;
using namespace std::string_literals;

constexpr char SCHEMA[] = "R string64 sensor int64 id string64 text\n";

Record RecordOf(long id, std::size_t textBytes) {
    return {1700000000000000 + id, "sensor" + std::to_string(id % 7) + '\0',
            Host(id) + std::string(textBytes, 'x') + '\0'};
}

// The ids of the whole records that lie in a file up to an offset; in order.
std::vector<long> IdsIn(std::string const& file, std::size_t end = SIZE_MAX) {
    std::string const all = test::ReadFile(file).substr(0, end);
    std::vector<long> ids;
    for (std::size_t at = 0; at + 12 < all.size();) {
        int length;
        memcpy(&length, &all[at + 8], sizeof length);
        std::size_t const value = all.find('\0', at + 12) + 1;
        if (value == 0 || value + static_cast<std::size_t>(length) > all.size()) break;
        ids.push_back(0);
        memcpy(&ids.back(), &all[value], sizeof ids.back());
        at = value + static_cast<std::size_t>(length);
    }
    return ids;
}

std::vector<std::string> LogFilesBelow(std::string const& state) {
    std::vector<std::string> files;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(state)) {
        std::string const folder = entry.path().parent_path().filename();
        bool const isInUse = entry.path().string().starts_with(state + "/gen-") && folder == "recovery";
        if (isInUse && entry.path().filename() != "KeyFile") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// A server of one start, as far as its directories see it.
class Server {
 public:
    Server(suts_tsspec const& spec, GenerationStart const& start, Ids& shipped)
        : shipped_(shipped), log_(start.recovery.c_str()), keyFile_(suts_CreateLogFile(start.recovery + "/KeyFile")) {
        if (start.replay.empty()) return;
        suts_StgKeyFileReader reader(spec, start.replay.c_str());
        suts_StgKeyFileReader::Result result;
        for (sutl_RawBytefield key; (result = reader.Next(key)) == suts_StgKeyFileReader::KEY;) {
            AddKey(test::TakeBytes(key), false);
        }
        EXPECT_EQ(suts_StgKeyFileReader::END, result);
        std::string const warnings = test::StandardErrorOf([&] {
            suts_StgRecoveryPlayback playback(spec, start.replay.c_str());
            for (suts_StgEntry entry; playback.QNext(entry) == 0;) {
                waiting_.push_back({entry.time, test::BytesOf(entry.key), test::BytesOf(entry.value)});
            }
        });
        EXPECT_EQ(std::string::npos, warnings.find("ERROR")) << warnings;
    }

    [[nodiscard]] std::vector<long> Waiting() const {
        std::vector<long> ids;
        for (Record const& record : waiting_) ids.push_back(IdOf(record));
        return ids;
    }
    void Replay(std::size_t records) {
        for (std::size_t i = 0; i < records && i < waiting_.size(); ++i) Add(waiting_[i]);
    }
    void Add(Record const& record) {
        if (!keys_.contains(record.key)) AddKey(record.key, true);
        staged_.emplace_back(test::Log(log_, record), IdOf(record));
    }
    // The first ones; the record behind them can go with the file that it closes.
    void Ship(std::size_t records) {
        records = std::min(records, staged_.size());
        for (std::size_t i = 0; i < std::min(records + 1, staged_.size()); ++i) shipped_.insert(staged_[i].second);
        for (std::size_t i = 0; i < records; ++i) log_.Mark(staged_[i].first);
        staged_.erase(staged_.begin(), staged_.begin() + static_cast<long>(records));
    }
    void End(bool shipsAll) {
        if (shipsAll) Ship(staged_.size());
        log_.Terminate();
    }

 private:
    static long IdOf(Record const& record) {
        long id;
        memcpy(&id, record.value.data(), sizeof id);
        return id;
    }
    void AddKey(std::string const& key, bool withLength) {
        suts_StgKeyEntries entry;
        entry.Add(test::OwnedField(key), withLength);
        entry.Write(keyFile_);
        keys_.insert(key);
    }

    Ids& shipped_;
    suts_StgRecovery log_;
    sutl_Descriptor keyFile_;
    std::set<std::string> keys_;
    std::vector<Record> waiting_;  // to be replayed
    std::vector<std::pair<suts_StgFileRecord*, long>> staged_;
};

// A state directory, its servers, and what must not be lost.
class World {
 public:
    explicit World(test::Random& random) : random_(random) {
        test::WriteFile(schemaFile_, SCHEMA);
        EXPECT_EQ(suts_tsspec::LOADED, spec_.Init(schemaFile_.c_str()));
    }

    // A supervisor prepares a start; what is on disk must be in it.
    void Prepare() {
        generations_ = std::make_unique<Generations>();
        ASSERT_TRUE(generations_->Open(state_));
        notes_.clear();
        ASSERT_EQ(Generations::READY, generations_->PrepareStart(schemaFile_, start_, notes_)) << generations_->Error();
        if (!start_.replay.empty()) {
            RecoveryReport report(100);
            ASSERT_TRUE(CheckRecovery(spec_, start_.replay, {}, report));
            EXPECT_FALSE(report.EndsWithError());
            EXPECT_TRUE(report.end == LogWalker::END || report.torn.file + 1 == report.directory.files.size());
        }
        server_ = std::make_unique<Server>(spec_, start_, shipped_);
        std::vector<long> const waiting = server_->Waiting();
        Ids const replayed(waiting.begin(), waiting.end());
        for (long const id : kept_) ASSERT_TRUE(replayed.contains(id)) << id;
        if (!isDamaged_) ExpectOrder(waiting);
    }
    void AddRecords(std::size_t count) {
        for (; count > 0; --count) {
            server_->Add(RecordOf(++lastId_, test::Below(random_, test::Below(random_, 40) == 0 ? 9000 : 60)));
        }
    }
    // kill -9
    void Kill() {
        server_.reset();
        NoteDisk();
    }
    void NoteDisk() {
        for (std::string const& file : LogFilesBelow(state_)) {
            auto const found = damage_.find(file);
            std::vector<long> const ids = IdsIn(file, found == damage_.end() ? SIZE_MAX : found->second);
            kept_.insert(ids.begin(), ids.end());
        }
        for (long const id : shipped_) kept_.erase(id);
    }
    void Damage() {
        std::vector<std::string> const files = LogFilesBelow(state_);
        if (files.empty()) return;
        isDamaged_ = true;
        std::string const& file = files[test::Below(random_, files.size())];
        std::string bytes = test::ReadFile(file);
        std::string const folder = file.substr(0, file.rfind('/'));
        std::size_t const place = test::Below(random_, bytes.size() + 1);
        switch (test::Below(random_, 7)) {
            case 0:
                std::filesystem::remove(folder + "/KeyFile");
                return;
            case 1:
                test::WriteFile(folder + "/KeyFile", test::ReadFile(folder + "/KeyFile") + "cut");
                return;
            case 2:
                test::WriteFile(folder + "/.hidden", "");
                test::WriteFile(folder + "/F1~", "");
                return;
            case 3:
                bytes.resize(place);
                break;
            case 4:
                bytes.insert(place, test::RandomBytes(random_, 3));
                break;
            default:
                bytes.replace(place, 30, test::RandomBytes(random_, std::min<std::size_t>(30, bytes.size() - place)));
        }
        test::WriteFile(file, bytes);
        std::size_t& whole = damage_.try_emplace(file, SIZE_MAX).first->second;
        whole = std::min(place, whole);
        // Whatever stands nowhere else is lost.
        kept_.clear();
        NoteDisk();
    }
    // Everything on disk is in the newest generation.
    void ExpectSettled() {
        for (std::string const& file : LogFilesBelow(state_)) EXPECT_TRUE(file.starts_with(start_.recovery)) << file;
    }
    void EndOrderly() {
        server_->End(true);
        server_.reset();
        ASSERT_TRUE(generations_->Ended(true, notes_)) << generations_->Error();
        EXPECT_TRUE(LogFilesBelow(state_).empty());
        kept_.clear();
        damage_.clear();
    }
    void RunAtRandom();

    Directory work_;
    std::string const state_ = work_ / "state";
    std::string const schemaFile_ = work_ / "r.spec";
    suts_tsspec spec_;
    Notes notes_;
    GenerationStart start_;
    Ids shipped_;
    std::unique_ptr<Generations> generations_;
    std::unique_ptr<Server> server_;

 private:
    static void ExpectOrder(std::vector<long> const& ids) {
        Ids met;
        for (long const id : ids) {
            ASSERT_TRUE(met.contains(id) || met.empty() || id > *met.rbegin()) << id;
            met.insert(id);
        }
    }

    test::Random& random_;
    long lastId_ = 0;
    bool isDamaged_ = false;
    Ids kept_;  // on disk and not shipped
    std::map<std::string, std::size_t> damage_;
};

void World::RunAtRandom() {
    std::size_t const waiting = server_->Waiting().size();
    if (test::Below(random_, 4) == 0) {
        server_->Replay(test::Below(random_, waiting + 1));
        server_->Ship(test::Below(random_, waiting + 1));
        return Kill();
    }
    server_->Replay(waiting);
    generations_->ReplayFinished();
    for (std::size_t i = test::Below(random_, 4); i > 0; --i) {
        AddRecords(test::Below(random_, 300));
        if (test::Below(random_, 2) == 0) server_->Ship(test::Below(random_, 400));
        if (generations_->Settle(notes_)) ExpectSettled();
        EXPECT_EQ("", generations_->Error());
    }
    if (test::Below(random_, 6) == 0) return EndOrderly();
    Kill();
    EXPECT_TRUE(generations_->Ended(false, notes_));
}

// BRINDLE_SEQUENCES asks for more of them.
TEST(Generations, LoseNothingThatWasOnDisk) {
    test::Random random = test::SeededRandom();
    char const* const wanted = std::getenv("BRINDLE_SEQUENCES");
    for (long left = wanted != nullptr ? std::atol(wanted) : 200; left > 0 && !testing::Test::HasFailure(); --left) {
        SCOPED_TRACE(left);
        World world(random);
        bool const isDamaging = left % 2 == 0;
        hasLinks = left % 3 != 0;
        for (std::size_t starts = test::Below(random, 15); starts > 0 && !testing::Test::HasFailure(); --starts) {
            world.Prepare();
            if (testing::Test::HasFatalFailure()) break;
            world.RunAtRandom();
            if (isDamaging && test::Below(random, 2) == 0) world.Damage();
        }
    }
    hasLinks = true;
}

// A server that dies in every replay, or behind it, does not double what there is to replay.
TEST(Generations, DoNotGrowWithoutNewRecords) {
    test::Random random = test::SeededRandom();
    World world(random);
    world.Prepare();
    world.AddRecords(2000);
    world.Kill();
    for (std::size_t i = 0; i < 12; ++i) {
        world.Prepare();
        EXPECT_EQ(world.work_ / "state/gen-000001/recovery", world.start_.replay);
        world.server_->Replay(i * 200);
        world.server_->Ship(i * 100);
        world.Kill();
    }
}

TEST(Generations, AreNeedlessOnceANewerOneHasAllOfThemAndMore) {
    test::Random random = test::SeededRandom();
    World world(random);
    world.Prepare();
    world.AddRecords(2000);
    world.Kill();
    for (unsigned i = 2; i < 12; ++i) {
        world.Prepare();
        std::string const former = fmt::format("state/gen-{:06}/recovery", i - 1);
        EXPECT_EQ(world.work_ / former, world.start_.replay);
        world.server_->Replay(SIZE_MAX);
        world.AddRecords(200);
        world.Kill();
    }
}

// What is done at every call of an operation: first the process ends there, then the disk is full from there on.
TEST(Generations, SurviveAnEndOrAFullDiskAtAnyStep) {
    struct {
        char const* name;
        std::function<void(World&)> arrange;
        std::function<bool(World&)> act;
    } const rows[] = {
        {"prepare",
         [](World& world) {
             for (int i = 0; i < 3; ++i) {
                 world.Prepare();
                 world.AddRecords(400);
                 world.Kill();
             }
             for (int i = 0; i < 3; ++i) world.Damage();
         },
         [](World& world) {
             return world.generations_->PrepareStart(world.schemaFile_, world.start_, world.notes_) ==
                    Generations::READY;
         }},
        {"settle",
         [](World& world) {
             for (int i = 0; i < 3; ++i) {
                 world.Prepare();
                 if (i == 2) world.server_->Replay(SIZE_MAX);
                 world.generations_->ReplayFinished();
                 world.AddRecords(600);
                 if (i < 2) world.Kill();
             }
         },
         [](World& world) { return world.generations_->Settle(world.notes_); }},
        {"orderly end with records left",
         [](World& world) {
             world.Prepare();
             world.AddRecords(400);
             world.Kill();
             world.Prepare();
             world.server_->Replay(SIZE_MAX);
             world.server_->End(false);
         },
         [](World& world) { return world.generations_->Ended(true, world.notes_); }},
    };
    unsigned long const seed = test::SeededRandom()();
    for (auto const& row : rows) {
        for (Trouble const kind : {END, DISK_FULL}) {
            bool isDone = false;
            for (long calls = 0; !isDone && !HasFailure(); ++calls) {
                SCOPED_TRACE(testing::Message() << row.name << ", trouble " << kind << " at call " << calls);
                test::Random random(seed);
                World world(random);
                row.arrange(world);
                world.NoteDisk();
                callsLeft = calls;
                if (kind == END) {
                    pid_t const child = fork();
                    if (child == 0) {
                        trouble = END;
                        static_cast<void>(row.act(world));
                        _exit(0);
                    }
                    int status = -1;
                    ASSERT_EQ(child, waitpid(child, &status, 0));
                    isDone = status == 0;
                    EXPECT_TRUE(isDone || WEXITSTATUS(status) == 9) << status;
                } else {
                    trouble = DISK_FULL;
                    bool const isReady = row.act(world);
                    trouble = NONE;
                    isDone = callsLeft >= 0;
                    EXPECT_TRUE(isReady ||
                                (!isDone && world.generations_->Error().ends_with("No space left on device")))
                        << world.generations_->Error();
                }
                world.Kill();
                world.Prepare();
                for (auto const& entry : std::filesystem::directory_iterator(world.state_)) {
                    std::string const name = entry.path().filename();
                    EXPECT_FALSE(name.starts_with("new-") || name.starts_with("gone-") || name[0] == '.') << name;
                }
            }
        }
    }
}

class Drains : public testing::TestWithParam<bool> {};
TEST_P(Drains, ShipRecordsOfAnotherSchemaFirst) {
    test::Random random = test::SeededRandom();
    // Records of times near zero stay in their files.
    bool const leavesRecords = GetParam();
    World world(random);
    std::filesystem::create_directories(world.state_ + "/gen-7");  // no name of ours
    world.Prepare();
    world.AddRecords(500);
    world.Kill();
    // Only blanks are different.
    test::WriteFile(world.schemaFile_, "R  string64 sensor\nint64 id\n\nstring64 text");
    world.Prepare();
    world.Kill();
    Generations& generations = *world.generations_;
    std::string const other = world.work_ / "other.spec";
    for (char const* const text : {"R string64 sensor int64 number string64 text\n", "R string64 sensor int64 id\n"}) {
        test::WriteFile(other, text);
        GenerationStart start;
        EXPECT_EQ(Generations::SCHEMA_CHANGED, generations.PrepareStart(other, start, world.notes_));
        EXPECT_EQ(0U, start.number);
    }
    ASSERT_EQ(Generations::READY, generations.PrepareDrain(world.start_, world.notes_));
    EXPECT_EQ(SCHEMA, test::ReadFile(world.start_.schema));
    world.server_ = std::make_unique<Server>(world.spec_, world.start_, world.shipped_);
    EXPECT_LT(400U, world.server_->Waiting().size());
    world.server_->Replay(SIZE_MAX);
    world.server_->End(!leavesRecords);
    EXPECT_TRUE(generations.Ended(true, world.notes_));
    EXPECT_EQ(leavesRecords, std::filesystem::exists(fmt::format("{}/kept-{:06}", world.state_, world.start_.number)));
    GenerationStart start;
    EXPECT_EQ(Generations::READY, generations.PrepareStart(other, start, world.notes_)) << generations.Error();
    EXPECT_EQ("", start.replay);
    EXPECT_EQ(Generations::FAILED, generations.PrepareDrain(start, world.notes_));
}
INSTANTIATE_TEST_SUITE_P(Generations, Drains, testing::Bool());

// What was not replayed outlives the generation that it was found in.
TEST(Generations, KeepWhatWasNeverReplayed) {
    struct {
        char const* name;  // below the generation
        std::string content;
        char const* kept;  // below the state directory, in the end
        bool isReplayed;
    } const rows[] = {
        {"recovery/F2~", "notes", "kept-000001/recovery/F2~", true},
        {"recovery/F7", std::string(600, '\0'), "aside-000001/1-F7-from-0", true},
        {"recovery/F00", "", "kept-000001/recovery/F00", true},
        {"schema.spec", "R string64", "kept-000001/recovery/F1", false},
    };
    test::Random random = test::SeededRandom();
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        World world(random);
        world.Prepare();
        world.AddRecords(300);
        world.server_.reset();
        test::WriteFile(world.state_ + "/gen-000001/" + row.name, row.content);
        world.Prepare();
        EXPECT_EQ(row.isReplayed, !world.start_.replay.empty());
        Notes const notes = world.notes_;
        EXPECT_TRUE(std::ranges::any_of(notes, [](auto const& note) { return note.find("000001") != note.npos; }));
        world.server_->Replay(SIZE_MAX);
        world.EndOrderly();
        EXPECT_TRUE(std::filesystem::exists(world.state_ + "/" + row.kept));
        EXPECT_FALSE(std::filesystem::exists(world.state_ + "/gen-000001"));
    }
}

TEST(StateLock, IsHeldByWhoeverInheritedIt) {
    Directory const state;
    auto lock = std::make_unique<StateLock>();
    ASSERT_TRUE(lock->Take(state.Path())) << lock->Error();
    auto [hold, release] = test::Pipe();
    pid_t const child = fork();
    if (child == 0) {
        release.Close();
        char end;
        _exit(sutl_ReadSome(hold.Get(), &end, 1) == 0 ? 0 : 1);
    }
    lock.reset();
    StateLock second;
    EXPECT_FALSE(second.Take(state.Path()));
    EXPECT_NE(std::string::npos, second.Error().find("in use by " + std::to_string(child))) << second.Error();
    release.Close();
    EXPECT_EQ(child, waitpid(child, nullptr, 0));
    EXPECT_TRUE(second.Take(state.Path())) << second.Error();
}

}  // namespace
