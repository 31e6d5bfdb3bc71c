#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include "terminal_text.h"

namespace {

constexpr std::chrono::milliseconds REDRAW_PAUSE{200};

}  // namespace

Progress::Progress(char const* what, bool wanted) : what_(what), shown_(wanted && isatty(STDERR_FILENO) == 1) {}

void Progress::Look(unsigned long count, unsigned long done, unsigned long whole) {
    Clock::time_point const now = Clock::now();
    if (now - last_ < REDRAW_PAUSE) return;
    last_ = now;
    double const seconds = std::chrono::duration<double>(now - start_).count();
    std::string line =
        fmt::format("{} {}, {}/s", count, what_, static_cast<long>(static_cast<double>(count) / seconds));
    if (whole > 0 && done > 0 && done <= whole) {
        double const share = static_cast<double>(done) / static_cast<double>(whole);
        line += fmt::format(", {:.0f} %, {:.0f} s left", 100 * share, seconds * (1 - share) / share);
    }
    WriteToErrors("\r\033[K" + line);
    drawn_ = true;
}

void Progress::Clear() {
    if (!drawn_) return;
    WriteToErrors("\r\033[K");
    drawn_ = false;
}
