#pragma once

#include <time.h>

#include <string>

/// The present local time as the C library's asctime() writes it, for example
/// "Mon Nov 16 03:54:11 2026\n". The newline belongs to the text: streamed after a label, it ends
/// the log line. The zone is the present one, also when it has changed since the last call.
std::string timestamp();

/// The same for another time. A time that has no such form, from the year 10000 on, is the newline
/// alone, and so is one that there is no memory for: never throws.
std::string timestamp(time_t now);
