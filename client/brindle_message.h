// Messages: the bodies of frames, written and read in network byte order.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "brindle_value.h"
#include "sutl_frameheader.h"

// The size of a field on every wire.
[[nodiscard]] inline std::size_t brindle_FieldBytes(brindle_Value const& value) {
    if (value.type == SUTS_STRING64) return SUTS_STRING_LENGTH_BYTES + value.text.size() + 1;
    return value.type == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
}

// Writes the field to a place that has the room; returns the place behind it.
unsigned char* brindle_StoreField(unsigned char* to, brindle_Value const& value);

// A message being written. It stands behind the place of its own frame header, so that header and body leave in one
// call and the network has no reason to cut between them. Keeps its memory from message to message. One thread at a
// time; appending cannot fail.
class brindle_Message {
 public:
    brindle_Message() { Clear(); }

    void Clear() { bytes_.resize(SUTL_FRAME_HEADER_BYTES); }
    void Append4Byte(unsigned int value);
    void Append8Byte(unsigned long value);
    void AppendField(brindle_Value const& value);  // copies a text
    // Makes room behind the end, for so many bytes at once. Valid until the next change.
    [[nodiscard]] unsigned char* Extend(std::size_t bytes);

    [[nodiscard]] std::size_t BodyBytes() const { return bytes_.size() - SUTL_FRAME_HEADER_BYTES; }
    [[nodiscard]] std::span<unsigned char const> Body() const {
        return std::span(bytes_).subspan(SUTL_FRAME_HEADER_BYTES);
    }
    // Header and body; valid until the next change. Only for a body of less than 2^31 bytes.
    [[nodiscard]] std::span<unsigned char const> Frame();

 private:
    std::vector<unsigned char> bytes_;  // header, then body
};

// Reads a message from its start. Never looks beyond its end: what is not there in full is not taken. The message
// belongs to the caller and must outlive the reader and the texts taken from it. One thread at a time.
class brindle_MessageReader {
 public:
    brindle_MessageReader() = default;
    explicit brindle_MessageReader(std::span<unsigned char const> message) : left_(message) {}

    [[nodiscard]] bool Take4Byte(unsigned int& value);
    [[nodiscard]] bool Take8Byte(unsigned long& value);
    // False when the message ends inside the field, or a string is not ended by its only NUL.
    [[nodiscard]] bool TakeField(suts_FieldType type, brindle_Value& value);

    [[nodiscard]] std::size_t BytesLeft() const { return left_.size(); }

 private:
    std::span<unsigned char const> left_;
};
