// A sample as text, and the terminal that shows it.
#pragma once

#include <termios.h>

#include <deque>
#include <string>
#include <vector>

#include "sutl_descriptor.h"
#include "top_sample.h"

// How what is shown may look.
struct TopLook {
    std::size_t columns = 80;
    std::size_t rows = 0;  // 0: as many as there are
    bool colors = false;
    bool blocks = false;  // characters of Unicode for the chart
};

// The speeds of the past, newest last. Bounded.
class TopHistory {
 public:
    void Add(double speed);
    // A chart of so many rows of so many characters, whose highest is the greatest speed in it.
    [[nodiscard]] std::vector<std::string> Chart(std::size_t columns, std::size_t rows, bool blocks) const;
    [[nodiscard]] double Greatest(std::size_t columns) const;

 private:
    static constexpr std::size_t SPEEDS_MAX = 1024;

    std::deque<double> speeds_;
};

// The lines of the screen, none wider than the columns.
[[nodiscard]] std::vector<std::string> TopLines(TopSampler const& sampler, TopHistory const& history,
                                                TopLook const& look, bool paused);

// The terminal while it is drawn on: another screen, without echo. Gives everything back at its end. One thread.
class TopTerminal {
 public:
    TopTerminal();
    TopTerminal(TopTerminal const&) = delete;
    TopTerminal& operator=(TopTerminal const&) = delete;
    ~TopTerminal();

    [[nodiscard]] int Keys() const { return keys_.Get(); }  // to wait for; -1 when there are none
    [[nodiscard]] char ReadKey();                           // 0 when there was none
    // False when the terminal has gone.
    [[nodiscard]] bool Draw(std::vector<std::string> const& lines) const;
    static void Size(TopLook& look);  // of standard output, where it is a terminal

 private:
    sutl_Descriptor keys_;
    termios before_ = {};
    bool changed_ = false;
};
