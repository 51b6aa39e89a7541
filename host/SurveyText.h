// The human form of a survey: the words and table rows implvm inventory,
// list and info print for what the module answered.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "TreeJson.h"

namespace implvm {

// The last path element without its extension: "Kali Purple" for
// ".../Kali Purple.vmwarevm/Kali Purple.vmx".
std::string Stem(const std::string& path);

// Why a call failed, in a few words: the tool's own last words where a tool
// failed ("VBoxManage: error: The machine 'Debian 12' is already locked by a
// session"), else its time-out, else what the code means.
std::string Reason(const Json& call);

// What a failed tool run said, or the support library's word on a tool it
// killed; "" when the call has neither.
std::string ToolSaid(const Json& call);

// The same in full: "GetVMInfo answered -1 (-1 at
// ImplVirtualMachine_VmWare.cpp:412; ...)", for -v.
std::string FullFailure(const Json& call);

const char* StateWord(int state);                // "running", "suspended/paused", "stopped"
const char* StateName(int state);                // "running", "suspended", "stopped"; "unknown"
std::string GuestText(const Json& os);           // the distribution, else the family
std::string AdaptersText(const Json& networks);  // "NAT, host-only (disconnected)"; "none"

// A table row. A cell may flow: it is never cut, never widens its column,
// and may stand over several columns (a failure text in place of a VM's
// guest, state and adapters).
struct Row {
    std::vector<std::string> cells;
    size_t flow = std::string::npos;  // the flowing cell, if any
    size_t cover = 1;                 // how many columns it stands over
};

// Columns padded to their widest cell, counted in terminal columns; cells
// escaped and cut where they would widen a column; the last cell (the VM
// identifier the commands take) never cut. Each line begins with `indent`.
void PrintTable(std::ostream& out, const std::vector<Row>& rows, const std::string& indent);

}  // namespace implvm
