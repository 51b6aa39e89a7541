// implvm inventory end to end, on copies of the simulated Mac.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "TestMachine.h"

namespace fs = std::filesystem;
using implvm_test::Json;
using implvm_test::TestMachine;

namespace {

// Error records as {code, source file name}, each once: where a module
// records a failure, and how often on its way out, is the module's affair.
void NormaliseErrors(Json& node) {
    if (node.is_object() && node.contains("errors") && node["errors"].is_array()) {
        std::set<std::pair<int, std::string>> seen;
        Json records = Json::array();
        for (const Json& r : node["errors"]) {
            const std::string file = fs::path(r["file"].get<std::string>()).filename();
            if (seen.emplace(r["code"].get<int>(), file).second)
                records.push_back({{"code", r["code"]}, {"file", file}});
        }
        node["errors"] = records;
    }
    if (node.is_structured())
        for (Json& child : node) NormaliseErrors(child);
}

// The --json document (normalised) and the human form.
std::pair<Json, std::string> Inventory(const TestMachine& mac) {
    const auto json = implvm_test::Implvm({"--root", mac.root(), "inventory", "--json"});
    const auto human = implvm_test::Implvm({"--root", mac.root(), "inventory"});
    EXPECT_EQ(json.exitCode + human.exitCode, 0);
    EXPECT_EQ(json.err, "");  // no progress line: standard error is not a terminal
    Json doc = Json::parse(json.out);
    NormaliseErrors(doc);
    return {doc, human.out};
}

void ExpectLines(const std::string& human, const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        EXPECT_NE(human.find(line), std::string::npos) << line << "\nin\n" << human;
}

const std::string kPvm = "/Users/robin/Parallels/";
const char* const kParallelsApp = "/Applications/Parallels Desktop.app";

// The simulated Mac as its README describes it, with one Parallels VM's
// configuration gone: a broken VM of each of two hypervisors, only whose
// own rows fail.
TEST(ImplvmInventory, DescribesEveryVmOfEveryInstalledHypervisor) {
    TestMachine mac;
    mac.copyDemoMac();
    mac.remove(kPvm + "Ubuntu 22.04.pvm/config.pvs");
    const auto [doc, human] = Inventory(mac);

    Json results;  // [info, network] per VM
    for (const auto& [key, section] : doc["hypervisors"].items()) {
        EXPECT_EQ(section["served"], true);
        Json ids = Json::array();
        for (const Json& vm : section["vms"]) {
            ids.push_back(vm["id"]);
            results[key].push_back({vm["info"]["result"], vm["network"]["result"]});
        }
        EXPECT_EQ(section["enumeration"]["outputs"]["VMs"], ids);
    }
    EXPECT_EQ(results, Json::parse(R"({"parallels": [[0, 0], [0, 0], [-1, -1]],
        "vmware": [[0, 0], [0, 0], [0, 0], [0, 0], [-1, -1]],
        "virtualbox": [[0, 0], [0, 0], [0, 0], [0, 0]]})"));
    // The broken VMware VM, one VM whole and the host checks, whose network
    // check records that no adapter matched a vendor and still answers 0.
    const Json vmware = doc["hypervisors"]["vmware"];
    EXPECT_EQ(Json::array({vmware["methods"], vmware["vms"][4],
                           doc["hypervisors"]["parallels"]["vms"][1], doc["host"]}),
              Json::parse(R"([{"enumerate": "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs",
  "info": "VirtualMachineImpl_VmWareFusion1_GetVMInfo",
  "network": "VirtualMachineImpl_VmWareFusion1_GetVMNetwork"},
 {"id": "/Users/robin/Virtual Machines.localized/Kali Purple.vmwarevm/Kali Purple.vmx",
  "info": {"method": "VirtualMachineImpl_VmWareFusion1_GetVMInfo", "result": -1, "outputs": null,
           "errors": [{"code": -1, "file": "ImplVirtualMachine_VmWare.cpp"}]},
  "network": {"method": "VirtualMachineImpl_VmWareFusion1_GetVMNetwork", "result": -1,
              "outputs": null, "errors": [{"code": -1, "file": "ImplVirtualMachine_VmWare.cpp"}]}},
 {"id": "/Users/robin/Parallels/Windows Server 2008.pvm",
  "info": {"method": "VirtualMachineImpl_Parallels4_GetVMInfo", "result": 0,
           "outputs": {"UserFriendlyName": "Windows Server 2008",
                       "OS": {"Type": 3, "Distribution": "Windows Server 2008"}, "State": 2},
           "errors": []},
  "network": {"method": "VirtualMachineImpl_Parallels4_GetVMNetwork", "result": 0,
              "outputs": {"Networks": [
    {"Name": "Network Adapter 1", "Type": 2, "IsConnected": 1, "MacAddress": ""},
    {"Name": "Network Adapter 2", "Type": 3, "IsConnected": 0, "MacAddress": ""}]},
              "errors": []}},
 {"hardware": {"method": "VirtualMachineImpl_Common_IsMachineVirtual", "result": 0,
               "outputs": {"IsMachineVirtual": 0}, "errors": []},
  "network": {"method": "ImplVm_Common_IsMachineVirtual", "result": 0,
              "outputs": {"IsMachineVirtual": 0},
              "errors": [{"code": -1, "file": "ImplVm_Common.cpp"}]}}])"));

    ExpectLines(human, {"Parallels Desktop 18.3.2  /Applications/Parallels Desktop.app\n",
                        "  Windows XP           Windows XP           running           NAT  ",
                        "  Ubuntu 22.04         failed: GetVMInfo answered -1 (-1 at "
                        "ImplVirtualMachine_Parallels.cpp:",
                        "  Kali Purple    failed: GetVMInfo answered -1 (-1 at "
                        "ImplVirtualMachine_VmWare.cpp:",
                        "  Debian 12            Debian (64-bit)      stopped           NAT, other "
                        "(disconnected)  /Users/robin/VirtualBox VMs/Debian 12/Debian 12.vbox\n",
                        "This Mac\n  by its hardware profile:   not a virtual machine\n"
                        "  by its network addresses:  not a virtual machine\n"});
}

// A product the module has no methods for, and one that is not installed:
// their sections say so, list nothing, and the rest is described as before.
TEST(ImplvmInventory, ProductsTooOldOrNotInstalled) {
    TestMachine mac;
    mac.copyDemoMac();
    mac.installApp(kParallelsApp, "com.parallels.desktop.console", "3.0.5584");
    mac.remove("/Applications/VMware Fusion.app");
    const auto [doc, human] = Inventory(mac);
    const Json& old = doc["hypervisors"]["parallels"];
    EXPECT_EQ(Json::array({old["productVersion"]["outputs"], old["served"], old["methods"],
                           old["enumeration"], old["vms"]}),
              Json::parse(R"([{"ProductVersion": "3.0.5584", "AppPath":
        "/Applications/Parallels Desktop.app"}, false, {"enumerate": null, "info": null,
        "network": null}, null, []])"));
    EXPECT_EQ(doc["hypervisors"]["vmware"], Json::parse(R"({"name": "VMware Fusion",
        "bundleId": "com.vmware.fusion", "installed": false, "version": null, "appPath": null,
        "served": false, "oldestServed": 1, "productVersion": {"method":
        "VirtualMachineImpl_Common_GetProductVersion", "result": -2, "outputs": null, "errors":
        [{"code": -2, "file": "ImplVirtualMachine_Common.cpp"}]}, "methods": {"enumerate": null,
        "info": null, "network": null}, "enumeration": null, "vms": []})"));
    EXPECT_EQ(doc["hypervisors"]["virtualbox"]["vms"].size(), 4u);

    ExpectLines(human, {"Parallels Desktop 3.0.5584  /Applications/Parallels Desktop.app\n"
                        "  the module serves Parallels Desktop 4 and later only\n",
                        "\nVMware Fusion: not installed (no application with bundle identifier "
                        "com.vmware.fusion)\n\nVirtualBox 7.0.14"});
}

}  // namespace
