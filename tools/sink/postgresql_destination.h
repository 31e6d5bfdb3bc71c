// Records into a PostgreSQL database.
#pragma once

#include "destination.h"

// Makes the destination of postgresql://.... None, and the problem, when the address cannot be read or the schema's
// names cannot be used.
[[nodiscard]] std::unique_ptr<Destination> MakePostgresqlDestination(std::string const& address,
                                                                     suts_tsspec const& spec,
                                                                     DestinationOptions const& options,
                                                                     std::string& problem);
