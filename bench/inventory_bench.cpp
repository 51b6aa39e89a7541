// The adapters at scale, on a generated machine root:
//  - the three inventories (Fusion 5 vmInventory, VirtualBox.xml, the
//    Parallels directory list) at 10 to 100,000 entries, which must grow
//    linearly, each beside a plain read of its file;
//  - the .vmx reader of a running Fusion 5 VM whose vmware.log is 100 MB,
//    beside the reads it cannot avoid (the log and the process listing);
//  - the VirtualBox reader over a large showvminfo report, beside the bare
//    tool run that prints it.
#include <cstdio>
#include <functional>
#include <map>

#include "BenchKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/MachineRoot.h"

using namespace implvm_bench;

namespace {

constexpr size_t kMB = 1000 * 1000;
const int kEntryCounts[] = {10, 1000, 10000, 100000};
const std::string kHome = "/Users/ann";

ScratchDir& Scratch() {
    static ScratchDir dir("inventory");
    return dir;
}

// One machine root per purpose, each with a console user.
std::string Root(const std::string& name) {
    const std::string root = Scratch().path() + "/" + name;
    static std::map<std::string, bool> made;
    if (!made[root]) {
        MakeDirs(root + kHome);
        WriteConsoleUser(root, kHome);
        made[root] = true;
    }
    return root;
}

std::string Uuid(int n) {
    char text[64];
    std::snprintf(text, sizeof text, "4f3c%04x-9a1b-4c2d-8e7f-%012x", n % 0x10000, n);
    return text;
}

// ---- inventories ----

const std::string kVmInventory = kHome + "/Library/Application Support/VMware Fusion/vmInventory";
const std::string kVirtualBoxXml = kHome + "/Library/VirtualBox/VirtualBox.xml";
const std::string kDirectoryList = "/Library/Preferences/Parallels/vmdirectorylist.desktop.xml";

// Fusion's own layout: a dozen keys per VM, and now and then a folder entry
// whose config is empty.
std::string FusionInventory(int entries) {
    std::string text = ".encoding = \"UTF-8\"\n";
    for (int n = 1; n <= entries; ++n) {
        const std::string id = "vmlist" + std::to_string(n);
        if (n % 50 == 0) {
            text += id + ".config = \"\"\n" + id + ".Type = \"2\"\n" + id +
                    ".DisplayName = \"Folder " + std::to_string(n) + "\"\n" + id +
                    ".ParentID = \"0\"\n" + id + ".ItemID = \"" + id + "\"\n";
            continue;
        }
        const std::string vm = "VM " + std::to_string(n);
        text += id + ".config = \"" + kHome + "/Virtual Machines.localized/" + vm + ".vmwarevm/" +
                vm + ".vmx\"\n";
        text += id + ".DisplayName = \"" + vm + "\"\n";
        text += id + ".ParentID = \"0\"\n" + id + ".ItemID = \"" + id + "\"\n";
        text += id + ".SeqID = \"" + std::to_string(n) + "\"\n";
        text += id + ".IsFavorite = \"TRUE\"\n" + id + ".IsClone = \"FALSE\"\n";
        text += id + ".CfgVersion = \"8\"\n" + id + ".State = \"normal\"\n";
        text += id + ".UUID = \"56 4d " + Uuid(n).substr(0, 8) + "\"\n";
        text += id + ".IsCfgPathNormalized = \"TRUE\"\n";
    }
    return text;
}

std::string VirtualBoxXml(int entries) {
    std::string text =
        "<?xml version=\"1.0\"?>\n<VirtualBox xmlns=\"http://www.virtualbox.org/\" "
        "version=\"1.12-macosx\">\n  <Global>\n    <ExtraData>\n      <ExtraDataItem "
        "name=\"GUI/LastWindowPosition\" value=\"10,10,640,480\"/>\n    </ExtraData>\n"
        "    <MachineRegistry>\n";
    for (int n = 1; n <= entries; ++n) {
        const std::string vm = "VM " + std::to_string(n);
        text += "      <MachineEntry uuid=\"{" + Uuid(n) + "}\" src=\"" + kHome +
                "/VirtualBox VMs/" + vm + "/" + vm + ".vbox\"/>\n";
    }
    text += "    </MachineRegistry>\n    <NetserviceRegistry/>\n  </Global>\n</VirtualBox>\n";
    return text;
}

std::string ParallelsBundle(int n) {
    return kHome + "/Documents/Parallels/VM " + std::to_string(n) + ".pvm";
}

std::string ParallelsDirectoryList(int entries) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ParallelsVmDirectories "
        "schemaVersion=\"1.0\">\n <VmDirectory>\n  <Uuid>{dir}</Uuid>\n";
    for (int n = 1; n <= entries; ++n) {
        text += "  <VirtualMachine>\n   <Uuid>{" + Uuid(n) +
                "}</Uuid>\n   <RegisteredBy>ann</RegisteredBy>\n   <VmHome>" + ParallelsBundle(n) +
                "/config.pvs</VmHome>\n   <VmName>VM " + std::to_string(n) +
                "</VmName>\n   <IsTemplate>0</IsTemplate>\n  </VirtualMachine>\n";
    }
    text += " </VmDirectory>\n</ParallelsVmDirectories>\n";
    return text;
}

struct Inventory {
    const char* name;
    const char* method;
    const std::string* file;  // Mac path of the file it reads
    std::function<std::string(int)> generate;
    const char* version;
};

const Inventory kInventories[] = {
    {"Fusion5", "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs", &kVmInventory, FusionInventory,
     "12.2.0"},
    {"VirtualBox", "VirtualMachineImpl_VirtualBox2_EnumerateVMs", &kVirtualBoxXml, VirtualBoxXml,
     "4.3.12"},
    {"Parallels", "VirtualMachineImpl_Parallels4_EnumerateVMs", &kDirectoryList,
     ParallelsDirectoryList, "9.0.24251"},
};

// Each inventory size lives in a root of its own, written on first use; the
// Parallels bundles exist, since the adapter looks each one up.
std::string InventoryRoot(const Inventory& inv, int entries) {
    const std::string root = Root(std::string(inv.name) + "-" + std::to_string(entries));
    static std::map<std::string, bool> written;
    if (!written[root]) {
        WriteFile(root + *inv.file, inv.generate(entries));
        if (std::string(inv.name) == "Parallels")
            for (int n = 1; n <= entries; ++n) MakeDirs(root + ParallelsBundle(n));
        written[root] = true;
    }
    return root;
}

void Enumerate(benchmark::State& state, const Inventory& inv, int entries) {
    auto* method = ModuleFunction<ImplVmMethod>(inv.method);
    if (method == nullptr) {
        state.SkipWithError("the module has no such method yet");
        return;
    }
    KALDO::CMachineRoot::Set(InventoryRoot(inv, entries));
    const KALDO::CSoftwareVersion version(std::string(inv.version));
    const int expected = entries - (std::string(inv.name) == "Fusion5" ? entries / 50 : 0);
    const KALDO::typeProperty inputs;
    {
        KALDO::typeProperty outputs;
        std::vector<KALDO::typeProperty> vms;
        if (method(0, 0, 0, &version, &inputs, &outputs) != 0 ||
            outputs.getMapVal(L"VMs", vms) < 0 || static_cast<int>(vms.size()) != expected) {
            state.SkipWithError(
                ("wrong inventory: " + std::to_string(vms.size()) + " VMs").c_str());
            return;
        }
    }
    for (auto _ : state) {
        KALDO::typeProperty outputs;
        method(0, 0, 0, &version, &inputs, &outputs);
    }
    state.counters["entries"] = entries;
    state.counters["per_entry_us"] = benchmark::Counter(
        static_cast<double>(entries) * 1e-6,
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    KALDO::CMachineRoot::Set("");
}

void ReadInventoryFile(benchmark::State& state, const Inventory& inv, int entries) {
    KALDO::CMachineRoot::Set(InventoryRoot(inv, entries));
    const std::wstring path = KALDO::CStringUtils::StringToWString(*inv.file);
    for (auto _ : state) {
        std::wstring text;
        KALDO::CFileUtils::ReadFromTextFile(path, text);
        benchmark::DoNotOptimize(text.data());
    }
    KALDO::CMachineRoot::Set("");
}

// ---- the .vmx reader of a running VM with a 100 MB log ----

const std::string kVmFolder = kHome + "/Virtual Machines.localized/Bench.vmwarevm";
const std::string kVmx = kVmFolder + "/Bench.vmx";

// A VM that was paused once, early, and resumed: the reader's backward search
// for the last pause walks nearly the whole log.
std::string VmwareLog(size_t bytes) {
    std::string log = LogText(kMB, 0.0);
    log += "2024-05-01T10:00:00.000Z| vmx| I005: VMAutomation_Pause: pause = TRUE\n";
    log += "2024-05-01T10:05:00.000Z| vmx| I005: VMAutomation_Pause: pause = FALSE\n";
    log += LogText(bytes - log.size(), 0.0);
    return log;
}

std::string FusionVmRoot() {
    const std::string root = Root("fusion-vm");
    static bool written = false;
    if (!written) {
        WriteFile(root + kVmx,
                  ".encoding = \"UTF-8\"\nconfig.version = \"8\"\nvirtualHW.version = \"19\"\n"
                  "displayName = \"Bench\"\nguestOS = \"windows7-64\"\nmemsize = \"4096\"\n"
                  "ethernet0.present = \"TRUE\"\nethernet0.connectionType = \"nat\"\n"
                  "ethernet0.startConnected = \"TRUE\"\nethernet1.present = \"TRUE\"\n"
                  "ethernet1.connectionType = \"bridged\"\nethernet1.startConnected = \"FALSE\"\n");
        WriteFile(root + kVmFolder + "/vmware.log", VmwareLog(100 * kMB));
        InstallPrintingTool(root, "/bin/ps",
                            "  PID   TT  STAT      TIME COMMAND\n    1   ??  Ss     1:00.00 "
                            "/sbin/launchd\n  812   ??  S      9:12.34 /Applications/VMware "
                            "Fusion.app/Contents/Library/vmware-vmx -s vmx.stdio.keep=TRUE -# "
                            "product=64;name=VMware Fusion; -@ duplex=3;msgs=ui " +
                                kVmx + "\n");
        written = true;
    }
    return root;
}

using FusionGetInfo = int(const std::wstring&, KALDO::typeProperty*, int);

void FusionVmxReader(benchmark::State& state) {
    auto* reader = ModuleFunction<FusionGetInfo>("VirtualMachineImpl_VmWareFusion1_GetInfoForVm");
    if (reader == nullptr) {
        state.SkipWithError("the module has no Fusion reader yet");
        return;
    }
    KALDO::CMachineRoot::Set(FusionVmRoot());
    const std::wstring vmx = KALDO::CStringUtils::StringToWString(kVmx);
    auto run = [&] {
        KALDO::typeProperty description;
        int vmState = 0;
        return reader(vmx, &description, 5) == 0 && description.getMapVal(L"State", vmState) >= 0 &&
               vmState == 1;
    };
    if (!run()) {
        state.SkipWithError("the reader did not find the VM running");
        return;
    }
    for (auto _ : state) run();
    KALDO::CMachineRoot::Set("");
}

// What the reader cannot avoid: the process listing and the whole log.
void FusionVmxReaderIo(benchmark::State& state) {
    KALDO::CMachineRoot::Set(FusionVmRoot());
    const std::wstring log = KALDO::CStringUtils::StringToWString(kVmFolder + "/vmware.log");
    for (auto _ : state) {
        std::wstring listing;
        KALDO::CProcessUtils::GetProcessListing_MAC(listing, "wwax");
        std::wstring text;
        KALDO::CFileUtils::ReadFromTextFile(log, text);
        benchmark::DoNotOptimize(text.data());
    }
    KALDO::CMachineRoot::Set("");
}

// ---- showvminfo over a large report ----

const std::string kVBoxApp = "/Applications/VirtualBox.app";
const std::string kVBoxManage = kVBoxApp + "/Contents/MacOS/VBoxManage";
const std::string kVBoxSettings = kHome + "/VirtualBox VMs/Bench/Bench.vbox";

// A machine with four adapters (the second disabled) and a long tail of
// guest properties and snapshots, as a VM that has lived for years shows.
std::string ShowVmInfo(size_t bytes) {
    std::string report =
        "Name:            Bench\nGroups:          /\nGuest OS:        Windows 10 (64-bit)\n"
        "UUID:            " +
        Uuid(7) + "\nConfig file:     " + kVBoxSettings +
        "\nMemory size:     4096MB\nState:           running (since "
        "2024-05-01T10:00:00.000000000)\n"
        "NIC 1:           MAC: 080027AABB01, Attachment: NAT, Cable connected: on, Trace: off\n"
        "NIC 1 Settings:  MTU: 0, Socket (send: 64, receive: 64), TCP Window (send:64, receive: "
        "64)\n"
        "NIC 1 Rule(0):   name = ssh, protocol = tcp, host ip = , host port = 2222\n"
        "NIC 2:           disabled\n"
        "NIC 3:           MAC: 080027AABB03, Attachment: Bridged Interface 'en0: Ethernet', Cable "
        "connected: on\n"
        "NIC 4:           MAC: 080027AABB04, Attachment: Host-only Interface 'vboxnet0', Cable "
        "connected: off\n"
        "NIC 5:           disabled\nNIC 6:           disabled\nNIC 7:           disabled\n"
        "NIC 8:           disabled\n";
    for (int n = 0; report.size() < bytes; ++n) {
        report += "Name: /VirtualBox/GuestInfo/Net/" + std::to_string(n % 8) +
                  "/V4/IP, value: 10.0.2." + std::to_string(n % 250) +
                  ", timestamp: 1714557600000000000, flags: \n";
        if (n % 16 == 0)
            report += "   Name: Snapshot " + std::to_string(n) + " (UUID: " + Uuid(n) + ")\n";
    }
    return report;
}

std::string VirtualBoxVmRoot(size_t reportMB) {
    const std::string root = Root("vbox-vm-" + std::to_string(reportMB));
    static std::map<size_t, bool> written;
    if (!written[reportMB]) {
        WriteFile(root + kVBoxApp + "/Contents/Info.plist",
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                  "<key>CFBundleIdentifier</key><string>org.virtualbox.app.VirtualBox</string>\n"
                  "<key>CFBundleShortVersionString</key><string>4.3.12</string>\n</dict>\n"
                  "</plist>\n");
        WriteFile(root + kVBoxSettings,
                  "<?xml version=\"1.0\"?>\n<VirtualBox xmlns=\"http://www.virtualbox.org/\">\n"
                  "  <Machine uuid=\"{" +
                      Uuid(7) +
                      "}\" name=\"Bench\" OSType=\"Windows10_64\">\n  </Machine>\n"
                      "</VirtualBox>\n");
        InstallPrintingTool(root, kVBoxManage, ShowVmInfo(reportMB * kMB));
        written[reportMB] = true;
    }
    return root;
}

using VBoxGetInfo = int(const std::wstring&, KALDO::typeProperty*);

void VirtualBoxReader(benchmark::State& state, size_t reportMB) {
    auto* reader = ModuleFunction<VBoxGetInfo>("VirtualMachineImpl_VirtualBox2_GetInfoForVm");
    if (reader == nullptr) {
        state.SkipWithError("the module has no VirtualBox reader yet");
        return;
    }
    KALDO::CMachineRoot::Set(VirtualBoxVmRoot(reportMB));
    const std::wstring settings = KALDO::CStringUtils::StringToWString(kVBoxSettings);
    auto run = [&] {
        KALDO::typeProperty description;
        std::vector<KALDO::typeProperty> networks;
        return reader(settings, &description) == 0 &&
               description.getMapVal(L"Networks", networks) >= 0 && networks.size() == 3;
    };
    if (!run()) {
        state.SkipWithError("the reader did not describe the machine");
        return;
    }
    for (auto _ : state) run();
    KALDO::CMachineRoot::Set("");
}

// The tool run alone, with the same report.
void VirtualBoxToolRun(benchmark::State& state, size_t reportMB) {
    KALDO::CMachineRoot::Set(VirtualBoxVmRoot(reportMB));
    const std::wstring tool = KALDO::CStringUtils::StringToWString(kVBoxManage);
    for (auto _ : state) {
        int exitCode = 0;
        std::wstring report;
        KALDO::CProcessUtils::ExecuteSafeToText(tool, {L"showvminfo", L"x"}, exitCode, &report,
                                                nullptr, nullptr);
        benchmark::DoNotOptimize(report.data());
    }
    KALDO::CMachineRoot::Set("");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Comparison> comparisons;
    for (const Inventory& inv : kInventories) {
        for (int entries : kEntryCounts) {
            const std::string size = std::to_string(entries);
            const std::string name = std::string(inv.name) + "_EnumerateVMs/" + size;
            const std::string read = std::string(inv.name) + "_ReadFile/" + size;
            benchmark::RegisterBenchmark(
                name.c_str(), [&inv, entries](benchmark::State& s) { Enumerate(s, inv, entries); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            benchmark::RegisterBenchmark(
                read.c_str(),
                [&inv, entries](benchmark::State& s) { ReadInventoryFile(s, inv, entries); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            comparisons.push_back({std::string(inv.name) + " inventory of " + size +
                                       " entries against reading its file",
                                   name, read, Goal::kInfo, 0});
        }
        comparisons.push_back({std::string(inv.name) + " inventory: 100,000 entries against 10,000",
                               std::string(inv.name) + "_EnumerateVMs/100000",
                               std::string(inv.name) + "_EnumerateVMs/10000", Goal::kCostAtMost,
                               12.0});
    }

    benchmark::RegisterBenchmark("Fusion5_GetInfoForVm/running/log100MB", FusionVmxReader)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("Fusion5_ListingAndLogRead/log100MB", FusionVmxReaderIo)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    comparisons.push_back({".vmx reader, running Fusion 5 VM, 100 MB vmware.log",
                           "Fusion5_GetInfoForVm/running/log100MB",
                           "Fusion5_ListingAndLogRead/log100MB", Goal::kInfo, 0});

    for (size_t mb : {1, 10}) {
        const std::string size = std::to_string(mb) + "MB";
        benchmark::RegisterBenchmark(("VirtualBox_GetInfoForVm/report" + size).c_str(),
                                     [mb](benchmark::State& s) { VirtualBoxReader(s, mb); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("VBoxManage_showvminfo_run/report" + size).c_str(),
                                     [mb](benchmark::State& s) { VirtualBoxToolRun(s, mb); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        comparisons.push_back({"VirtualBox reader over a " + size + " showvminfo report",
                               "VirtualBox_GetInfoForVm/report" + size,
                               "VBoxManage_showvminfo_run/report" + size, Goal::kInfo, 0});
    }
    return RunAndSummarize(argc, argv, comparisons) == 0 ? 0 : 3;
}
