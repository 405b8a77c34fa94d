#pragma once

namespace jobmillctl::serve {

/// The files of assets/, which CMakeLists.txt puts into the program.
extern const char* const kPageHtml;
extern const char* const kPageCss;
extern const char* const kPageJs;
extern const char* const kIconSvg;

}  // namespace jobmillctl::serve
