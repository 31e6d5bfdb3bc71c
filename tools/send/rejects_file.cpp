#include "rejects_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "durable_file.h"
#include "value_text.h"

namespace {

constexpr std::size_t WRITE_BYTES = 64UL * 1024;
constexpr std::string_view LINE_NAME = "reject_line";
constexpr std::string_view REASON_NAME = "reject_reason";

std::string LeadingNames(char delimiter) {
    return fmt::format("{}{}{}{}", LINE_NAME, delimiter, REASON_NAME, delimiter);
}

// The row without its first two values, which this program wrote: a number and a text in quotes.
std::string_view WithoutLeading(std::string_view row, char delimiter) {
    std::size_t at = row.find(delimiter);
    if (at == std::string_view::npos || at + 1 == row.size() || row[at + 1] != '"') return row;
    for (at += 2; at < row.size(); ++at) {
        if (row[at] != '"') continue;
        if (at + 1 < row.size() && row[at + 1] == delimiter) return row.substr(at + 2);
        ++at;  // of a doubled one
    }
    return row;
}

// The object without its first two members, for which the same holds.
std::string_view WithoutLeadingMembers(std::string_view object) {
    std::string const start = fmt::format(R"({{"{}":)", LINE_NAME);
    std::string const second = fmt::format(R"(,"{}":")", REASON_NAME);
    std::size_t at = object.find(second);
    if (!object.starts_with(start) || at == std::string_view::npos) return object;
    for (at += second.size(); at < object.size() && object[at] != '"'; ++at) {
        if (object[at] == '\\') ++at;
    }
    return at + 1 < object.size() && object[at + 1] == ',' ? object.substr(at + 2) : object;
}

}  // namespace

bool RejectsFile::Open(std::string const& path, std::vector<std::string> const& inputs, bool goesOn,
                       unsigned long bytes) {
    path_ = path;
    file_ = sutl_Descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, FILE_MODE));
    struct stat own = {};
    if (!file_.IsOpen() || fstat(file_.Get(), &own) != 0) {
        return Fail(fmt::format("{}: cannot be created: {}", path, strerror(errno)));
    }
    for (std::string const& input : inputs) {
        struct stat other = {};
        bool const isThere = input == "-" ? fstat(STDIN_FILENO, &other) == 0 : stat(input.c_str(), &other) == 0;
        if (isThere && S_ISREG(own.st_mode) && other.st_ino == own.st_ino && other.st_dev == own.st_dev) {
            return Fail(fmt::format("{}: is a file that is sent; name another one for the rejects", path));
        }
    }
    if (goesOn && static_cast<unsigned long>(own.st_size) < bytes) {
        return Fail(fmt::format("{}: is shorter than the earlier run left it", path));
    }
    bytes_ = goesOn ? bytes : 0;
    isContinued_ = bytes_ > 0;
    mustCut_ = S_ISREG(own.st_mode);
    return !goesOn || Replace();
}

bool RejectsFile::Replace() {
    if (mustCut_ && (ftruncate(file_.Get(), static_cast<off_t>(bytes_)) != 0 ||
                     lseek(file_.Get(), static_cast<off_t>(bytes_), SEEK_SET) < 0)) {
        return Fail(fmt::format("{}: cannot be cut to {} bytes: {}", path_, bytes_, strerror(errno)));
    }
    mustCut_ = false;
    return true;
}

bool RejectsFile::Add(SendInput const& input, std::string_view reason) {
    std::string_view raw = input.Raw();
    if (input.IsJson()) {
        if (hasRows_ && !header_.empty()) return Fail(fmt::format("{}: holds rows of another format already", path_));
        raw.remove_prefix(std::min(raw.find_first_not_of(" \t\r"), raw.size()));
        raw = WithoutLeadingMembers(raw);
        fmt::format_to(std::back_inserter(text_), R"({{"{}":{},"{}":)", LINE_NAME, input.Line(), REASON_NAME);
        AppendJson(text_, reason);
        text_ += ',';
        std::string_view const members = raw.starts_with('{') ? raw.substr(1) : raw;
        std::size_t const first = members.find_first_not_of(" \t");
        if (first != std::string_view::npos && members[first] == '}') text_.pop_back();
        text_ += members;
        text_ += '\n';
    } else {
        char const delimiter = input.Delimiter();
        std::string const leading = LeadingNames(delimiter);
        std::string_view header = input.Header();
        if (header.starts_with(leading)) {
            header.remove_prefix(leading.size());
            raw = WithoutLeading(raw, delimiter);
        }
        if (hasRows_ && header != header_) {
            return Fail(fmt::format("{}: {} has other columns than the rejected rows before; send it by itself", path_,
                                    input.Name()));
        }
        if (!hasRows_ && !isContinued_) {
            text_ += leading;
            text_ += header;
            text_ += '\n';
        }
        header_ = header;
        std::string quoted = std::string(reason);
        for (std::size_t at = 0; (at = quoted.find('"', at)) != std::string::npos; at += 2) quoted.insert(at, 1, '"');
        fmt::format_to(std::back_inserter(text_), "{}{}\"{}\"{}{}\n", input.Line(), delimiter, quoted, delimiter, raw);
    }
    hasRows_ = true;
    return text_.size() < WRITE_BYTES || Flush();
}

bool RejectsFile::Flush() {
    if (text_.empty()) return true;
    if (!Replace()) return false;
    if (sutl_FileWrite(file_.Get(), text_.data(), text_.size()) != static_cast<long>(text_.size())) {
        return Fail(fmt::format("{}: writing failed: {}", path_, strerror(errno)));
    }
    bytes_ += text_.size();
    text_.clear();
    return true;
}

bool RejectsFile::Fail(std::string problem) {
    problem_ = std::move(problem);
    return false;
}
