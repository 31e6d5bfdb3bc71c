// Keeps two supervisors, or a supervisor and another one's server, from the same state.
#pragma once

#include <string>

#include "sutl_descriptor.h"

// A lock on the file `lock` of a state directory. It belongs to the open file: it is held as long as any process has
// the descriptor or a copy of it, however the others end. Descriptor() is inherited by whatever this process executes
// (it is opened without O_CLOEXEC): the server needs no more than not to close it, and every other child must close it.
class StateLock {
 public:
    // The state directory, made when it is missing. False: Error() tells who holds it, as far as this user may know. A
    // server whose supervisor was killed may hold it for a moment longer, so it is worth trying again for a second.
    [[nodiscard]] bool Take(std::string const& directory);
    [[nodiscard]] bool IsTaken() const { return isTaken_; }  // by somebody else, when it was last tried
    [[nodiscard]] int Descriptor() const { return file_.Get(); }
    [[nodiscard]] std::string const& Error() const { return error_; }

 private:
    sutl_Descriptor file_;
    std::string error_;
    bool isTaken_ = false;
};
