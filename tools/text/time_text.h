// Times as text.
#pragma once

#include <string>
#include <string_view>

// Reads a time: ISO 8601 as in 2001-01-01T00:15:00Z, or whole microseconds since 1970. In ISO 8601 the date may stand
// alone, a blank may stand for the T, seconds and their fraction may be missing, and an offset such as +01:00 may stand
// for the Z; without either the time is UTC. Digits of the fraction beyond the sixth are dropped. False, and the time
// unchanged, for anything else, a day that the calendar does not have included. A time before 1970 is negative.
[[nodiscard]] bool ParseTime(std::string_view text, long& timeUs);

// Reads a time in ISO 8601 alone. `saysOffset` tells whether it has a Z or an offset; where it has not, it was taken
// for UTC. False, and nothing changed, for anything else.
[[nodiscard]] bool ParseIsoTime(std::string_view text, long& timeUs, bool& saysOffset);

// The clock's time now, in microseconds since 1970.
[[nodiscard]] long NowUs();

// Appends the time as ISO 8601 in UTC, with a fraction of six digits if it has one.
void AppendIsoTime(std::string& out, long timeUs);
