// A query client that looks into what it gets.
#pragma once

#include <string>
#include <vector>

#include "connections.h"
#include "layout.h"

// Asks a server for ranges of keys, one after the other. One thread at a time.
class bench_QueryClient {
 public:
    bench_QueryClient(suts_tsspec const& spec, bench_Pair connections);

    // Asks for the records of the key, in wire form, whose times lie in the range, both ends included; blocks until the
    // reply has come. False when the server has gone or the reply is wrong, as Fault tells.
    [[nodiscard]] bool Ask(std::string const& key, unsigned long fromUs, unsigned long toUs);
    void Leave();  // says that nothing more comes

    [[nodiscard]] unsigned long Records() const { return records_; }  // in the last reply
    [[nodiscard]] std::string const& Fault() const { return fault_; }
    [[nodiscard]] bool IsWrong() const { return wrong_; }  // there was a reply, and it cannot be right

 private:
    bool Check(std::string const& key, unsigned long fromUs, unsigned long toUs);
    bool Fail(char const* text, bool wrong);

    bench_Shape const keyShape_;
    bench_Shape const valueShape_;
    bench_Pair const pair_;
    std::vector<unsigned char> reply_;
    unsigned long records_ = 0;
    std::string fault_;
    bool wrong_ = false;
};
