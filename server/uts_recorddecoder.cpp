#include "uts_recorddecoder.h"

#include <algorithm>
#include <cstdio>

#include "sutl_netorder.h"

void suts_RecordDecoder::StartFrame(sutl_NetorderByteField& frame) {
    frame_ = &frame;
    records_ = 0;
    at_ = end_ = nullptr;
    if (roomBytes_ == 0 || roomBytes_ > KEPT_BYTES_MAX) SetRoom(WINDOW_BYTES);
}

// What lies in the window is lost.
void suts_RecordDecoder::SetRoom(std::size_t bytes) {
    roomBytes_ = bytes;
    // Not make_unique: bytes about to be written need no zeros first.
    window_.reset(new unsigned char[bytes]);
    stored_.reset(new unsigned char[bytes]);
}

bool suts_RecordDecoder::Next(long& time, sutl_RawBytefield& key, sutl_RawBytefield& value) {
    ++records_;
    Fault fault;
    while (!TakeFromWindow(time, key, value, fault)) {
        fault.bytesLeft += frame_->Count();
        if (frame_->Count() == 0 || fault.claimedBytes > fault.bytesLeft) {
            Report(fault);
            return false;
        }
        Refill();
        fault = {};
    }
    return true;
}

bool suts_RecordDecoder::TakeFromWindow(long& time, sutl_RawBytefield& key, sutl_RawBytefield& value, Fault& fault) {
    unsigned char const* from = at_;
    unsigned char* to = stored_.get();
    fault.field = suts_StoreFields(from, end_, spec_, 0, 1, to, fault.kind);
    bool whole = fault.field == 1;
    if (whole) {
        fault.inTime = end_ - from < SUTS_NUMBER8_BYTES;
        whole = !fault.inTime;
    }
    if (whole) {
        auto const keyBytes = static_cast<int>(to - stored_.get());
        unsigned long bits;
        memcpy(&bits, from, sizeof bits);
        time = static_cast<long>(sutl_ToNetorder(bits));
        from += sizeof bits;
        fault.field = suts_StoreFields(from, end_, spec_, 1, spec_.fieldCount, to, fault.kind);
        whole = fault.field == spec_.fieldCount;
        if (whole) {
            unsigned char const* const valueAt = stored_.get() + keyBytes;
            key.Share(stored_.get(), keyBytes);
            value.Share(valueAt, static_cast<int>(to - valueAt));
            at_ = from;
            return true;
        }
    }
    fault.bytesLeft = end_ - from;
    if (!fault.inTime && fault.kind == FIELD_STRING_TOO_LONG) {
        unsigned int claimed;
        memcpy(&claimed, from - sizeof claimed, sizeof claimed);
        fault.claimedBytes = sutl_ToNetorder(claimed);
    }
    return false;
}

// Adds bytes of the frame, which must hold some, behind those of the record at hand, which the window does not hold as
// a whole.
void suts_RecordDecoder::Refill() {
    auto const rest = static_cast<std::size_t>(end_ - at_);
    if (2 * rest > roomBytes_) {
        std::unique_ptr<unsigned char[]> const former = std::move(window_);
        SetRoom(2 * roomBytes_);
        memcpy(window_.get(), at_, rest);
    } else if (rest > 0) {
        memmove(window_.get(), at_, rest);
    }
    std::size_t const more = std::min(roomBytes_ - rest, static_cast<std::size_t>(frame_->Count()));
    frame_->GetNextBytes(window_.get() + rest, static_cast<unsigned int>(more));
    at_ = window_.get();
    end_ = at_ + rest + more;
}

void suts_RecordDecoder::Report(Fault const& fault) const {
    if (fault.inTime) {
        fprintf(stderr, "ERROR, malformed frame: it ends inside the time stamp of record %lu\n", records_);
        return;
    }
    char const* const name = spec_.fieldNames[static_cast<std::size_t>(fault.field)].get();
    if (fault.kind == FIELD_CUT) {
        fprintf(stderr, "ERROR, malformed frame: it ends inside field %s of record %lu\n", name, records_);
    } else {
        fprintf(stderr, "ERROR, malformed frame: field %s of record %lu claims more bytes than the %ld that are left\n",
                name, records_, fault.bytesLeft);
    }
}
