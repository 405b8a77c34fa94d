#pragma once

#include <string>

/// The present local time as the C library's asctime() writes it, for example
/// "Mon Nov 16 03:54:11 2026\n". The newline belongs to the text: streamed after a label, it ends
/// the log line.
std::string timestamp();
