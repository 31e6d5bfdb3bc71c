// The recovery files, cut and numbered as the input says.
#include "fuzz.h"
#include "uts_stgrecovery.h"

using fuzz::Require;

namespace {

constexpr char WARNING[] = "WARNING: Incomplete recovery file\n";

struct Played {
    std::vector<test::Record> records;
    std::string text;
};

Played Play(suts_tsspec const& spec, char const* directory) {
    Played played;
    fuzz::Messages const messages;
    suts_StgRecoveryPlayback playback(spec, directory);
    suts_StgEntry entry;
    while (playback.QNext(entry) == 0) {
        played.records.push_back({entry.time, test::BytesOf(entry.key), test::BytesOf(entry.value)});
    }
    Require(playback.QNext(entry) == 1, "the end stays the end");
    played.text = messages.Text();
    return played;
}

// How many bytes of the stream the records are, which they must match.
std::size_t BytesOf(std::vector<test::Record> const& records, std::string_view stream) {
    std::size_t at = 0;
    for (test::Record const& record : records) {
        std::string const log = record.InLog();
        std::string_view const there = stream.substr(at, log.size());
        int valueBytes = 0;
        Require(there.size() == log.size(), "a record is not longer than what it was read from");
        memcpy(&valueBytes, there.data() + sizeof record.time, sizeof valueBytes);
        // The length in the head may be more than the fields take, and is not looked at beyond that.
        Require(valueBytes >= static_cast<int>(record.value.size()), "a value is not longer than its head says");
        Require(there.substr(0, sizeof record.time) == log.substr(0, sizeof record.time) &&
                    there.substr(SUTS_LOG_HEAD_BYTES) == log.substr(SUTS_LOG_HEAD_BYTES),
                "a record is read to the byte");
        at += log.size();
    }
    return at;
}

// The files lie in one directory, which every input uses anew.
class Log {
 public:
    Log() = default;
    Log(Log const&) = delete;
    Log& operator=(Log const&) = delete;
    ~Log() {
        for (std::string const& path : paths_) std::filesystem::remove(path);
    }
    void Add(unsigned int number, std::string_view content) {
        paths_.push_back(Directory() / ("F" + std::to_string(number)));
        test::WriteFile(paths_.back(), content);
    }
    static test::Directory const& Directory() {
        static test::Directory const directory;
        return directory;
    }

 private:
    std::vector<std::string> paths_;
};

}  // namespace

int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    fuzz::Input input(data, size);
    suts_tsspec const& spec = fuzz::SchemaOf(input.Byte());
    char const* const directory = Log::Directory().Path();
    std::string stream;
    Played played;
    {
        Log log;
        unsigned int number = 0;
        unsigned int const files = input.Byte() % 4;
        for (unsigned int i = 1; i <= files; ++i) {
            number += 1 + input.Byte() % 12;
            std::string_view const content = i < files ? input.Bytes(16UL * input.Byte()) : input.Rest();
            log.Add(number, content);
            stream += content;
        }
        played = Play(spec, directory);
        if (files == 0) {
            Require(played.text ==
                            std::string(" Playback info, only keyfile, no uncovered data,  in ") + directory + " \n" &&
                        played.records.empty(),
                    "a directory without files is reported and holds nothing");
            return 0;
        }
        std::size_t const left = stream.size() - BytesOf(played.records, stream);
        Require(played.text.empty() || played.text == WARNING, "nothing but one warning is printed");
        Require(left > 0 || played.text.empty(), "whole records are no reason to warn");
        Require(left == 0 || left >= SUTS_LOG_HEAD_BYTES || !played.text.empty(), "a cut head is a reason to warn");
        if (played.text.empty()) {
            // A quiet end lies between two fields: a byte more begins one that is cut.
            log.Add(number + 1, "x");
            Played const longer = Play(spec, directory);
            Require(longer.records == played.records && longer.text == WARNING, "a quiet end is between two fields");
        }
    }
    Log log;
    std::string clean;
    for (test::Record const& record : played.records) clean += record.InLog();
    log.Add(1, clean);
    Played const again = Play(spec, directory);
    Require(again.records == played.records && again.text.empty(), "what was read can be written and read");
    return 0;
}
