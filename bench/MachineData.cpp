#include "MachineData.h"

#include <cstdio>
#include <map>

#include "BenchKit.h"

namespace implvm_bench {

namespace {

constexpr size_t kMB = 1000 * 1000;
const std::string kHome = "/Users/ann";

// A machine root with a console user, made once.
std::string Root(const std::string& scratch, const std::string& name, bool& fresh) {
    static std::map<std::string, bool> made;
    const std::string root = scratch + "/" + name;
    fresh = !made[root];
    if (fresh) {
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

}  // namespace

const std::vector<Inventory>& Inventories() {
    static const std::vector<Inventory> inventories = {
        {"Fusion5", "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs", kVmInventory,
         FusionInventory, "12.2.0", 50},
        {"VirtualBox", "VirtualMachineImpl_VirtualBox2_EnumerateVMs", kVirtualBoxXml, VirtualBoxXml,
         "4.3.12", 0},
        {"Parallels", "VirtualMachineImpl_Parallels4_EnumerateVMs", kDirectoryList,
         ParallelsDirectoryList, "9.0.24251", 0},
    };
    return inventories;
}

std::string InventoryRoot(const std::string& scratch, const Inventory& inv, int entries) {
    bool fresh = false;
    const std::string root =
        Root(scratch, std::string(inv.name) + "-" + std::to_string(entries), fresh);
    if (fresh) {
        WriteFile(root + inv.file, inv.generate(entries));
        if (std::string(inv.name) == "Parallels")
            for (int n = 1; n <= entries; ++n) MakeDirs(root + ParallelsBundle(n));
    }
    return root;
}

// ---- one VM each ----

const std::string kFusionVmx = kHome + "/Virtual Machines.localized/Bench.vmwarevm/Bench.vmx";
const std::string kFusionLog = kHome + "/Virtual Machines.localized/Bench.vmwarevm/vmware.log";

namespace {

// A VM that was paused once, early, and resumed: the reader's backward search
// for the last pause walks nearly the whole log.
std::string VmwareLog(size_t bytes) {
    std::string log = LogText(kMB, 0.0);
    log += "2024-05-01T10:00:00.000Z| vmx| I005: VMAutomation_Pause: pause = TRUE\n";
    log += "2024-05-01T10:05:00.000Z| vmx| I005: VMAutomation_Pause: pause = FALSE\n";
    log += LogText(bytes - log.size(), 0.0);
    return log;
}

}  // namespace

std::string FusionVmRoot(const std::string& scratch, size_t logMB) {
    bool fresh = false;
    const std::string root = Root(scratch, "fusion-vm-" + std::to_string(logMB), fresh);
    if (fresh) {
        WriteFile(root + kFusionVmx,
                  ".encoding = \"UTF-8\"\nconfig.version = \"8\"\nvirtualHW.version = \"19\"\n"
                  "displayName = \"Bench\"\nguestOS = \"windows7-64\"\nmemsize = \"4096\"\n"
                  "ethernet0.present = \"TRUE\"\nethernet0.connectionType = \"nat\"\n"
                  "ethernet0.startConnected = \"TRUE\"\nethernet1.present = \"TRUE\"\n"
                  "ethernet1.connectionType = \"bridged\"\nethernet1.startConnected = \"FALSE\"\n");
        WriteFile(root + kFusionLog, VmwareLog(logMB * kMB));
        InstallPrintingTool(root, "/bin/ps",
                            "  PID   TT  STAT      TIME COMMAND\n    1   ??  Ss     1:00.00 "
                            "/sbin/launchd\n  812   ??  S      9:12.34 /Applications/VMware "
                            "Fusion.app/Contents/Library/vmware-vmx -s vmx.stdio.keep=TRUE -# "
                            "product=64;name=VMware Fusion; -@ duplex=3;msgs=ui " +
                                kFusionVmx + "\n");
    }
    return root;
}

const std::string kAdaptersVmx = kHome + "/Virtual Machines.localized/Wired.vmwarevm/Wired.vmx";

std::string FusionAdaptersRoot(const std::string& scratch, int adapters) {
    bool fresh = false;
    const std::string root = Root(scratch, "fusion-adapters-" + std::to_string(adapters), fresh);
    if (fresh) {
        std::string vmx =
            ".encoding = \"UTF-8\"\nconfig.version = \"8\"\ndisplayName = \"Wired\"\n"
            "guestOS = \"ubuntu-64\"\ncheckpoint.vmState = \"Wired-3c5a0b.vmss\"\n";
        const char* kinds[] = {"nat", "bridged", "hostonly", "custom"};
        for (int n = 0; n < adapters; ++n) {
            const std::string key = "ethernet" + std::to_string(n);
            vmx += key + ".present = \"" + (n % 10 == 9 ? "FALSE" : "TRUE") + "\"\n" + key +
                   ".connectionType = \"" + kinds[n % 4] + "\"\n" + key +
                   ".virtualDev = \"e1000e\"\n" + key + ".startConnected = \"" +
                   (n % 3 ? "TRUE" : "FALSE") + "\"\n" + key + ".addressType = \"generated\"\n";
        }
        WriteFile(root + kAdaptersVmx, vmx);
    }
    return root;
}

const std::string kVBoxManage = "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage";
const std::string kVBoxSettings = kHome + "/VirtualBox VMs/Bench/Bench.vbox";

namespace {

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

}  // namespace

std::string VirtualBoxVmRoot(const std::string& scratch, size_t reportMB) {
    bool fresh = false;
    const std::string root = Root(scratch, "vbox-vm-" + std::to_string(reportMB), fresh);
    if (fresh) {
        WriteFile(root + "/Applications/VirtualBox.app/Contents/Info.plist",
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
    }
    return root;
}

// ---- a whole Mac ----

namespace {

void WriteApp(const std::string& root, const std::string& bundle, const std::string& id,
              const std::string& version) {
    WriteFile(root + bundle + "/Contents/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
              "<key>CFBundleIdentifier</key><string>" +
                  id + "</string>\n<key>CFBundleShortVersionString</key><string>" + version +
                  "</string>\n</dict>\n</plist>\n");
}

std::string FusionVmx(int n) {
    return kHome + "/Virtual Machines.localized/VM " + std::to_string(n) + ".vmwarevm/VM " +
           std::to_string(n) + ".vmx";
}

std::string ParallelsConfig(int n) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ParallelsVirtualMachine "
           "schemaVersion=\"1.0\">\n   <AppVersion>18.3.2-53621</AppVersion>\n   "
           "<Identification>\n      <VmUuid>{" +
           Uuid(n) + "}</VmUuid>\n      <VmName>VM " + std::to_string(n) +
           "</VmName>\n   </Identification>\n   <Settings>\n      <General>\n         "
           "<OsType>9</OsType>\n         <OsNumber>2317</OsNumber>\n      </General>\n   "
           "</Settings>\n   <Hardware>\n      <Cpu>\n         <Number>2</Number>\n      "
           "</Cpu>\n      <Memory>\n         <RAM>4096</RAM>\n      </Memory>\n"
           "      <NetworkAdapter>\n         <Index>0</Index>\n         <Enabled>1</Enabled>\n"
           "         <Connected>1</Connected>\n         <EmulatedType>1</EmulatedType>\n"
           "         <MAC>001C4277AB10</MAC>\n         <UserFriendlyName></UserFriendlyName>\n"
           "      </NetworkAdapter>\n   </Hardware>\n</ParallelsVirtualMachine>\n";
}

}  // namespace

WholeMac WholeMacRoot(const std::string& scratch, int vms) {
    WholeMac mac;
    bool fresh = false;
    mac.root = Root(scratch, "whole-mac-" + std::to_string(vms), fresh);
    mac.fusionVms = vms - 2 * (vms / 3);
    mac.virtualBoxVms = vms / 3;
    mac.parallelsVms = vms / 3;
    if (!fresh) return mac;
    const std::string& root = mac.root;
    WriteFile(root + "/.machine", "console_user = ann\nconsole_uid = 501\nconsole_home = " + kHome +
                                      "\nnic = en0 3C:22:FB:6E:91:04\n");
    WriteApp(root, "/Applications/VMware Fusion.app", "com.vmware.fusion", "13.5.0");
    WriteApp(root, "/Applications/VirtualBox.app", "org.virtualbox.app.VirtualBox", "7.0.14");
    WriteApp(root, "/Applications/Parallels Desktop.app", "com.parallels.desktop.console",
             "18.3.2");
    InstallPrintingTool(root, "/usr/sbin/system_profiler",
                        "Hardware:\n\n    Hardware Overview:\n\n      Model Name: MacBook Pro\n"
                        "      Model Identifier: MacBookPro16,1\n");

    // Fusion: the inventory, a .vmx each, every tenth VM running with a log.
    std::string inventory = ".encoding = \"UTF-8\"\n";
    std::string listing =
        "  PID   TT  STAT      TIME COMMAND\n    1   ??  Ss     1:00.00 /sbin/launchd\n";
    for (int n = 1; n <= mac.fusionVms; ++n) {
        const std::string vmx = FusionVmx(n);
        inventory += "vmlist" + std::to_string(n) + ".config = \"" + vmx + "\"\n";
        WriteFile(root + vmx, "displayName = \"VM " + std::to_string(n) +
                                  "\"\nguestOS = \"windows9-64\"\ncheckpoint.vmState = \"\"\n"
                                  "ethernet0.present = \"TRUE\"\nethernet0.connectionType = "
                                  "\"nat\"\n");
        if (n % 10 == 0) {
            listing += " " + std::to_string(1000 + n) +
                       "   ??  S      1:00.00 /Applications/VMware Fusion.app/Contents/Library/"
                       "vmware-vmx -s vmx.stdio.keep=TRUE " +
                       vmx + "\n";
            WriteFile(root + vmx.substr(0, vmx.rfind('/')) + "/vmware.log", LogText(256 * 1024, 0));
        }
    }
    WriteFile(root + kVmInventory, inventory);
    InstallPrintingTool(root, "/bin/ps", listing);

    // VirtualBox: the registry, a settings file each, one report for all.
    WriteFile(root + kVirtualBoxXml, VirtualBoxXml(mac.virtualBoxVms));
    for (int n = 1; n <= mac.virtualBoxVms; ++n) {
        const std::string vm = "VM " + std::to_string(n);
        WriteFile(root + kHome + "/VirtualBox VMs/" + vm + "/" + vm + ".vbox",
                  "<?xml version=\"1.0\"?>\n<VirtualBox xmlns=\"http://www.virtualbox.org/\">\n"
                  "  <Machine uuid=\"{" +
                      Uuid(n) + "}\" name=\"" + vm + "\">\n  </Machine>\n</VirtualBox>\n");
    }
    InstallPrintingTool(root, kVBoxManage, ShowVmInfo(8 * 1024));

    // Parallels: the directory list and a bundle with its config.pvs each.
    WriteFile(root + kDirectoryList, ParallelsDirectoryList(mac.parallelsVms));
    for (int n = 1; n <= mac.parallelsVms; ++n)
        WriteFile(root + ParallelsBundle(n) + "/config.pvs", ParallelsConfig(n));
    return mac;
}

}  // namespace implvm_bench
