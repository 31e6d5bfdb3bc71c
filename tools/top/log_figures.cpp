#include "log_figures.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

struct Meaning {
    std::string_view text;  // a part of the line
    char const* meaning;
};

// In the order in which they are looked for: what stands in others comes behind them.
constexpr Meaning MEANINGS[] = {
    {"Cannot open specfile", "runs without a schema: end it, mend the path"},
    {"ERROR suts_tspec:", "runs without a schema: end it, mend the schema file"},
    {"has no key field: no record", "the schema failed to load; the run ends"},
    {"cannot be replayed", "no schema for the replay; nothing was created"},
    {"query thread could not be started", "runs on without a query service"},
    {"thread could not be started", "limit on processes or memory; it has aborted"},
    {"out of memory", "it has aborted; look for a wrong time or too wide a window"},
    {"Binding socket failed", "another process has the port"},
    {"Socket open failed", "mostly the limit on descriptors"},
    {"Listen on socket failed", "the port is bound but cannot listen"},
    {"Accept failed", "data port: the run ends; query port: no more queries"},
    {"Incomplete bytefield length read", "a header came in pieces; that connection is over"},
    {"Socket Receiver: socket closed prematurely", "closed inside a frame, which is dropped"},
    {"Socket Receiver", "a producer or query client broke off"},
    {"bytefield size doesn't match", "a frame of 2 GiB and more: the sender is out of step"},
    {"malformed frame", "compare the producer's schema; the run ends"},
    {"record refused: negative", "mend the producer's clock or unit; the run goes on"},
    {"record refused", "too large for a ship message: split the record"},
    {"SIGTERM has ended the replay", "the rest is not replayed: keep the directory, replay it again"},
    {"Received Termination,aborting", "a frame of length 0; on the data ports it aborts"},
    {"Hostname lookup", "ShipHost is not known: what is shipped is lost"},
    {"TCPClient connection failed", "the consumer does not listen: what is shipped is lost"},
    {"ERROR  Sender", "a message was dropped: to the consumer, its records are lost"},
    {"Socket Sender", "a message was cut: to the consumer, its records are lost"},
    {"Connected again", "the consumer is back; so many records were lost, or more"},
    {"query ends inside its fields", "mend the client; one byte too many ends the server"},
    {"query refused", "its reply would be too long: ask for less"},
    {"Excess data in query", "a query was too long, which is fatal; find the client"},
    {"Recovery directory open failed", "RecoveryPath is no readable directory"},
    {"Recovery directory read failed", "mend the disk, then replay"},
    {"could not be opened, the replay ends", "the rest is not replayed: mend it and replay again"},
    {"Illegal name in recovery directory", "move the foreign file elsewhere"},
    {"could not be created", "directory used before, or the disk has changed"},
    {"Corrupt Recovery Keyfile", "KeyFile is cut, or of another schema"},
    {"sutl_FileRead error", "a recovery file cannot be read"},
    {"sutl_FileWrite error", "mostly the disk is full"},
    {"File removal failed", "the file stays; a replay ships it again"},
    {"Incomplete recovery file", "normal for the last file of a killed run"},
    {"Organizer destruction without", "the abort that the producer ordered: replay"},
    {"Window width has to be", "TW is not a positive number of seconds"},
    {"bad spec file!", "the schema file ends after a type"},
    {"Recovery directory not empty", "take a fresh directory, and replay the old one"},
    {"rite incomplete!", "a recovery file could not be written: make room, replay"},
    {"Read error!", "a recovery file could not be read: look at the disk"},
    {"recovery read failed", "somebody has changed files of a running server"},
    {"Internal Error (Assert Failure)", "it has ended itself; replay the directory"},
};

// Lines of the normal course that carry nothing else.
constexpr std::string_view USUAL[] = {"TShp: Keys sent:",    "TOrg -> Termination received",
                                      "TShp: Terminating..", " Playback info",
                                      "Received SIGTERM",    "<<<<<<<"};

// The number behind a text that the line holds; none that a long does not hold.
bool NumberBehind(std::string_view line, std::string_view text, unsigned long& number) {
    std::size_t const at = line.find(text);
    if (at == std::string_view::npos) return false;
    std::string const digits(line.substr(at + text.size(), 24));
    char* end = nullptr;
    number = strtoul(digits.c_str(), &end, 10);
    return end != digits.c_str() && number <= LONG_MAX;
}

bool Holds(std::string_view line, std::string_view text) { return line.find(text) != std::string_view::npos; }

}  // namespace

std::string Printable(std::string_view text) {
    std::string clean(text);
    std::replace_if(
        clean.begin(), clean.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return clean;
}

void LogFigures::StartRun() {
    std::deque<Trouble> kept(latest.begin() + static_cast<long>(std::min(beforeUsual_, latest.size())), latest.end());
    *this = {};
    for (Trouble const& trouble : kept) troubles += trouble.count;
    latest = std::move(kept);
}

void LogFigures::Take(std::string_view line) {
    if (TakeUsual(line)) {
        beforeUsual_ = latest.size();
        return;
    }
    TakeTrouble(line);
}

bool LogFigures::TakeUsual(std::string_view line) {
    unsigned long number = 0;
    unsigned long other = 0;
    if (NumberBehind(line, "TOrg: Total recs absorbed ", number)) {
        if (NumberBehind(line, " delta ", other) && number == other && (placed || shutsDown)) StartRun();
        placed = number;
    } else if (NumberBehind(line, "TOrg: Advanced buckets from ", number)) {
        if (NumberBehind(line, " to ", other)) bucket = other;
    } else if (NumberBehind(line, "TShp: Ship done ", number)) {
        if (NumberBehind(line, "etime ", other)) {
            cycleLastUs = static_cast<long>(other);
            cycleLongestUs = std::max(cycleLongestUs, cycleLastUs);
        }
    } else if (NumberBehind(line, " --- Recovered ", number)) {
        if (number == 1 && (placed || recovered)) StartRun();
        recovered = number;
    } else if (NumberBehind(line, "TMain: TQ termination ", number)) {
        queuedAtEnd = number;
    } else if (Holds(line, "TShp: Starting..")) {
        cycleRuns = true;
    } else if (Holds(line, "TShp: termination sent")) {
        ++cycles;
        cycleRuns = false;
    } else if (Holds(line, "Shutting down")) {
        shutsDown = true;
    } else if (Holds(line, "TMain Gathered TOrg")) {
        ended = true;
    } else {
        return std::any_of(std::begin(USUAL), std::end(USUAL), [line](auto text) { return Holds(line, text); });
    }
    return true;
}

void LogFigures::TakeTrouble(std::string_view line) {
    std::size_t const first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return;
    std::string const text = Printable(line.substr(first, line.find_last_not_of(" \t\r") + 1 - first));
    if (Holds(line, "Assert Failure")) crashed = true;
    ++troubles;
    if (!latest.empty() && latest.back().text == text) {
        ++latest.back().count;
        return;
    }
    auto const* const known = std::find_if(std::begin(MEANINGS), std::end(MEANINGS),
                                           [line](Meaning const& one) { return Holds(line, one.text); });
    latest.push_back({text, known == std::end(MEANINGS) ? "" : known->meaning, 1});
    if (latest.size() <= LATEST_MAX) return;
    latest.pop_front();
    if (beforeUsual_ > 0) --beforeUsual_;
}
