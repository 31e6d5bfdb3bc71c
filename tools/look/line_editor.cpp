#include "line_editor.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

constexpr int HISTORY_LINES = 1000;

// Where the history stands; its folder is made. Empty when there is no place for it.
std::string HistoryPath() {
    char const* const state = getenv("XDG_STATE_HOME");
    char const* const home = getenv("HOME");
    std::filesystem::path folder;
    if (state != nullptr && *state == '/') {
        folder = state;
    } else if (home != nullptr && *home == '/') {
        folder = std::filesystem::path(home) / ".local" / "state";
    } else {
        return {};
    }
    folder /= "brindlectl";
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) return {};
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
    return folder / "query-history";
}

char* Prompt(EditLine* /*editor*/) {
    static char prompt[] = "query> ";
    return prompt;
}

}  // namespace

LineEditor::LineEditor()
    : path_(HistoryPath()),
      history_(history_init(), history_end),
      editor_(el_init("brindlectl", stdin, stdout, stderr), el_end) {
    if (history_ == nullptr || editor_ == nullptr) return;
    HistEvent event = {};
    history(history_.get(), &event, H_SETSIZE, HISTORY_LINES);
    history(history_.get(), &event, H_SETUNIQUE, 1);
    if (!path_.empty()) history(history_.get(), &event, H_LOAD, path_.c_str());
    el_set(editor_.get(), EL_PROMPT, Prompt);
    el_set(editor_.get(), EL_SIGNAL, 1);
    el_set(editor_.get(), EL_EDITOR, "emacs");
    el_set(editor_.get(), EL_HIST, history, history_.get());
    el_source(editor_.get(), nullptr);
}

bool LineEditor::Read(std::string& line) {
    if (editor_ == nullptr) return false;
    int bytes = 0;
    char const* const text = el_gets(editor_.get(), &bytes);
    if (text == nullptr || bytes <= 0) return false;
    line.assign(text, static_cast<std::size_t>(bytes));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    HistEvent event = {};
    if (line.empty() || history_ == nullptr) return true;
    history(history_.get(), &event, H_ENTER, line.c_str());
    // At once, since Ctrl-C is a usual end. A history that cannot be kept is no reason to stop.
    if (!path_.empty()) history(history_.get(), &event, H_SAVE, path_.c_str());
    return true;
}
