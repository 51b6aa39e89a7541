// Generated Macs (machine roots, docs/machine-root.md) for the benchmarks:
// each list-shaped reader's input at any size, and a whole Mac for
// `implvm inventory`.
#pragma once

#include <string>
#include <vector>

namespace implvm_bench {

// Log-like text of about `bytes` bytes; with multiByteShare > 0 that share
// of the characters are two-, three- and four-byte UTF-8 sequences.
std::string LogText(size_t bytes, double multiByteShare);

// A reader whose input is a list: the inventories, the adapters of a .vmx,
// of a showvminfo report and of a config.pvs, vmrun's snapshot list. The
// method is called as a host calls it and must list listed(n) items.
struct ListReader {
    const char* name;     // short name, used in benchmark names
    const char* figure;   // what the summary line says
    const char* method;   // the method a host calls
    const char* version;  // the product version handed to it
    const char* vm;       // its "Name" input ("" for none)
    const wchar_t* list;  // the output that holds the list
    int skipEvery;        // every skipEvery-th entry is one the reader leaves out (0: none)
    void (*write)(const std::string& root, int n);  // a Mac whose list has n entries
    int listed(int n) const { return skipEvery ? n - n / skipEvery : n; }
};
const std::vector<ListReader>& ListReaders();

// A Mac with all three hypervisors and `vms` VMs shared among them: the
// inventories, each VM's files, and stand-ins for the tools their
// descriptions run (ps or VBoxManage twice a VM, system_profiler once), each
// waiting toolSeconds before it answers.
struct WholeMac {
    int fusionVms = 0, virtualBoxVms = 0, parallelsVms = 0;
};
WholeMac WriteWholeMac(const std::string& root, int vms, double toolSeconds);

}  // namespace implvm_bench
