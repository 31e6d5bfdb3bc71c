// check and repair over a recovery directory, against the playback.
#include "fuzz.h"
#include "recovery_check.h"
#include "recovery_repair.h"

using fuzz::Require;

namespace {

struct Played {
    unsigned long records = 0;  // that the server does not refuse
    std::string text;
};

Played Play(suts_tsspec const& spec, std::string const& directory) {
    Played played;
    fuzz::Messages const messages;
    suts_StgRecoveryPlayback playback(spec, directory.c_str());
    suts_StgEntry entry;
    while (playback.QNext(entry) == 0) played.records += entry.time >= 0 ? 1 : 0;
    played.text = messages.Text();
    return played;
}

}  // namespace

int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    fuzz::Input input(data, size);
    suts_tsspec const& spec = fuzz::SchemaOf(input.Byte());
    test::Directory const work;
    std::string const log = work / "log";
    std::filesystem::create_directory(log);
    test::WriteFile(log + "/KeyFile", input.Bytes(4UL * input.Byte()));
    test::WriteFile(log + "/F2", input.Bytes(16UL * input.Byte()));
    test::WriteFile(log + "/F3", input.Rest());

    RecoveryReport report(100);
    Require(CheckRecovery(spec, log, {}, report), "the directory can be read");
    Played const played = Play(spec, log);
    Require(played.records == report.records, "what is promised is what comes");
    bool const warns = report.end == LogWalker::TORN && report.tornReason != LogWalker::ENDS_BEFORE_FIELD;
    Require(warns != played.text.empty(), "a tear is one to the playback");

    RecoveryRepair repair(spec, work / "clean", work / "rest");
    Require(repair.Run({log}), "what can be read can be repaired");
    Played const again = Play(spec, work / "clean");
    Require(again.records == repair.Report().records, "what was kept comes back");
    Require(again.text.find("WARNING") == std::string::npos, "what was kept is whole");
    return 0;
}
