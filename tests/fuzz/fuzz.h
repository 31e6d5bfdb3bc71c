// What the fuzzers share. A fuzzer is one source that defines LLVMFuzzerTestOneInput for one surface. The first bytes
// of an input choose the schema and the like; the rest is what comes from outside.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "../uts/uts_support.h"
#include "sutl_descriptor.h"
#include "sutl_frame.h"

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size);

namespace fuzz {

// Aborts, which makes the input a finding, when the fact does not hold.
void Require(bool holds, char const* fact);

// Thrown where in the server an assertion ends the process: an ending that is meant to be is told apart from a crash,
// and costs no process. One that nobody catches is a finding.
struct Assertion {
    std::string message;
};

// Collects what is written to standard error while it lives; one at a time.
class Messages {
 public:
    Messages();
    Messages(Messages const&) = delete;
    Messages& operator=(Messages const&) = delete;
    ~Messages();
    [[nodiscard]] std::string const& Text() const;

 private:
    FILE* const standardError_;
};

// An input, taken from its start. What is not there any more counts as zeros.
class Input {
 public:
    Input(unsigned char const* data, std::size_t size) : left_(reinterpret_cast<char const*>(data), size) {}

    unsigned int Byte() {
        std::string_view const byte = Bytes(1);
        return byte.empty() ? 0 : static_cast<unsigned char>(byte[0]);
    }
    std::string_view Bytes(std::size_t count) {
        std::string_view const taken = left_.substr(0, count);
        left_.remove_prefix(taken.size());
        return taken;
    }
    std::string_view Rest() { return Bytes(left_.size()); }

 private:
    std::string_view left_;
};

// A file without a name, opened at its start.
[[nodiscard]] sutl_Descriptor MemoryFile(std::string_view content);

// Schemas with keys of each type, from one field to one of every type.
[[nodiscard]] suts_tsspec const& SchemaOf(unsigned int choice);

// What a stream of frames holds: bodies up to the end of the stream or the frame that is not whole.
struct Frame {
    sutl_FrameResult result;
    std::string_view body;
};
[[nodiscard]] std::vector<Frame> CutFrames(std::string_view stream);

}  // namespace fuzz
