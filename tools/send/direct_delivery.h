// Frames straight to the server.
#pragma once

#include "brindle_connection.h"
#include "delivery.h"
#include "server_link.h"

// The first frame makes the connection; what is lost with it is lost. One thread.
class DirectDelivery : public Delivery {
 public:
    explicit DirectDelivery(ServerLink link) : link_(std::move(link)) {}

    [[nodiscard]] ExitCode Deliver(brindle_Message& frame, unsigned long records,
                                   std::string_view inputPosition) override;
    [[nodiscard]] ExitCode Idle() override;
    [[nodiscard]] ExitCode Finish() override;
    [[nodiscard]] long TakeNumber() override { return ++numbersTaken_; }
    void ReturnNumber() override { --numbersTaken_; }
    [[nodiscard]] bool IsConnected() const override { return connection_.IsOpen(); }

 private:
    [[nodiscard]] ExitCode FailToSend(brindle_Result result) const;

    ServerLink const link_;
    brindle_Connection connection_;
    unsigned long recordsSent_ = 0;
    long numbersTaken_ = 0;
};
