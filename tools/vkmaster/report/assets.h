#pragma once

namespace vkmaster {

/// The files of assets/ and of third_party/uplot, which CMakeLists.txt puts into the program.
extern const char* const kReportHtml;
extern const char* const kReportCss;
extern const char* const kReportJs;
extern const char* const kUplotJs;
extern const char* const kUplotCss;
extern const char* const kUplotLicence;
extern const char* const kUplotVersion;

}  // namespace vkmaster
