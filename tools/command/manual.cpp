#include "manual.h"

#include <fcntl.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "durable_file.h"
#include "sutl_descriptor.h"

namespace {

constexpr std::size_t HELP_COLUMNS = 120;  // at which the texts of --help are broken

// The text as roff shows it unchanged.
std::string Escaped(std::string_view text) {
    std::string escaped;
    if (text.starts_with('.') || text.starts_with('\'')) escaped = "\\&";
    for (char const c : text) {
        switch (c) {
            case '\\':
                escaped += "\\e";
                break;
            case '-':
                escaped += "\\-";
                break;
            case '\'':
                escaped += "\\(aq";
                break;
            case '`':
                escaped += "\\(ga";
                break;
            case '^':
                escaped += "\\(ha";
                break;
            case '~':
                escaped += "\\(ti";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

// The day on which the pages are made, or the one that a build which must be repeatable gives.
std::string Date() {
    char const* const given = getenv("SOURCE_DATE_EPOCH");
    time_t const now = given != nullptr ? strtol(given, nullptr, 10) : time(nullptr);
    tm parts = {};
    char text[sizeof "2001-01-01" + 16];
    gmtime_r(&now, &parts);
    return {text, strftime(text, sizeof text, "%Y-%m-%d", &parts)};
}

// What stands behind the options in --help, by the sections of a page. Paragraphs are broken into lines there: one ends
// where the first word of the next line would still have found room, unless that word goes on with a sentence.
class Footer {
 public:
    explicit Footer(std::string_view text) {
        while (!text.empty()) {
            std::size_t const end = std::min(text.find('\n'), text.size());
            TakeLine(text.substr(0, end));
            text.remove_prefix(std::min(end + 1, text.size()));
        }
        EndBlock();
    }

    std::string description;
    std::string exitStatus;
    std::string examples;

 private:
    void TakeLine(std::string_view line) {
        if (line.starts_with("Examples:")) {
            EndBlock();
            section_ = &examples;
            return;
        }
        bool const isVerbatim = line.starts_with("  ");
        std::string_view const firstWord = line.substr(0, line.find(' '));
        bool const hadRoom = lastBytes_ + 1 + firstWord.size() < HELP_COLUMNS;
        bool const goesOn = !line.empty() && line[0] >= 'a' && line[0] <= 'z';
        bool const isStart = line.starts_with("Exit status") || (hadRoom && !goesOn);
        if (isVerbatim != isVerbatim_ || (!isVerbatim && isStart)) EndBlock();
        isVerbatim_ = isVerbatim;
        lastBytes_ = line.size();
        if (block_.empty() && !isVerbatim && section_ != &examples) {
            section_ = line.starts_with("Exit status") ? &exitStatus : &description;
        }
        block_ += Escaped(isVerbatim ? line.substr(2) : line) + '\n';
    }

    void EndBlock() {
        if (!block_.empty() && isVerbatim_) *section_ += ".PP\n.nf\n.RS 4\n" + block_ + ".RE\n.fi\n";
        if (!block_.empty() && !isVerbatim_) *section_ += ".PP\n" + block_;
        block_.clear();
    }

    std::string* section_ = &description;
    std::string block_;          // of the lines so far
    bool isVerbatim_ = false;    // the block's lines are kept apart
    std::size_t lastBytes_ = 0;  // of the last line
};

std::string Entry(CLI::Option const& option) {
    std::string names;
    auto const append = [&names](std::string const& name) {
        names += fmt::format("{}\\fB{}\\fR", names.empty() ? "" : ", ", Escaped(name));
    };
    for (std::string const& name : option.get_snames()) append("-" + name);
    for (std::string const& name : option.get_lnames()) append("--" + name);
    bool const isPositional = names.empty();
    if (isPositional) names = fmt::format("\\fI{}\\fR", Escaped(option.get_name()));
    if (!isPositional && option.get_items_expected_max() > 0) {
        names += fmt::format(" \\fI{}\\fR", Escaped(option.get_type_name()));
    }
    std::string text = fmt::format(".TP\n{}\n{}.\n", names, Escaped(option.get_description()));
    if (!option.get_default_str().empty()) text += fmt::format("Default: {}.\n", Escaped(option.get_default_str()));
    if (!option.get_envname().empty()) {
        text += fmt::format("The environment variable {} can stand in for it.\n", Escaped(option.get_envname()));
    }
    if (option.get_required() && !isPositional) text += "Required.\n";
    return text;
}

std::vector<CLI::App const*> SubcommandsOf(CLI::App const& app) {
    std::vector<CLI::App const*> const all = app.get_subcommands([](CLI::App const*) { return true; });
    std::vector<CLI::App const*> shown;
    std::copy_if(all.begin(), all.end(), std::back_inserter(shown),
                 [](CLI::App const* verb) { return !verb->get_group().empty(); });
    return shown;
}

std::string Section(char const* title, std::string_view text) {
    constexpr std::string_view PARAGRAPH = ".PP\n";  // is implied where a section starts
    if (text.starts_with(PARAGRAPH)) text.remove_prefix(PARAGRAPH.size());
    return text.empty() ? "" : fmt::format(".SH {}\n{}", title, text);
}

// The page of a command; its names, such as "brindlectl schema check", are joined to one by dashes.
std::string Page(CLI::App const& app, std::string const& name, std::string const& page) {
    auto const* const formatter = dynamic_cast<CLI::Formatter const*>(app.get_formatter().get());
    constexpr std::string_view USAGE_START = "Usage: ";
    std::string usage = formatter == nullptr ? name : formatter->make_usage(&app, name);
    if (usage.starts_with(USAGE_START)) usage.erase(0, USAGE_START.size());
    usage.erase(usage.find_last_not_of('\n') + 1);

    bool const isProgram = app.get_parent() == nullptr;
    std::string arguments;
    std::string options;
    for (CLI::Option const* const option : app.get_options()) {
        (option->get_positional() ? arguments : options) += Entry(*option);
    }
    std::string verbs;
    std::string others;
    for (CLI::App const* const verb : SubcommandsOf(app)) {
        std::string const other = fmt::format("\\fB{}\\-{}\\fR(1)", Escaped(page), Escaped(verb->get_name()));
        verbs += fmt::format(".TP\n{}\n{}.\n", other, Escaped(verb->get_description()));
    }
    if (!isProgram) others = fmt::format("\\fBbrindlectl\\fR(1),\n");
    others +=
        "\\fBbrindle\\fR(1),\n\\fBbrindle.toml\\fR(5),\n\\fBbrindle\\-schema\\fR(5),\n\\fBbrindle\\-protocol\\fR(7)\n";

    std::string title = page;
    std::transform(title.begin(), title.end(), title.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    Footer const footer(app.get_footer());
    std::string const summary =
        isProgram ? "companion tools of the Brindle record staging server" : Escaped(app.get_description());
    return fmt::format(".TH {} 1 {} \"brindle {}\" \"Brindle manual\"\n.nh\n.ad l\n", Escaped(title), Date(),
                       BRINDLE_VERSION) +
           Section("NAME", fmt::format("{} \\- {}\n", Escaped(page), summary)) +
           Section("SYNOPSIS", fmt::format("\\fB{}\\fR\n", Escaped(usage))) +
           Section("DESCRIPTION",
                   (isProgram ? Escaped(app.get_description()) + '\n' : summary + ".\n") + footer.description) +
           Section("ARGUMENTS", arguments) + Section("COMMANDS", verbs) + Section("OPTIONS", options) +
           Section("EXIT STATUS", footer.exitStatus) + Section("EXAMPLES", footer.examples) +
           Section("SEE ALSO", others);
}

class ManualCommand : public Command {
 public:
    void Declare(CLI::App& program) override {
        program_ = &program;
        Add(program, "manual", "Write the manual pages of brindlectl and its commands", "");
        AddArgument("directory", "An existing directory", directory_);
        program.get_subcommand("manual")->group("");
    }

    ExitCode Run() override { return Write(*program_, "brindlectl", "brindlectl"); }

 private:
    [[nodiscard]] ExitCode Write(CLI::App const& app, std::string const& name, std::string const& page) const {
        std::string const path = fmt::format("{}/{}.1", directory_, page);
        std::string const text = Page(app, name, page);
        sutl_Descriptor const file = sutl_OpenFile(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, FILE_MODE);
        if (!file.IsOpen()) return Fail(IO_ERROR, "{}: cannot be created: {}", path, strerror(errno));
        if (sutl_FileWrite(file.Get(), text.data(), text.size()) != static_cast<long>(text.size())) {
            return Fail(IO_ERROR, "{}: writing failed: {}", path, strerror(errno));
        }
        for (CLI::App const* const verb : SubcommandsOf(app)) {
            ExitCode const code = Write(*verb, name + ' ' + verb->get_name(), page + '-' + verb->get_name());
            if (code != DONE) return code;
        }
        return DONE;
    }

    CLI::App const* program_ = nullptr;
    std::string directory_;
};

}  // namespace

std::unique_ptr<Command> MakeManualCommand() { return std::make_unique<ManualCommand>(); }
