#include "send_input.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "terminal_text.h"

namespace {

constexpr std::size_t NOT_WANTED = static_cast<std::size_t>(-1);
constexpr std::string_view PACKINGS[] = {".gz", ".zst", ".gzip", ".zstd"};

std::string AbsolutePath(std::string const& path) {
    std::error_code error;
    std::filesystem::path const absolute = std::filesystem::absolute(path, error);
    return path == "-" || error ? path : absolute.lexically_normal().string();
}

}  // namespace

std::string FormatOfPath(std::string_view path, std::string const& chosen) {
    if (!chosen.empty()) return chosen;
    for (std::string_view const ending : PACKINGS) {
        if (path.ends_with(ending)) path.remove_suffix(ending.size());
    }
    if (path.ends_with(".tsv") || path.ends_with(".tab")) return "tsv";
    if (path.ends_with(".jsonl") || path.ends_with(".ndjson")) return "jsonl";
    return "csv";
}

bool ReadDelimiter(std::string const& text, char& delimiter) {
    std::string_view const one = text.empty() ? "," : text == "\\t" || text == "tab" ? "\t" : std::string_view(text);
    auto const isWord = [](unsigned char c) { return c == '_' || (c < 0x80 && isalnum(c) != 0); };
    if (one.size() != 1 || isWord(one[0]) || std::string_view("\"\r\n").find(one[0]) != std::string_view::npos)
        return false;
    delimiter = one[0];
    return true;
}

void SendInput::Set(Options options) {
    options_ = std::move(options);
    std::vector<std::string> const& columns = options_.columns;
    nextOfName_.assign(columns.size(), NOT_WANTED);
    for (std::size_t i = columns.size(); i-- > 0;) {
        auto const [first, isNew] = wantedOfName_.try_emplace(columns[i], i);
        if (!isNew) nextOfName_[i] = std::exchange(first->second, i);
    }
}

SendInput::Result SendInput::Next() {
    if (!isOpen_) {
        if (Result const opened = OpenNext(); opened != ROW) return opened;
    }
    if (!headerRead_) {
        if (Result const header = ReadHeader(); header != ROW) return header;
    }
    rowOffset_ = json_ ? json_->NextOffset() : csv_->NextOffset();
    rowLine_ = json_ ? json_->NextLine() : csv_->NextLine();
    return json_ ? NextJson() : NextCsv();
}

SendInput::Result SendInput::OpenNext() {
    if (file_ == options_.paths.size()) return END;
    std::string const& path = options_.paths[file_];
    name_ = path == "-" ? "standard input" : path;
    bytes_ = std::make_unique<InputBytes>();
    csv_.reset();
    json_.reset();
    if (!bytes_->Open(path, IsFollowed())) {
        return Fail(BAD_FILE, fmt::format("{}: cannot be opened: {}", name_, strerror(errno)));
    }
    std::string const format = FormatOfPath(path, options_.format);
    delimiter_ = format == "tsv" ? '\t' : options_.delimiter;
    if (format == "jsonl") {
        json_ = std::make_unique<JsonLineReader>(*bytes_);
    } else {
        csv_ = std::make_unique<CsvReader>(*bytes_, delimiter_);
    }
    header_.clear();
    headerRead_ = false;
    isOpen_ = true;
    return ROW;
}

SendInput::Result SendInput::ReadHeader() {
    if (csv_) {
        RowResult const result = csv_->Next(row_);
        if (result == RowResult::WAITING) return WAITING;
        if (result == RowResult::END) {
            // A followed file that was replaced before it held anything.
            if (IsFollowed()) return EndFile(result);
            return Fail(BAD_INPUT, fmt::format("{}: is empty; the first row must name the columns", name_));
        }
        if (result == RowResult::BROKEN) {
            return Fail(BAD_INPUT, fmt::format("{}:{}: the row {}", name_, csv_->Line(), csv_->Problem()));
        }
        if (result != RowResult::ROW) return EndFile(result);
        header_ = csv_->Raw();
        if (!FindColumns()) return BAD_INPUT;
    }
    cells_.resize(options_.columns.size());
    headerRead_ = true;
    return start_.path.empty() ? ROW : GoToStart();
}

bool SendInput::FindColumns() {
    columnCount_ = row_.size();
    columns_.clear();
    for (std::string const& name : options_.columns) {
        auto const found = std::find(row_.begin(), row_.end(), name);
        if (found == row_.end()) {
            Fail(BAD_INPUT, fmt::format("{}:{}: there is no column '{}'; the columns are: {}", name_, csv_->Line(),
                                        Shown(name), ShownList(row_)));
            return false;
        }
        if (std::find(found + 1, row_.end(), name) != row_.end()) {
            Fail(BAD_INPUT, fmt::format("{}:{}: there are two columns '{}'", name_, csv_->Line(), Shown(name)));
            return false;
        }
        columns_.push_back(static_cast<std::size_t>(found - row_.begin()));
    }
    return true;
}

SendInput::Result SendInput::NextCsv() {
    RowResult const result = csv_->Next(row_);
    if (result == RowResult::BROKEN) return Fail(BROKEN_ROW, fmt::format("the row {}", csv_->Problem()));
    if (result != RowResult::ROW) return EndFile(result);
    if (row_.size() != columnCount_) {
        return Fail(BROKEN_ROW, fmt::format("the row has {} value{}, but the header names {} columns", row_.size(),
                                            row_.size() == 1 ? "" : "s", columnCount_));
    }
    for (std::size_t i = 0; i < columns_.size(); ++i) cells_[i] = {row_[columns_[i]], Cell::TEXT};
    return ROW;
}

SendInput::Result SendInput::NextJson() {
    RowResult const result = json_->Next(members_);
    if (result == RowResult::BROKEN) return Fail(BROKEN_ROW, fmt::format("the line {}", json_->Problem()));
    if (result != RowResult::ROW) return EndFile(result);
    std::fill(cells_.begin(), cells_.end(), Cell{{}, Cell::ABSENT});
    // Objects mostly have the same members in the same order.
    if (wantedOfMember_.size() < members_.size()) {
        wantedOfMember_.resize(members_.size(), NOT_WANTED);
        namesOfMembers_.resize(members_.size());
    }
    for (std::size_t i = 0; i < members_.size(); ++i) {
        JsonMember const& member = members_[i];
        if (namesOfMembers_[i] != member.name) {
            auto const wanted = wantedOfName_.find(member.name);
            wantedOfMember_[i] = wanted == wantedOfName_.end() ? NOT_WANTED : wanted->second;
            namesOfMembers_[i] = member.name;
        }
        // One column may be wanted more than once.
        for (std::size_t wanted = wantedOfMember_[i]; wanted != NOT_WANTED; wanted = nextOfName_[wanted]) {
            if (cells_[wanted].kind != Cell::ABSENT) {
                return Fail(BROKEN_ROW, fmt::format("the line has two members '{}'", Shown(member.name)));
            }
            cells_[wanted] = {member.text, member.kind == JsonMember::NESTED ? Cell::NESTED : Cell::TEXT};
        }
    }
    return ROW;
}

SendInput::Result SendInput::EndFile(RowResult result) {
    switch (result) {
        case RowResult::WAITING:
            return WAITING;
        case RowResult::READ_ERROR:
            return Fail(BAD_FILE, fmt::format("{}: reading failed: {}", name_, strerror(errno)));
        case RowResult::CORRUPT:
            if (bytes_->WasCutOff()) break;
            return Fail(
                BAD_INPUT,
                fmt::format("{}:{}: {}{}", name_, Line(),
                            std::string_view(json_ ? json_->Problem() : csv_->Problem()).starts_with("is longer")
                                ? "the row "
                                : "the file ",
                            json_ ? json_->Problem() : csv_->Problem()));
        default:
            break;
    }
    if (headerRead_) behindFile_ = CurrentPlace();
    isOpen_ = false;
    if (IsFollowed()) {
        return Fail(NEW_FILE, fmt::format("{}: the file was {}; it is read from its start", name_,
                                          bytes_->WasCutOff() ? "cut off" : "replaced"));
    }
    bytesBefore_ += bytes_->BytesRead();
    ++file_;
    return FILE_END;
}

void SendInput::Stop() {
    if (bytes_) bytes_->Stop();
}

unsigned long SendInput::BytesInAll() const {
    unsigned long bytes = 0;
    for (std::string const& path : options_.paths) {
        struct stat status = {};
        if (path == "-" || options_.follow || stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
        bytes += static_cast<unsigned long>(status.st_size);
    }
    return bytes;
}

SendInput::Place SendInput::CurrentPlace() const {
    Place place;
    place.path = AbsolutePath(options_.paths[file_]);
    if (bytes_->IsRegular() && options_.paths[file_] != "-") {
        place.device = bytes_->Status().st_dev;
        place.inode = bytes_->Status().st_ino;
    }
    place.offset = json_ ? json_->NextOffset() : csv_->NextOffset();
    place.line = json_ ? json_->NextLine() : csv_->NextLine();
    return place;
}

std::string SendInput::Position(unsigned long rejectsBytes, bool ofLastRow) const {
    Place place = isOpen_ && headerRead_ ? CurrentPlace() : behindFile_;
    if (ofLastRow) {
        place.offset = rowOffset_;
        place.line = rowLine_;
    }
    nlohmann::json const text = {{"path", place.path},     {"device", place.device}, {"inode", place.inode},
                                 {"offset", place.offset}, {"line", place.line},     {"rejectsBytes", rejectsBytes}};
    // A path may be no UTF-8.
    return text.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool SendInput::StartAt(std::string_view position, bool wasFinished) {
    nlohmann::json const place = nlohmann::json::parse(position, nullptr, false);
    auto const number = [&place](char const* name, unsigned long& value) {
        auto const found = place.find(name);
        if (found == place.end() || !found->is_number_unsigned()) return false;
        value = found->get<unsigned long>();
        return true;
    };
    if (!place.is_object() || !place.contains("path") || !place["path"].is_string() ||
        !number("device", start_.device) || !number("inode", start_.inode) || !number("offset", start_.offset) ||
        !number("line", start_.line) || !number("rejectsBytes", start_.rejectsBytes)) {
        Fail(BAD_POSITION, "the saved position of the input cannot be read");
        return false;
    }
    start_.path = place["path"].get<std::string>();
    auto const named = std::find_if(options_.paths.begin(), options_.paths.end(),
                                    [this](std::string const& path) { return AbsolutePath(path) == start_.path; });
    if (named == options_.paths.end() && wasFinished) {
        start_ = {};
        return true;
    }
    if (named == options_.paths.end()) {
        Fail(BAD_POSITION, fmt::format("the earlier run stopped in {}, which is not among the files of this one; give "
                                       "the same files",
                                       start_.path));
        return false;
    }
    // Files before it may be new ones, which must not be passed over, or old ones, which must not be sent again.
    if (wasFinished && named != options_.paths.begin()) {
        Fail(BAD_POSITION, fmt::format("the earlier run has finished with {}; name it first, and then only files that "
                                       "are new",
                                       start_.path));
        return false;
    }
    file_ = static_cast<std::size_t>(named - options_.paths.begin());
    return true;
}

// With the header read, goes to the first row that was not sent yet.
SendInput::Result SendInput::GoToStart() {
    std::string const path = std::exchange(start_.path, "");
    struct stat const& status = bytes_->Status();
    bool const isRegular = bytes_->IsRegular() && options_.paths[file_] != "-";
    if (!isRegular && start_.inode == 0) return ROW;  // a pipe goes on with what comes
    if (!isRegular || status.st_ino != start_.inode || status.st_dev != start_.device) {
        return Fail(BAD_POSITION,
                    fmt::format("{}: is another file than the one in which the earlier run stopped at line "
                                "{}; give that file, or start anew without the state of that run",
                                path, start_.line));
    }
    if (bytes_->SeekTo(start_.offset)) {
        if (csv_) csv_->StartAt(start_.offset, start_.line);
        if (json_) json_->StartAt(start_.offset, start_.line);
        return ROW;
    }
    bool const skipped = csv_ ? csv_->SkipTo(start_.offset, start_.line) : json_->SkipTo(start_.offset, start_.line);
    if (skipped) return ROW;
    return Fail(BAD_POSITION, fmt::format("{}: ends before line {}, at which the earlier run stopped; it is no longer "
                                          "the same file",
                                          path, start_.line));
}

SendInput::Result SendInput::Fail(Result result, std::string problem) {
    problem_ = std::move(problem);
    return result;
}
