// A file of a recovery directory in the making.
#pragma once

#include <string>
#include <string_view>

#include "sutl_descriptor.h"

// Writes one new file. Every failure shows as false, with errno. One thread at a time.
class RecoveryFileWriter {
 public:
    [[nodiscard]] bool Create(std::string const& path);  // must not exist
    [[nodiscard]] bool IsOpen() const { return file_.IsOpen(); }
    [[nodiscard]] bool Append(std::string_view bytes);
    // Copies bytes of another file; `copied` tells how many there were. False also where that cannot be read.
    [[nodiscard]] bool CopyFrom(sutl_Descriptor const& from, long offset, long bytes, long& copied);
    // Brings everything to the disk and closes the file.
    [[nodiscard]] bool Finish();

 private:
    [[nodiscard]] bool Flush();

    sutl_Descriptor file_;
    std::string buffer_;  // not yet written
};
