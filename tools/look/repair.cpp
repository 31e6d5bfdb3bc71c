// brindlectl repair: writes a clean recovery directory from damaged ones.

#include <fmt/ranges.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "recovery_directory.h"
#include "recovery_repair.h"
#include "terminal_text.h"

namespace {

constexpr char REPAIR_EXAMPLES[] =
    R"(Writes a directory from which a start of the server replays every record that can be saved. The directories, oldest
first, become one; records are kept byte for byte and in their order, files are numbered anew, and KeyFile holds the old
one's keys and then those that only records have. The originals are only read. Records with negative times, which a
replay refuses, are left out.
The log has no checksums and no marks between records: behind damage inside a file the work goes on only at the next
file, and damage that still reads as records is not seen. What was left out is in the directory of --aside, in files of
its own with a contents.txt that says where each comes from; it must not be inside the clean directory, where the server
ends at any other file. Both are complete and on disk before they get their names; an interruption can leave
.brindle-repair-... beside them, which may be removed.
Exit status: 0 nothing was wrong; 1 something was set aside, missing or left; 74 reading or writing failed.
With --json: into, aside (null if nothing was set aside), files, records, bytes, keys, inexact_lengths (records kept),
left_out (records), set_aside_bytes, set_aside [{from, offset, bytes, reason, name}], notes.
Examples:
  brindlectl repair --spec flights.spec --into /var/lib/brindle/run8 /var/lib/brindle/run7
  brindlectl repair --spec flights.spec --into all --aside rest run5 run6 run7)";

constexpr std::size_t SHOWN_MAX = 20;  // parts that are told one by one

// The path without links and without a slash at its end; what is not there yet is taken as it is.
std::string Canonical(std::string const& path) {
    std::error_code error;
    std::filesystem::path canonical = std::filesystem::weakly_canonical(std::filesystem::absolute(path, error), error);
    if (!canonical.has_filename()) canonical = canonical.parent_path();
    return canonical;
}

bool IsInside(std::string const& path, std::string const& folder) {
    return path == folder || path.starts_with(folder + "/");
}

std::string Bytes(long bytes) { return Count(static_cast<unsigned long>(bytes), "byte"); }

class RepairCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    [[nodiscard]] ExitCode CheckPlaces();
    [[nodiscard]] ExitCode Tell(RepairReport const& report);

    suts_tsspec spec_;
    std::string into_;
    std::string aside_;
    std::vector<std::string> directories_;
};

void RepairCommand::Declare(CLI::App& program) {
    Add(program, "repair", "Write a clean recovery directory from damaged ones", REPAIR_EXAMPLES);
    AddSpec();
    AddJson();
    AddOption("--into", "DIR", "The clean directory; must not exist, or be empty", into_);
    AddOption("--aside", "DIR", "Where the rest goes; DIR.aside beside the clean one if it is not given", aside_);
    AddArguments("directories", "The damaged directories, oldest first", directories_);
}

ExitCode RepairCommand::CheckPlaces() {
    if (into_.empty()) return Fail(USAGE, "name the directory to write with --into");
    into_ = Canonical(into_);
    aside_ = aside_.empty() ? into_ + ".aside" : Canonical(aside_);
    if (IsInside(aside_, into_) || IsInside(into_, aside_)) {
        return Fail(USAGE, "{}: what is set aside must not be in the clean directory, nor this in that", aside_);
    }
    std::vector<std::string> seen;
    for (std::string const& directory : directories_) {
        std::string const path = Canonical(directory);
        for (std::string const& written : {into_, aside_}) {
            if (IsInside(written, path) || IsInside(path, written)) {
                return Fail(USAGE, "{}: lies in {}, which is only read; name another place", written, directory);
            }
        }
        if (std::find(seen.begin(), seen.end(), path) != seen.end()) {
            return Fail(USAGE, "{}: is given twice", directory);
        }
        seen.push_back(path);
        std::vector<std::string> const users = ProcessesUsing(path);
        if (!users.empty()) {
            Warn("{}: in use by {}; end it first, or what it writes meanwhile is missing", directory,
                 fmt::join(users, ", "));
        }
    }
    return DONE;
}

ExitCode RepairCommand::Tell(RepairReport const& report) {
    for (std::string const& note : report.notes) Warn("{}", ForTerminal(note));
    for (std::size_t i = 0; i < std::min(report.parts.size(), SHOWN_MAX); ++i) {
        SetAsidePart const& part = report.parts[i];
        Warn("{}: offset {}, {} set aside: {}", ForTerminal(part.from), part.offset, Bytes(part.bytes), part.reason);
    }
    if (report.parts.size() > SHOWN_MAX)
        Warn("and {} more; {}/contents.txt", Count(report.parts.size() - SHOWN_MAX, "part"), aside_);
    Say("{}: {}, {}, {}, {}", into_, Count(report.records, "record"), Bytes(report.bytes), Count(report.keys, "key"),
        Count(report.files, "file"));
    if (!report.parts.empty()) {
        Say("{} set aside in {}; contents.txt there tells where they come from", Bytes(report.setAsideBytes), aside_);
    }
    nlohmann::json parts = nlohmann::json::array();
    for (SetAsidePart const& part : report.parts) {
        parts.push_back({{"from", part.from},
                         {"offset", part.offset},
                         {"bytes", part.bytes},
                         {"reason", part.reason},
                         {"name", part.name}});
    }
    ExitCode const printed = PrintResult({
        {"into", into_},
        {"aside", report.parts.empty() ? nlohmann::json() : nlohmann::json(aside_)},
        {"files", report.files},
        {"records", report.records},
        {"bytes", report.bytes},
        {"keys", report.keys},
        {"inexact_lengths", report.inexact},
        {"left_out", report.leftOut},
        {"set_aside_bytes", report.setAsideBytes},
        {"set_aside", std::move(parts)},
        {"notes", report.notes},
    });
    if (printed != DONE) return printed;
    return report.parts.empty() && report.notes.empty() && report.inexact == 0 ? DONE : REJECTS;
}

ExitCode RepairCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    if (ExitCode const checked = CheckPlaces(); checked != DONE) return checked;
    RecoveryRepair repair(spec_, into_, aside_);
    if (!repair.Run(directories_)) return Fail(IO_ERROR, "{}", repair.Problem());
    return Tell(repair.Report());
}

}  // namespace

std::unique_ptr<Command> MakeRepairCommand() { return std::make_unique<RepairCommand>(); }
