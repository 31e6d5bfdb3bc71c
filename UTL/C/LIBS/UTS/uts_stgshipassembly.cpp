#include "uts_stgshipassembly.h"

namespace {

// Entries kept for reuse; a cycle of a busy key gathers tens of thousands.
constexpr std::size_t IDLE_ENTRIES_MAX = 1UL << 18;

long WireBytes(sutl_RawBytefield const& stored, int strings) {
    return stored.length + static_cast<long>(strings) * SUTS_STRING_LENGTH_BYTES;
}

long EntryBytes(suts_StgShipBatch const& batch, sutl_RawBytefield const& value) {
    return SUTS_NUMBER8_BYTES + WireBytes(value, batch.valueStrings);
}

void AppendNumber8(sutl_NetorderByteField& out, unsigned long value) { out.Append8Byte(&value, 1); }

// Appends the records of a bucket from newest back to shipped, exclusive, and marks them. Values are shared, or taken
// over.
void Gather(suts_StgShipBatch& batch, suts_StgPosition newest, suts_StgPosition const& shipped, bool takeValues) {
    for (; newest != shipped; newest.StepBack()) {
        suts_StgBucketRecord& record = newest.Record();
        batch.entries.Append(static_cast<unsigned long>(record.time), record.value, takeValues);
        batch.entriesBytes += EntryBytes(batch, record.value);
        if (takeValues) record.value.length = 0;
        batch.recovery.Mark(record.file);
    }
}

void GatherBuckets(suts_StgShipBatch& batch, suts_StgBucketSet& buckets) SUTL_REQUIRES_SHARED(buckets.lock) {
    unsigned long const newestBucket = batch.bucketNumber;
    // Nothing is shipped from the ring before bucket 5: consumers have come to know the first cycles that way.
    if (!(newestBucket - suts_StgBucketSet::BUCKETS < newestBucket)) return;
    for (unsigned long back = 0; back < suts_StgBucketSet::BUCKETS; ++back) {
        suts_StgBucket& bucket = buckets.Slot((newestBucket - back) % suts_StgBucketSet::BUCKETS);
        if (bucket.newest.IsEmpty()) continue;
        // The newest arrival tells, not the greatest time; and it ends the walk, for older slots too.
        if (static_cast<unsigned long>(bucket.newest.Record().time) >= batch.upperTimeBound) return;
        Gather(batch, bucket.newest, bucket.shipped, false);
        bucket.shipped = bucket.newest;
    }
}

void GatherRetired(suts_StgShipBatch& batch, suts_StgBucketSet& buckets) SUTL_REQUIRES_SHARED(buckets.lock) {
    while (suts_StgRetired* const retired = buckets.TakeRetired()) {
        Gather(batch, retired->newest, retired->shipped, true);
        suts_StgBucketSet::FreeChunks(retired->newest.Chunk());
        delete retired;
    }
}

// How many of the entries, oldest first, fit into room bytes.
unsigned long CountFitting(suts_StgShipBatch& batch, long room) {
    if (batch.entriesBytes <= room) return batch.entries.Size();
    unsigned long count = 0;
    for (sutl_list_base_iter at = batch.entries.First(); !at.IsEnd(); at.StepNext()) {
        room -= EntryBytes(batch, batch.entries.Value(at).value);
        if (room < 0) break;
        ++count;
    }
    return count;
}

// Encodes the first entry, which leaves the list.
void AppendFirstEntry(suts_StgShipBatch& batch) {
    sutl_list_base_iter const first = batch.entries.First();
    suts_StgShipEntry& entry = batch.entries.Value(first);
    batch.entriesBytes -= EntryBytes(batch, entry.value);
    sutl_NetorderByteField& out = batch.messages.Current();
    AppendNumber8(out, entry.time);
    int offset = 0;
    for (int i = 1; i < batch.spec.fieldCount; ++i) {
        suts_ShpThrdAddBfToShpField(out, entry.value, batch.spec, i, offset);
    }
    if (entry.ownsValue) entry.value.Clear();
    batch.entries.Delete(first);
}

// Encodes all entries, which leave the list: one block where it fits, several where it is longer than a message.
void AppendBlocks(suts_StgShipBatch& batch, sutl_RawBytefield const& key) {
    long const headBytes = WireBytes(key, batch.keyStrings) + SUTS_NUMBER8_BYTES;
    if (batch.messages.Room() < headBytes + batch.entriesBytes && !batch.messages.CurrentIsBare()) {
        batch.messages.StartFurther();
    }
    for (;;) {
        unsigned long count = CountFitting(batch, batch.messages.Room() - headBytes);
        // A record longer than a message goes alone: it must go.
        if (count == 0 && !batch.entries.IsEmpty()) count = 1;
        int offset = 0;
        suts_ShpThrdAddBfToShpField(batch.messages.Current(), key, batch.spec, 0, offset);
        AppendNumber8(batch.messages.Current(), count);
        batch.messages.CountRecords(count);
        for (; count > 0; --count) AppendFirstEntry(batch);
        if (batch.entries.IsEmpty()) return;
        batch.messages.StartFurther();
    }
}

}  // namespace

void suts_StgShipMessages::Begin(unsigned int type) {
    type_ = type;
    used_ = 0;
    StartFurther();
}

void suts_StgShipMessages::StartFurther() {
    SealLast();
    if (used_ == messages_.size()) messages_.push_back({std::make_unique<sutl_NetorderByteField>(), 0});
    ++used_;
    messages_[used_ - 1].records = 0;
    Current().Reset();
    unsigned int type = type_;
    Current().Append4Byte(&type, 1);
}

void suts_StgShipMessages::SealLast() {
    if (used_ > 0) Current().Seal();
}

bool suts_StgShipMessages::CurrentIsBare() const { return messages_[used_ - 1].bytes->Count() == SUTS_SHIP_TYPE_BYTES; }

long suts_StgShipMessages::Room() const { return bytesMax_ - messages_[used_ - 1].bytes->Count(); }

suts_StgShipBatch::suts_StgShipBatch(suts_StgRecovery& log, suts_tsspec const& schema, long messageBytesMax)
    : recovery(log),
      spec(schema),
      keyStrings(schema.HasKeyField() ? suts_StringFields(schema, 0, 1) : 0),
      valueStrings(schema.HasKeyField() ? suts_StringFields(schema, 1, schema.fieldCount) : 0),
      messages(messageBytesMax),
      entries(IDLE_ENTRIES_MAX) {}

long suts_StgShipQComp::Compare(sutl_list_base_iter const& a, sutl_list_base_iter const& b) {
    unsigned long const timeA = sutl_LIST<suts_StgShipEntry>::Value(a).time;
    unsigned long const timeB = sutl_LIST<suts_StgShipEntry>::Value(b).time;
    return static_cast<long>(timeA > timeB) - static_cast<long>(timeA < timeB);
}

void suts_AppendKeyToMessages(suts_StgShipMessages& messages, sutl_RawBytefield const& key, suts_tsspec const& spec) {
    long const bytes = WireBytes(key, suts_StringFields(spec, 0, 1));
    if (bytes > messages.Room() && !messages.CurrentIsBare()) messages.StartFurther();
    int offset = 0;
    suts_ShpThrdAddBfToShpField(messages.Current(), key, spec, 0, offset);
}

void suts_ShipThrdAssembly(suts_StgShipBatch& batch, sutl_RawBytefield const& key, suts_StgBucketSet& buckets) {
    GatherBuckets(batch, buckets);
    GatherRetired(batch, buckets);
    if (!batch.entries.IsEmpty()) {
        suts_StgShipQComp byTime;
        sutl_list_base_iter first = batch.entries.First();
        sutl_list_base_iter last = batch.entries.Last();
        batch.entries.Sort(first, last, &byTime);
    }
    AppendBlocks(batch, key);
}
