// The report of a run: one HTML page that needs neither a network nor other files, made from the
// directory of a plan's results. results.h reads the directory, block.h packs values, report.h
// writes the page, live_report.h keeps it new while the run goes on. What the page does in a
// browser is in assets/.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tools/vkmaster/report/results.h"

namespace vkmaster {

/// Whether `file` holds a report, or nothing.
bool IsReport(const std::string& file);

/// Throws UsageError when `file` holds something else than a report, which a page in its place
/// would destroy, and when it has the name of a table or of run.json, which a page would be taken
/// for.
void CheckReplaceable(const std::string& file);

/// Writes the page, replacing `file` as a whole. With `again` the page loads itself anew after that
/// time, since the run goes on. Throws UsageError when the file cannot be written, or holds
/// something else than a report.
void WriteReport(const Results& results, const std::string& file,
                 std::optional<std::chrono::seconds> again = {});

}  // namespace vkmaster
