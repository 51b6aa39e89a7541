// implvm inventory end to end, on copies of the simulated Mac.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "TestMachine.h"

using implvm_test::Json;
using implvm_test::TestMachine;

namespace {

implvm_test::ProcessResult Inventory(const TestMachine& mac, bool json) {
    std::vector<std::string> argv = {IMPLVM_BIN, "--root", mac.root(), "inventory"};
    if (json) argv.push_back("--json");
    return implvm_test::RunProcess(argv, {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}});
}

// Error records as {code, source file name}, each once: where a module
// records a failure, and how often on its way out, is the module's affair.
void NormaliseErrors(Json& node) {
    if (node.is_object() && node.contains("errors") && node["errors"].is_array()) {
        std::set<std::pair<int, std::string>> seen;
        Json records = Json::array();
        for (const Json& r : node["errors"]) {
            std::string file = r["file"].get<std::string>();
            file = file.substr(file.find_last_of('/') + 1);
            if (seen.emplace(r["code"].get<int>(), file).second)
                records.push_back({{"code", r["code"]}, {"file", file}});
        }
        node["errors"] = records;
    }
    if (node.is_structured())
        for (Json& child : node) NormaliseErrors(child);
}

Json Call(const std::string& method, int result, Json outputs, Json errors = Json::array()) {
    return {{"method", method}, {"result", result}, {"outputs", outputs}, {"errors", errors}};
}

Json Failure(const std::string& method, const char* file) {
    return Call(method, -1, nullptr, Json::array({{{"code", -1}, {"file", file}}}));
}

struct Hv {
    const char* key;
    const char* name;
    const char* bundleId;
    const char* version;
    const char* app;
    int oldestServed;
    const char* prefix;  // of the method names
    const char* enumerate;
};

// clang-format off
const Hv kParallels = {"parallels", "Parallels Desktop", "com.parallels.desktop.console", "18.3.2",
                       "/Applications/Parallels Desktop.app", 4, "VirtualMachineImpl_Parallels4_",
                       "VirtualMachineImpl_Parallels4_EnumerateVMs"};
const Hv kFusion = {"vmware", "VMware Fusion", "com.vmware.fusion", "13.5.0",
                    "/Applications/VMware Fusion.app", 1, "VirtualMachineImpl_VmWareFusion1_",
                    "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs"};
const Hv kVirtualBox = {"virtualbox", "VirtualBox", "org.virtualbox.app.VirtualBox", "7.0.14",
                        "/Applications/VirtualBox.app", 2, "VirtualMachineImpl_VirtualBox2_",
                        "VirtualMachineImpl_VirtualBox2_EnumerateVMs"};
// clang-format on

Json Net(const char* name, int type, int connected) {
    Json adapter = {{"Name", name}};
    if (type >= 0) adapter["Type"] = type;
    adapter["IsConnected"] = connected;
    adapter["MacAddress"] = "";
    return adapter;
}

// One described VM: identifier, name, OS type and distribution, state, adapters.
Json Vm(const Hv& hv, const std::string& id, const char* name, int osType, const char* distribution,
        int state, Json networks) {
    const std::string p = hv.prefix;
    return {{"id", id},
            {"info", Call(p + "GetVMInfo", 0,
                          {{"UserFriendlyName", name},
                           {"OS", {{"Type", osType}, {"Distribution", distribution}}},
                           {"State", state}})},
            {"network", Call(p + "GetVMNetwork", 0, {{"Networks", networks}})}};
}

Json Section(const Hv& hv, Json vms) {
    const std::string p = hv.prefix;
    Json ids = Json::array();
    for (const Json& vm : vms) ids.push_back(vm["id"]);
    return {
        {"name", hv.name},
        {"bundleId", hv.bundleId},
        {"installed", true},
        {"version", hv.version},
        {"appPath", hv.app},
        {"served", true},
        {"oldestServed", hv.oldestServed},
        {"productVersion", Call("VirtualMachineImpl_Common_GetProductVersion", 0,
                                {{"ProductVersion", hv.version}, {"AppPath", hv.app}})},
        {"methods",
         {{"enumerate", hv.enumerate}, {"info", p + "GetVMInfo"}, {"network", p + "GetVMNetwork"}}},
        {"enumeration", Call(hv.enumerate, 0, {{"VMs", ids}})},
        {"vms", vms}};
}

const std::string kPvm = "/Users/robin/Parallels/";
const std::string kVmx = "/Users/robin/Virtual Machines.localized/";
const std::string kVbox = "/Users/robin/VirtualBox VMs/";

// The simulated Mac as its README describes it.
Json DemoMacInventory() {
    const Json nat = Net("Network", 1, 1);
    Json parallels =
        Section(kParallels, {Vm(kParallels, kPvm + "Windows XP.pvm", "Windows XP", 3, "Windows XP",
                                1, {Net("Network Adapter 1", 1, 1)}),
                             Vm(kParallels, kPvm + "Windows Server 2008.pvm", "Windows Server 2008",
                                3, "Windows Server 2008", 2,
                                {Net("Network Adapter 1", 2, 1), Net("Network Adapter 2", 3, 0)}),
                             Vm(kParallels, kPvm + "Ubuntu 22.04.pvm", "Ubuntu 22.04", 1, "Linux",
                                3, {Net("Network Adapter 1", 1, 1), Net("Lab network", 2, 1)})});
    const std::string kali = kVmx + "Kali Purple.vmwarevm/Kali Purple.vmx";
    Json fusion = Section(
        kFusion, {Vm(kFusion, kVmx + "Windows 7 x64.vmwarevm/Windows 7 x64.vmx", "Windows 7 x64", 3,
                     "Windows 7", 1, {nat}),
                  Vm(kFusion, kVmx + "Ubuntu 64-bit.vmwarevm/Ubuntu 64-bit.vmx", "Ubuntu 64-bit", 1,
                     "Ubuntu Linux", 2, {Net("Network", 2, 1), Net("Network 2", 3, 0)}),
                  Vm(kFusion, kVmx + "macOS 10.15.vmwarevm/macOS 10.15.vmx", "macOS 10.15", 2,
                     "Mac OS X", 3, {nat}),
                  Vm(kFusion, kVmx + "Debian 11.vmwarevm/Debian 11.vmx", "Debian 11", 1, "Debian",
                     2, {Net("Network 2", 1, 1)}),
                  {{"id", kali},
                   {"info", Failure("VirtualMachineImpl_VmWareFusion1_GetVMInfo",
                                    "ImplVirtualMachine_VmWare.cpp")},
                   {"network", Failure("VirtualMachineImpl_VmWareFusion1_GetVMNetwork",
                                       "ImplVirtualMachine_VmWare.cpp")}}});
    Json virtualBox = Section(
        kVirtualBox, {Vm(kVirtualBox, kVbox + "Ubuntu 22.04 Server/Ubuntu 22.04 Server.vbox",
                         "Ubuntu 22.04 Server", 1, "Ubuntu (64-bit)", 1,
                         {Net("Adapter 1", 1, 1), Net("Adapter 2", 3, 1)}),
                      Vm(kVirtualBox, kVbox + "Windows 10/Windows 10.vbox", "Windows 10", 3,
                         "Windows 10 (64-bit)", 2, {Net("Adapter 1", 2, 1)}),
                      Vm(kVirtualBox, kVbox + "Debian 12/Debian 12.vbox", "Debian 12", 1,
                         "Debian (64-bit)", 3, {Net("Adapter 1", 1, 1), Net("Adapter 3", 0, 0)}),
                      Vm(kVirtualBox, kVbox + "Fedora 39/Fedora 39.vbox", "Fedora 39", 0,
                         "Fedora (64-bit)", 2, {Net("Adapter 1", 1, 1)})});
    return {
        {"hypervisors", {{"parallels", parallels}, {"vmware", fusion}, {"virtualbox", virtualBox}}},
        {"host",
         {{"hardware",
           Call("VirtualMachineImpl_Common_IsMachineVirtual", 0, {{"IsMachineVirtual", 0}})},
          // No adapter matched a vendor: recorded, and still answered 0.
          {"network", Call("ImplVm_Common_IsMachineVirtual", 0, {{"IsMachineVirtual", 0}},
                           {{{"code", -1}, {"file", "ImplVm_Common.cpp"}}})}}}};
}

// A product whose application cannot be found: the module's own answer, no
// methods, nothing listed.
Json NotInstalled(const Hv& hv, const char* because) {
    return {{"name", hv.name},
            {"bundleId", hv.bundleId},
            {"installed", false},
            {"version", nullptr},
            {"appPath", nullptr},
            {"served", false},
            {"oldestServed", hv.oldestServed},
            {"productVersion", Call("VirtualMachineImpl_Common_GetProductVersion", -2, nullptr,
                                    {{{"code", -2}, {"file", because}}})},
            {"methods", {{"enumerate", nullptr}, {"info", nullptr}, {"network", nullptr}}},
            {"enumeration", nullptr},
            {"vms", Json::array()}};
}

struct InventoryCase {
    const char* name;
    std::function<void(TestMachine&)> change;  // to the copy of the simulated Mac
    std::function<void(Json&)> expect;         // to the simulated Mac's inventory
    std::vector<std::string> lines;            // the human form holds each of these
};

class ImplvmInventory : public testing::TestWithParam<InventoryCase> {};

TEST_P(ImplvmInventory, DescribesEveryVmOfEveryInstalledHypervisor) {
    const InventoryCase& c = GetParam();
    TestMachine mac;
    mac.copyDemoMac();
    if (c.change) c.change(mac);
    Json expected = DemoMacInventory();
    if (c.expect) c.expect(expected);

    const auto json = Inventory(mac, true);
    EXPECT_EQ(json.exitCode, 0);
    EXPECT_EQ(json.err, "");  // no progress line: standard error is not a terminal
    Json document = Json::parse(json.out);
    NormaliseErrors(document);
    for (const char* key : {"parallels", "vmware", "virtualbox"})
        EXPECT_EQ(document["hypervisors"][key], expected["hypervisors"][key]) << key;
    EXPECT_EQ(document, expected);

    const auto human = Inventory(mac, false);
    EXPECT_EQ(human.exitCode, 0);
    for (const std::string& line : c.lines)
        EXPECT_NE(human.out.find(line), std::string::npos) << line << "\nin\n" << human.out;
}

const std::string kNotVirtual =
    "This Mac\n  by its hardware profile:   not a virtual machine\n"
    "  by its network addresses:  not a virtual machine\n";

INSTANTIATE_TEST_SUITE_P(
    SimulatedMac, ImplvmInventory,
    testing::Values(
        InventoryCase{"AsBundled",
                      nullptr,
                      nullptr,
                      {"Parallels Desktop 18.3.2  /Applications/Parallels Desktop.app\n",
                       "  Windows XP           Windows XP           running           NAT  ",
                       "  Kali Purple    failed: GetVMInfo answered -1 (-1 at "
                       "ImplVirtualMachine_VmWare.cpp:",
                       "  Debian 12            Debian (64-bit)      stopped           NAT, other "
                       "(disconnected)  /Users/robin/VirtualBox VMs/Debian 12/Debian 12.vbox\n",
                       kNotVirtual}},
        InventoryCase{"ParallelsAndFusionNotInstalled",
                      [](TestMachine& mac) {
                          mac.remove(kParallels.app);
                          mac.remove(kFusion.app);
                      },
                      [](Json& doc) {
                          doc["hypervisors"]["parallels"] =
                              NotInstalled(kParallels, "ImplVirtualMachine_Common.cpp");
                          doc["hypervisors"]["vmware"] =
                              NotInstalled(kFusion, "ImplVirtualMachine_Common.cpp");
                      },
                      {"Parallels Desktop: not installed",
                       "\nVMware Fusion: not installed (no application with bundle identifier "
                       "com.vmware.fusion)\n\nVirtualBox 7.0.14",
                       kNotVirtual}},
        InventoryCase{
            "ParallelsTooOld",
            [](TestMachine& mac) {
                mac.installApp(kParallels.app, kParallels.bundleId, "3.0.5584");
            },
            [](Json& doc) {
                Json& s = doc["hypervisors"]["parallels"];
                s["version"] = "3.0.5584";
                s["served"] = false;
                s["productVersion"]["outputs"]["ProductVersion"] = "3.0.5584";
                s["methods"] = {{"enumerate", nullptr}, {"info", nullptr}, {"network", nullptr}};
                s["enumeration"] = nullptr;
                s["vms"] = Json::array();
            },
            {"Parallels Desktop 3.0.5584  /Applications/Parallels Desktop.app\n"
             "  the module serves Parallels Desktop 4 and later only\n"}},
        // A second broken VM, of another hypervisor: only its own row changes.
        InventoryCase{"ParallelsConfigurationGone",
                      [](TestMachine& mac) { mac.remove(kPvm + "Ubuntu 22.04.pvm/config.pvs"); },
                      [](Json& doc) {
                          Json& vm = doc["hypervisors"]["parallels"]["vms"][2];
                          vm["info"] = Failure("VirtualMachineImpl_Parallels4_GetVMInfo",
                                               "ImplVirtualMachine_Parallels.cpp");
                          vm["network"] = Failure("VirtualMachineImpl_Parallels4_GetVMNetwork",
                                                  "ImplVirtualMachine_Parallels.cpp");
                      },
                      {"  Ubuntu 22.04         failed: GetVMInfo answered -1 (-1 at "
                       "ImplVirtualMachine_Parallels.cpp:"}}),
    [](const testing::TestParamInfo<InventoryCase>& p) { return std::string(p.param.name); });

}  // namespace
