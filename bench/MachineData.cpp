#include "MachineData.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "BenchKit.h"

namespace implvm_bench {

namespace {

#define HOME "/Users/ann"
constexpr const char* kFusionInventory =
    HOME "/Library/Application Support/VMware Fusion/vmInventory";
constexpr const char* kFusionPreferences = HOME "/Library/Preferences/com.vmware.fusion.plist";
constexpr const char* kVirtualBoxXml = HOME "/Library/VirtualBox/VirtualBox.xml";
constexpr const char* kDirectoryList = "/Library/Preferences/Parallels/vmdirectorylist.desktop.xml";
constexpr const char* kWiredVmx = HOME "/Virtual Machines.localized/Wired.vmwarevm/Wired.vmx";
constexpr const char* kBenchVbox = HOME "/VirtualBox VMs/Bench/Bench.vbox";
constexpr const char* kBenchPvm = HOME "/Documents/Parallels/Bench.pvm";
constexpr const char* kVmrun = "/Applications/VMware Fusion.app/Contents/Library/vmrun";
constexpr const char* kVBoxManage = "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage";

std::string Num(int n) {
    return std::to_string(n);
}

std::string Uuid(int n) {
    char text[64];
    std::snprintf(text, sizeof text, "4f3c%04x-9a1b-4c2d-8e7f-%012x", n % 0x10000, n);
    return text;
}

void WriteConsoleUser(const std::string& root) {
    WriteFile(root + "/.machine", "console_user = ann\nconsole_uid = 501\nconsole_home = " HOME
                                  "\nnic = en0 3C:22:FB:6E:91:04\n");
}

void WriteApp(const std::string& root, const std::string& name, const std::string& id,
              const std::string& version) {
    WriteFile(root + "/Applications/" + name + ".app/Contents/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
              "<key>CFBundleIdentifier</key><string>" +
                  id + "</string>\n<key>CFBundleShortVersionString</key><string>" + version +
                  "</string>\n</dict>\n</plist>\n");
}

std::string FusionVmx(int n) {
    return HOME "/Virtual Machines.localized/VM " + Num(n) + ".vmwarevm/VM " + Num(n) + ".vmx";
}

// Fusion's own layout, with keys the reader passes over; every
// folderEvery-th entry a folder, whose config is empty.
std::string FusionInventory(int n, int folderEvery) {
    std::string text = ".encoding = \"UTF-8\"\n";
    for (int k = 1; k <= n; ++k) {
        const std::string id = "vmlist" + Num(k);
        const bool folder = folderEvery && k % folderEvery == 0;
        text += id + ".config = \"" + (folder ? std::string() : FusionVmx(k)) + "\"\n" + id +
                ".DisplayName = \"VM " + Num(k) + "\"\n" + id + ".ParentID = \"0\"\n" + id +
                ".ItemID = \"" + id + "\"\n" + id + ".IsFavorite = \"TRUE\"\n" + id +
                ".UUID = \"56 4d " + Uuid(k).substr(0, 8) + "\"\n";
    }
    return text;
}

std::string VirtualBoxSettings(int n) {
    return HOME "/VirtualBox VMs/VM " + Num(n) + "/VM " + Num(n) + ".vbox";
}

std::string VirtualBoxXml(int n) {
    std::string text =
        "<?xml version=\"1.0\"?>\n<VirtualBox xmlns=\"http://www.virtualbox.org/\" "
        "version=\"1.12-macosx\">\n  <Global>\n    <MachineRegistry>\n";
    for (int k = 1; k <= n; ++k)
        text += "      <MachineEntry uuid=\"{" + Uuid(k) + "}\" src=\"" + VirtualBoxSettings(k) +
                "\"/>\n";
    return text + "    </MachineRegistry>\n  </Global>\n</VirtualBox>\n";
}

void WriteVirtualBoxSettings(const std::string& root, const std::string& path, int n) {
    WriteFile(root + path,
              "<?xml version=\"1.0\"?>\n<VirtualBox xmlns=\"http://www.virtualbox.org/\">\n"
              "  <Machine uuid=\"{" +
                  Uuid(n) + "}\" name=\"VM " + Num(n) + "\">\n  </Machine>\n</VirtualBox>\n");
}

// showvminfo of a running machine with `nics` adapters, every tenth disabled.
std::string ShowVmInfo(int nics) {
    std::string text =
        "Name:            Bench\nGuest OS:        Windows 10 (64-bit)\nUUID:            " +
        Uuid(7) + "\nState:           running (since 2024-05-01T10:00:00.000)\n";
    for (int k = 1; k <= nics; ++k) {
        const std::string key = "NIC " + Num(k) + ":";
        text += key + std::string(17 - key.size(), ' ');
        text += k % 10 == 0 ? "disabled\n"
                            : "MAC: 080027AABB01, Attachment: NAT, Cable connected: on, Trace: "
                              "off (file: none), Type: 82540EM, Reported speed: 0 Mbps\n";
    }
    return text;
}

std::string ParallelsBundle(int n) {
    return HOME "/Documents/Parallels/VM " + Num(n) + ".pvm";
}

// n VMs in `bundles` bundles, in turn.
std::string ParallelsDirectoryList(int n, int bundles) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ParallelsVmDirectories "
        "schemaVersion=\"1.0\">\n <VmDirectory>\n  <Uuid>{dir}</Uuid>\n";
    for (int k = 1; k <= n; ++k)
        text += "  <VirtualMachine>\n   <Uuid>{" + Uuid(k) +
                "}</Uuid>\n   <RegisteredBy>ann</RegisteredBy>\n   <VmHome>" +
                ParallelsBundle((k - 1) % bundles + 1) + "/config.pvs</VmHome>\n   <VmName>VM " +
                Num(k) + "</VmName>\n  </VirtualMachine>\n";
    return text + " </VmDirectory>\n</ParallelsVmDirectories>\n";
}

// A config.pvs with `adapters` adapters, every tenth disabled.
std::string ParallelsConfig(int n, int adapters) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ParallelsVirtualMachine "
        "schemaVersion=\"1.0\">\n <Identification>\n  <VmUuid>{" +
        Uuid(n) + "}</VmUuid>\n  <VmName>VM " + Num(n) +
        "</VmName>\n </Identification>\n <Settings>\n  <General>\n"
        "   <OsType>9</OsType>\n   <OsNumber>2317</OsNumber>\n  </General>\n"
        " </Settings>\n <Hardware>\n";
    for (int k = 0; k < adapters; ++k)
        text += "  <NetworkAdapter>\n   <Index>" + Num(k) + "</Index>\n   <Enabled>" +
                (k % 10 == 9 ? "0" : "1") +
                "</Enabled>\n   <Connected>1</Connected>\n   <EmulatedType>1</EmulatedType>\n"
                "   <MAC>001C4277AB10</MAC>\n   <UserFriendlyName></UserFriendlyName>\n"
                "  </NetworkAdapter>\n";
    return text + " </Hardware>\n</ParallelsVirtualMachine>\n";
}

// The reader looks each bundle up: a thousand of them, so that both sizes
// meet the same file system, not one just given 100,000 folders.
void ParallelsList(const std::string& root, int n) {
    WriteFile(root + kDirectoryList, ParallelsDirectoryList(n, 1000));
    for (int k = 1; k <= 1000; ++k) std::filesystem::create_directories(root + ParallelsBundle(k));
}

// A suspended VM (so no process listing) whose adapters have their keys in
// the order Fusion writes them, every tenth not present.
std::string VmxWithAdapters(int n) {
    std::string vmx =
        "displayName = \"Wired\"\nguestOS = \"ubuntu-64\"\n"
        "checkpoint.vmState = \"Wired-3c5a0b.vmss\"\n";
    const char* kinds[] = {"nat", "bridged", "hostonly", "custom"};
    for (int k = 0; k < n; ++k) {
        const std::string key = "ethernet" + Num(k);
        vmx += key + ".present = \"" + (k % 10 == 9 ? "FALSE" : "TRUE") + "\"\n" + key +
               ".connectionType = \"" + kinds[k % 4] + "\"\n" + key + ".virtualDev = \"e1000e\"\n" +
               key + ".startConnected = \"" + (k % 3 ? "TRUE" : "FALSE") + "\"\n";
    }
    return vmx;
}

}  // namespace

std::string LogText(size_t bytes, double multiByteShare) {
    static const char* const kWide[] = {"\xC3\xA9", "\xE2\x82\xAC", "\xE6\x97\xA5",
                                        "\xF0\x9F\x98\x80"};
    const std::string line =
        "2024-05-01T10:00:00.000Z| vmx| I005: VMAutomation: ToolsRpc channel opened, guest state "
        "connected, DISKLIB checkpoint 0x7f3a received\n";
    std::string text;
    text.reserve(bytes + 256);
    // The multi-byte characters at random places, so that no decoder can
    // learn where they fall.
    for (uint64_t k = 0, seed = 0x9E3779B97F4A7C15ULL; text.size() < bytes; ++k) {
        seed ^= seed << 13, seed ^= seed >> 7, seed ^= seed << 17;
        const char c = line[k % line.size()];
        const bool wide = c != '\n' && static_cast<double>(seed % 1000000) < multiByteShare * 1e6;
        if (wide)
            text += kWide[seed % 4];
        else
            text += c;
    }
    return text;
}

const std::vector<ListReader>& ListReaders() {
    using Root = const std::string&;
    static const std::vector<ListReader> readers = {
        {"fusion5_inventory", "VMware Fusion 5+ inventory (vmInventory)",
         "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs", "13.5.0", "", L"VMs", 50,
         [](Root root, int n) {
             WriteConsoleUser(root);
             WriteFile(root + kFusionInventory, FusionInventory(n, 50));
         }},
        {"fusion1_favourites", "VMware Fusion 1-4 inventory (preferences' favourites)",
         "VirtualMachineImpl_VmWareFusion1_EnumerateVMs", "3.1.0", "", L"VMs", 0,
         [](Root root, int n) {
             WriteConsoleUser(root);
             std::string plist =
                 "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">\n<dict>\n"
                 "<key>VMFavoritesListDefaults2</key>\n<array>\n";
             for (int k = 1; k <= n; ++k)
                 plist += "<dict><key>path</key><string>" + FusionVmx(k) + "</string></dict>\n";
             WriteFile(root + kFusionPreferences, plist + "</array>\n</dict>\n</plist>\n");
         }},
        {"virtualbox_registry", "VirtualBox inventory (VirtualBox.xml)",
         "VirtualMachineImpl_VirtualBox2_EnumerateVMs", "7.0.14", "", L"VMs", 0,
         [](Root root, int n) {
             WriteConsoleUser(root);
             WriteFile(root + kVirtualBoxXml, VirtualBoxXml(n));
         }},
        {"parallels_list", "Parallels VM list (vmdirectorylist)",
         "VirtualMachineImpl_Parallels4_EnumerateVMs", "18.3.2", "", L"VMs", 0, ParallelsList},
        {"vmx_adapters", ".vmx adapters (VMware GetVMNetwork)",
         "VirtualMachineImpl_VmWareFusion1_GetVMNetwork", "13.5.0", kWiredVmx, L"Networks", 10,
         [](Root root, int n) { WriteFile(root + kWiredVmx, VmxWithAdapters(n)); }},
        {"showvminfo_nics", "showvminfo NICs (VirtualBox GetVMNetwork)",
         "VirtualMachineImpl_VirtualBox2_GetVMNetwork", "7.0.14", kBenchVbox, L"Networks", 10,
         [](Root root, int n) {
             WriteApp(root, "VirtualBox", "org.virtualbox.app.VirtualBox", "7.0.14");
             WriteVirtualBoxSettings(root, kBenchVbox, 7);
             InstallTool(root, kVBoxManage, ShowVmInfo(n));
         }},
        {"config_pvs_adapters", "config.pvs adapters (Parallels GetVMNetwork)",
         "VirtualMachineImpl_Parallels4_GetVMNetwork", "18.3.2", kBenchPvm, L"Networks", 10,
         [](Root root, int n) {
             WriteFile(root + kBenchPvm + "/config.pvs", ParallelsConfig(1, n));
         }},
        {"vmrun_snapshots", "vmrun snapshot list (VMware ListSnapshots)",
         "VirtualMachineImpl_VmWareFusion4_ListSnapshots", "13.5.0", kWiredVmx, L"Snapshots", 0,
         [](Root root, int n) {
             std::string out = "Total snapshots: " + Num(n) + "\r\n";
             for (int k = 1; k <= n; ++k) out += "Snapshot " + Num(k) + "\r\n";
             InstallTool(root, kVmrun, out);
         }},
    };
    return readers;
}

WholeMac WriteWholeMac(const std::string& root, int vms, double toolSeconds) {
    WholeMac mac{vms - 2 * (vms / 3), vms / 3, vms / 3};
    WriteConsoleUser(root);
    WriteApp(root, "VMware Fusion", "com.vmware.fusion", "13.5.0");
    WriteApp(root, "VirtualBox", "org.virtualbox.app.VirtualBox", "7.0.14");
    WriteApp(root, "Parallels Desktop", "com.parallels.desktop.console", "18.3.2");
    InstallTool(root, "/usr/sbin/system_profiler",
                "Hardware:\n\n    Hardware Overview:\n\n      Model Name: MacBook Pro\n",
                toolSeconds);

    // Fusion: every tenth VM running, so in the process listing, with a log.
    WriteFile(root + kFusionInventory, FusionInventory(mac.fusionVms, 0));
    std::string listing =
        "  PID   TT  STAT      TIME COMMAND\n    1   ??  Ss     1:00.00 /sbin/launchd\n";
    for (int k = 1; k <= mac.fusionVms; ++k) {
        const std::string vmx = FusionVmx(k);
        WriteFile(root + vmx, "displayName = \"VM " + Num(k) +
                                  "\"\nguestOS = \"windows9-64\"\nethernet0.present = \"TRUE\"\n"
                                  "ethernet0.connectionType = \"nat\"\n");
        if (k % 10 != 0) continue;
        listing += Num(10000 + k) +
                   "   ??  S      1:00.00 /Applications/VMware Fusion.app/Contents/Library/"
                   "vmware-vmx -s vmx.stdio.keep=TRUE " +
                   vmx + "\n";
        WriteFile(root + vmx.substr(0, vmx.rfind('/')) + "/vmware.log", LogText(256 * 1024, 0));
    }
    InstallTool(root, "/bin/ps", listing, toolSeconds);

    WriteFile(root + kVirtualBoxXml, VirtualBoxXml(mac.virtualBoxVms));
    for (int k = 1; k <= mac.virtualBoxVms; ++k)
        WriteVirtualBoxSettings(root, VirtualBoxSettings(k), k);
    InstallTool(root, kVBoxManage, ShowVmInfo(4), toolSeconds);

    WriteFile(root + kDirectoryList, ParallelsDirectoryList(mac.parallelsVms, mac.parallelsVms));
    for (int k = 1; k <= mac.parallelsVms; ++k)
        WriteFile(root + ParallelsBundle(k) + "/config.pvs", ParallelsConfig(k, 1));
    return mac;
}

}  // namespace implvm_bench
