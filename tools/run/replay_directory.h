// One directory to replay, made of several generations.
#pragma once

#include <string>
#include <vector>

#include "generation_log.h"
#include "uts_tsspec.h"

// Makes the directory, which must not exist. Its files are those of the generations, oldest first, numbered anew: hard
// links, but copies up to the tear of torn files that others follow, since a replay takes all files for one stream, and
// of all files where the file system has no links. KeyFile has the whole entries of the generations' own, each key
// once. False: the problem tells; what was made stays.
[[nodiscard]] bool MakeReplayDirectory(suts_tsspec const& spec, std::string const& path,
                                       std::vector<GenerationLog> const& generations, std::string& problem);
