#include "brindle_shipreader.h"

brindle_ShipReader::brindle_ShipReader(suts_tsspec const& spec)
    : spec_(spec), values_(static_cast<std::size_t>(spec.fieldCount)) {}

void brindle_ShipReader::Start(std::span<unsigned char const> message, bool cut) {
    cut_ = cut;
    message_ = brindle_MessageReader(message);
    state_ = AT_START;
    recordsLeft_ = 0;
}

brindle_ShipReader::Item brindle_ShipReader::Next() {
    switch (state_) {
        case AT_START:
            return Begin();
        case IN_KEYS:
            return TakeKey();
        case IN_BLOCKS:
            return recordsLeft_ > 0 ? TakeRecord() : TakeBlock();
        case ENDED:
            return MESSAGE_ENDED;
        case BROKEN:
            break;
    }
    return MALFORMED;
}

brindle_ShipReader::Item brindle_ShipReader::Begin() {
    unsigned int type = 0;
    if (!message_.Take4Byte(type)) return Break();
    switch (type) {
        case SUTS_SHIP_KEYS:
            state_ = IN_KEYS;
            return TakeKey();
        case SUTS_SHIP_RECORDS:
            state_ = IN_BLOCKS;
            return TakeBlock();
        case SUTS_SHIP_CYCLE_END:
            if (message_.BytesLeft() > 0) return Break();
            state_ = ENDED;
            return CYCLE_ENDED;
        default:
            return Break();
    }
}

brindle_ShipReader::Item brindle_ShipReader::TakeKey() {
    if (message_.BytesLeft() == 0) {
        state_ = ENDED;
        return MESSAGE_ENDED;
    }
    return message_.TakeField(spec_.Type(0), values_[0]) ? KEY_ANNOUNCED : Break();
}

brindle_ShipReader::Item brindle_ShipReader::TakeBlock() {
    if (message_.BytesLeft() == 0) {
        state_ = ENDED;
        return MESSAGE_ENDED;
    }
    if (!message_.TakeField(spec_.Type(0), values_[0]) || !message_.Take8Byte(records_)) return Break();
    // Each record has a time at least, so that in a whole message a count beyond this is wrong before the first is
    // read.
    if (!cut_ && records_ > message_.BytesLeft() / SUTS_NUMBER8_BYTES) return Break();
    recordsLeft_ = records_;
    return BLOCK_STARTED;
}

brindle_ShipReader::Item brindle_ShipReader::TakeRecord() {
    unsigned long time = 0;
    if (!message_.Take8Byte(time)) return Break();
    timeUs_ = static_cast<long>(time);
    for (int i = 1; i < spec_.fieldCount; ++i) {
        if (!message_.TakeField(spec_.Type(i), values_[static_cast<std::size_t>(i)])) return Break();
    }
    --recordsLeft_;
    return RECORD;
}

brindle_ShipReader::Item brindle_ShipReader::Break() {
    state_ = BROKEN;
    return MALFORMED;
}
