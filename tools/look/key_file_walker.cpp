#include "key_file_walker.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

constexpr std::size_t KEY_FILE_WINDOW_BYTES = 64UL * 1024;
// The rules of a start; docs/recovery-files.md tells them.
constexpr long LENGTH_BYTES = 4;
constexpr long TRUSTED_LENGTH_END = 1024;
constexpr long CUT_LENGTH_END = 65536;

}  // namespace

KeyFileWalker::KeyFileWalker(suts_tsspec const& spec, std::string const& path)
    : spec_(spec),
      file_(sutl_OpenFile(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)),
      error_(file_.IsOpen() ? 0 : errno),
      window_(KEY_FILE_WINDOW_BYTES) {}

// The bytes from a place on, as many as the window gives; none at the end of the file or after an error.
unsigned char const* KeyFileWalker::Window(long offset, long& bytes) {
    bytes = 0;
    bool const held = offset >= windowStart_ && offset < windowStart_ + windowBytes_;
    if (!held && error_ == 0) {
        ssize_t got = -1;
        do { got = pread(file_.Get(), window_.data(), window_.size(), offset); } while (got < 0 && errno == EINTR);
        if (got < 0) error_ = errno;
        windowStart_ = offset;
        windowBytes_ = std::max<ssize_t>(got, 0);
    }
    if (error_ != 0) return nullptr;
    bytes = windowStart_ + windowBytes_ - offset;
    return window_.data() + (offset - windowStart_);
}

// Copies bytes from a place; returns how many there were.
long KeyFileWalker::At(long offset, unsigned char* to, long bytes) {
    long done = 0;
    while (done < bytes) {
        long there = 0;
        unsigned char const* const from = Window(offset + done, there);
        if (there == 0) break;
        there = std::min(there, bytes - done);
        memcpy(to + done, from, static_cast<std::size_t>(there));
        done += there;
    }
    return done;
}

// The place of the first NUL from one place up to another.
long KeyFileWalker::FindNul(long from, long to) {
    while (from < to) {
        long there = 0;
        unsigned char const* const bytes = Window(from, there);
        there = std::min(there, to - from);
        if (there == 0) break;
        void const* const nul = memchr(bytes, 0, static_cast<std::size_t>(there));
        if (nul != nullptr) return from + (static_cast<unsigned char const*>(nul) - bytes);
        from += there;
    }
    return NOT_FOUND;
}

// Passes an entry whose text, up to its first NUL or all of it, is so long.
KeyFileWalker::Result KeyFileWalker::TakeText(Key& key, long start, long bytes) {
    long const nul = FindNul(start, start + bytes);
    long const text = nul == NOT_FOUND ? bytes : nul - start;
    if (text >= INT_MAX) return CORRUPT;
    hasher_.Reset();
    key.start.clear();
    for (long done = 0; done < text;) {
        long there = 0;
        unsigned char const* const from = Window(start + done, there);
        there = std::min(there, text - done);
        if (there == 0) break;
        hasher_.Add(from, static_cast<std::size_t>(there));
        std::size_t const room = LogRecord::KEY_BYTES_KEPT - key.start.size();
        key.start.append(reinterpret_cast<char const*>(from), std::min(room, static_cast<std::size_t>(there)));
        done += there;
    }
    hasher_.Add("", 1);
    if (key.start.size() < LogRecord::KEY_BYTES_KEPT) key.start += '\0';
    key.hash = hasher_.Get();
    key.textOffset = start;
    key.bytes = text + 1;
    offset_ = start + bytes;
    return KEY;
}

KeyFileWalker::Result KeyFileWalker::NextNumber(Key& key) {
    long const bytes = spec_.Type(0) == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
    unsigned char number[SUTS_NUMBER8_BYTES];
    long const there = At(offset_, number, bytes);
    if (there == 0) return END;
    cut_ = there < bytes;
    if (cut_) return CORRUPT;
    key.start.assign(reinterpret_cast<char const*>(number), static_cast<std::size_t>(bytes));
    key.hash = KeyHash::Of(key.start);
    key.textOffset = offset_;
    key.bytes = bytes;
    offset_ += bytes;
    return KEY;
}

KeyFileWalker::Result KeyFileWalker::NextText(Key& key) {
    unsigned char head[LENGTH_BYTES];
    long const headBytes = At(offset_, head, LENGTH_BYTES);
    if (headBytes == 0) return END;
    if (headBytes < LENGTH_BYTES) {
        cut_ = true;
        if (!copiedSeen_ || head[headBytes - 1] != 0) return CORRUPT;
        return TakeText(key, offset_, FindNul(offset_, offset_ + headBytes) + 1 - offset_);
    }
    int length;
    memcpy(&length, head, sizeof length);
    long const start = offset_ + LENGTH_BYTES;
    long const end = start + length;
    if (length >= 0) {
        unsigned char last;
        bool const isThere = length == 0 || At(end - 1, &last, 1) == 1;
        if (length < TRUSTED_LENGTH_END) {
            cut_ = !isThere;
            return isThere ? TakeText(key, start, length) : CORRUPT;
        }
        if (FindNul(start, end) == end - 1) return TakeText(key, start, length);
        if (length < CUT_LENGTH_END && !isThere) {
            cut_ = true;
            long there = 0;
            long piece = 0;
            while (Window(start + there, piece) != nullptr && piece > 0) there += piece;
            return TakeText(key, start, there);
        }
    }
    copiedSeen_ = true;
    long const nul = FindNul(offset_, LONG_MAX);
    return nul == NOT_FOUND ? CORRUPT : TakeText(key, offset_, nul + 1 - offset_);
}

KeyFileWalker::Result KeyFileWalker::Next(Key& key) {
    if (result_ != KEY) return result_;
    cut_ = false;
    result_ = spec_.Type(0) == SUTS_STRING64 ? NextText(key) : NextNumber(key);
    if (error_ != 0) {
        result_ = READ_ERROR;
        errno = error_;
    }
    return result_;
}
