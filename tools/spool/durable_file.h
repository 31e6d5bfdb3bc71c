// Small files that are replaced whole.
#pragma once

#include <sys/types.h>

#include <limits>
#include <optional>
#include <string>
#include <string_view>

// Of what is made, as far as the user's mask lets.
constexpr mode_t FILE_MODE = 0666;
constexpr mode_t DIRECTORY_MODE = 0777;

// Replaces the file, or makes it: whoever reads it, now or after a power cut, finds the old text or the new one. False
// with errno set when it could not be done; the old text is still there then.
[[nodiscard]] bool ReplaceFile(std::string const& path, std::string_view text);

// The whole file. None with errno set when it cannot be read: ENOENT when there is none, EFBIG when it is longer.
[[nodiscard]] std::optional<std::string> ReadFile(std::string const& path,
                                                  std::size_t bytesMax = std::numeric_limits<std::size_t>::max());

// The directory in which a path lies.
[[nodiscard]] std::string FolderOf(std::string const& path);

// Makes the names in a directory durable. False with errno set on failure.
[[nodiscard]] bool SyncDirectory(std::string const& path);
