#include "uts_stgkeyfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t LENGTH_BYTES = 4;
constexpr std::size_t READ_BYTES = 4096;
// Below this a length is taken at its word. From here on it is believed only where what follows bears it out, since the
// first four bytes of a copied key look like one.
constexpr long TRUSTED_LENGTH_END = 1024;
// A length that the end of the file cuts short is believed below this.
constexpr long CUT_LENGTH_END = 65536;

// What a full disk has let through of an entry must not stand before the next one.
void RemoveLastBytes(sutl_Descriptor const& file, long bytes) {
    off_t const end = lseek(file.Get(), -bytes, SEEK_CUR);
    if (end >= 0 && ftruncate(file.Get(), end) != 0) perror("sutl_FileWrite error: ");
}

}  // namespace

void suts_StgKeyEntries::Add(sutl_RawBytefield const& key, bool withLength) {
    if (withLength) {
        unsigned char length[LENGTH_BYTES];
        memcpy(length, &key.length, sizeof length);
        bytes_.insert(bytes_.end(), length, length + sizeof length);
    }
    bytes_.insert(bytes_.end(), key.Data(), key.Data() + key.length);
    ends_.push_back(bytes_.size());
}

void suts_StgKeyEntries::Write(sutl_Descriptor const& keyFile) {
    std::size_t done = WriteFrom(keyFile, 0, ends_.size());
    while (done < ends_.size()) done = WriteFrom(keyFile, done, done + 1);
    bytes_.clear();
    ends_.clear();
}

// Writes the entries from first to last, exclusive. Returns the number of the one to go on with: last, or that behind
// the first that has failed.
std::size_t suts_StgKeyEntries::WriteFrom(sutl_Descriptor const& keyFile, std::size_t first, std::size_t last) {
    std::size_t const begin = first == 0 ? 0 : ends_[first - 1];
    std::size_t const end = last == 0 ? 0 : ends_[last - 1];
    if (begin == end) return last;
    long const result = sutl_FileWrite(keyFile.Get(), bytes_.data() + begin, end - begin);
    std::size_t const written = begin + static_cast<std::size_t>(std::abs(result));  // negated after an error
    if (written == end) return last;
    while (ends_[first] <= written) ++first;
    RemoveLastBytes(keyFile, static_cast<long>(written - (first == 0 ? 0 : std::max(begin, ends_[first - 1]))));
    return first + 1;
}

suts_StgKeyFileReader::suts_StgKeyFileReader(suts_tsspec const& spec, char const* directory)
    : spec_(spec), file_(sutl_OpenFile((std::string(directory) + "/KeyFile").c_str(), O_RDONLY)) {}

// Reads ahead until that many bytes are there or the file ends. Returns how many there are, at most the number asked
// for.
std::size_t suts_StgKeyFileReader::Fill(std::size_t bytes) {
    if (position_ >= READ_BYTES) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<long>(position_));
        position_ = 0;
    }
    while (!ended_ && buffer_.size() - position_ < bytes) {
        std::size_t const held = buffer_.size();
        buffer_.resize(held + READ_BYTES);
        long const got = sutl_ReadSome(file_.Get(), buffer_.data() + held, READ_BYTES);
        if (got < 0) perror("sutl_FileRead error: ");
        failed_ = got < 0;
        ended_ = got <= 0;
        buffer_.resize(held + static_cast<std::size_t>(std::max(got, 0L)));
    }
    return std::min(bytes, buffer_.size() - position_);
}

// The first NUL among the bytes from and up to to, counted from the next entry; reads no further than it has to.
std::size_t suts_StgKeyFileReader::FindNul(std::size_t from, std::size_t to) {
    while (from < to) {
        std::size_t const there = Fill(std::min(to, from + READ_BYTES));
        if (there <= from) break;
        void const* const nul = memchr(Ahead() + from, 0, there - from);
        if (nul != nullptr) return static_cast<std::size_t>(static_cast<unsigned char const*>(nul) - Ahead());
        from = there;
    }
    return NOT_FOUND;
}

// Takes start + bytes off the file; what stands from start to the first NUL is the key.
suts_StgKeyFileReader::Result suts_StgKeyFileReader::TakeText(std::size_t start, std::size_t bytes,
                                                              sutl_RawBytefield& key) {
    unsigned char const* const text = Ahead() + start;
    void const* const nul = bytes > 0 ? memchr(text, 0, bytes) : nullptr;
    std::size_t const length =
        nul != nullptr ? static_cast<std::size_t>(static_cast<unsigned char const*>(nul) - text) : bytes;
    if (length >= INT32_MAX) return CORRUPT;  // no byte field can hold it
    key.Prep(static_cast<int>(length) + 1);
    if (length > 0) memcpy(key.Data(), text, length);
    key.Data()[length] = 0;
    position_ += start + bytes;
    return KEY;
}

suts_StgKeyFileReader::Result suts_StgKeyFileReader::NextNumber(std::size_t bytes, sutl_RawBytefield& key) {
    std::size_t const there = Fill(bytes);
    if (there == 0 && !failed_) return END;
    if (there < bytes) return CORRUPT;
    key.Assign(Ahead(), static_cast<int>(bytes));
    position_ += bytes;
    return KEY;
}

// Whether a length of TRUSTED_LENGTH_END and more, just read, is one: its text is there and ends at its only NUL, or
// the file ends within it.
bool suts_StgKeyFileReader::IsLength(long length) {
    if (length < 0) return false;
    std::size_t const end = LENGTH_BYTES + static_cast<std::size_t>(length);
    std::size_t const nul = FindNul(LENGTH_BYTES, end);
    if (nul == end - 1) return true;
    return length < CUT_LENGTH_END && Fill(end) < end;
}

suts_StgKeyFileReader::Result suts_StgKeyFileReader::NextString(sutl_RawBytefield& key) {
    std::size_t const head = Fill(LENGTH_BYTES);
    if (head == 0 && !failed_) return END;
    if (head < LENGTH_BYTES) {
        bool const copiedKey = copiedSeen_ && head > 0 && !failed_ && Ahead()[head - 1] == 0;
        return copiedKey ? TakeText(0, FindNul(0, head) + 1, key) : CORRUPT;
    }
    int length;
    memcpy(&length, Ahead(), sizeof length);
    if (length >= 0 && length < TRUSTED_LENGTH_END) {
        auto const bytes = static_cast<std::size_t>(length);
        if (Fill(LENGTH_BYTES + bytes) < LENGTH_BYTES + bytes) return CORRUPT;
        return TakeText(LENGTH_BYTES, bytes, key);
    }
    if (IsLength(length)) {
        std::size_t const there = Fill(LENGTH_BYTES + static_cast<std::size_t>(length));
        return TakeText(LENGTH_BYTES, there - LENGTH_BYTES, key);
    }
    copiedSeen_ = true;
    std::size_t const nul = FindNul(0, NOT_FOUND);
    return nul == NOT_FOUND ? CORRUPT : TakeText(0, nul + 1, key);
}

suts_StgKeyFileReader::Result suts_StgKeyFileReader::Next(sutl_RawBytefield& key) {
    switch (spec_.Type(0)) {
        case SUTS_STRING64:
            return NextString(key);
        case SUTS_INT32:
            return NextNumber(SUTS_INT32_BYTES, key);
        case SUTS_INT64:
        case SUTS_FLOAT64:
            return NextNumber(SUTS_NUMBER8_BYTES, key);
    }
    return CORRUPT;
}
