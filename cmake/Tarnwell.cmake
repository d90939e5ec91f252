# Shared build settings of the project's own targets.

# TARNWELL_SANITIZER_LINK is what a program linking the sanitized library
# needs too: the installed package hands it on.
if(TARNWELL_SANITIZER STREQUAL "address")
  set(TARNWELL_SANITIZER_LINK -fsanitize=address,undefined)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(${TARNWELL_SANITIZER_LINK})
elseif(TARNWELL_SANITIZER STREQUAL "thread")
  set(TARNWELL_SANITIZER_LINK -fsanitize=thread)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(${TARNWELL_SANITIZER_LINK})
elseif(NOT TARNWELL_SANITIZER STREQUAL "")
  message(FATAL_ERROR "TARNWELL_SANITIZER must be empty, \"address\" or \"thread\"")
endif()

# The code that drives the library rather than being it (tests, benchmarks):
# under AddressSanitizer it keeps its own checks but leaves the undefined
# behaviour checks to the library, the host and the C interface, which they
# exercise. Those checks cost the tests' long -O0 sources a third of their
# compile time and would find faults of the harness alone.
function(tarnwell_harness target)
  if(TARNWELL_SANITIZER STREQUAL "address")
    target_compile_options(${target} PRIVATE -fno-sanitize=undefined)
  endif()
endfunction()

# Warnings as errors, for code of this project only (third-party headers are
# included as system headers and stay out of it).
function(tarnwell_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror -Wshadow -Wswitch-enum
                                           -Wnon-virtual-dtor -Wcast-qual)
endfunction()

# Compiles resources/strings/<language>.json into the library as text.
function(tarnwell_generate_strings folder output)
  file(GLOB languages CONFIGURE_DEPENDS "${folder}/*.json")
  list(SORT languages)
  set(definitions "")
  set(entries "")
  set(index 0)
  foreach(file IN LISTS languages)
    get_filename_component(language "${file}" NAME_WE)
    # Read at configure time: an edited file must configure again.
    set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    file(READ "${file}" json)
    string(APPEND definitions "constexpr char kStrings${index}[] = R\"tarnwell_strings(${json})tarnwell_strings\";\n")
    string(APPEND entries "    {\"${language}\", kStrings${index}},\n")
    math(EXPR index "${index} + 1")
  endforeach()
  file(CONFIGURE OUTPUT "${output}" CONTENT [=[
// Generated from resources/strings by CMake. Do not edit.
#include "platform/StringResources.h"

namespace tarnwell {
namespace {
@definitions@
constexpr StringResource kResources[] = {
@entries@};
}  // namespace

std::span<const StringResource> stringResources() { return kResources; }

}  // namespace tarnwell
]=] @ONLY)
endfunction()

# Builds `target` a dozen sources at a time, each group as one unit: the
# shared headers (ICU, fmt, spdlog, JSON, CLI11) are then read once a group
# instead of once a source, which halves a clean build.
function(tarnwell_unity_build target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 12)
endfunction()

# A library of the kit: its public headers under include/ (found in the
# source tree while building and in the prefix once installed), and code that
# can also go into the shared library.
function(tarnwell_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "INCLUDE" "")
  if(NOT arg_INCLUDE)
    set(arg_INCLUDE "${PROJECT_SOURCE_DIR}/include")
  endif()
  target_include_directories(${target} PUBLIC
    "$<BUILD_INTERFACE:${arg_INCLUDE}>"
    "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  # Position-independent code would otherwise let every call between the
  # library's own functions be replaced at load time, and so keep them from
  # being inlined; nothing here is meant to be replaced.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition)
endfunction()
