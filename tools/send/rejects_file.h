// The rows that were turned away, made so that they can be mended and sent again.
#pragma once

#include <string>
#include <string_view>

#include "send_input.h"
#include "sutl_descriptor.h"

// Writes a file in the format of the source. In CSV and TSV it has the source's own header behind two columns
// reject_line and reject_reason, and each row as it stood behind the values of these; in JSON lines each object has two
// members of these names before its own. send passes over both, as over every column that the schema does not name. A
// row of a rejects file that is turned away again loses its former two columns. One thread at a time.
class RejectsFile {
 public:
    // Creates the file, or goes on behind so many bytes of an older one. An older one that is not gone on with stays as
    // it is until Replace, or the first Flush with something to write. False, and Problem(), when that fails or when
    // the file is one of those that are sent.
    [[nodiscard]] bool Open(std::string const& path, std::vector<std::string> const& inputs, bool goesOn,
                            unsigned long bytes);
    [[nodiscard]] bool IsOpen() const { return file_.IsOpen(); }

    // False, and Problem(), when the input is of another format or has other columns than those before.
    [[nodiscard]] bool Add(SendInput const& input, std::string_view reason);

    // Drops what an older run left. False, and Problem(), on failure.
    [[nodiscard]] bool Replace();

    // Writes what was added. False, and Problem(), on failure.
    [[nodiscard]] bool Flush();

    [[nodiscard]] unsigned long Bytes() const { return bytes_; }  // written
    [[nodiscard]] std::string const& Problem() const { return problem_; }

 private:
    bool Fail(std::string problem);

    std::string path_;
    sutl_Descriptor file_;
    bool mustCut_ = false;      // it may still hold what is not to stay
    std::string header_;        // of the source of what was added
    bool hasRows_ = false;      // the header is known
    bool isContinued_ = false;  // and stands in the file already
    std::string text_;          // not yet written
    unsigned long bytes_ = 0;
    std::string problem_;
};
