#include "run_config.h"

// The parser's exceptions would cross functions of ours; its library has been built with them.
#define TOML_EXCEPTIONS 0
#define TOML_HEADER_ONLY 1
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <toml++/toml.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "command.h"
#include "durable_file.h"

namespace {

constexpr long SECOND_US = 1000000;
constexpr long DAY_US = 24L * 3600 * SECOND_US;
constexpr char STATE_DEFAULT[] = "/var/lib/brindle";

// A value while it is read.
struct Value {
    toml::node const& node;
    std::string const& folder;  // of the file
};

// Each of these takes a value or says what is wrong with it.

std::string TakeText(Value const& value, std::string& text) {
    auto const* const found = value.node.as_string();
    if (found == nullptr || found->get().empty() || found->get().find('\0') != std::string::npos) {
        return "must be a text in quotes";
    }
    text = found->get();
    return "";
}

std::string TakePath(Value const& value, std::string& path) {
    std::string text;
    if (std::string problem = TakeText(value, text); !problem.empty()) return problem;
    path = text.front() == '/' ? text : value.folder + '/' + text;
    return "";
}

std::string TakeAddress(Value const& value, brindle_Address& address) {
    std::string text;
    if (std::string problem = TakeText(value, text); !problem.empty()) return problem;
    if (!brindle_ParseAddress(text, address)) return fmt::format("'{}' is no address; write HOST:PORT1,PORT2", text);
    return address.firstPort == address.secondPort ? fmt::format("'{}' names one port twice", text) : "";
}

std::string TakeDuration(Value const& value, long& timeUs, long minUs, long maxUs) {
    std::string text;
    long found = 0;
    if (!TakeText(value, text).empty() || !ParseDuration(text, found)) {
        return "must be a length of time in quotes such as \"500ms\", \"90s\", \"15m\" or \"12h\"";
    }
    if (found < minUs || found > maxUs) {
        return fmt::format("must be from {} to {} s", static_cast<double>(minUs) / SECOND_US, maxUs / SECOND_US);
    }
    timeUs = found;
    return "";
}

std::string TakeWindow(Value const& value, long& seconds) {
    long timeUs = 0;
    std::string problem = TakeDuration(value, timeUs, SECOND_US, std::numeric_limits<long>::max() / 8);
    if (problem.empty() && timeUs % SECOND_US != 0) return "must be whole seconds";
    seconds = timeUs / SECOND_US;
    return problem;
}

std::string TakeNumber(Value const& value, long& number, long min, long max) {
    auto const* const found = value.node.as_integer();
    if (found == nullptr || found->get() < min || found->get() > max) {
        return fmt::format("must be a whole number from {} to {}", min, max);
    }
    number = found->get();
    return "";
}

std::string TakeBytes(Value const& value, long& bytes, long min) {
    std::string text;
    long found = 0;
    if (auto const* const number = value.node.as_integer(); number != nullptr) {
        found = number->get();
    } else if (!TakeText(value, text).empty() || !ParseBytes(text, found)) {
        return "must be a number of bytes such as 65536, \"64k\" or \"2G\"";
    }
    if (found < min) return fmt::format("must be at least {} bytes", min);
    bytes = found;
    return "";
}

std::string TakeChoice(Value const& value, bool& isSecond, char const* first, char const* second) {
    std::string text;
    if (!TakeText(value, text).empty() || (text != first && text != second)) {
        return fmt::format("must be \"{}\" or \"{}\"", first, second);
    }
    isSecond = text == second;
    return "";
}

struct Key {
    std::string_view name;
    char const* form;
    char const* initial;  // its default; null where it must be given
    char const* description;
    std::string (*take)(Value const&, RunConfig&);
};

constexpr Key KEYS[] = {
    {"spec", "PATH", nullptr, "the schema file; each start gets a copy",
     [](Value const& v, RunConfig& c) { return TakePath(v, c.spec); }},
    {"window", "DURATION", nullptr, "width of the window of event time, in whole seconds",
     [](Value const& v, RunConfig& c) { return TakeWindow(v, c.windowSeconds); }},
    {"data", "ADDRESS", nullptr, "the two ports for the producer; the server listens on every address",
     [](Value const& v, RunConfig& c) { return TakeAddress(v, c.ports.data); }},
    {"ship", "ADDRESS", nullptr, "host and ports of the consumer",
     [](Value const& v, RunConfig& c) { return TakeAddress(v, c.ports.ship); }},
    {"query", "ADDRESS", nullptr, "the two ports for query clients; the server listens on every address",
     [](Value const& v, RunConfig& c) { return TakeAddress(v, c.ports.query); }},
    {"state", "PATH", "$STATE_DIRECTORY, or /var/lib/brindle", "where a directory NAME holds lock and generations",
     [](Value const& v, RunConfig& c) { return TakePath(v, c.state); }},
    {"server", "PATH", "brindle beside brindlectl", "the server's program",
     [](Value const& v, RunConfig& c) { return TakePath(v, c.server); }},
    {"on_schema_change", "CHOICE", "stop", "stop, or drain: ship what is left under the old schema first",
     [](Value const& v, RunConfig& c) { return TakeChoice(v, c.drainsOnSchemaChange, "stop", "drain"); }},
    {"on_consumer_loss", "CHOICE", "kill", "kill the server, to replay; or ignore, and lose what it ships meanwhile",
     [](Value const& v, RunConfig& c) {
         bool ignores = false;
         std::string problem = TakeChoice(v, ignores, "kill", "ignore");
         c.killsOnConsumerLoss = !ignores;
         return problem;
     }},
    {"starts_max", "NUMBER", "10", "starts in a row that do not get ready before it gives up",
     [](Value const& v, RunConfig& c) { return TakeNumber(v, c.startsMax, 1, 1000000); }},
    {"backoff_first", "DURATION", "500ms", "pause after the first of these; it doubles",
     [](Value const& v, RunConfig& c) { return TakeDuration(v, c.backoffFirstUs, 1000, DAY_US); }},
    {"backoff_max", "DURATION", "30s", "the longest pause",
     [](Value const& v, RunConfig& c) { return TakeDuration(v, c.backoffMaxUs, 1000, DAY_US); }},
    {"stop_timeout", "DURATION", "60s", "for the orderly end of the server, which is killed then",
     [](Value const& v, RunConfig& c) { return TakeDuration(v, c.stopTimeoutUs, 1000, DAY_US); }},
    {"sync_interval", "DURATION", "500ms", "how often what the server logs is synced to disk; 0s: never",
     [](Value const& v, RunConfig& c) { return TakeDuration(v, c.syncIntervalUs, 0, DAY_US); }},
    {"log", "PATH", "standard error", "file for the lines of server and supervisor",
     [](Value const& v, RunConfig& c) { return TakePath(v, c.log.path); }},
    {"log_size", "BYTES", "10M", "size at which the log is renamed to LOG.1 and begun anew",
     [](Value const& v, RunConfig& c) { return TakeBytes(v, c.log.bytesMax, 4096); }},
    {"log_files", "NUMBER", "5", "logs kept, the current one included",
     [](Value const& v, RunConfig& c) { return TakeNumber(v, c.log.filesMax, 1, 1000); }},
};

// How many letters must be added, removed or changed to make one of the other.
std::size_t Distance(std::string_view one, std::string_view other) {
    std::vector<std::size_t> row(other.size() + 1);
    for (std::size_t i = 0; i <= other.size(); ++i) row[i] = i;
    for (std::size_t i = 1; i <= one.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 1; j <= other.size(); ++j) {
            std::size_t const changed = diagonal + (one[i - 1] == other[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, changed});
        }
    }
    return row.back();
}

// "; did you mean 'window'?", where a key is near enough.
std::string Suggestion(std::string_view name) {
    auto const* const nearest = std::min_element(std::begin(KEYS), std::end(KEYS), [name](Key const& a, Key const& b) {
        return Distance(name, a.name) < Distance(name, b.name);
    });
    if (2 * Distance(name, nearest->name) >= std::max(name.size(), nearest->name.size())) {
        return "; brindlectl run --help lists the keys";
    }
    return fmt::format("; did you mean '{}'?", nearest->name);
}

std::string DefaultState() {
    char const* const given = getenv("STATE_DIRECTORY");
    if (given == nullptr || *given != '/') return STATE_DEFAULT;
    std::string const all = given;  // several are separated by colons
    return all.substr(0, all.find(':'));
}

std::string DefaultServer() {
    char own[4096] = {};
    if (readlink("/proc/self/exe", own, sizeof own - 1) <= 0) return "brindle";
    return FolderOf(own) + "/brindle";
}

// Whether two of the pairs, both of which this server listens on, share a port.
bool Overlap(brindle_Address const& one, brindle_Address const& other) {
    return one.firstPort == other.firstPort || one.firstPort == other.secondPort || one.secondPort == other.firstPort ||
           one.secondPort == other.secondPort;
}

}  // namespace

std::vector<ConfigProblem> ReadRunConfig(std::string const& path, RunConfig& config) {
    config.state = DefaultState();
    config.server = DefaultServer();
    auto const text = ReadFile(path);
    if (!text) return {{0, fmt::format("cannot be read: {}; name the configuration with --config", strerror(errno))}};
    toml::parse_result const parsed = toml::parse(*text);
    if (!parsed) {
        toml::parse_error const& error = parsed.error();
        return {{error.source().begin.line, std::string(error.description())}};
    }
    std::vector<ConfigProblem> problems;
    std::string const folder = FolderOf(path);
    for (auto const& [name, node] : parsed.table()) {
        auto const* const key = std::find_if(std::begin(KEYS), std::end(KEYS),
                                             [&name = name](Key const& one) { return one.name == name.str(); });
        if (key == std::end(KEYS)) {
            problems.push_back(
                {name.source().begin.line, fmt::format("unknown key '{}'{}", name.str(), Suggestion(name.str()))});
            continue;
        }
        std::string const problem = key->take({node, folder}, config);
        if (!problem.empty()) problems.push_back({node.source().begin.line, fmt::format("{}: {}", key->name, problem)});
    }
    auto const lineOf = [&parsed](char const* name) -> unsigned long {
        return parsed.table().get(name)->source().begin.line;
    };
    for (Key const& key : KEYS) {
        if (key.initial == nullptr && !parsed.table().contains(key.name)) {
            problems.push_back({0, fmt::format("'{}' is missing: {}", key.name, key.description)});
        }
    }
    if (problems.empty() && Overlap(config.ports.data, config.ports.query)) {
        problems.push_back({lineOf("query"), "query: a port of 'data' cannot be used twice"});
    }
    std::sort(problems.begin(), problems.end(),
              [](ConfigProblem const& a, ConfigProblem const& b) { return a.line < b.line; });
    return problems;
}

std::string DescribeRunConfig() {
    std::string text;
    for (Key const& key : KEYS) {
        text += fmt::format("  {:<17} {:<9} {}", key.name, key.form, key.description);
        text += key.initial == nullptr ? "; required\n" : fmt::format("; default: {}\n", key.initial);
    }
    return text;
}
