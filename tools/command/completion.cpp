#include "completion.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>

#include "sutl_descriptor.h"

namespace {

constexpr char EXAMPLES[] =
    R"(Examples:
  brindlectl completion bash > /etc/bash_completion.d/brindlectl
  brindlectl completion fish > ~/.config/fish/completions/brindlectl.fish)";

struct Entry {
    std::string name;  // with its dashes
    std::string description;
    bool takesValue;
    std::vector<std::string> choices;
};

// The choices stand in the description, which AddChoice has written.
std::vector<std::string> ChoicesOf(std::string const& description) {
    constexpr std::string_view START = "One of ";
    std::vector<std::string> choices;
    if (!description.starts_with(START)) return choices;
    for (std::size_t at = START.size(); at < description.size();) {
        std::size_t const end = std::min(description.find(", ", at), description.size());
        choices.push_back(description.substr(at, end - at));
        at = end + 2;
    }
    return choices;
}

std::vector<Entry> OptionsOf(CLI::App const& app) {
    std::vector<Entry> entries;
    for (CLI::Option const* const option : app.get_options()) {
        for (std::string const& name : option->get_lnames()) {
            entries.push_back({"--" + name, option->get_description(), option->get_items_expected_max() > 0,
                               ChoicesOf(option->get_description())});
        }
    }
    return entries;
}

// The text in single quotes, as all three shells read it.
std::string Quoted(std::string_view text) {
    std::string quoted = "'";
    for (char const c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

std::string Names(std::vector<Entry> const& entries) {
    std::string names;
    for (Entry const& entry : entries) names += (names.empty() ? "" : " ") + entry.name;
    return names;
}

using Verbs = std::vector<CLI::App const*>;

std::string VerbNames(Verbs const& verbs) {
    std::string names;
    for (CLI::App const* const verb : verbs) names += (names.empty() ? "" : " ") + verb->get_name();
    return names;
}

std::string ForBash(CLI::App const& program, Verbs const& verbs) {
    std::string script =
        "_brindlectl() {\n"
        "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} verb= i\n"
        "    COMPREPLY=()\n"
        "    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
        "        case ${COMP_WORDS[i]} in -*) ;; *) verb=${COMP_WORDS[i]}; break ;; esac\n"
        "    done\n"
        "    local words=\n"
        "    case $verb,$before in\n";
    for (CLI::App const* const verb : verbs) {
        for (Entry const& entry : OptionsOf(*verb)) {
            if (!entry.takesValue) continue;
            script += fmt::format("    {},{}) words={} ;;\n", verb->get_name(), entry.name,
                                  Quoted(fmt::format("{}", fmt::join(entry.choices, " "))));
        }
    }
    for (CLI::App const* const verb : verbs) {
        script += fmt::format("    {},*) words={} ;;\n", verb->get_name(), Quoted(Names(OptionsOf(*verb))));
    }
    script += fmt::format("    *) words={} ;;\n", Quoted(VerbNames(verbs) + " " + Names(OptionsOf(program))));
    script +=
        "    esac\n"
        "    if [[ $verb && $word != -* && $words == --* ]]; then words=; fi\n"
        "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
        "}\n"
        "complete -o default -F _brindlectl brindlectl\n";
    return script;
}

std::string ForZsh(Verbs const& verbs) {
    std::string script = "#compdef brindlectl\n_brindlectl() {\n    local -a verbs=(\n";
    auto const escaped = [](std::string text, std::string_view special) {
        for (std::size_t at = 0; (at = text.find_first_of(special, at)) != std::string::npos; at += 2) {
            text.insert(at, "\\");
        }
        return text;
    };
    for (CLI::App const* const verb : verbs) {
        script += "        " + Quoted(verb->get_name() + ":" + escaped(verb->get_description(), ":")) + "\n";
    }
    script += "    )\n    if ((CURRENT == 2)); then _describe command verbs; return; fi\n    case $words[2] in\n";
    for (CLI::App const* const verb : verbs) {
        script += fmt::format("    {}) _arguments", verb->get_name());
        for (Entry const& entry : OptionsOf(*verb)) {
            std::string line = entry.name + "[" + escaped(entry.description, "[]:\\") + "]";
            if (entry.takesValue) {
                line +=
                    entry.choices.empty() ? ":value:_files" : fmt::format(":value:({})", fmt::join(entry.choices, " "));
            }
            script += " \\\n        " + Quoted(line);
        }
        script += " \\\n        '*:file:_files' ;;\n";
    }
    script += "    esac\n}\n_brindlectl \"$@\"\n";
    return script;
}

std::string ForFish(Verbs const& verbs) {
    std::string script = fmt::format("set -l verbs {}\n", VerbNames(verbs));
    for (CLI::App const* const verb : verbs) {
        script += fmt::format("complete -c brindlectl -f -n \"not __fish_seen_subcommand_from $verbs\" -a {} -d {}\n",
                              verb->get_name(), Quoted(verb->get_description()));
        for (Entry const& entry : OptionsOf(*verb)) {
            script += fmt::format("complete -c brindlectl -n \"__fish_seen_subcommand_from {}\" -l {} -d {}",
                                  verb->get_name(), entry.name.substr(2), Quoted(entry.description));
            if (entry.takesValue) script += " -r";
            if (!entry.choices.empty()) {
                script += " -f -a " + Quoted(fmt::format("{}", fmt::join(entry.choices, " ")));
            }
            script += "\n";
        }
    }
    return script;
}

class CompletionCommand : public Command {
 public:
    void Declare(CLI::App& program) override {
        program_ = &program;
        Add(program, "completion", "Print the completion script of a shell", EXAMPLES);
        AddArgument("shell", "bash, zsh or fish", shell_);
    }

    ExitCode Run() override {
        Verbs const verbs = std::as_const(*program_).get_subcommands([](CLI::App const*) { return true; });
        std::string script;
        if (shell_ == "bash") script = ForBash(*program_, verbs);
        if (shell_ == "zsh") script = ForZsh(verbs);
        if (shell_ == "fish") script = ForFish(verbs);
        if (script.empty()) return Fail(USAGE, "'{}' is not known here; the shells are bash, zsh and fish", shell_);
        if (sutl_FileWrite(STDOUT_FILENO, script.data(), script.size()) == static_cast<long>(script.size()))
            return DONE;
        return Fail(IO_ERROR, "standard output: writing failed: {}", strerror(errno));
    }

 private:
    CLI::App const* program_ = nullptr;
    std::string shell_;
};

}  // namespace

std::unique_ptr<Command> MakeCompletionCommand() { return std::make_unique<CompletionCommand>(); }
