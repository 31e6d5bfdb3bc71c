#include "postgresql_destination.h"

std::unique_ptr<Destination> MakePostgresqlDestination(std::string const&, suts_tsspec const&,
                                                       DestinationOptions const&, std::string& problem) {
    problem = "postgresql: not yet";
    return nullptr;
}
