#include "destination.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "destination_stdout.h"
#include "file_destination.h"
#include "postgresql_connection.h"
#include "postgresql_destination.h"
#include "sqlite_destination.h"

namespace {

// A name that two columns would have; empty when there is none.
std::string TwiceNamed(suts_tsspec const& spec, DestinationOptions const& options) {
    std::vector<std::string> names = {options.timeName};
    if (options.withBlocks) names.insert(names.end(), {"cycle", "block"});
    for (int i = 0; i < spec.fieldCount; ++i) names.emplace_back(spec.fieldNames[static_cast<std::size_t>(i)].get());
    std::sort(names.begin(), names.end());
    auto const twice = std::adjacent_find(names.begin(), names.end());
    return twice == names.end() ? std::string() : *twice;
}

}  // namespace

std::string DestinationName(std::string const& text) {
    if (text.starts_with("postgresql://") || text.starts_with("postgres://")) {
        PostgresqlAddress address;
        std::string problem;
        (void)address.Read(text, problem);
        return address.Label();
    }
    std::size_t const colon = text.find(':');
    if (colon == std::string::npos) return "destination";  // what it is instead may hold a password
    std::string const path = text.substr(colon + 1);
    if (path == "-") return text;
    std::filesystem::path const absolute = std::filesystem::absolute(path).lexically_normal();
    return text.substr(0, colon + 1) + (absolute.has_filename() ? absolute : absolute.parent_path()).string();
}

std::unique_ptr<Destination> MakeDestination(std::string const& text, suts_tsspec const& spec,
                                             DestinationOptions const& options, std::string& problem) {
    if (std::string const twice = TwiceNamed(spec, options); !twice.empty()) {
        problem = fmt::format("two columns would be called '{}'; name the time column with --time, or rename the field",
                              twice);
        return nullptr;
    }
    if (text.starts_with("postgresql://") || text.starts_with("postgres://")) {
        return MakePostgresqlDestination(text, spec, options, problem);
    }
    std::size_t const colon = text.find(':');
    std::string const kind = text.substr(0, colon);
    std::string const path = colon == std::string::npos ? std::string() : text.substr(colon + 1);
    bool const isFile = kind == "csv" || kind == "jsonl";
    if (path.empty() || (!isFile && kind != "sqlite")) {
        problem = fmt::format(
            "{}: names no destination; give sqlite:FILE, csv:DIR, jsonl:FILE, jsonl:- or "
            "postgresql://USER@HOST:PORT/DATABASE",
            colon == std::string::npos ? "this" : text.substr(0, colon));  // the rest may hold a password
        return nullptr;
    }
    if (!isFile) return MakeSqliteDestination(path, spec, options, problem);
    if (options.dedupe) {
        problem = text + ": --dedupe needs a table to compare with; use sqlite:FILE or postgresql://...";
        return nullptr;
    }
    if (kind == "csv") return MakeCsvDestination(path, spec, options, problem);
    if (path == "-") return MakeStdoutDestination(spec, options);
    return MakeJsonlDestination(path, spec, options);
}
