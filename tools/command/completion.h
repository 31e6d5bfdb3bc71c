// Completion for shells, from the tree of options itself.
#pragma once

#include <memory>

#include "command.h"

// The command that prints the script of a shell. It walks the options of the program that it was declared in, so it
// must be declared like any other and knows all that are there when it runs.
std::unique_ptr<Command> MakeCompletionCommand();
