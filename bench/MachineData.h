// Generated Macs for the benchmarks and the memory probe: machine roots with
// inventories of any size, a running Fusion 5 VM with a large vmware.log and
// a VirtualBox machine whose showvminfo report is large. Each root is written
// on first use inside the given scratch folder and reused after.
#pragma once

#include <string>
#include <vector>

namespace implvm_bench {

// ---- inventories ----

struct Inventory {
    const char* name;    // "Fusion5", "VirtualBox", "Parallels"
    const char* method;  // its EnumerateVMs method
    std::string file;    // Mac path of the file it reads
    std::string (*generate)(int entries);
    const char* version;  // product version handed to the method
    int every;            // every n-th entry is one the method skips (0: none)
    // How many VMs the method lists for `entries` entries.
    int listed(int entries) const { return every ? entries - entries / every : entries; }
};
const std::vector<Inventory>& Inventories();

// A root holding `inv`'s file with `entries` entries (and, for Parallels,
// the bundles it names, since the adapter looks each one up).
std::string InventoryRoot(const std::string& scratch, const Inventory& inv, int entries);

// ---- one VM each ----

extern const std::string kFusionVmx;  // Mac path of the running VM's .vmx
extern const std::string kFusionLog;  // its vmware.log
// A Fusion 5 VM shown running by /bin/ps, paused once early in a log of
// logMB megabytes and resumed: the search for the last pause walks nearly
// the whole log.
std::string FusionVmRoot(const std::string& scratch, size_t logMB);

extern const std::string kAdaptersVmx;  // Mac path of the many-adapter VM's .vmx
// A suspended Fusion VM whose .vmx declares `adapters` adapters (every tenth
// not present), with their keys in the order Fusion writes them.
std::string FusionAdaptersRoot(const std::string& scratch, int adapters);

extern const std::string kVBoxManage;    // Mac path of the tool
extern const std::string kVBoxSettings;  // Mac path of the machine's settings file
// A VirtualBox machine with four adapters (three enabled) whose showvminfo
// report runs to reportMB megabytes of guest properties and snapshots.
std::string VirtualBoxVmRoot(const std::string& scratch, size_t reportMB);

// ---- a whole Mac ----

struct WholeMac {
    std::string root;
    int fusionVms = 0;      // Fusion 13 VMs (every tenth running)
    int virtualBoxVms = 0;  // VirtualBox 7 machines
    int parallelsVms = 0;   // Parallels Desktop 18 VMs
};
// A Mac with all three hypervisors installed and `vms` VMs shared among
// them, for a whole `implvm inventory`: bundles with their versions, the
// three inventories, a .vmx, settings file or config.pvs per VM, the process
// listing and the tools the descriptions run (ps, VBoxManage,
// system_profiler), and a network interface.
WholeMac WholeMacRoot(const std::string& scratch, int vms);

}  // namespace implvm_bench
