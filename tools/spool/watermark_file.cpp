#include "watermark_file.h"

#include <cerrno>
#include <charconv>
#include <nlohmann/json.hpp>

#include "durable_file.h"

namespace {

constexpr std::chrono::milliseconds WRITE_PAUSE{50};  // between two writes: each of them waits for the disk

std::optional<Watermarks> Parse(std::string const& text) {
    auto const json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_object() || !json.contains("epoch") || !json["epoch"].is_number_unsigned() ||
        !json.contains("streams") || !json["streams"].is_object()) {
        return std::nullopt;
    }
    Watermarks read;
    read.epoch = json["epoch"].get<unsigned long>();
    for (auto const& [name, watermark] : json["streams"].items()) {
        unsigned long stream = 0;
        auto const [end, error] = std::from_chars(name.data(), name.data() + name.size(), stream);
        if (error != std::errc() || end != name.data() + name.size() || !watermark.is_number_unsigned()) {
            return std::nullopt;
        }
        read.streams[stream] = watermark.get<unsigned long>();
    }
    return read;
}

}  // namespace

std::optional<Watermarks> ReadWatermarks(std::string const& path) {
    auto const text = ReadFile(path);
    if (!text.has_value()) return std::nullopt;
    auto read = Parse(*text);
    if (!read.has_value()) errno = EBADMSG;
    return read;
}

int WatermarkWriter::Open(std::string const& path) {
    if (path.empty()) return 0;
    path_ = path;
    std::lock_guard const lock(mutex_);
    if (auto const old = ReadWatermarks(path)) {
        current_.epoch = old->epoch;
    } else if (errno != ENOENT && errno != EBADMSG) {
        return errno;
    }
    // The watermarks of old are not believed: the destination may be another one, or an older copy.
    return Write();
}

int WatermarkWriter::RaiseEpoch() {
    if (path_.empty()) return 0;
    std::lock_guard const lock(mutex_);
    // A file that was lost must not make an epoch come twice, so the clock leads where it is ahead.
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    auto const nowMs = static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    current_.epoch = std::max(current_.epoch + 1, nowMs);
    return Write();
}

int WatermarkWriter::Set(std::map<unsigned long, unsigned long> const& streams) {
    if (path_.empty()) return 0;
    std::lock_guard const lock(mutex_);
    if (current_.streams != streams) {
        current_.streams = streams;
        isWritten_ = false;
    }
    if (isWritten_ || std::chrono::steady_clock::now() - lastWrite_ < WRITE_PAUSE) return 0;
    return Write();
}

int WatermarkWriter::Flush() {
    if (path_.empty()) return 0;
    std::lock_guard const lock(mutex_);
    return isWritten_ ? 0 : Write();
}

int WatermarkWriter::Write() {
    nlohmann::json streams = nlohmann::json::object();
    for (auto const& [stream, watermark] : current_.streams) streams[std::to_string(stream)] = watermark;
    std::string const text = nlohmann::json({{"epoch", current_.epoch}, {"streams", streams}}).dump() + "\n";
    isWritten_ = ReplaceFile(path_, text);
    lastWrite_ = std::chrono::steady_clock::now();
    return isWritten_ ? 0 : errno;
}
