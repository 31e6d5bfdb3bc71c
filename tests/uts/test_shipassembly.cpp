// Ship messages: which records are due, in which order, marked how often, and in which bytes.
#include "uts_stgshipassembly.h"

#include "uts_support.h"

namespace {

using test::Net;
using test::Record;
using test::Texts;
using test::Types;
using namespace std::string_literals;

constexpr unsigned long BUCKETS = suts_StgBucketSet::BUCKETS;

// A log, a batch, and the bucket sets of some keys.
struct Shipping {
    Shipping(Types const& types, std::size_t keys, long messageBytesMax = SUTS_MESSAGE_BYTES_MAX)
        : schema(types), batch(log, schema, messageBytesMax), sets(keys) {}

    ~Shipping() {
        for (suts_StgBucketSet& set : sets) set.FreeArrays(chunks);
    }

    void Place(std::size_t key, unsigned long bucket, Record const& record) {
        suts_StgFileRecord* const file = test::Log(log, record);
        sutl_WriteLock const lock(sets[key].lock);
        sets[key].Place(bucket % BUCKETS, file, record.time, test::OwnedField(record.value), chunks);
    }
    void Recycle(std::size_t key, unsigned long bucket) {
        sutl_WriteLock const lock(sets[key].lock);
        sets[key].Recycle(bucket % BUCKETS, chunks);
    }
    // The messages with the blocks of all keys.
    Texts Ship(unsigned long bucketNumber, unsigned long upperTimeBound, Texts const& keys) {
        batch.bucketNumber = bucketNumber;
        batch.upperTimeBound = upperTimeBound;
        batch.chunks = &chunks;
        batch.messages.Begin(SUTS_SHIP_RECORDS);
        for (std::size_t i = 0; i < keys.size(); ++i) {
            sutl_ReadLock const lock(sets[i].lock);
            suts_ShipThrdAssembly(batch, test::OwnedField(keys[i]), sets[i]);
        }
        batch.marks.Flush();
        return Messages(batch.messages);
    }
    static Texts Messages(suts_StgShipMessages& messages) {
        messages.SealLast();
        Texts texts;
        for (std::size_t i = 0; i < messages.Used(); ++i) {
            messages.Message(i).StartReading();
            texts.push_back(test::Drain(messages.Message(i)));
        }
        return texts;
    }

    test::Directory directory;
    test::Schema schema;
    suts_StgRecovery log{directory.Path()};
    suts_StgChunkStore chunks;
    suts_StgShipBatch batch;
    std::vector<suts_StgBucketSet> sets;
};

TEST(ShipAssembly, ABlockByteForByte) {
    std::string const head = "\0\0\0\2"s;
    struct {
        char const* name;
        Types types;
        std::string key;
        std::vector<Record> records;
        std::string message;
    } const rows[] = {
        {"all types",
         {SUTS_STRING64, SUTS_INT32, SUTS_STRING64, SUTS_FLOAT64, SUTS_INT64},
         "k\0"s,
         {{0x0102030405060708, "", "\xfe\xff\xff\xff\0"s + test::Host(1.0) + test::Host(7L)}},
         head + "\0\0\0\2k\0"s + "\0\0\0\0\0\0\0\1"s + "\1\2\3\4\5\6\7\x08"s + "\xff\xff\xff\xfe"s + "\0\0\0\1\0"s +
             "\x3f\xf0\0\0\0\0\0\0"s + "\0\0\0\0\0\0\0\7"s},
        {"empty key, no record", {SUTS_STRING64, SUTS_INT32}, "\0"s, {}, head + "\0\0\0\1\0"s + "\0\0\0\0\0\0\0\0"s},
        {"one field",
         {SUTS_INT32},
         "\1\2\3\4"s,
         {{258, "", ""}, {1, "", ""}},
         head + "\4\3\2\1"s + "\0\0\0\0\0\0\0\2"s + "\0\0\0\0\0\0\0\1"s + "\0\0\0\0\0\0\1\2"s},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Shipping shipping(row.types, 1);
        for (Record const& record : row.records) shipping.Place(0, 7, record);
        EXPECT_EQ(Texts({row.message}), shipping.Ship(7, ~0UL, {row.key}));
    }
}

struct Step {
    enum Action { PLACE, RECYCLE, SHIP } action;
    unsigned long bucket;
    unsigned long timeUs;      // PLACE: the record's; SHIP: the upper time bound
    std::vector<int> shipped;  // SHIP: numbers of the records, counted from 0 as they were placed
};

Step Place(unsigned long bucket, unsigned long timeUs) { return {Step::PLACE, bucket, timeUs, {}}; }
Step Recycle(unsigned long bucket) { return {Step::RECYCLE, bucket, 0, {}}; }
Step Ship(unsigned long bucket, unsigned long bound, std::vector<int> shipped) {
    return {Step::SHIP, bucket, bound, std::move(shipped)};
}

TEST(ShipAssembly, ShipsWhatIsDueOnceAndMarksIt) {
    test::Random random = test::SeededRandom();
    Types const types = {SUTS_STRING64, SUTS_INT64, SUTS_FLOAT64};
    struct {
        char const* name;
        std::vector<Step> steps;
    } const rows[] = {
        {"the five newest buckets",
         {Place(3, 3), Place(4, 4), Place(5, 5), Place(6, 6), Place(7, 7), Ship(7, 100, {0, 1, 2, 3, 4})}},
        {"nothing of the ring below bucket 5",
         {Place(4, 10), Ship(0, 100, {}), Ship(3, 100, {}), Ship(4, 100, {}), Ship(5, 100, {0})}},
        {"retired contents at every bucket",
         {Place(1, 10), Recycle(1), Ship(3, 100, {0}), Place(2, 10), Recycle(2), Ship(4, 100, {1})}},
        {"retired contents whatever their time", {Place(7, 500), Recycle(7), Ship(7, 100, {0})}},
        {"the newest arrival tells, not the greatest time", {Place(7, 500), Place(7, 70), Ship(7, 100, {1, 0})}},
        {"a newest arrival that is not due holds back its bucket", {Place(7, 70), Place(7, 500), Ship(7, 100, {})}},
        {"at the bound is not due", {Place(7, 100), Ship(7, 100, {}), Ship(7, 101, {0})}},
        {"a stop abandons older buckets",
         {Place(5, 50), Place(6, 500), Place(7, 70), Ship(7, 100, {2}), Ship(7, 100, {}), Ship(7, 501, {0, 1})}},
        {"an empty bucket stops nothing", {Place(5, 50), Place(3, 30), Ship(7, 100, {1, 0})}},
        {"late records come next",
         {Place(6, 60), Place(6, 50), Ship(7, 100, {1, 0}), Place(6, 40), Ship(7, 100, {2}), Ship(7, 100, {})}},
        {"what was shipped before it was recycled does not come again",
         {Place(6, 60), Ship(7, 100, {0}), Place(6, 50), Recycle(6), Ship(7, 100, {1}), Ship(7, 100, {})}},
        {"of equal times the oldest retired first, the newest live last",
         {Place(3, 10), Place(3, 10), Recycle(3), Place(4, 10), Recycle(4), Place(7, 10), Place(7, 10), Place(6, 10),
          Ship(7, 100, {0, 1, 2, 5, 3, 4})}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Shipping shipping(types, 1);
        std::vector<Record> placed;
        std::size_t marked = 0;
        for (Step const& step : row.steps) {
            if (step.action == Step::PLACE) {
                placed.push_back(test::RandomRecord(random, types));
                placed.back().time = static_cast<long>(step.timeUs);
                placed.back().key = "key\0"s;
                shipping.Place(0, step.bucket, placed.back());
            } else if (step.action == Step::RECYCLE) {
                shipping.Recycle(0, step.bucket);
            } else {
                std::string message = "\0\0\0\2\0\0\0\4key\0"s + Net(step.shipped.size());
                for (int const number : step.shipped) {
                    message += placed[static_cast<std::size_t>(number)].InShipMessage();
                }
                EXPECT_EQ(Texts({message}), shipping.Ship(step.bucket, step.timeUs, {"key\0"s}));
                marked += step.shipped.size();
                EXPECT_EQ(
                    " F1 Elements: " + std::to_string(placed.size()) + " Committed: " + std::to_string(marked) + " \n",
                    test::StandardErrorOf([&] { shipping.log.PrintStatus(); }));
            }
        }
    }
}

// One key's records as a plain model keeps them.
struct KeyModel {
    std::vector<Record> buckets[BUCKETS];
    std::size_t shipped[BUCKETS] = {};
    std::vector<Record> retired;  // in the order of gathering

    void Recycle(unsigned long slot) {
        std::vector<Record> const unshipped(buckets[slot].begin() + static_cast<long>(shipped[slot]),
                                            buckets[slot].end());
        retired.insert(retired.begin(), unshipped.rbegin(), unshipped.rend());
        buckets[slot].clear();
        shipped[slot] = 0;
    }
    // Encoded, in the order of shipping.
    Texts Ship(unsigned long bucketNumber, long bound) {
        std::vector<Record> gathered;
        for (unsigned long back = 0; bucketNumber >= BUCKETS && back < BUCKETS; ++back) {
            unsigned long const slot = (bucketNumber - back) % BUCKETS;
            std::vector<Record> const& bucket = buckets[slot];
            if (bucket.empty()) continue;
            if (bucket.back().time >= bound) break;
            gathered.insert(gathered.end(), bucket.rbegin(), bucket.rend() - static_cast<long>(shipped[slot]));
            shipped[slot] = bucket.size();
        }
        gathered.insert(gathered.end(), retired.begin(), retired.end());
        retired.clear();
        std::reverse(gathered.begin(), gathered.end());
        std::stable_sort(gathered.begin(), gathered.end(), [](auto& a, auto& b) { return a.time < b.time; });
        Texts encoded;
        for (Record const& record : gathered) encoded.push_back(record.InShipMessage());
        return encoded;
    }
};

// Takes what has to stand at the text's start off it.
bool Eat(std::string_view& text, std::string const& expected) {
    if (!text.starts_with(expected)) return false;
    text.remove_prefix(expected.size());
    return true;
}

struct Block {
    std::string key;  // encoded, as the records
    Texts records;
};

// The messages hold these blocks, cut where they must be and nowhere else.
void ExpectBlocks(Texts const& messages, std::vector<Block> const& blocks, std::size_t bytesMax) {
    std::size_t key = 0;
    std::size_t record = 0;
    for (std::string const& message : messages) {
        std::string_view text = message;
        ASSERT_TRUE(Eat(text, "\0\0\0\2"s));
        std::size_t blocksHere = 0;
        std::size_t recordsHere = 0;
        for (; !text.empty(); ++blocksHere) {
            ASSERT_TRUE(key < blocks.size() && Eat(text, blocks[key].key));
            Texts const& records = blocks[key].records;
            std::size_t count = 0;
            while (count <= records.size() - record && !Eat(text, Net(count))) ++count;
            ASSERT_LE(count, records.size() - record);
            recordsHere += count;
            for (; count > 0; --count) ASSERT_TRUE(Eat(text, records[record++]));
            if (record < records.size()) {
                EXPECT_TRUE(text.empty() && recordsHere > 0);
                EXPECT_GT(message.size() + records[record].size(), bytesMax) << "the next record would have fitted";
            } else {
                ++key;
                record = 0;
            }
        }
        EXPECT_GT(blocksHere, 0U);
        if (blocksHere > 1 || recordsHere > 1) { EXPECT_LE(message.size(), bytesMax); }
    }
    EXPECT_EQ(blocks.size(), key);
}

TEST(ShipAssembly, MessagesHoldWhatAPlainModelShips) {
    test::Random random = test::SeededRandom();
    long const limits[] = {64, 100, 256, 1024, 4096, SUTS_MESSAGE_BYTES_MAX};
    for (int run = 0; run < 120 && !HasFailure(); ++run) {
        Types const types = test::RandomTypes(random);
        long const bytesMax = limits[test::Below(random, std::size(limits))];
        Texts keys;
        for (int i = 0; i < 4; ++i) keys.push_back(test::RandomStored(random, types[0]));
        Shipping shipping(types, keys.size(), bytesMax);
        std::vector<KeyModel> models(keys.size());
        auto const recycle = [&](unsigned long slot) {
            for (std::size_t i = 0; i < keys.size(); ++i) {
                shipping.Recycle(i, slot);
                models[i].Recycle(slot);
            }
        };
        auto const ship = [&](unsigned long bucketNumber, long bound) {
            std::vector<Block> blocks;
            std::string whole = "\0\0\0\2"s;
            for (std::size_t i = 0; i < keys.size(); ++i) {
                blocks.push_back({test::Wire(types[0], keys[i]), models[i].Ship(bucketNumber, bound)});
                whole += blocks.back().key + Net(blocks.back().records.size());
                for (std::string const& record : blocks.back().records) whole += record;
            }
            Texts const messages = shipping.Ship(bucketNumber, static_cast<unsigned long>(bound), keys);
            if (static_cast<long>(whole.size()) <= bytesMax) { EXPECT_EQ(Texts({whole}), messages); }
            ExpectBlocks(messages, blocks, static_cast<std::size_t>(bytesMax));
        };
        unsigned long current = 4;
        long bound = 0;  // never falls, as event time does not
        for (int step = 0; step < 300; ++step) {
            std::size_t const action = test::Below(random, 20);
            if (action > 1) {
                std::size_t const key = test::Below(random, keys.size());
                unsigned long const bucket = current - test::Below(random, BUCKETS);
                Record record = test::RandomRecord(random, types);
                record.time = static_cast<long>(bucket * 10 + test::Below(random, 10));
                shipping.Place(key, bucket, record);
                models[key].buckets[bucket % BUCKETS].push_back(record);
            } else if (action == 1) {
                for (std::size_t opened = 1 + test::Below(random, 3); opened > 0; --opened) {
                    ++current;
                    recycle(current % BUCKETS);
                }
            } else {
                bound = std::max(bound, static_cast<long>(current * 10 + 5 - test::Below(random, 20)));
                ship(current - 1, bound);
            }
        }
        // Everything that is left, live or retired; then all was marked, and once.
        recycle(1);
        recycle(3);
        ship(current + BUCKETS, INT64_MAX);
        ship(current + BUCKETS, INT64_MAX);
        shipping.log.Terminate();
        EXPECT_EQ(test::Names(), shipping.directory.Names());
    }
}

TEST(ShipAssembly, KeysAreAnnouncedInAsManyMessagesAsTheyNeed) {
    test::Random random = test::SeededRandom();
    test::Schema const schema({SUTS_STRING64, SUTS_STRING64});
    for (std::size_t const bytesMax : {64UL, 300UL, 1UL << 30}) {
        suts_StgShipMessages messages(static_cast<long>(bytesMax));
        // Several times, since messages are used again.
        for (std::size_t const count : {0UL, 500UL, 1UL, 500UL}) {
            Texts keys;
            messages.Begin(SUTS_SHIP_KEYS);
            for (std::size_t i = 0; i < count; ++i) {
                std::string const key = test::RandomStored(random, SUTS_STRING64);
                suts_AppendKeyToMessages(messages, test::OwnedField(key), schema);
                keys.push_back(test::Wire(SUTS_STRING64, key));
            }
            std::size_t next = 0;
            for (std::string const& message : Shipping::Messages(messages)) {
                std::string_view text = message;
                ASSERT_TRUE(Eat(text, "\0\0\0\1"s));
                std::size_t const first = next;
                while (!text.empty()) ASSERT_TRUE(next < count && Eat(text, keys[next++]));
                if (next > first + 1) { EXPECT_LE(message.size(), bytesMax); }
            }
            EXPECT_EQ(count, next);
        }
    }
}

}  // namespace
