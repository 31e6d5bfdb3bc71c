// brindlectl dump: shows the records of a recovery directory.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "commands.h"
#include "uts_stgrecovery.h"
#include "value_text.h"

namespace {

constexpr char EXAMPLES[] =
    R"(Shows the records that a server started with this directory as its RecoverFromPath would replay, and changes nothing.
In the format lines each record is a line on standard error: key, time, fields. The directory of a running server
changes under the reading; dump a copy of it, or wait until the server has ended.
Examples:
  brindlectl dump --spec flights.spec /var/lib/brindle/run7 2>records.txt
  brindlectl dump --spec flights.spec --format csv --output records.csv /var/lib/brindle/run7)";

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

// Takes a field in stored form from the bytes of a key or a value. False when they do not hold it.
bool TakeStored(std::string_view& bytes, suts_FieldType type, brindle_Value& value) {
    std::size_t size = SUTS_NUMBER8_BYTES;
    if (type == SUTS_INT32) size = SUTS_INT32_BYTES;
    if (type == SUTS_STRING64) size = std::min(bytes.find('\0'), bytes.size()) + 1;
    if (size > bytes.size()) return false;
    value = {type, 0, 0, {}};
    int number = 0;
    switch (type) {
        case SUTS_STRING64:
            value.text = bytes.substr(0, size - 1);
            break;
        case SUTS_INT32:
            memcpy(&number, bytes.data(), size);
            value.number = number;
            break;
        case SUTS_INT64:
            memcpy(&value.number, bytes.data(), size);
            break;
        case SUTS_FLOAT64:
            memcpy(&value.real, bytes.data(), size);
            break;
    }
    bytes.remove_prefix(size);
    return true;
}

std::string_view BytesOf(sutl_RawBytefield const& field) {
    return {reinterpret_cast<char const*>(field.Data()), static_cast<std::size_t>(field.length)};
}

// Whether a recovery directory may hold an entry of this name: the playback ends the process at any other.
bool IsLegal(std::string_view name) {
    if (name.starts_with('.') || name == "KeyFile") return true;
    if (name.size() < 2 || name.front() != 'F' || name.find_first_not_of("0123456789", 1) != std::string_view::npos) {
        return false;
    }
    int number = 0;  // as large as the server's own numbers can be
    return std::from_chars(name.begin() + 1, name.end(), number).ec == std::errc();
}

class DumpCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    [[nodiscard]] ExitCode CheckDirectory() const;
    ExitCode WriteCsv();

    suts_tsspec spec_;
    std::string directory_;
    std::string format_ = "lines";
};

void DumpCommand::Declare(CLI::App& program) {
    Add(program, "dump", "Show the records of a recovery directory", EXAMPLES);
    AddSpec();
    AddTimeName();
    AddChoice("--format", {"lines", "csv"}, format_);
    AddOption("--output", "FILE", "With --format csv: the file to write, - for standard output", outputPath_);
    AddArgument("directory", "The recovery directory", directory_);
}

ExitCode DumpCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    if (ExitCode const checked = CheckDirectory(); checked != DONE) return checked;
    if (format_ == "csv") return WriteCsv();
    // The parts of a line go to two streams, so only standard error, which takes one of them in any case, keeps lines
    // whole.
    suts_StgPrintRecoverData(stderr, spec_, directory_.c_str());
    return DONE;
}

ExitCode DumpCommand::CheckDirectory() const {
    std::unique_ptr<DIR, DirectoryCloser> const entries(opendir(directory_.c_str()));
    if (entries == nullptr) return Fail(IO_ERROR, "{}: cannot be read: {}", directory_, strerror(errno));
    while (dirent const* const entry = readdir(entries.get())) {
        std::string_view const name = entry->d_name;
        if (!IsLegal(name)) {
            return Fail(BAD_DATA, "{}: '{}' does not belong into a recovery directory; move it away", directory_, name);
        }
        if (!name.starts_with('F')) continue;
        sutl_Descriptor const file = sutl_OpenFile((directory_ + "/" + entry->d_name).c_str(), O_RDONLY | O_NONBLOCK);
        struct stat status = {};
        if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
            return Fail(IO_ERROR, "{}/{}: cannot be opened: {}", directory_, name, strerror(errno));
        }
        if (!S_ISREG(status.st_mode)) return Fail(BAD_DATA, "{}/{}: is not a file; move it away", directory_, name);
    }
    return DONE;
}

ExitCode DumpCommand::WriteCsv() {
    if (ExitCode const checked = CheckColumns(spec_, {timeName_}); checked != DONE) return checked;
    std::error_code unknown;
    auto const folder = std::filesystem::absolute(outputPath_, unknown).parent_path();
    if (outputPath_ != "-" && std::filesystem::equivalent(folder, directory_, unknown)) {
        return Fail(USAGE, "{}: a recovery directory must hold nothing else; write the file elsewhere", outputPath_);
    }
    RecordOutput output(RecordFormat::CSV, spec_, {}, timeName_);
    if (ExitCode const opened = OpenOutput(output); opened != DONE) return opened;
    suts_StgRecoveryPlayback playback(spec_, directory_.c_str());
    std::vector<brindle_Value> values(static_cast<std::size_t>(spec_.fieldCount));
    suts_StgEntry entry = {};
    unsigned long records = 0;
    bool whole = true;
    while (whole && playback.QNext(entry) == 0) {
        std::string_view key = BytesOf(entry.key);
        std::string_view value = BytesOf(entry.value);
        whole = TakeStored(key, spec_.Type(0), values[0]);
        for (int i = 1; whole && i < spec_.fieldCount; ++i) {
            whole = TakeStored(value, spec_.Type(i), values[static_cast<std::size_t>(i)]);
        }
        if (whole) {
            output.Add({}, entry.time, values);
            ++records;
        }
    }
    if (ExitCode const flushed = FlushOutput(output); flushed != DONE) return flushed;
    if (!whole) {
        return Fail(BAD_DATA, "{}: record {} cannot be read; check that the schema is the one of that run", directory_,
                    records + 1);
    }
    Say("{} record{} in {}", records, records == 1 ? "" : "s", directory_);
    return DONE;
}

}  // namespace

std::unique_ptr<Command> MakeDumpCommand() { return std::make_unique<DumpCommand>(); }
