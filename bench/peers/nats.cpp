// A peer on NATS JetStream: a stream with a file store per group of keys. A message holds what a commit has for a
// group. JetStream keeps the order of arrival only, so the front end sorts a group when it drains it.
#include <nats/nats.h>

#include <algorithm>
#include <csignal>
#include <vector>

#include "bytes.h"
#include "checksum.h"
#include "front.h"
#include "process.h"

namespace {

constexpr std::size_t GROUPS = 4;
constexpr std::size_t MESSAGE_BYTES = 1 << 18;  // as many, and one record, make a message before the commit
constexpr long TIMEOUT_MS = 30000;

class Nats : public bench_PeerStore {
 public:
    Nats(bench_StandIn const& link, suts_tsspec const& spec)
        : form_(spec),
          server_({"nats-server", "--jetstream", "--store_dir", bench_MakeFolder(link.directory, "nats", ""), "--addr",
                   "127.0.0.1", "--port", std::to_string(link.freePort)},
                  "", SIGTERM, SIGKILL) {
        std::string const url = "nats://127.0.0.1:" + std::to_string(link.freePort);
        server_.WaitFor([&] { return natsConnection_ConnectTo(&connection_, url.c_str()) == NATS_OK; });
        jsOptions options;
        Check(jsOptions_Init(&options));
        options.PublishAsync.ErrHandler = [](jsCtx*, jsPubAckErr* error, void*) {
            bench_FailStore("nats", error->ErrText);
        };
        Check(natsConnection_JetStream(&jetStream_, connection_, &options));
        for (std::size_t group = 0; group < GROUPS; ++group) {
            streams_[group].name = "records" + std::to_string(group);
            char const* subject = streams_[group].name.c_str();
            jsStreamConfig config;
            Check(jsStreamConfig_Init(&config));
            config.Name = subject;
            config.Subjects = &subject;
            config.SubjectsLen = 1;
            config.Storage = js_FileStorage;
            Check(js_AddStream(nullptr, jetStream_, &config, nullptr, nullptr));
        }
    }
    ~Nats() override {
        jsCtx_Destroy(jetStream_);
        natsConnection_Destroy(connection_);
        nats_Close();
    }
    Nats(Nats const&) = delete;
    Nats& operator=(Nats const&) = delete;

    void Commit(std::span<bench_SortedRecord const> records) override {
        for (bench_SortedRecord const& record : records) {
            auto const* const key = reinterpret_cast<unsigned char const*>(record.Key().data());
            Stream& stream = streams_[bench_Checksum(key, record.Key().size()) % GROUPS];
            unsigned char length[LENGTH_BYTES];
            bench_PutNumber4(length, static_cast<unsigned int>(record.Text().size()));
            stream.message.append(reinterpret_cast<char const*>(length), sizeof length);
            stream.message += record.Text();
            if (stream.message.size() >= MESSAGE_BYTES) Publish(stream);
        }
        for (Stream& stream : streams_) {
            if (!stream.message.empty()) Publish(stream);
        }
    }

    void Drain(bench_HandOff& handOff) override {
        jsPubOptions options;
        Check(jsPubOptions_Init(&options));
        options.MaxWait = TIMEOUT_MS;
        Check(js_PublishAsyncComplete(jetStream_, &options));
        for (Stream const& stream : streams_) {
            if (stream.published > 0) Drain(stream, handOff);
        }
    }

    void Clear() override {
        for (Stream& stream : streams_) {
            if (stream.published > 0) Check(js_PurgeStream(jetStream_, stream.name.c_str(), nullptr, nullptr));
            stream.published = 0;
        }
    }

 private:
    static constexpr std::size_t LENGTH_BYTES = 4;  // before each record of a message

    struct Stream {
        std::string name;             // also its subject
        std::string message;          // that is not published yet
        unsigned long published = 0;  // messages since the last Clear
    };
    struct Destroy {
        void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
        void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }
    };

    static void Check(natsStatus status) {
        if (status != NATS_OK) bench_FailStore("nats", nats_GetLastError(nullptr));
    }

    void Publish(Stream& stream) {
        auto const bytes = static_cast<int>(stream.message.size());
        Check(js_PublishAsync(jetStream_, stream.name.c_str(), stream.message.data(), bytes, nullptr));
        stream.message.clear();
        ++stream.published;
    }

    void Drain(Stream const& stream, bench_HandOff& handOff) {
        jsSubOptions options;
        Check(jsSubOptions_Init(&options));
        options.Ordered = true;
        natsSubscription* opened = nullptr;
        Check(js_SubscribeSync(&opened, jetStream_, stream.name.c_str(), nullptr, &options, nullptr));
        std::unique_ptr<natsSubscription, Destroy> const subscription(opened);
        Check(natsSubscription_SetPendingLimits(opened, -1, -1));
        std::vector<std::unique_ptr<natsMsg, Destroy>> messages;
        records_.clear();
        while (messages.size() < stream.published) {
            natsMsg* message = nullptr;
            Check(natsSubscription_NextMsg(&message, opened, TIMEOUT_MS));
            messages.emplace_back(message);
            ReadMessage({natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))});
        }
        std::sort(records_.begin(), records_.end());
        for (bench_SortedRecord const& record : records_) handOff.Add(record);
    }

    void ReadMessage(std::string_view message) {
        while (!message.empty()) {
            std::size_t const size = bench_Number4(reinterpret_cast<unsigned char const*>(message.data()));
            records_.push_back(form_.Read(message.substr(LENGTH_BYTES, size)));
            message.remove_prefix(LENGTH_BYTES + size);
        }
    }

    bench_RecordForm const form_;
    bench_ServerProcess server_;
    natsConnection* connection_ = nullptr;
    jsCtx* jetStream_ = nullptr;
    Stream streams_[GROUPS];
    std::vector<bench_SortedRecord> records_;  // of the group that is drained
};

}  // namespace

int main(int argc, char** argv) { return bench_RunPeer<Nats>(argc, argv); }
