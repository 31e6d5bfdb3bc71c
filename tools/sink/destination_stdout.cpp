#include "destination_stdout.h"

#include <cerrno>
#include <cstring>
#include <optional>

#include "record_output.h"

namespace {

class StdoutDestination : public Destination {
 public:
    StdoutDestination(suts_tsspec const& spec, DestinationOptions options)
        : spec_(spec), options_(std::move(options)) {}

    Status Open(std::string& state) override;
    Status Begin() override;
    Status Add(SinkRecord const& record) override;
    Status Reject(unsigned long cycle, std::string_view reason, std::string_view bytes) override;
    Status Commit(SinkCycle const& cycle, std::string_view state) override;
    void Close() override { output_.reset(); }
    unsigned long Rejected() const override { return rejected_; }
    unsigned long Merged() const override { return 0; }

 private:
    suts_tsspec const& spec_;
    DestinationOptions const options_;
    std::optional<RecordOutput> output_;
    unsigned long rejected_ = 0;
};

Destination::Status StdoutDestination::Open(std::string& state) {
    state.clear();
    std::vector<std::string> leading;
    if (options_.withBlocks) leading = {"cycle", "block"};
    output_.emplace(RecordFormat::JSONL, spec_, leading, options_.timeName);
    output_->StopOn(options_.stopDescriptor);
    if (output_->Open("-")) return OK;
    return Fail(REFUSED, std::string("standard output: cannot be written: ") + strerror(errno));
}

Destination::Status StdoutDestination::Begin() {
    rejected_ = 0;
    return OK;
}

Destination::Status StdoutDestination::Add(SinkRecord const& record) {
    unsigned long const place[] = {record.cycle, record.block};
    output_->Add(std::span(place, options_.withBlocks ? 2 : 0), record.timeUs, record.values);
    return OK;
}

Destination::Status StdoutDestination::Reject(unsigned long /*cycle*/, std::string_view /*reason*/,
                                              std::string_view /*bytes*/) {
    ++rejected_;
    return OK;
}

Destination::Status StdoutDestination::Commit(SinkCycle const& /*cycle*/, std::string_view /*state*/) {
    int const error = output_->Flush();
    if (error == 0) return OK;
    // Whoever read it is gone, or has a part that cannot be taken back: writing it again would double it.
    return Fail(REFUSED, std::string("standard output: writing failed: ") + strerror(error));
}

}  // namespace

std::unique_ptr<Destination> MakeStdoutDestination(suts_tsspec const& spec, DestinationOptions const& options) {
    return std::make_unique<StdoutDestination>(spec, options);
}
