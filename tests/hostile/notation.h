#pragma once

#include <string>
#include <string_view>

/// The bytes that `text` writes down. A byte string is a std::string, zeros included.
///
///   07 00 ff            bytes, two hexadecimal digits each
///   'text'              characters; '' within them is one quote
///   3*(...)             what stands in the parentheses, three times
///   each(3, # #*('x'))  the same with # for the six digits of 0, 1 and 2, and that many x behind
///   it i(-1) u64(7) d(1.5) a 32-bit integer, an unsigned 64-bit one, a double text(...) a 32-bit
///   length, then the bytes: a text, or a frame of the master's link long(...)           a 64-bit
///   length, then the bytes ask(7, ...)         a frame with a request code and fields reply(7,
///   ...)       a frame with a request code, values and the acknowledgement 0 head(NAME, 3, INTE) a
///   header of the simulator's link, without its data mess(NAME)  cstr(NAME, 'a', 'b')  doub(NAME,
///   1, 2)  inte(NAME, 1)   headers with their data message(...)        a message of the
///   simulator's link in its usual chunks chunks(100, ...)    the same in chunks of 100 bytes
///   query(KIND, ...)    the message of a query, framed; set(KIND, ...) that of a setter
///
/// Blanks and line ends separate. Throws std::invalid_argument, with the place, for anything else.
std::string Notated(std::string_view text);

/// Bytes for people: text as it is, the rest as \xNN, long ones cut in the middle.
std::string Readable(std::string_view bytes);
