// Which addresses are this machine's own.
#pragma once

#include <netinet/in.h>

[[nodiscard]] bool IsOwnAddress(in_addr host);
