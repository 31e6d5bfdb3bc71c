// What the server's lines tell.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <string_view>

// Figures of the run that a log tells of; of the last one, where it tells of several. One thread at a time; bounded.
class LogFigures {
 public:
    struct Trouble {
        std::string text;     // printable, without blanks around it
        std::string meaning;  // empty where it is not known
        unsigned long count = 1;
    };

    void Take(std::string_view line);
    void StartRun();  // another process writes from here on

    std::optional<unsigned long> recovered;  // at least, by a replay
    std::optional<unsigned long> placed;     // records, as of the last line about them
    std::optional<unsigned long> bucket;     // the newest open one
    std::optional<unsigned long> queuedAtEnd;
    unsigned long cycles = 0;
    bool cycleRuns = false;
    long cycleLastUs = 0;
    long cycleLongestUs = 0;
    bool shutsDown = false;
    bool ended = false;          // in an orderly way
    bool crashed = false;        // an assertion failed
    unsigned long troubles = 0;  // in this run
    std::deque<Trouble> latest;  // the last of these; equal neighbours are one

    static constexpr std::size_t LATEST_MAX = 50;

 private:
    [[nodiscard]] bool TakeUsual(std::string_view line);
    void TakeTrouble(std::string_view line);

    std::size_t beforeUsual_ = 0;  // of latest: those before the last usual line, which an earlier run may have left
};

// The text with everything that a terminal might take for more than a letter replaced.
[[nodiscard]] std::string Printable(std::string_view text);
