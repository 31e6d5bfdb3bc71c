#include "new_rows.h"

#include <algorithm>

namespace {

constexpr int KEPT_REPLIES = 60;  // for which gone records are remembered behind what may be a start

}  // namespace

void NewRows::LeaveIn(QueryReply& reply) {
    long const newestUs = reply.Rows().empty() ? -1 : reply.Rows().back().timeUs;
    if (newestUs < newestUs_) {
        keptReplies_ = KEPT_REPLIES;
    } else if (keptReplies_ > 0) {
        --keptReplies_;
    }
    newestUs_ = newestUs;
    Counts now;
    reply.KeepIf([&](QueryReply::Row const& row) {
        std::span<unsigned char const> const bytes = reply.Bytes(row);
        KeyHash const hash = KeyHash::Of({reinterpret_cast<char const*>(bytes.data()), bytes.size()});
        auto const known = before_.find(hash);
        return ++now[hash] > (known == before_.end() ? 0 : known->second);
    });
    if (keptReplies_ > 0) {
        for (auto const& [hash, count] : before_) {
            unsigned long& remembered = now[hash];
            remembered = std::max(remembered, count);
        }
    }
    before_ = std::move(now);
}
