# Functions that every folder's CMakeLists.txt uses, and the flags that every target gets.

include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Everything is linked into programs. Visible functions could be replaced from outside, as far as
# the compiler knows, and would not be inlined into their own neighbours.
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

# What an idle connection child takes is mostly the program's text around the functions that it has
# used. So functions are small by default, and those that nobody calls are left out; the folders that
# take large answers apart are compiled for speed.
string(REPLACE "-O3" "-O2" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")

add_library(jobmill_flags INTERFACE)
target_include_directories(jobmill_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(jobmill_flags INTERFACE -Wall -Wextra -Wconversion -Wshadow)
# g++ 12 and 13 take the inlined concatenation of a literal and a std::string for copies that
# overlap (GCC bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 14)
  target_compile_options(jobmill_flags INTERFACE -Wno-restrict)
endif()

# A daemon that runs as root and reads bytes from strangers is built hardened. Optimised builds
# only: FORTIFY needs the optimiser, and the sanitizers bring their own checks.
set(hardened $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
# g++ 12 for Windows breaks off at these; functions there probe their stack anyway.
if(NOT WIN32)
  set(hardened_linux
    $<${hardened}:-fstack-clash-protection>
    $<${hardened}:-fcf-protection=full>)
endif()
target_compile_options(jobmill_flags INTERFACE
  $<${hardened}:-U_FORTIFY_SOURCE>
  $<${hardened}:-D_FORTIFY_SOURCE=3>
  $<${hardened}:-D_GLIBCXX_ASSERTIONS>
  $<${hardened}:-fstack-protector-strong>
  ${hardened_linux}
  $<${hardened}:-ffunction-sections>)
if(WIN32)
  # Windows 10, whose console understands what moves the cursor.
  target_compile_definitions(jobmill_flags INTERFACE _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
  target_link_libraries(jobmill_flags INTERFACE $<${hardened}:ssp>)
else()
  target_link_options(jobmill_flags INTERFACE $<${hardened}:LINKER:-z,relro,-z,now>)
endif()
target_link_options(jobmill_flags INTERFACE $<${hardened}:LINKER:--gc-sections>)

# jobmill_library(NAME [SOURCE...]): the static library of one folder, as jobmill::NAME.
function(jobmill_library name)
  add_library(jobmill_${name} STATIC ${ARGN})
  add_library(jobmill::${name} ALIAS jobmill_${name})
  target_link_libraries(jobmill_${name} PUBLIC jobmill_flags)
endfunction()

# jobmill_test(NAME SOURCES source... LIBRARIES library... [TIMEOUT seconds] [LABELS label...]):
# one test program, each of its tests known to ctest by name and bounded in time.
function(jobmill_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gmock GTest::gtest_main)
  # The product is what is optimised; its tests would take half of a build's time.
  target_compile_options(${name} PRIVATE $<${hardened}:-O0> $<${hardened}:-U_FORTIFY_SOURCE>)
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
endfunction()

# jobmill_property_test(NAME ...): the same for properties that rapidcheck tries on random values.
# A program of its own: the unit tests then do not wait for its headers, and build without it.
function(jobmill_property_test name)
  if(rapidcheck_FOUND)
    jobmill_test(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE rapidcheck_gtest)
  endif()
endfunction()

if(JOBMILL_TESTS)
  include(GoogleTest)
endif()
