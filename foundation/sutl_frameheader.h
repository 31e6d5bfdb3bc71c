// Frames: how a byte field travels over a connection.
//
// | offset | size | content                                                                    |
// |      0 |    4 | L, the number of message bytes, unsigned, most significant byte first      |
// |      4 |    L | the message                                                                |
//
// Frames follow each other directly. L = 0 is the termination message.
#pragma once

constexpr unsigned int SUTL_FRAME_HEADER_BYTES = 4;
