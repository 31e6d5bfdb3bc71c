// A peer on redis-server: one sorted set whose members all have the same score, so that they are sorted as bytes, by
// key, time and order of arrival.
#include <hiredis/hiredis.h>

#include <csignal>

#include "front.h"
#include "process.h"

namespace {

constexpr char const* SET = "records";
constexpr std::size_t MEMBERS_MAX = 1000;  // of a command that adds
constexpr unsigned long RANGE = 2000;      // members asked for at a time

class Redis : public bench_PeerStore {
 public:
    Redis(bench_StandIn const& link, suts_tsspec const& spec)
        : form_(spec),
          server_(
              {"redis-server", "--port", "0", "--unixsocket", link.directory + "/redis", "--dir", link.directory,
               "--appendonly", "yes", "--appendfsync", "everysec", "--save", "", "--auto-aof-rewrite-min-size", "1gb"},
              "", SIGTERM, SIGKILL) {
        server_.WaitFor([&] {
            connection_.reset(redisConnectUnix((link.directory + "/redis").c_str()));
            return connection_ && connection_->err == 0;
        });
    }

    // The replies that are waited for are those to the commit before.
    void Commit(std::span<bench_SortedRecord const> records) override {
        unsigned long const before = repliesDue_;
        for (; !records.empty(); records = records.subspan(std::min(MEMBERS_MAX, records.size()))) {
            Append(records.first(std::min(MEMBERS_MAX, records.size())));
        }
        Send();
        for (unsigned long i = 0; i < before; ++i, --repliesDue_) TakeReply();
    }

    // Asks for a range while it takes the one before.
    void Drain(bench_HandOff& handOff) override {
        for (; repliesDue_ > 0; --repliesDue_) TakeReply();
        Ask(0);
        for (unsigned long taken = 0; taken < records_; taken += RANGE) {
            Ask(taken + RANGE);
            Reply const range = TakeReply();
            for (std::size_t i = 0; i < range->elements; ++i) {
                handOff.Add(form_.Read({range->element[i]->str, range->element[i]->len}));
            }
        }
        TakeReply();
    }

    void Clear() override {
        Check(redisAppendCommand(connection_.get(), "UNLINK %s", SET));
        TakeReply();
        records_ = 0;
    }

 private:
    struct Free {
        void operator()(redisContext* connection) const { redisFree(connection); }
        void operator()(redisReply* reply) const { freeReplyObject(reply); }
    };
    using Reply = std::unique_ptr<redisReply, Free>;

    void Check(int result) const {
        if (result != REDIS_OK) bench_FailStore("redis", connection_->errstr);
    }

    Reply TakeReply() {
        void* taken = nullptr;
        Check(redisGetReply(connection_.get(), &taken));
        Reply reply(static_cast<redisReply*>(taken));
        if (reply->type == REDIS_REPLY_ERROR) bench_FailStore("redis", reply->str);
        return reply;
    }

    void Append(std::span<bench_SortedRecord const> members) {
        words_.assign({"ZADD", SET});
        sizes_.assign({strlen("ZADD"), strlen(SET)});
        for (bench_SortedRecord const& member : members) {
            words_.insert(words_.end(), {"0", member.Text().data()});
            sizes_.insert(sizes_.end(), {1, member.Text().size()});
        }
        Check(redisAppendCommandArgv(connection_.get(), static_cast<int>(words_.size()), words_.data(), sizes_.data()));
        records_ += members.size();
        ++repliesDue_;
    }

    void Ask(unsigned long first) {
        Check(redisAppendCommand(connection_.get(), "ZRANGE %s %lu %lu", SET, first, first + RANGE - 1));
        Send();
    }

    void Send() {
        for (int done = 0; done == 0;) Check(redisBufferWrite(connection_.get(), &done));
    }

    bench_RecordForm const form_;
    bench_ServerProcess server_;
    std::unique_ptr<redisContext, Free> connection_;
    std::vector<char const*> words_;  // of the command at hand
    std::vector<std::size_t> sizes_;
    unsigned long records_ = 0;     // in the set, or on the way there
    unsigned long repliesDue_ = 0;  // to commands that were committed
};

}  // namespace

int main(int argc, char** argv) { return bench_RunPeer<Redis>(argc, argv); }
