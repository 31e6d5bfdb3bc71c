// Text as a terminal shows it.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

// The text without what would move the cursor or switch the terminal: control characters, C1 ones in both of their
// forms among them, and what is not UTF-8 stand as \xNN.
[[nodiscard]] std::string ForTerminal(std::string_view text);

// A value or a name within a message: so much of it as 60 bytes hold in whole characters, made as above.
[[nodiscard]] std::string Shown(std::string_view text);

// The first 20 of these with commas between, and how many more there are.
[[nodiscard]] std::string ShownList(std::span<std::string_view const> texts);

// "1 record", "2 records".
[[nodiscard]] std::string Count(unsigned long number, std::string_view what);

// Writes to standard error in one piece. What cannot be written there cannot be told anywhere.
void WriteToErrors(std::string const& text);

[[nodiscard]] bool IsUtf8(std::string_view text);

// The columns that such a text takes. In a locale without UTF-8 every character takes one.
[[nodiscard]] std::size_t WidthOf(std::string_view text);

// Whether the user's locale has UTF-8. The first call takes the character type of the environment for the process.
[[nodiscard]] bool HasUtf8Locale();

// Columns of the terminal behind a descriptor, or those that COLUMNS names, or 80.
[[nodiscard]] std::size_t TerminalColumns(int descriptor);
