// Records into an SQLite database.
#pragma once

#include "destination.h"

// Makes the destination of sqlite:FILE. None, and the problem, when the schema's name cannot be used.
[[nodiscard]] std::unique_ptr<Destination> MakeSqliteDestination(std::string const& path, suts_tsspec const& spec,
                                                                 DestinationOptions const& options,
                                                                 std::string& problem);
