// Files that grow by transactions.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "destination.h"
#include "sutl_descriptor.h"

// A file to which lines are appended. It is locked for as long as it is open.
class AppendedFile {
 public:
    explicit AppendedFile(std::string path) : path_(std::move(path)) {}

    // Opens or creates it. The failure as a text; status is what it means.
    [[nodiscard]] std::string Open(Destination::Status& status);
    // Cuts it, so that it goes on there; 0 or errno.
    [[nodiscard]] int CutTo(unsigned long length);
    // Writes all of the bytes; 0 or errno.
    [[nodiscard]] int Append(std::string_view bytes);
    // Waits for the disk; 0 or errno.
    [[nodiscard]] int Sync() const;
    void Close() { file_.Close(); }

    [[nodiscard]] std::string const& Path() const { return path_; }
    [[nodiscard]] unsigned long Length() const { return length_; }

 private:
    std::string const path_;
    sutl_Descriptor file_;
    unsigned long length_ = 0;
};

// What was committed: how long each file was, what its lines consist of, and the state.
struct FilesState {
    std::vector<unsigned long> lengths;
    std::string columns;
    std::string state;
};

// Reads the state file. False when there is none. The failure as a text, empty on success.
[[nodiscard]] bool ReadFilesState(std::string const& path, std::size_t files, FilesState& state, std::string& problem,
                                  Destination::Status& status);
// Puts the state in place of the former one, at once and durably. 0 or errno.
[[nodiscard]] int WriteFilesState(std::string const& path, FilesState const& state);
