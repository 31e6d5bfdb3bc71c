// A key file in the making, with every key once and behind its length: the form that is read back without doubt.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>

#include "log_walker.h"
#include "recovery_file_writer.h"
#include "sutl_descriptor.h"
#include "uts_tsspec.h"

// Keeps 16 bytes of every key. Every failure shows as false, with errno. One thread at a time.
class KeyFileWriter {
 public:
    KeyFileWriter(suts_tsspec const& spec, std::string const& path);
    [[nodiscard]] bool IsOpen() const { return out_.IsOpen(); }
    [[nodiscard]] unsigned long Count() const { return seen_.size(); }

    // A key whose bytes, less the NUL of a text, stand in a file at this place; `start` is as much of it as is known.
    [[nodiscard]] bool Add(KeyHash const& hash, std::string_view start, long bytes, sutl_Descriptor const& from,
                           long offset);
    // Brings everything to the disk and closes the file.
    [[nodiscard]] bool Finish() { return out_.Finish(); }

 private:
    struct Hasher {
        std::size_t operator()(KeyHash const& hash) const { return hash.low; }
    };

    bool const isText_;
    RecoveryFileWriter out_;
    std::unordered_set<KeyHash, Hasher> seen_;
};
