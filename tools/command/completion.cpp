#include "completion.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>

#include "sutl_descriptor.h"

namespace {

constexpr char COMPLETION_EXAMPLES[] =
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

// A command, or one that stands within another.
struct Verb {
    std::string path;  // the names of all, such as "schema check"
    CLI::App const* app;
    std::vector<Verb> inner;
};
using Verbs = std::vector<Verb>;

Verbs VerbsOf(CLI::App const& app, std::string const& path = "") {
    Verbs verbs;
    for (CLI::App const* const verb : app.get_subcommands([](CLI::App const*) { return true; })) {
        if (verb->get_group().empty()) continue;  // hidden from --help as well
        std::string const own = path.empty() ? verb->get_name() : path + ' ' + verb->get_name();
        verbs.push_back({own, verb, VerbsOf(*verb, own)});
    }
    return verbs;
}

std::string VerbNames(Verbs const& verbs) {
    std::string names;
    for (Verb const& verb : verbs) names += (names.empty() ? "" : " ") + verb.app->get_name();
    return names;
}

// What goes on with a further name, and what each offers.
void AppendForBash(std::string& longer, std::string& offers, Verbs const& verbs) {
    for (Verb const& verb : verbs) {
        for (Entry const& entry : OptionsOf(*verb.app)) {
            if (!entry.takesValue) continue;
            offers += fmt::format("    {}) words={} ;;\n", Quoted(verb.path + ',' + entry.name),
                                  Quoted(fmt::format("{}", fmt::join(entry.choices, " "))));
        }
        std::string const names = VerbNames(verb.inner) + (verb.inner.empty() ? "" : " ");
        offers +=
            fmt::format("    {},*) words={} ;;\n", Quoted(verb.path), Quoted(names + Names(OptionsOf(*verb.app))));
        if (!verb.inner.empty()) {
            longer += fmt::format("        {}) verb=\"$verb ${{COMP_WORDS[i]}}\" ;;\n", Quoted(verb.path));
        }
        AppendForBash(longer, offers, verb.inner);
    }
}

std::string ForBash(CLI::App const& program, Verbs const& verbs) {
    std::string longer;
    std::string offers;
    AppendForBash(longer, offers, verbs);
    return "_brindlectl() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} verb= i\n"
           "    COMPREPLY=()\n"
           "    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
           "        case ${COMP_WORDS[i]} in -*) continue ;; esac\n"
           "        case $verb in\n"
           "        '') verb=${COMP_WORDS[i]} ;;\n" +
           longer +
           "        *) break ;;\n"
           "        esac\n"
           "    done\n"
           "    local words=\n"
           "    case $verb,$before in\n" +
           offers + fmt::format("    ,*) words={} ;;\n", Quoted(VerbNames(verbs) + " " + Names(OptionsOf(program)))) +
           "    esac\n"
           "    if [[ $verb && $word != -* && $words == --* ]]; then words=; fi\n"
           "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
           "}\n"
           "complete -o default -F _brindlectl brindlectl\n";
}

std::string Escaped(std::string text, std::string_view special) {
    for (std::size_t at = 0; (at = text.find_first_of(special, at)) != std::string::npos; at += 2) {
        text.insert(at, "\\");
    }
    return text;
}

// Offers the verbs as the word of this index, and behind it what goes with each.
void AppendForZsh(std::string& script, Verbs const& verbs, int index) {
    script += "    verbs=(\n";
    for (Verb const& verb : verbs) {
        script += "        " + Quoted(verb.app->get_name() + ":" + Escaped(verb.app->get_description(), ":")) + "\n";
    }
    script += fmt::format(
        "    )\n    if ((CURRENT == {0})); then _describe command verbs; return; fi\n    case $words[{0}] in\n", index);
    for (Verb const& verb : verbs) {
        script += fmt::format("    {})", verb.app->get_name());
        if (!verb.inner.empty()) {
            script += '\n';
            AppendForZsh(script, verb.inner, index + 1);
            script += "    ;;\n";
            continue;
        }
        script += " _arguments";
        for (Entry const& entry : OptionsOf(*verb.app)) {
            std::string line = entry.name + "[" + Escaped(entry.description, "[]:\\") + "]";
            if (entry.takesValue) {
                line +=
                    entry.choices.empty() ? ":value:_files" : fmt::format(":value:({})", fmt::join(entry.choices, " "));
            }
            script += " \\\n        " + Quoted(line);
        }
        script += " \\\n        '*:file:_files' ;;\n";
    }
    script += "    esac\n";
}

std::string ForZsh(Verbs const& verbs) {
    std::string script = "#compdef brindlectl\n_brindlectl() {\n    local -a verbs\n";
    AppendForZsh(script, verbs, 2);
    return script + "}\n_brindlectl \"$@\"\n";
}

// Each where the condition holds, which is empty or ends in "; and ".
void AppendForFish(std::string& script, Verbs const& verbs, std::string const& where) {
    std::string const names = VerbNames(verbs);
    std::string groups;  // those that have inner ones, whose names may be the same as others'
    for (Verb const& verb : verbs) groups += verb.inner.empty() ? "" : ' ' + verb.app->get_name();
    for (Verb const& verb : verbs) {
        std::string const& name = verb.app->get_name();
        script += fmt::format("complete -c brindlectl -f -n \"{}not __fish_seen_subcommand_from {}\" -a {} -d {}\n",
                              where, names, name, Quoted(verb.app->get_description()));
        std::string here = fmt::format("{}__fish_seen_subcommand_from {}", where, name);
        if (!verb.inner.empty()) {
            AppendForFish(script, verb.inner, here + "; and ");
            continue;
        }
        if (!groups.empty()) here += "; and not __fish_seen_subcommand_from" + groups;
        for (Entry const& entry : OptionsOf(*verb.app)) {
            script += fmt::format("complete -c brindlectl -n \"{}\" -l {} -d {}", here, entry.name.substr(2),
                                  Quoted(entry.description));
            if (entry.takesValue) script += " -r";
            if (!entry.choices.empty()) {
                script += " -f -a " + Quoted(fmt::format("{}", fmt::join(entry.choices, " ")));
            }
            script += "\n";
        }
    }
}

std::string ForFish(Verbs const& verbs) {
    std::string script;
    AppendForFish(script, verbs, "");
    return script;
}

class CompletionCommand : public Command {
 public:
    void Declare(CLI::App& program) override {
        program_ = &program;
        Add(program, "completion", "Print the completion script of a shell", COMPLETION_EXAMPLES);
        AddArgument("shell", "bash, zsh or fish", shell_);
    }

    ExitCode Run() override {
        Verbs const verbs = VerbsOf(*program_);
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
