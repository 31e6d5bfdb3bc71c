// Records as lines in files.
#pragma once

#include "destination.h"

// Makes the destination of csv:DIR. None, and the problem, when the schema's name cannot be that of a file.
[[nodiscard]] std::unique_ptr<Destination> MakeCsvDestination(std::string const& directory, suts_tsspec const& spec,
                                                              DestinationOptions const& options, std::string& problem);
// Makes the destination of jsonl:FILE.
[[nodiscard]] std::unique_ptr<Destination> MakeJsonlDestination(std::string const& path, suts_tsspec const& spec,
                                                                DestinationOptions const& options);
