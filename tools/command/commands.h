// The commands of brindlectl, one source file each.
#pragma once

#include <memory>

#include "command.h"

std::unique_ptr<Command> MakeSendCommand();
std::unique_ptr<Command> MakeSchemaCommand();
std::unique_ptr<Command> MakeSinkCommand();
std::unique_ptr<Command> MakeQueryCommand();
std::unique_ptr<Command> MakeDumpCommand();
std::unique_ptr<Command> MakeCheckCommand();
std::unique_ptr<Command> MakeRepairCommand();
std::unique_ptr<Command> MakeTopCommand();
std::unique_ptr<Command> MakeBenchCommand();
std::unique_ptr<Command> MakeRunCommand();
