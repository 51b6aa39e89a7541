// What the fuzz targets share: one simulated Mac per process, the input as
// text, and a check that stops the run with a message when a property fails.
//
// The Mac (a TestMachine) is made on first use and lives until the process
// ends; targets write their files and tool answers into it once per input,
// so an input costs a file write or two, not a fresh folder tree.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "TestMachine.h"

namespace implvm_fuzz {

// The console user of the fuzz Mac and the home folder as the Mac sees it.
inline constexpr const char* kHome = "/Users/fuzz";

// The process's Mac, with a console user (uid 501, home kHome).
implvm_test::TestMachine& Mac();

// Starts one input: empties the error log, which the module fills on every
// failure and would otherwise grow run after run.
void BeginInput();

std::string Bytes(const uint8_t* data, size_t size);

// Inputs that feed two files (a settings file and a tool's report, a .vmx
// and its log) hold both, separated by kSeparator; an input without it is
// all first part.
inline constexpr std::string_view kSeparator = "\n--8<--\n";
std::pair<std::string, std::string> SplitTwo(std::string_view input);

// Aborts (which the fuzzer reports as a crash, with the input) when a
// property of the code under test does not hold.
void Check(bool holds, const char* what);

}  // namespace implvm_fuzz
