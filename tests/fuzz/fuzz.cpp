#include "fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "sutl_assert.h"

// In place of the foundation's own, which would end the process.
void sutl_AssertFailed(sutl_AssertSite const& /*site*/, char const* message, char const* /*detail*/) {
    throw fuzz::Assertion{message};
}

void sutl_assertfunc(bool condition, char const* file, unsigned int line, char const* message, char const* detail) {
    if (!condition) sutl_AssertFailed({file, line}, message, detail);
}

namespace fuzz {

namespace {

std::string& Collected() {
    static std::string text;
    return text;
}

// The stream's own lock does the same, but the thread sanitizer does not see it.
std::mutex& CollectedLock() {
    static std::mutex lock;
    return lock;
}

// Never closed: threads of the code under test may still hold it.
FILE* Collector() {
    static FILE* const stream = [] {
        cookie_io_functions_t functions = {};
        functions.write = [](void*, char const* bytes, std::size_t count) {
            std::lock_guard const lock(CollectedLock());
            Collected().append(bytes, count);
            return static_cast<ssize_t>(count);
        };
        FILE* const opened = fopencookie(nullptr, "w", functions);
        setvbuf(opened, nullptr, _IONBF, 0);
        return opened;
    }();
    return stream;
}

}  // namespace

void Require(bool holds, char const* fact) {
    if (holds) [[likely]] { return; }
    // Past the collected standard error.
    dprintf(STDERR_FILENO, "does not hold: %s\n", fact);
    abort();
}

Messages::Messages() : standardError_(stderr) {
    std::lock_guard const lock(CollectedLock());
    Collected().clear();
    stderr = Collector();
}

Messages::~Messages() { stderr = standardError_; }

std::string const& Messages::Text() const { return Collected(); }

sutl_Descriptor MemoryFile(std::string_view content) {
    sutl_Descriptor file(memfd_create("input", MFD_CLOEXEC));
    Require(sutl_FileWrite(file.Get(), content.data(), content.size()) == static_cast<long>(content.size()) &&
                lseek(file.Get(), 0, SEEK_SET) == 0,
            "a memory file can be filled");
    return file;
}

suts_tsspec const& SchemaOf(unsigned int choice) {
    static test::Schema const schemas[] = {
        test::Schema({SUTS_STRING64, SUTS_INT32, SUTS_INT64, SUTS_FLOAT64, SUTS_STRING64}),
        test::Schema({SUTS_INT32, SUTS_STRING64}),
        test::Schema({SUTS_INT64, SUTS_FLOAT64, SUTS_INT32}),
        test::Schema({SUTS_FLOAT64, SUTS_STRING64, SUTS_STRING64}),
        test::Schema({SUTS_STRING64}),
        test::Schema({SUTS_INT32}),
    };
    return schemas[choice % std::size(schemas)];
}

std::vector<Frame> CutFrames(std::string_view stream) {
    std::vector<Frame> frames;
    while (stream.size() >= SUTL_FRAME_HEADER_BYTES) {
        std::size_t declared = 0;
        for (char const c : stream.substr(0, SUTL_FRAME_HEADER_BYTES)) {
            declared = declared << 8 | static_cast<unsigned char>(c);
        }
        if (stream.size() - SUTL_FRAME_HEADER_BYTES < declared) break;
        frames.push_back(
            {declared == 0 ? FRAME_TERMINATION : FRAME_READY, stream.substr(SUTL_FRAME_HEADER_BYTES, declared)});
        stream.remove_prefix(SUTL_FRAME_HEADER_BYTES + declared);
    }
    frames.push_back({stream.empty() ? FRAME_STREAM_ENDED : FRAME_BROKEN, stream});
    return frames;
}

}  // namespace fuzz
