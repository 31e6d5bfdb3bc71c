#include "file_destination.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "durable_file.h"
#include "file_journal.h"
#include "record_text.h"
#include "time_text.h"
#include "value_text.h"

namespace {

constexpr std::size_t WRITE_BYTES = 256UL * 1024;  // gathered before a write
constexpr char CYCLES_HEADER[] = "cycle,complete,records,keys,bytes,newest,rejected,committed\n";
constexpr char REJECTS_HEADER[] = "cycle,reason,record\n";

// The files of a destination, in the order of the lengths in its state.
enum File : std::size_t { RECORDS, REJECTS, CYCLES, FILES };

struct Paths {
    std::string files[FILES];
    std::string state;
    std::string directory;  // made if missing; empty for none
};

class FileDestination : public Destination {
 public:
    FileDestination(bool isCsv, Paths paths, suts_tsspec const& spec, DestinationOptions const& options);

    Status Open(std::string& state) override;
    Status Begin() override;
    Status Add(SinkRecord const& record) override;
    Status Reject(unsigned long cycle, std::string_view reason, std::string_view bytes) override;
    Status Commit(SinkCycle const& cycle, std::string_view state) override;
    void Close() override;
    unsigned long Rejected() const override { return rejected_; }
    unsigned long Merged() const override { return 0; }

 private:
    Status MakeDirectory();
    Status CheckEmpty();
    Status CheckState(FilesState const& state);
    Status Write(File file);
    Status Failed(std::string const& path, int error);
    void AppendCycle(SinkCycle const& cycle);

    bool const isCsv_;
    bool const withBlocks_;
    Paths const paths_;
    RecordText const text_;
    std::string columns_;  // names and types of what a line holds
    std::vector<AppendedFile> files_;
    std::string pending_[FILES];  // not yet written
    FilesState committed_;        // without lengths while they are not known
    unsigned long rejected_ = 0;
};

FileDestination::FileDestination(bool isCsv, Paths paths, suts_tsspec const& spec, DestinationOptions const& options)
    : isCsv_(isCsv),
      withBlocks_(options.withBlocks),
      paths_(std::move(paths)),
      text_(spec, withBlocks_ ? std::vector<std::string>{"cycle", "block"} : std::vector<std::string>{},
            options.timeName) {
    std::size_t const fieldColumns = text_.Names().size() - static_cast<std::size_t>(spec.fieldCount);
    for (std::size_t i = 0; i < text_.Names().size(); ++i) {
        if (i > 0) columns_ += ", ";
        if (i >= fieldColumns) columns_ += std::string(TypeName(spec.Type(static_cast<int>(i - fieldColumns)))) + ' ';
        columns_ += text_.Names()[i];
    }
    for (std::string const& path : paths_.files) files_.emplace_back(path);
}

Destination::Status FileDestination::Failed(std::string const& path, int error) {
    return Fail(AWAY, fmt::format("{}: writing failed: {}", path, strerror(error)));
}

Destination::Status FileDestination::Open(std::string& state) {
    Close();
    if (Status const made = MakeDirectory(); made != OK) return made;
    Status status = OK;
    for (AppendedFile& file : files_) {
        std::string const problem = file.Open(status);
        if (status != OK) return Fail(status, problem);
    }
    std::string problem;
    FilesState found;
    bool const hasState = ReadFilesState(paths_.state, FILES, found, problem, status);
    if (status != OK) return Fail(status, problem);
    if (hasState) {
        status = CheckState(found);
    } else {
        status = CheckEmpty();
    }
    if (status != OK) return status;
    committed_ = std::move(found);
    if (!hasState) {
        // Written before the first byte of a transaction, so that what an end leaves of it is known for what it is.
        committed_ = {std::vector<unsigned long>(FILES), columns_, {}};
        if (int const error = WriteFilesState(paths_.state, committed_); error != 0) return Failed(paths_.state, error);
    }
    for (std::size_t i = 0; i < FILES; ++i) {
        if (int const error = files_[i].CutTo(committed_.lengths[i]); error != 0)
            return Failed(files_[i].Path(), error);
    }
    state = committed_.state;
    return OK;
}

Destination::Status FileDestination::MakeDirectory() {
    std::string const& path = paths_.directory;
    if (path.empty()) return OK;
    bool made = mkdir(path.c_str(), DIRECTORY_MODE) == 0;
    if (!made && errno == EEXIST) return OK;
    if (made && !SyncDirectory(FolderOf(path.substr(0, path.find_last_not_of('/') + 1)))) {
        int const error = errno;
        rmdir(path.c_str());  // so that the next attempt makes it durable
        errno = error;
        made = false;
    }
    if (made) return OK;
    return Fail(errno == ENOTDIR ? REFUSED : AWAY, fmt::format("{}: cannot be made: {}", path, strerror(errno)));
}

Destination::Status FileDestination::CheckEmpty() {
    for (AppendedFile const& file : files_) {
        if (file.Length() == 0) continue;
        return Fail(REFUSED, fmt::format("{}: holds {} bytes, but {}, which tells whose they are, is missing; move the "
                                         "file away",
                                         file.Path(), file.Length(), paths_.state));
    }
    return OK;
}

Destination::Status FileDestination::CheckState(FilesState const& state) {
    for (std::size_t i = 0; i < FILES; ++i) {
        AppendedFile const& file = files_[i];
        if (file.Length() >= state.lengths[i]) continue;
        return Fail(REFUSED, fmt::format("{}: holds {} bytes, but {} were written; bring the file back, or move {} and "
                                         "the files beside it away to begin anew",
                                         file.Path(), file.Length(), state.lengths[i], paths_.state));
    }
    if (state.columns == columns_) return OK;
    return Fail(REFUSED, fmt::format("{}: holds {}, but the schema and the options say {}; use another destination",
                                     files_[RECORDS].Path(), state.columns, columns_));
}

Destination::Status FileDestination::Begin() {
    rejected_ = 0;
    if (!isCsv_) return OK;
    if (files_[RECORDS].Length() == 0) text_.AppendCsvHeader(pending_[RECORDS]);
    if (files_[REJECTS].Length() == 0) pending_[REJECTS] = REJECTS_HEADER;
    if (files_[CYCLES].Length() == 0) pending_[CYCLES] = CYCLES_HEADER;
    return OK;
}

Destination::Status FileDestination::Write(File file) {
    int const error = files_[file].Append(pending_[file]);
    pending_[file].clear();
    return error == 0 ? OK : Failed(files_[file].Path(), error);
}

Destination::Status FileDestination::Add(SinkRecord const& record) {
    unsigned long const place[] = {record.cycle, record.block};
    std::span<unsigned long const> const leading(place, withBlocks_ ? 2 : 0);
    std::string& out = pending_[RECORDS];
    if (isCsv_) {
        text_.AppendCsvRow(out, leading, record.timeUs, record.values);
    } else {
        text_.AppendJsonLine(out, leading, record.timeUs, record.values);
    }
    return out.size() < WRITE_BYTES ? OK : Write(RECORDS);
}

Destination::Status FileDestination::Reject(unsigned long cycle, std::string_view reason, std::string_view bytes) {
    std::string& out = pending_[REJECTS];
    ++rejected_;
    fmt::format_to(std::back_inserter(out), fmt::runtime(isCsv_ ? "{}," : R"({{"cycle":{},"reason":)"), cycle);
    isCsv_ ? AppendCsv(out, reason) : AppendJson(out, reason);
    out += isCsv_ ? ",\\x" : R"(,"record":{"hex":")";
    for (char const c : bytes) fmt::format_to(std::back_inserter(out), "{:02x}", static_cast<unsigned char>(c));
    out += isCsv_ ? "\n" : "\"}}\n";
    return out.size() < WRITE_BYTES ? OK : Write(REJECTS);
}

void FileDestination::AppendCycle(SinkCycle const& cycle) {
    long const committedUs = NowUs();
    std::string const newest = cycle.newestUs >= 0 ? std::to_string(cycle.newestUs) : isCsv_ ? "" : "null";
    constexpr char JSON[] =
        R"({{"cycle":{},"complete":{},"records":{},"keys":{},"bytes":{},"newest":{},"rejected":{},"committed":{}}})"
        "\n";
    fmt::format_to(std::back_inserter(pending_[CYCLES]), fmt::runtime(isCsv_ ? "{},{},{},{},{},{},{},{}\n" : JSON),
                   cycle.cycle, cycle.isComplete, cycle.records, cycle.keys, cycle.bytes, newest,
                   std::max(cycle.rejected, rejected_), committedUs);
}

Destination::Status FileDestination::Commit(SinkCycle const& cycle, std::string_view state) {
    AppendCycle(cycle);
    FilesState next = {{}, columns_, std::string(state)};
    for (File const file : {RECORDS, REJECTS, CYCLES}) {
        AppendedFile& written = files_[file];
        if (Status const status = Write(file); status != OK) return status;
        next.lengths.push_back(written.Length());
        if (written.Length() == committed_.lengths[file]) continue;
        if (int const error = written.Sync(); error != 0) return Failed(written.Path(), error);
    }
    // From here on the new lengths may count, whatever fails: nothing is cut before the state was read again.
    committed_.lengths.clear();
    if (int const error = WriteFilesState(paths_.state, next); error != 0) return Failed(paths_.state, error);
    committed_ = std::move(next);
    return OK;
}

void FileDestination::Close() {
    // What is beyond the committed lengths is cut by the next Open; it is cut here too for those who read meanwhile.
    for (std::size_t i = 0; i < FILES; ++i) {
        pending_[i].clear();
        if (!committed_.lengths.empty()) static_cast<void>(files_[i].CutTo(committed_.lengths[i]));
        files_[i].Close();
    }
    committed_ = {};
}

}  // namespace

std::unique_ptr<Destination> MakeCsvDestination(std::string const& directory, suts_tsspec const& spec,
                                                DestinationOptions const& options, std::string& problem) {
    std::string const name = spec.name.get();
    if (name.find('/') != std::string::npos) {
        problem =
            fmt::format("csv:{}: the schema's name {} cannot be that of a file; rename the schema", directory, name);
        return nullptr;
    }
    std::string const base = (directory.ends_with('/') ? directory : directory + '/') + name;
    Paths paths = {{base + ".csv", base + "_rejects.csv", base + "_cycles.csv"}, base + ".state", directory};
    return std::make_unique<FileDestination>(true, std::move(paths), spec, options);
}

std::unique_ptr<Destination> MakeJsonlDestination(std::string const& path, suts_tsspec const& spec,
                                                  DestinationOptions const& options) {
    Paths paths = {{path, path + ".rejects", path + ".cycles"}, path + ".state", {}};
    return std::make_unique<FileDestination>(false, std::move(paths), spec, options);
}
