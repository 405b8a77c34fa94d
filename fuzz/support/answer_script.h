#pragma once

#include <string>

#include "fuzz/support/input.h"

/// Writes the simulator's side of a conversation from the bytes of an input: whole messages of
/// well-formed headers, so that an execution gets past the decoder to what is made of its results.
///
///   byte        two bits type (MESS, DOUB, INTE, CSTR), six bits name; for all but MESS a byte
///               with the count (low four bits), then a byte per value
///   names 60 on only with MESS: 60 the bytes that follow (count, bytes) as they are, 61 all that
///               comes is repeated for ever, 62 END and the end of the message, 63 READY with its
///               END
///
/// `stream` gets the framed messages, up to some kilobytes.
void WriteAnswers(Input& input, std::string& stream);

/// One message of such headers, all of the input, without a frame.
void WriteMessage(Input& input, std::string& message);
