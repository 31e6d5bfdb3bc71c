// Lines that a user types at a terminal, with a history that outlives the program.
#pragma once

#include <histedit.h>

#include <memory>
#include <string>

// Owns the editor and its history, which is written with every line as far as that can be done. Ctrl-C ends the program
// with the terminal as it was. One at a time.
class LineEditor {
 public:
    LineEditor();
    LineEditor(LineEditor const&) = delete;
    LineEditor& operator=(LineEditor const&) = delete;

    // False at the end of the input. Blocks.
    [[nodiscard]] bool Read(std::string& line);

 private:
    std::string path_;  // of the history; empty without a home
    std::unique_ptr<History, void (*)(History*)> history_;
    std::unique_ptr<EditLine, void (*)(EditLine*)> editor_;
};
