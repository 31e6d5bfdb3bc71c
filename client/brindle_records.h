// Records and queries in the messages of the data ports and of the query ports.
#pragma once

#include <span>
#include <vector>

#include "brindle_message.h"
#include "brindle_result.h"
#include "uts_tsspec.h"

// Every schema here must hold at least one field and outlive the call. No function here blocks.

// Appends a record to a data frame. The values stand in schema order, the key first. MALFORMED, and nothing appended,
// when the server would not take the record as it is: a negative time, a wrong count or type, an int32 out of range, a
// NUL in a text, or a frame of 2^31 bytes and more.
brindle_Result brindle_AppendRecord(brindle_Message& frame, suts_tsspec const& spec, long timeUs,
                                    std::span<brindle_Value const> values);

// Takes the next record of a data frame or a query reply, which are written alike. The values are resized to the schema
// and keep their room from record to record; texts are views of the message. MALFORMED when the record is not whole;
// the message is of no further use then.
brindle_Result brindle_TakeRecord(brindle_MessageReader& message, suts_tsspec const& spec, long& timeUs,
                                  std::vector<brindle_Value>& values);

// Writes the query for the staged records of a key whose times lie in the range, both ends included. MALFORMED, and the
// message empty, when the key does not fit the schema or a time is negative. This matters: a query that does not end
// exactly with its key ends the server.
brindle_Result brindle_MakeQuery(brindle_Message& query, suts_tsspec const& spec, brindle_Value const& key, long fromUs,
                                 long toUs);
