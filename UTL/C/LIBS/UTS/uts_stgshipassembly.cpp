#include "uts_stgshipassembly.h"

#include <algorithm>
#include <iterator>

#include "sutl_netorder.h"

namespace {

constexpr int ENCODED_BYTES = 4096;  // of records that are encoded before they are appended

long WireBytes(sutl_RawBytefield const& stored, int strings) {
    return stored.length + static_cast<long>(strings) * SUTS_STRING_LENGTH_BYTES;
}

long EntryBytes(suts_StgShipBatch const& batch, sutl_RawBytefield const& value) {
    return SUTS_NUMBER8_BYTES + WireBytes(value, batch.valueStrings);
}

void AppendNumber8(sutl_NetorderByteField& out, unsigned long value) { out.Append8Byte(&value, 1); }

// Adds the records of a bucket from newest back to shipped, exclusive.
void Gather(suts_StgShipBatch& batch, suts_StgPosition newest, suts_StgPosition const& shipped) {
    for (; newest != shipped; newest.StepBack()) {
        if (newest.ChunkIsFull()) newest.PrefetchOlder();
        suts_StgBucketRecord const& record = newest.Record();
        batch.entries.Add(record);
        batch.entriesBytes += EntryBytes(batch, record.value);
        batch.marks.Add(record.file);
    }
}

void GatherBuckets(suts_StgShipBatch& batch, suts_StgBucketSet& buckets) SUTL_REQUIRES_SHARED(buckets.lock) {
    unsigned long const newestBucket = batch.bucketNumber;
    // Nothing is shipped from the ring before bucket 5: consumers have come to know the first cycles that way.
    if (!(newestBucket - suts_StgBucketSet::BUCKETS < newestBucket)) return;
    for (unsigned long back = 0; back < suts_StgBucketSet::BUCKETS; ++back) {
        suts_StgBucket& bucket = buckets.Slot((newestBucket - back) % suts_StgBucketSet::BUCKETS);
        // What is shipped up to its newest record was below an earlier bound, and is below this one.
        if (bucket.newest == bucket.shipped) continue;
        // The newest arrival tells, not the greatest time; and it ends the walk, for older slots too.
        if (static_cast<unsigned long>(bucket.newest.Record().time) >= batch.upperTimeBound) return;
        Gather(batch, bucket.newest, bucket.shipped);
        bucket.shipped = bucket.newest;
    }
}

void GatherRetired(suts_StgShipBatch& batch, suts_StgBucketSet& buckets) SUTL_REQUIRES_SHARED(buckets.lock) {
    while (suts_StgRetired* const retired = buckets.TakeRetired()) {
        Gather(batch, retired->newest, retired->shipped);
        batch.retired.push_back(retired);
    }
}

void FreeRetired(suts_StgShipBatch& batch) {
    for (suts_StgRetired* const retired : batch.retired) {
        batch.chunks->GiveFromShipThread(retired->newest);
        delete retired;
    }
    batch.retired.clear();
}

// How many of the entries, oldest first, fit into room bytes, and what they take.
std::size_t CountFitting(suts_StgShipBatch const& batch, std::span<suts_StgShipEntry const> entries, long room,
                         long& bytes) {
    bytes = batch.entriesBytes;
    if (bytes <= room) return entries.size();
    bytes = 0;
    std::size_t count = 0;
    for (suts_StgShipEntry const& entry : entries) {
        long const entryBytes = EntryBytes(batch, entry.record->value);
        // A record longer than a message goes alone: it must go.
        if (bytes + entryBytes > room && count > 0) break;
        bytes += entryBytes;
        ++count;
        if (bytes > room) break;
    }
    return count;
}

// Encodes the entries, a block of them at a time.
void AppendEntries(suts_StgShipBatch& batch, std::span<suts_StgShipEntry const> entries) {
    sutl_NetorderByteField& out = batch.messages.Current();
    suts_ByteScratch& encoded = batch.encoded;
    for (suts_StgShipEntry const& entry : entries) {
        sutl_RawBytefield const& value = entry.record->value;
        int const before = encoded.Size();
        unsigned char* const to = encoded.Grow(static_cast<int>(EntryBytes(batch, value)));
        unsigned long const time = sutl_ToNetorder(entry.time);
        memcpy(to, &time, sizeof time);
        unsigned char const* const end =
            suts_EncodeFields(to + sizeof time, value, batch.spec, 1, batch.spec.fieldCount);
        encoded.Shrink(before + static_cast<int>(end - to));
        if (encoded.Size() < ENCODED_BYTES) continue;
        out.AppendBytes(encoded.Data(), static_cast<std::size_t>(encoded.Size()));
        encoded.Reset();
    }
    out.AppendBytes(encoded.Data(), static_cast<std::size_t>(encoded.Size()));
    encoded.Reset();
}

// Encodes all entries: one block where it fits, several where it is longer than a message.
void AppendBlocks(suts_StgShipBatch& batch, sutl_RawBytefield const& key, std::span<suts_StgShipEntry const> entries) {
    long const headBytes = WireBytes(key, batch.keyStrings) + SUTS_NUMBER8_BYTES;
    if (batch.messages.Room() < headBytes + batch.entriesBytes && !batch.messages.CurrentIsBare()) {
        batch.messages.StartFurther();
    }
    for (;;) {
        long bytes = 0;
        std::size_t const count = CountFitting(batch, entries, batch.messages.Room() - headBytes, bytes);
        int offset = 0;
        suts_ShpThrdAddBfToShpField(batch.messages.Current(), key, batch.spec, 0, offset);
        AppendNumber8(batch.messages.Current(), count);
        batch.messages.CountRecords(count);
        AppendEntries(batch, entries.first(count));
        batch.entriesBytes -= bytes;
        entries = entries.subspan(count);
        if (entries.empty()) return;
        batch.messages.StartFurther();
    }
}

bool IsBefore(suts_StgShipEntry const& a, suts_StgShipEntry const& b) { return suts_StgShipQComp::Compare(a, b) < 0; }

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
    : spec(schema),
      keyStrings(schema.HasKeyField() ? suts_StringFields(schema, 0, 1) : 0),
      valueStrings(schema.HasKeyField() ? suts_StringFields(schema, 1, schema.fieldCount) : 0),
      messages(messageBytesMax),
      marks(log) {}

// Records come in order of time but for a few: these are taken out, sorted, and merged in again. A late entry is older
// than one before it, and so is every later entry of the same time: of equal times the ones in place come first.
std::span<suts_StgShipEntry const> suts_StgShipEntries::Sorted() {
    std::reverse(gathered_.begin(), gathered_.end());
    if (std::is_sorted(gathered_.begin(), gathered_.end(), IsBefore)) return gathered_;
    auto inPlace = gathered_.begin();
    for (suts_StgShipEntry const& entry : gathered_) {
        if (inPlace != gathered_.begin() && IsBefore(entry, *std::prev(inPlace))) {
            late_.push_back(entry);
        } else {
            *inPlace++ = entry;
        }
    }
    std::stable_sort(late_.begin(), late_.end(), IsBefore);
    merged_.resize(gathered_.size());
    std::merge(gathered_.begin(), inPlace, late_.begin(), late_.end(), merged_.begin(), IsBefore);
    return merged_;
}

void suts_StgShipEntries::Clear() {
    for (std::vector<suts_StgShipEntry>* const entries : {&gathered_, &late_, &merged_}) {
        entries->clear();
        if (entries->capacity() > IDLE_ENTRIES_MAX) entries->shrink_to_fit();
    }
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
    AppendBlocks(batch, key, batch.entries.Sorted());
    batch.entries.Clear();
    FreeRetired(batch);
}
