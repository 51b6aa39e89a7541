// What every method function does the same way: reading a string input,
// the code propagation rule, recording failures against the source file
// that detected them, and building the shared result shapes. Adapters use
// these; none repeats them.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "KALDO/typeProperty.h"
#include "Vocabulary.h"

namespace ImplVm {

// Records `code` (when negative) against the wide form of `file` and `line`;
// returns what the error log returns, i.e. `code`.
int Record(int code, const char* file, int line);

// kFailed recorded at file/line for an exception caught at a boundary;
// kFailed also when even the record cannot be made.
int RecordUnexpected(const char* file, int line) noexcept;

// Reads a string input with the tree's virtual string lookup; the lookup's
// own code is returned (negative when the key is missing).
int ReadInput(const KALDO::typeProperty* inputs, const wchar_t* key, std::wstring& value);

// Writes `ids` as the "VMs" vector of string values, also when empty. Each
// id is let go once the list holds its copy, so that a large inventory
// holds two copies of its list at the most (the list and the outputs' copy
// of it), not three.
void WriteVmList(KALDO::typeProperty* outputs, std::vector<std::wstring>&& ids);

// Copies `keys` from a VM description to the outputs, in order, only when
// every key is there. The first missing key is recorded (propagated) at
// file/line and its code returned; nothing is written then.
int CopyDescription(const KALDO::typeProperty& description,
                    std::initializer_list<const wchar_t*> keys, KALDO::typeProperty* outputs,
                    const char* file, int line);

// An adapter's routine that fills a VM description for a VM identifier.
using DescriptionReader = int (*)(const std::wstring& vm, KALDO::typeProperty* description);

// GetVMInfo and GetVMNetwork of an adapter whose reader needs nothing but the
// identifier: reads input "Name", describes that VM with `reader` and passes
// `keys` of the description on (CopyDescription). Failures are recorded
// (propagated) at file/line.
int DescribeToOutputs(const KALDO::typeProperty* inputs, DescriptionReader reader,
                      std::initializer_list<const wchar_t*> keys, KALDO::typeProperty* outputs,
                      const char* file, int line);

}  // namespace ImplVm

// The boundary of every exported function, as the handler of a
// function-try-block: nothing thrown inside (a failed allocation, a library's
// exception) reaches the host, which gets kFailed with a record instead.
//   int Method(...) try { ... } IMPLVM_BOUNDARY
#define IMPLVM_BOUNDARY                                        \
    catch (...) {                                              \
        return ::ImplVm::RecordUnexpected(__FILE__, __LINE__); \
    }

// Record a code as it is / after the propagation rule, at the current line.
#define IMPLVM_RECORD(code) ::ImplVm::Record((code), __FILE__, __LINE__)
#define IMPLVM_FAIL(code) ::ImplVm::Record(::ImplVm::Propagate(code), __FILE__, __LINE__)
