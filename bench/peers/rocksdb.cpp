// A peer on RocksDB: a column family per hand-off, which its memtable holds whole. Dropping it spares the flush and the
// tombstones of what has been handed on. The memtable is a vector, which is sorted once, when it is drained.
#include <rocksdb/db.h>
#include <rocksdb/memtablerep.h>

#include "front.h"

namespace {

constexpr std::size_t MEMTABLE_BYTES = 512UL << 20;
constexpr unsigned long LOGS_BYTES_MAX = 256UL << 20;  // then the memtable is flushed for the sake of the old logs

class RocksDb : public bench_PeerStore {
 public:
    RocksDb(bench_StandIn const& link, suts_tsspec const& spec) : form_(spec) {
        options_.create_if_missing = true;
        options_.write_buffer_size = MEMTABLE_BYTES;
        options_.max_total_wal_size = LOGS_BYTES_MAX;
        options_.compression = rocksdb::kNoCompression;
        options_.allow_concurrent_memtable_write = false;  // one thread writes
        options_.avoid_flush_during_shutdown = true;
        options_.stats_dump_period_sec = 0;
        options_.memtable_factory = std::make_shared<rocksdb::VectorRepFactory>();
        rocksdb::DB* database = nullptr;
        Check(rocksdb::DB::Open(options_, link.directory + "/rocksdb", &database));
        database_.reset(database);
        MakeFamily();
    }
    ~RocksDb() override { DropFamily(); }
    RocksDb(RocksDb const&) = delete;
    RocksDb& operator=(RocksDb const&) = delete;

    void Commit(std::span<bench_SortedRecord const> records) override {
        for (bench_SortedRecord const& record : records) {
            Check(batch_.Put(family_, rocksdb::Slice(record.Place()), rocksdb::Slice(record.Value())));
        }
        Check(database_->Write({}, &batch_));
        batch_.Clear();
    }

    void Drain(bench_HandOff& handOff) override {
        std::unique_ptr<rocksdb::Iterator> const all(database_->NewIterator({}, family_));
        for (all->SeekToFirst(); all->Valid(); all->Next()) {
            bench_SortedRecord const place = form_.Read(all->key().ToStringView());
            handOff.Add(place.Key(), place.Time(), all->value().ToStringView());
        }
        Check(all->status());
    }

    void Clear() override {
        DropFamily();
        MakeFamily();
    }

 private:
    static void Check(rocksdb::Status const& status) {
        if (!status.ok()) bench_FailStore("rocksdb", status.ToString().c_str());
    }

    void MakeFamily() {
        Check(database_->CreateColumnFamily(options_, "hand-off " + std::to_string(++handOffs_), &family_));
    }
    void DropFamily() {
        Check(database_->DropColumnFamily(family_));
        Check(database_->DestroyColumnFamilyHandle(family_));
    }

    bench_RecordForm const form_;
    rocksdb::Options options_;
    std::unique_ptr<rocksdb::DB> database_;
    rocksdb::ColumnFamilyHandle* family_ = nullptr;
    unsigned long handOffs_ = 0;
    rocksdb::WriteBatch batch_;
};

}  // namespace

int main(int argc, char** argv) { return bench_RunPeer<RocksDb>(argc, argv); }
