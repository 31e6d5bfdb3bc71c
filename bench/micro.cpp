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
                      Ticks().FrameEnds().front() - SUTL_FRAME_HEADER_BYTES);
    field.Seal();
    field.StartReading();
}

struct Record {
    long time;
    sutl_RawBytefield key;
    sutl_RawBytefield value;
};

// All records of a workload, decoded; they stay for the life of the program.
std::vector<Record> Decode(bench_Workload const& workload) {
    std::vector<Record> records;
    sutl_NetorderByteField field;
    suts_RecordDecoder decoder(Spec());
    std::size_t from = 0;
    for (std::size_t const end : workload.FrameEnds()) {
        field.Reset();
        field.AppendBytes(workload.Bytes().data() + from + SUTL_FRAME_HEADER_BYTES,
                          end - from - SUTL_FRAME_HEADER_BYTES);
        field.Seal();
        field.StartReading();
        decoder.StartFrame();
        for (Record record; field.Count() > 0; records.push_back(record)) {
            if (!decoder.Next(field, record.time, record.key, record.value)) abort();
        }
        from = end;
    }
    return records;
}

std::vector<Record> const& Records(long keys = 0) {
    static std::vector<Record> const few = Decode(Ticks());
    static std::vector<Record> const many = Decode(Ticks(200000));
    return keys > 1000 ? many : few;
}

// A value with an array of its own.
sutl_RawBytefield Copy(sutl_RawBytefield const& field) {
    sutl_RawBytefield copy;
    copy.Assign(field.Data(), field.length);
    return copy;
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
        decoder.StartFrame();
        for (Record record; field.Count() > 0; ++records) {
            if (!decoder.Next(field, record.time, record.key, record.value)) abort();
            record.key.Clear();
            record.value.Clear();
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
    std::vector<suts_StgFileRecord*> files;
    std::size_t next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (long i = 0; i < state.range(0); ++i) {
            Record const& record = Records()[next++ % RECORDS];
            suts_StgLogPosition const position = log.AppendRecord(record.time, record.key, record.value);
            transfer.Put({log.CountRecord(), record.time, Copy(record.key), Copy(record.value)}, position);
        }
        files.clear();
        state.ResumeTiming();
        suts_StgROTransfer::QEntry entry;
        while (transfer.Queued() > 0) {
            transfer.Take(entry);
            files.push_back(entry.file);
            entry.first.Clear();
            entry.second.Clear();
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
        if (index.FindAsWriter(record.key) != nullptr) continue;
        sutl_WriteLock const lock(index.lock);
        index.Insert(Copy(record.key));
    }
    std::size_t next = 0;
    for (auto _ : state) benchmark::DoNotOptimize(index.FindAsWriter(Records(state.range(0))[next++ % RECORDS].key));
    Items(state, 1);
}
BENCHMARK(Lookup)->ArgName("keys")->Arg(1000)->Arg(200000);

void Place(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto set = std::make_unique<suts_StgBucketSet>();
        std::vector<sutl_RawBytefield> values;
        for (long i = 0; i < state.range(0); ++i) values.push_back(Copy(Records()[static_cast<std::size_t>(i)].value));
        state.ResumeTiming();
        {
            sutl_WriteLock const lock(set->lock);
            long time = bench_Workload::START_US;
            for (sutl_RawBytefield const& value : values) set->Place(0, nullptr, ++time, value);
        }
        state.PauseTiming();
        set.reset();
        state.ResumeTiming();
    }
    Items(state, state.range(0));
}
BENCHMARK(Place)->Arg(10000);

// As many records of one key as a block has, newest first, as they are gathered.
void Sort(benchmark::State& state) {
    sutl_LIST<suts_StgShipEntry> entries(static_cast<std::size_t>(state.range(0)));
    suts_StgShipQComp order;
    for (auto _ : state) {
        state.PauseTiming();
        while (!entries.IsEmpty()) entries.Delete(entries.First());
        for (long i = state.range(0); i-- > 0;) {
            Record const& record = Records()[static_cast<std::size_t>(i)];
            entries.Append(static_cast<unsigned long>(record.time), record.value, false);
        }
        state.ResumeTiming();
        sutl_list_base_iter first = entries.First();
        sutl_list_base_iter last = entries.Last();
        entries.Sort(first, last, &order);
    }
    Items(state, state.range(0));
}
BENCHMARK(Sort)->Arg(10)->Arg(1000)->Arg(50000);

void Encode(benchmark::State& state) {
    sutl_NetorderByteField field;
    for (auto _ : state) {
        field.Reset();
        for (std::size_t i = 0; i < 1000; ++i) {
            Record const& record = Records()[i];
            auto time = static_cast<unsigned long>(record.time);
            field.Append8Byte(&time, 1);
            int offset = 0;
            for (int index = 1; index < Spec().fieldCount; ++index) {
                suts_ShpThrdAddBfToShpField(field, record.value, Spec(), index, offset);
            }
        }
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
