// The steps of a record's way, each by itself, over the records of the ticks workload.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "sutl_frame.h"
#include "sutl_netorderbytefield.h"
#include "uts_recorddecoder.h"
#include "uts_stgbucket.h"
#include "uts_stgkeyindex.h"
#include "uts_stgrecovery.h"
#include "uts_stgrotransfer.h"
#include "uts_stgshipassembly.h"
#include "workload.h"

namespace {

constexpr long RECORDS = 100000;

class Directory {
 public:
    Directory() {
        std::string pattern = std::filesystem::temp_directory_path() / "brindle-bench-XXXXXX";
        path_ = mkdtemp(pattern.data());
    }
    Directory(Directory const&) = delete;
    Directory& operator=(Directory const&) = delete;
    ~Directory() { std::filesystem::remove_all(path_); }
    [[nodiscard]] std::string const& Path() const { return path_; }

 private:
    std::string path_;
};

suts_tsspec const& Spec() {
    static suts_tsspec spec;
    if (spec.fieldCount > 0) return spec;
    Directory const directory;
    std::string const path = directory.Path() + "/spec";
    std::ofstream(path) << bench_Workload::Schema("ticks");
    if (spec.Init(path.c_str()) != suts_tsspec::LOADED) abort();
    return spec;
}

bench_Workload const& Ticks(long keys = 0) {
    static bench_Workload const few({"ticks", RECORDS, 1000, -1, 1}, Spec());
    static bench_Workload const many({"ticks", RECORDS, 200000, -1, 1}, Spec());
    return keys > 1000 ? many : few;
}

// The message of the first frame, ready to be taken.
void FillFrame(sutl_NetorderByteField& field) {
    field.Reset();
    field.AppendBytes(Ticks().Bytes().data() + SUTL_FRAME_HEADER_BYTES,
                      Ticks().Frames().front().end - SUTL_FRAME_HEADER_BYTES);
    field.Seal();
    field.StartReading();
}

struct Record {
    long time;
    sutl_RawBytefield key;
    sutl_RawBytefield value;
};

// A value with an array of its own.
sutl_RawBytefield Copy(sutl_RawBytefield const& field) {
    sutl_RawBytefield copy;
    copy.Assign(field.Data(), field.length);
    return copy;
}

// All records of a workload, decoded; they stay for the life of the program.
std::vector<Record> Decode(bench_Workload const& workload) {
    std::vector<Record> records;
    sutl_NetorderByteField field;
    suts_RecordDecoder decoder(Spec());
    for (std::size_t frame = 0; frame < workload.Frames().size(); ++frame) {
        auto const body = workload.FrameBytes(frame).subspan(SUTL_FRAME_HEADER_BYTES);
        field.Reset();
        field.AppendBytes(body.data(), body.size());
        field.Seal();
        field.StartReading();
        decoder.StartFrame(field);
        for (Record record; !decoder.FrameIsDone(); records.push_back(record)) {
            if (!decoder.Next(record.time, record.key, record.value)) abort();
            record.key = Copy(record.key);
            record.value = Copy(record.value);
        }
    }
    return records;
}

std::vector<Record> const& Records(long keys = 0) {
    static std::vector<Record> const few = Decode(Ticks());
    static std::vector<Record> const many = Decode(Ticks(200000));
    return keys > 1000 ? many : few;
}

void Items(benchmark::State& state, long perIteration) { state.SetItemsProcessed(state.iterations() * perIteration); }

// The name that the loops give to what they do not use is the library's own advice.
// NOLINTBEGIN(clang-analyzer-deadcode.DeadStores)
void ByteField(benchmark::State& state) {
    sutl_NetorderByteField field;
    std::vector<unsigned char> out(1 << 17);
    int count = 0;
    for (auto _ : state) {
        FillFrame(field);
        count = field.Count();
        field.GetNextBytes(out.data(), static_cast<unsigned int>(count));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * count);
}
BENCHMARK(ByteField);

void Translation(benchmark::State& state) {
    sutl_NetorderByteField field;
    suts_RecordDecoder decoder(Spec());
    long records = 0;
    for (auto _ : state) {
        FillFrame(field);
        decoder.StartFrame(field);
        for (Record record; !decoder.FrameIsDone(); ++records) {
            if (!decoder.Next(record.time, record.key, record.value)) abort();
            benchmark::DoNotOptimize(record);
        }
    }
    state.SetItemsProcessed(records);
}
BENCHMARK(Translation);

// Marks each record at once: the files must go again.
void LogAppend(benchmark::State& state) {
    Directory const directory;
    suts_StgRecovery log(directory.Path().c_str());
    std::size_t next = 0;
    for (auto _ : state) {
        Record const& record = Records()[next++ % RECORDS];
        log.AppendRecord(record.time, record.key, record.value);
        log.Mark(log.CountRecord());
    }
    Items(state, 1);
}
BENCHMARK(LogAppend);

// From memory, and behind a backlog from the log.
void Take(benchmark::State& state) {
    Directory const directory;
    suts_StgRecovery log(directory.Path().c_str());
    suts_StgROTransfer transfer(Spec(), log);
    sutl_ByteQueue kept;
    std::vector<suts_StgFileRecord*> files;
    std::size_t next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (long i = 0; i < state.range(0); ++i) {
            Record const& record = Records()[next++ % RECORDS];
            suts_StgLogPosition const position = log.AppendRecord(record.time, record.key, record.value);
            transfer.Put(log.CountRecord(), record.time, record.key, record.value, position);
        }
        files.clear();
        state.ResumeTiming();
        suts_StgROTransfer::QEntry entry;
        while (transfer.Queued() > 0) {
            kept.Clear();
            transfer.Take(entry, kept);
            files.push_back(entry.file);
        }
        state.PauseTiming();
        for (suts_StgFileRecord* const file : files) log.Mark(file);
        state.ResumeTiming();
    }
    Items(state, state.range(0));
}
BENCHMARK(Take)->Arg(500)->Arg(20000);

void Lookup(benchmark::State& state) {
    suts_StgKeyIndex index;
    for (Record const& record : Records(state.range(0))) {
        if (index.FindAsWriter(record.key, suts_StgKeyTable::Hash(record.key)) != nullptr) continue;
        sutl_WriteLock const lock(index.lock);
        index.Insert(record.key);
    }
    std::size_t next = 0;
    for (auto _ : state) {
        sutl_RawBytefield const& key = Records(state.range(0))[next++ % RECORDS].key;
        benchmark::DoNotOptimize(index.FindAsWriter(key, suts_StgKeyTable::Hash(key)));
    }
    Items(state, 1);
}
BENCHMARK(Lookup)->ArgName("keys")->Arg(1000)->Arg(200000);

void Place(benchmark::State& state) {
    suts_StgChunkStore chunks;
    for (auto _ : state) {
        suts_StgBucketSet set;
        sutl_WriteLock const lock(set.lock);
        for (long i = 0; i < state.range(0); ++i) {
            Record const& record = Records()[static_cast<std::size_t>(i)];
            set.Place(0, nullptr, record.time, record.value, chunks);
        }
        set.Slot(0).shipped = set.Slot(0).newest;
        set.Recycle(0, chunks);
    }
    Items(state, state.range(0));
}
BENCHMARK(Place)->Arg(10000);

// As many records of one key as a block has, newest first, as they are gathered.
void Sort(benchmark::State& state) {
    std::vector<suts_StgBucketRecord> staged;
    for (long i = state.range(0); i-- > 0;)
        staged.push_back({nullptr, Records()[static_cast<std::size_t>(i)].time, {}});
    suts_StgShipEntries entries;
    for (auto _ : state) {
        for (suts_StgBucketRecord const& record : staged) entries.Add(record);
        benchmark::DoNotOptimize(entries.Sorted().data());
        entries.Clear();
    }
    Items(state, state.range(0));
}
BENCHMARK(Sort)->Arg(10)->Arg(1000)->Arg(50000);

void Encode(benchmark::State& state) {
    sutl_NetorderByteField field;
    std::vector<unsigned char> encoded(1 << 17);
    for (auto _ : state) {
        field.Reset();
        unsigned char* to = encoded.data();
        for (std::size_t i = 0; i < 1000; ++i)
            to = suts_EncodeFields(to, Records()[i].value, Spec(), 1, Spec().fieldCount);
        field.AppendBytes(encoded.data(), static_cast<std::size_t>(to - encoded.data()));
        field.Seal();
    }
    Items(state, 1000);
}
BENCHMARK(Encode);
// NOLINTEND(clang-analyzer-deadcode.DeadStores)

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
    // What the benchmarks share is made before the first one is timed.
    for (long const keys : {0L, 200000L}) benchmark::DoNotOptimize(Records(keys).data());
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
