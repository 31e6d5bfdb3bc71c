// Records to standard output, for a program that reads them there.
#pragma once

#include "destination.h"

// Makes the destination of jsonl:-. Lines leave as they come together, and at the end of each cycle; what has left
// cannot be taken back, so an uncommitted transaction is not undone. It keeps no state. Rejects are counted alone.
[[nodiscard]] std::unique_ptr<Destination> MakeStdoutDestination(suts_tsspec const& spec,
                                                                 DestinationOptions const& options);
