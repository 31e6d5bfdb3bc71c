// The request port: a client's frames against a small index that stands still.
#include "brindle_message.h"
#include "fuzz.h"
#include "sutl_tcpsockserver.h"
#include "uts_stager.h"
#include "uts_stgqueries.h"

using fuzz::Require;

// Known to the builds that look for leaks.
extern "C" {
void __lsan_disable() __attribute__((weak));
void __lsan_enable() __attribute__((weak));
}

namespace {

constexpr std::size_t STREAM_BYTES_MAX = 4096;  // so that all replies fit into the connection's buffer
constexpr long SMALL_REPLY_BYTES = 100;         // fewer than the records of a key take
constexpr long SECOND_US = 1000000;
constexpr long WINDOW_US = 20 * SECOND_US;  // and a bucket 5 s
constexpr int RECORDS = 25;                 // one a second, so that five buckets hold them
constexpr long FIRST_SECOND = 100;

sutl_Descriptor nextRequests;  // the connections of the next client
sutl_Descriptor nextReplies;

// A stopped stager's index keeps what was staged, and no thread changes it any more.
struct Staged {
    explicit Staged(suts_tsspec const& schema) : spec(schema) {
        fuzz::Messages const messages;
        test::Directory const directory;
        stager.emplace(directory.Path(), nullptr, spec, WINDOW_US, 0, "127.0.0.1", 1, 1, nullptr, stop);
        for (int i = 0; i < RECORDS; ++i) {
            test::Record record = {(FIRST_SECOND + i) * SECOND_US};
            for (int field = 0; field < spec.fieldCount; ++field) {
                std::string const stored = Stored(spec.Type(field), field == 0 ? i % 4 : i);
                (field == 0 ? record.key : record.value) += stored;
                (field == 0 ? record.wireKey : record.wireValue) += test::Wire(spec.Type(field), stored);
            }
            stager->AddRecord(record.time, test::OwnedField(record.key), test::OwnedField(record.value));
            records.push_back(record);
        }
        stager->Terminate();
    }

    static std::string Stored(suts_FieldType type, int choice) {
        static char const* const texts[] = {"", "a", "key", "a key beyond twelve bytes"};
        if (type == SUTS_STRING64) return std::string(texts[choice % 4]) + '\0';
        return type == SUTS_INT32 ? test::Host(choice) : test::Host(static_cast<long>(choice));
    }

    suts_tsspec const& spec;
    std::vector<test::Record> records;  // in order of time
    std::atomic<bool> const stop = false;
    std::optional<suts_Stager> stager;
};

Staged& StagedOf(unsigned int choice) {
    static std::map<suts_tsspec const*, std::unique_ptr<Staged>> all;
    suts_tsspec const& spec = fuzz::SchemaOf(choice);
    auto& staged = all[&spec];
    if (staged == nullptr) staged = std::make_unique<Staged>(spec);
    return *staged;
}

struct Answer {
    bool fatal = false;
    std::string frame;  // none: not answered
};

// What the server must do with a request.
Answer AnswerTo(std::string_view body, Staged const& staged) {
    brindle_MessageReader request({reinterpret_cast<unsigned char const*>(body.data()), body.size()});
    unsigned int type = 0;
    unsigned int textBytes = 0;
    unsigned long from = 0;
    unsigned long to = 0;
    if (!request.Take4Byte(type) || type != SUTS_QUERY_RANGE) return {};
    if (!request.Take8Byte(from) || !request.Take8Byte(to)) return {};
    suts_FieldType const keyType = staged.spec.Type(0);
    std::size_t keyBytes = keyType == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
    if (keyType == SUTS_STRING64) {
        if (!request.Take4Byte(textBytes)) return {};
        keyBytes = textBytes;
    }
    if (keyBytes > request.BytesLeft()) return {};
    if (keyBytes < request.BytesLeft()) return {true, {}};
    std::string key(body.substr(body.size() - keyBytes));
    if (keyType == SUTS_STRING64 && !key.ends_with('\0')) key += '\0';
    if (keyType != SUTS_STRING64) std::reverse(key.begin(), key.end());
    std::string reply;
    for (auto record = staged.records.rbegin(); record != staged.records.rend(); ++record) {
        auto const time = static_cast<unsigned long>(record->time);
        if (record->key == key && from <= time && time <= to) reply += record->InFrame();
    }
    return {false, test::Net(static_cast<unsigned int>(reply.size())) + reply};
}

}  // namespace

// In place of the foundation's listening sockets: one client is there already, and no other comes.
void sutl_TCPSockServer::Listen(unsigned short /*firstPort*/, unsigned short /*secondPort*/) {}
void sutl_TCPSockServer::ClosePort() {}
void sutl_TCPSockServer::StopListening() const {}
bool sutl_TCPSockServer::AcceptPair(std::atomic<bool> const* /*muted*/) {
    firstConnection_ = std::move(nextRequests);
    secondConnection_ = std::move(nextReplies);
    return firstConnection_.IsOpen();
}
void sutl_TCPSockServer::CloseConnections() {
    firstConnection_.Close();
    secondConnection_.Close();
}

int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    fuzz::Input input(data, size);
    unsigned int const choice = input.Byte();
    Staged& staged = StagedOf(choice);
    long const replyBytesMax = (choice & 0x80) != 0 ? SMALL_REPLY_BYTES : SUTS_MESSAGE_BYTES_MAX;
    std::string_view const stream = input.Rest().substr(0, STREAM_BYTES_MAX);
    std::string expected;
    bool expectedFatal = false;
    for (fuzz::Frame const& frame : fuzz::CutFrames(stream)) {
        if (frame.result != FRAME_READY) continue;
        Answer const answer = AnswerTo(frame.body, staged);
        if (answer.frame.size() > static_cast<std::size_t>(SUTL_FRAME_HEADER_BYTES + replyBytesMax)) break;  // refused
        expected += answer.frame;
        expectedFatal = answer.fatal;
        if (expectedFatal) break;
    }

    auto [server, client] = test::SocketPair(SOCK_STREAM);
    nextReplies = std::move(server);
    nextRequests = fuzz::MemoryFile(stream);
    bool fatal = false;
    // A request that ends the process takes its key along.
    if (expectedFatal && __lsan_disable != nullptr) __lsan_disable();
    {
        fuzz::Messages const messages;
        suts_StgQueryService service(&*staged.stager, staged.spec, replyBytesMax);
        try {
            service.Run();
        } catch (fuzz::Assertion const& assertion) {
            fatal = assertion.message == " WARNING: Excess data in query !\n";
        }
    }
    if (expectedFatal && __lsan_enable != nullptr) __lsan_enable();
    Require(fatal == expectedFatal, "bytes behind a request end the server, and nothing else does");
    Require(test::ReadToEnd(client.Get()) == expected, "every request is answered to the byte, or not at all");
    return 0;
}
