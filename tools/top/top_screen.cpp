#include "top_screen.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "terminal_text.h"
#include "time_text.h"

namespace {

constexpr std::size_t CHART_ROWS = 4;
constexpr std::size_t LABEL_COLUMNS = 10;
constexpr std::size_t CHART_LABEL_COLUMNS = 12;
constexpr std::size_t ERRORS_WITHOUT_ROWS = 10;  // shown where there is no screen to fill
constexpr char RED[] = "\033[31m";
constexpr char BOLD[] = "\033[1m";
constexpr char PLAIN[] = "\033[0m";

// 1,234,567
std::string Grouped(double value) {
    std::string const digits = fmt::format("{:.0f}", std::max(value, 0.0));
    std::string grouped;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
        grouped += digits[i];
    }
    return grouped;
}

std::string Bytes(double value) {
    constexpr double STEP = 1000;
    constexpr std::array UNITS = {"B", "kB", "MB", "GB", "TB"};
    std::size_t unit = 0;
    for (; value >= STEP && unit + 1 < UNITS.size(); ++unit) value /= STEP;
    return fmt::format("{:.{}f} {}", value, unit == 0 ? 0 : 1, UNITS[unit]);
}

std::string Length(long timeUs) {
    double const seconds = static_cast<double>(std::abs(timeUs)) / 1e6;
    constexpr double MINUTE = 60;
    constexpr double HOUR = 3600;
    constexpr double DAY = 24 * HOUR;
    if (seconds < 1) return fmt::format("{:.1f} ms", seconds * 1000);
    if (seconds < 2 * MINUTE) return fmt::format("{:.1f} s", seconds);
    if (seconds < 2 * HOUR) return fmt::format("{:.1f} min", seconds / MINUTE);
    if (seconds < 2 * DAY) return fmt::format("{:.1f} h", seconds / HOUR);
    return fmt::format("{:.1f} days", seconds / DAY);
}

template <typename Format>
std::string OrUnknown(std::optional<double> const& value, Format format) {
    return value ? format(*value) : "?";
}

// Lines of a label and a text, cut to the width.
class Page {
 public:
    explicit Page(TopLook const& look) : look_(look) {}

    void Add(std::string const& label, std::string const& text, char const* color = "") {
        std::string line = fmt::format("{:<{}}{}", label, LABEL_COLUMNS, text);
        line.resize(std::min(line.size(), look_.columns));
        if (look_.colors && *color != '\0') line = fmt::format("{}{}{}", color, line, PLAIN);
        lines_.push_back(line);
    }
    void AddReady(std::string line) { lines_.push_back(std::move(line)); }
    [[nodiscard]] std::vector<std::string> Take() { return std::move(lines_); }
    [[nodiscard]] std::size_t Size() const { return lines_.size(); }

 private:
    TopLook const& look_;
    std::vector<std::string> lines_;
};

std::string ShipText(TopSampler const& sampler) {
    TopSample const& sample = sampler.Sample();
    LogFigures const& log = sampler.Log();
    if (!sampler.HasLog()) return "? (no log to read cycles from; give --log)";
    std::string text = Grouped(static_cast<double>(log.cycles)) + (log.cycles == 1 ? " cycle" : " cycles");
    if (log.cycles > 0) {
        text += fmt::format(", last {}", Length(log.cycleLastUs));
        if (sample.cycleLastBytes) text += fmt::format(" ~{}", Bytes(*sample.cycleLastBytes));
        text += fmt::format(", longest {}", Length(log.cycleLongestUs));
    }
    return text + (log.cycleRuns ? ", one runs now" : "");
}

std::string EventText(TopSampler const& sampler) {
    TopSample const& sample = sampler.Sample();
    if (!sample.eventTimeUs) return sampler.HasLog() ? "? (no bucket opened yet)" : "? (no log to read it from)";
    std::string text;
    AppendIsoTime(text, *sample.eventTimeUs);
    text += " or later";
    if (!sample.lagUs) return text;
    return text + (*sample.lagUs >= 0 ? fmt::format(", at most {} behind the clock", Length(*sample.lagUs))
                                      : fmt::format(", {} ahead of the clock", Length(*sample.lagUs)));
}

void AddErrors(Page& page, TopSampler const& sampler, TopLook const& look) {
    LogFigures const& log = sampler.Log();
    if (log.latest.empty()) {
        page.Add("errors", sampler.HasLog() ? "none" : "? (no log)");
        return;
    }
    page.Add("errors", Count(log.troubles, "line") + "; the last:", RED);
    std::size_t room = ERRORS_WITHOUT_ROWS;
    if (look.rows > 0) room = look.rows > page.Size() ? (look.rows - page.Size()) / 2 : 0;
    std::size_t const shown = std::min(room, log.latest.size());
    for (std::size_t i = log.latest.size() - shown; i < log.latest.size(); ++i) {
        LogFigures::Trouble const& one = log.latest[i];
        page.Add(one.count > 1 ? fmt::format("  {}x ", one.count) : "", one.text, RED);
        if (!one.meaning.empty()) page.Add("", "  = " + one.meaning);
    }
}

}  // namespace

void TopHistory::Add(double speed) {
    speeds_.push_back(speed);
    if (speeds_.size() > SPEEDS_MAX) speeds_.pop_front();
}

double TopHistory::Greatest(std::size_t columns) const {
    double greatest = 0;
    std::size_t const shown = std::min(columns, speeds_.size());
    for (std::size_t i = speeds_.size() - shown; i < speeds_.size(); ++i) greatest = std::max(greatest, speeds_[i]);
    return greatest;
}

std::vector<std::string> TopHistory::Chart(std::size_t columns, std::size_t rows, bool blocks) const {
    static constexpr std::array BLOCKS = {" ",      "\u2581", "\u2582", "\u2583", "\u2584",
                                          "\u2585", "\u2586", "\u2587", "\u2588"};
    static constexpr std::array LETTERS = {" ", ".", ":", "|"};
    std::size_t const steps = (blocks ? BLOCKS.size() : LETTERS.size()) - 1;
    double const greatest = Greatest(columns);
    std::size_t const shown = std::min(columns, speeds_.size());
    std::vector<std::string> lines(rows, std::string(columns - shown, ' '));
    for (std::size_t i = speeds_.size() - shown; i < speeds_.size(); ++i) {
        double const share = greatest > 0 ? speeds_[i] / greatest : 0;
        auto const height = static_cast<std::size_t>(std::lround(share * static_cast<double>(rows * steps)));
        for (std::size_t row = 0; row < rows; ++row) {
            std::size_t const below = (rows - 1 - row) * steps;
            std::size_t const level = height > below ? std::min(height - below, steps) : 0;
            lines[row] += blocks ? BLOCKS[level] : LETTERS[level];
        }
    }
    return lines;
}

std::vector<std::string> TopLines(TopSampler const& sampler, TopHistory const& history, TopLook const& look,
                                  bool paused) {
    TopSample const& sample = sampler.Sample();
    RecoveryView const& recovery = sampler.Recovery();
    Page page(look);
    auto const count = [](double value) { return Grouped(value); };
    auto const perSecond = [](double value) { return Bytes(value) + "/s"; };
    page.Add("brindle",
             fmt::format("{}{}{}", sample.pid != 0 ? fmt::format("{}  ", sample.pid) : "", sample.state,
                         paused ? "  PAUSED" : ""),
             sample.pid == 0 ? RED : BOLD);
    page.Add(
        "ingest",
        fmt::format("~{} records/s; {} from the producer, {} not read yet", OrUnknown(sample.recordsPerSecond, count),
                    OrUnknown(sample.receivedBytesPerSecond, perSecond), OrUnknown(sample.unreadBytes, Bytes)));
    if (look.columns > CHART_LABEL_COLUMNS) {
        std::size_t const width = look.columns - CHART_LABEL_COLUMNS;
        std::string const top = Grouped(history.Greatest(width));
        std::vector<std::string> const chart = history.Chart(width, CHART_ROWS, look.blocks);
        for (std::size_t row = 0; row < chart.size(); ++row) {
            std::string const label = row == 0 ? top : row + 1 == chart.size() ? "0" : "";
            page.AddReady(fmt::format("{:>{}} {}", label, CHART_LABEL_COLUMNS - 1, chart[row]));
        }
    }
    std::optional<double> placed;
    if (sampler.Log().placed) placed = static_cast<double>(*sampler.Log().placed);
    page.Add("records",
             fmt::format("~{} in, {} placed at the log's last word, backlog ~{}", OrUnknown(sample.recordsIn, count),
                         OrUnknown(placed, count), OrUnknown(sample.backlogRecords, count)));
    std::optional<double> keys;
    if (recovery.keys) keys = static_cast<double>(*recovery.keys);
    page.Add("keys", OrUnknown(keys, count));
    page.Add("event", EventText(sampler));
    page.Add("ship", ShipText(sampler));
    page.Add("", fmt::format("{}; {} since the consumer connected, {} wait for it",
                             OrUnknown(sample.shippedBytesPerSecond, perSecond), OrUnknown(sample.shippedBytes, Bytes),
                             OrUnknown(sample.unsentBytes, Bytes)));
    page.Add("recovery", recovery.exists
                             ? fmt::format("{}, {}; {}", Count(static_cast<unsigned long>(recovery.files), "file"),
                                           Bytes(static_cast<double>(recovery.bytes)), sample.recoveryPath)
                             : "? " + sample.recoveryPath);
    std::string cpu = OrUnknown(sample.cpuPercent, [](double value) { return fmt::format("{:.1f} %", value); });
    for (TopSample::Thread const& thread : sample.threads) {
        cpu += fmt::format("  {} {:.1f}", thread.name, thread.cpuPercent);
    }
    page.Add("cpu", cpu);
    page.Add("memory", fmt::format("{}, at most {}", OrUnknown(sample.memoryBytes, Bytes),
                                   OrUnknown(sample.memoryPeakBytes, Bytes)));
    AddErrors(page, sampler, look);
    std::vector<std::string> lines = page.Take();
    if (look.rows > 0 && lines.size() > look.rows) lines.resize(look.rows);
    return lines;
}

TopTerminal::TopTerminal() : keys_(open("/dev/tty", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    if (keys_.IsOpen() && tcgetattr(keys_.Get(), &before_) == 0) {
        termios raw = before_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_cc[VSUSP] = _POSIX_VDISABLE;  // a stopped program would leave its screen behind
        changed_ = tcsetattr(keys_.Get(), TCSANOW, &raw) == 0;
    }
    static constexpr std::string_view BEGIN = "\033[?1049h\033[?25l";
    sutl_FileWrite(STDOUT_FILENO, BEGIN.data(), BEGIN.size());
}

TopTerminal::~TopTerminal() {
    static constexpr std::string_view END = "\033[0m\033[?25h\033[?1049l";
    sutl_FileWrite(STDOUT_FILENO, END.data(), END.size());
    if (changed_) tcsetattr(keys_.Get(), TCSANOW, &before_);
}

char TopTerminal::ReadKey() {
    char key = 0;
    long const got = sutl_ReadSome(keys_.Get(), &key, 1);
    // A terminal that has gone is always readable.
    if (got == 0 || (got < 0 && errno != EAGAIN)) return 'q';
    return got == 1 ? key : '\0';
}

bool TopTerminal::Draw(std::vector<std::string> const& lines) const {
    std::string frame = "\033[H";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        frame += lines[i] + "\033[K";
        if (i + 1 < lines.size()) frame += "\r\n";
    }
    frame += "\033[J";
    return sutl_FileWrite(STDOUT_FILENO, frame.data(), frame.size()) == static_cast<long>(frame.size());
}

void TopTerminal::Size(TopLook& look) {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return;
    look.columns = size.ws_col;
    look.rows = size.ws_row;
}
