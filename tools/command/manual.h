// The command "manual", hidden from --help: the build writes the manual pages with it.
#pragma once

#include <memory>

#include "command.h"

std::unique_ptr<Command> MakeManualCommand();
