// Peak memory of the routines that read a whole file (or a tool's whole
// output), each call in a fresh process: how far the process's peak resident
// size rises during one call above its size just before, set against the size of
// the wide text the call reads (4 bytes a character). A second full copy of
// the text would show as a rise of twice that.
//
//   memory_probe                 runs every probe and prints the table
//   memory_probe --child ...     one probe (used by the above)
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "BenchKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/MachineRoot.h"
#include "MachineData.h"

using namespace implvm_bench;

namespace {

constexpr size_t kMB = 1000 * 1000;
constexpr double kTarget = 1.10;  // wide text + 10%

// The kernel's counters for this address space, from /proc/self/status:
// "VmHWM" (the peak resident size) or "VmRSS" (the current one), in bytes.
// (getrusage's ru_maxrss will not do: it keeps the peak of the process that
// started this one, from before the exec.)
long StatusBytes(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t n = std::strlen(key);
    while (std::getline(status, line)) {
        if (line.compare(0, n, key) == 0 && line.size() > n && line[n] == ':')
            return std::stol(line.substr(n + 1)) * 1024L;  // "VmHWM:   1234 kB"
    }
    return -1;
}

// Starts a fresh peak at the current resident size and returns that size.
long ResetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
    return StatusBytes("VmRSS");
}

long PeakResidentBytes() {
    return StatusBytes("VmHWM");
}

// Wide size of a UTF-8 file, counted in small pieces so that counting does
// not itself raise the peak.
long WideBytesOf(const std::string& hostPath) {
    std::ifstream in(hostPath, std::ios::binary);
    std::vector<char> buffer(1 << 16);
    long chars = 0;
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
        for (std::streamsize i = 0; i < in.gcount(); ++i)
            chars += (static_cast<unsigned char>(buffer[static_cast<size_t>(i)]) & 0xC0) != 0x80;
    }
    return chars * 4;
}

// ---- child: one call ----

int Child(const std::string& kind, const std::string& root, const std::string& subject) {
    KALDO::CMachineRoot::Set(root);
    const std::wstring wideSubject = KALDO::CStringUtils::StringToWString(subject);
    std::string readHostPath = root + subject;  // the file whose text the call holds
    int rc = -1;
    long listBytes = 0;  // the characters of the VM list an inventory returns
    long before = 0;
    long after = 0;
    if (kind == "read") {
        before = ResetPeak();
        std::wstring text;
        rc = KALDO::CFileUtils::ReadFromTextFile(wideSubject, text);
        after = PeakResidentBytes();
    } else if (kind == "fusion-vmx") {
        using Reader = int(const std::wstring&, KALDO::typeProperty*, int);
        auto* reader = ModuleFunction<Reader>("VirtualMachineImpl_VmWareFusion1_GetInfoForVm");
        if (reader == nullptr) return 2;
        readHostPath = root + kFusionLog;
        before = ResetPeak();
        KALDO::typeProperty description;
        rc = reader(wideSubject, &description, 5);
        after = PeakResidentBytes();
    } else if (kind == "vbox-info") {
        using Reader = int(const std::wstring&, KALDO::typeProperty*);
        auto* reader = ModuleFunction<Reader>("VirtualMachineImpl_VirtualBox2_GetInfoForVm");
        if (reader == nullptr) return 2;
        readHostPath = root + kVBoxManage + ".out";
        before = ResetPeak();
        KALDO::typeProperty description;
        rc = reader(wideSubject, &description);
        after = PeakResidentBytes();
    } else {  // an inventory method; subject is the file it reads
        const Inventory* inv = nullptr;
        for (const Inventory& candidate : Inventories())
            if (kind == candidate.name) inv = &candidate;
        auto* method = inv ? ModuleFunction<ImplVmMethod>(inv->method) : nullptr;
        if (method == nullptr) return 2;
        const KALDO::CSoftwareVersion version{std::string(inv->version)};
        before = ResetPeak();
        KALDO::typeProperty inputs;
        KALDO::typeProperty outputs;
        rc = method(0, 0, 0, &version, &inputs, &outputs);
        after = PeakResidentBytes();
        std::vector<KALDO::typeProperty> vms;
        outputs.getMapVal(L"VMs", vms);
        for (const KALDO::typeProperty& vm : vms) {
            std::wstring path;
            vm.getString(path);
            listBytes += static_cast<long>((path.size() + 1) * sizeof(wchar_t));
        }
    }
    if (rc != 0) return 3;
    std::printf("%ld %ld %ld\n", after - before, WideBytesOf(readHostPath), listBytes);
    return 0;
}

// ---- parent: every probe ----

struct Probe {
    std::string figure;
    std::string kind;
    std::string root;
    std::string subject;
    bool hasTarget;
};

std::string SelfPath() {
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

std::string Megabytes(long bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

int Parent() {
    const ScratchDir scratch("memory");
    std::vector<Probe> probes;
    for (const auto& [name, share] : {std::pair{"ascii", 0.0}, std::pair{"mb5pct", 0.05}}) {
        for (size_t mb : {20, 200}) {
            const std::string file =
                scratch.path() + "/" + name + "-" + std::to_string(mb) + ".log";
            WriteFile(file, LogText(mb * kMB, share));
            probes.push_back(
                {"ReadFromTextFile " + std::string(name) + " " + std::to_string(mb) + " MB", "read",
                 "", file, true});
        }
    }
    probes.push_back({".vmx reader, running Fusion 5 VM, 100 MB vmware.log", "fusion-vmx",
                      FusionVmRoot(scratch.path(), 100), kFusionVmx, true});
    for (const Inventory& inv : Inventories()) {
        probes.push_back({std::string(inv.name) + " inventory, 100,000 entries", inv.name,
                          InventoryRoot(scratch.path(), inv, 100000), inv.file, false});
    }
    probes.push_back({"VirtualBox reader, 10 MB showvminfo report (tool output)", "vbox-info",
                      VirtualBoxVmRoot(scratch.path(), 10), kVBoxSettings, false});

    KALDO::CMachineRoot::Set("");
    const std::wstring self = KALDO::CStringUtils::StringToWString(SelfPath());
    int missed = 0;
    std::cout << "Peak resident growth of one call (fresh process each) against the wide text "
                 "it reads:\n";
    for (const Probe& p : probes) {
        std::vector<std::wstring> args = {L"--child"};
        for (const std::string& a : {p.kind, p.root, p.subject})
            args.push_back(KALDO::CStringUtils::StringToWString(a));
        int exitCode = -1;
        std::wstring out;
        long growth = 0;
        long wide = 0;
        long list = 0;
        if (KALDO::CProcessUtils::ExecuteSafeToText(self, args, exitCode, &out, nullptr, nullptr) !=
                0 ||
            exitCode != 0 ||
            std::sscanf(KALDO::CStringUtils::WStringToString(out).c_str(), "%ld %ld %ld", &growth,
                        &wide, &list) != 3 ||
            wide <= 0) {
            std::cout << "  " << p.figure << ": the probe failed (exit " << exitCode << ")\n";
            ++missed;
            continue;
        }
        const double ratio = static_cast<double>(growth) / static_cast<double>(wide);
        const bool met = ratio <= kTarget;
        if (p.hasTarget && !met) ++missed;
        std::cout << "  " << p.figure << "\n      peak rise " << Megabytes(growth)
                  << "  vs  wide text " << Megabytes(wide)
                  << (list > 0 ? " (the VM list it returns holds " + Megabytes(list) + ")"
                               : std::string())
                  << "\n      ratio " << ratio << "   target " << (p.hasTarget ? "<= 1.10x" : "-")
                  << "   " << (p.hasTarget ? (met ? "ok" : "MISSED") : "") << "\n";
        const std::string rise = Megabytes(growth);
        AppendSummaryLine("peak memory: " + p.figure, rise, Megabytes(wide), ratio,
                          p.hasTarget ? "peak <= 1.10x wide text" : "-", met, p.hasTarget);
    }
    return missed;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "--child") == 0) return Child(argv[2], argv[3], argv[4]);
    return Parent() == 0 ? 0 : 3;
}
