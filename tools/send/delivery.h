// Where the frames of send go.
#pragma once

#include <string_view>

#include "brindle_message.h"
#include "command.h"

// Takes frames in order and brings them to the server. What goes wrong is said by the delivery itself. One thread.
class Delivery {
 public:
    Delivery() = default;
    Delivery(Delivery const&) = delete;
    Delivery& operator=(Delivery const&) = delete;
    virtual ~Delivery() = default;

    // Takes a frame of some records. The input position behind its last row is kept with it, where anything is kept:
    // text of the input's own, from which it can go on after a crash. The frame is cleared by the caller afterwards.
    // May block as long as the server does not read. DONE, or why nothing more can be delivered.
    [[nodiscard]] virtual ExitCode Deliver(brindle_Message& frame, unsigned long records,
                                           std::string_view inputPosition) = 0;

    // Called while the input has a pause, at least a few times a second; never blocks. DONE, or as above.
    [[nodiscard]] virtual ExitCode Idle() = 0;

    // Nothing more comes: waits until everything has arrived, as far as this delivery can know.
    [[nodiscard]] virtual ExitCode Finish() = 0;

    // Where the records are numbered: the number of the next record, which is used up by this call. A heartbeat has
    // the number 0.
    [[nodiscard]] virtual long TakeNumber() = 0;
    virtual void ReturnNumber() = 0;  // the number taken last, of a record that came to nothing

    [[nodiscard]] virtual bool IsConnected() const = 0;
};
