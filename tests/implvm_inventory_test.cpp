// implvm inventory end to end, on copies of the simulated Mac.
#include <gtest/gtest.h>

#include <set>

#include "TestMachine.h"

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

// The --json document (normalised) and the human form.
std::pair<Json, std::string> Inventory(const TestMachine& mac) {
    std::vector<std::string> argv = {IMPLVM_BIN, "--root", mac.root(), "inventory", "--json"};
    const auto env =
        std::map<std::string, std::string>{{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}};
    const auto json = implvm_test::RunProcess(argv, env);
    EXPECT_EQ(json.exitCode, 0);
    EXPECT_EQ(json.err, "");  // no progress line: standard error is not a terminal
    argv.pop_back();
    const auto human = implvm_test::RunProcess(argv, env);
    EXPECT_EQ(human.exitCode, 0);
    Json doc = Json::parse(json.out);
    NormaliseErrors(doc);
    return {doc, human.out};
}

void ExpectLines(const std::string& human, const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        EXPECT_NE(human.find(line), std::string::npos) << line << "\nin\n" << human;
}

Json Call(const std::string& method, int result, Json outputs, Json errors = Json::array()) {
    return {{"method", method}, {"result", result}, {"outputs", outputs}, {"errors", errors}};
}

Json Failure(const std::string& method, const char* file) {
    return Call(method, -1, nullptr, Json::array({{{"code", -1}, {"file", file}}}));
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

    const std::string pl = "VirtualMachineImpl_Parallels4_",
                      vf = "VirtualMachineImpl_VmWareFusion1_";
    const std::map<std::string, std::pair<size_t, size_t>> sizes = {
        {"parallels", {3, 2}}, {"vmware", {5, 4}}, {"virtualbox", {4, 99}}};  // VMs, broken one
    ASSERT_EQ(doc["hypervisors"].size(), 3u);
    for (const auto& [key, size] : sizes) {
        const Json& section = doc["hypervisors"][key];
        EXPECT_EQ(section["served"], true);
        ASSERT_EQ(section["vms"].size(), size.first) << key;
        Json ids = Json::array();
        for (size_t k = 0; k < size.first; ++k) {
            const Json& vm = section["vms"][k];
            ids.push_back(vm["id"]);
            EXPECT_EQ(vm["info"]["result"], k == size.second ? -1 : 0) << vm["id"];
            EXPECT_EQ(vm["network"]["result"], k == size.second ? -1 : 0) << vm["id"];
        }
        EXPECT_EQ(section["enumeration"]["outputs"]["VMs"], ids);
    }
    EXPECT_EQ(
        doc["hypervisors"]["vmware"]["vms"][4],
        (Json{
            {"id", "/Users/robin/Virtual Machines.localized/Kali Purple.vmwarevm/Kali Purple.vmx"},
            {"info", Failure(vf + "GetVMInfo", "ImplVirtualMachine_VmWare.cpp")},
            {"network", Failure(vf + "GetVMNetwork", "ImplVirtualMachine_VmWare.cpp")}}));
    EXPECT_EQ(doc["hypervisors"]["vmware"]["methods"],
              (Json{{"enumerate", "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs"},
                    {"info", vf + "GetVMInfo"},
                    {"network", vf + "GetVMNetwork"}}));
    // One VM whole: the inputs and outputs of its two calls.
    const auto net = [](const char* name, int type, int connected) {
        return Json{{"Name", name}, {"Type", type}, {"IsConnected", connected}, {"MacAddress", ""}};
    };
    EXPECT_EQ(doc["hypervisors"]["parallels"]["vms"][1],
              (Json{{"id", kPvm + "Windows Server 2008.pvm"},
                    {"info", Call(pl + "GetVMInfo", 0,
                                  {{"UserFriendlyName", "Windows Server 2008"},
                                   {"OS", {{"Type", 3}, {"Distribution", "Windows Server 2008"}}},
                                   {"State", 2}})},
                    {"network",
                     Call(pl + "GetVMNetwork", 0,
                          {{"Networks",
                            {net("Network Adapter 1", 2, 1), net("Network Adapter 2", 3, 0)}}})}}));
    // No adapter matched a vendor: recorded, and still answered 0.
    EXPECT_EQ(doc["host"],
              (Json{{"hardware", Call("VirtualMachineImpl_Common_IsMachineVirtual", 0,
                                      {{"IsMachineVirtual", 0}})},
                    {"network", Call("ImplVm_Common_IsMachineVirtual", 0, {{"IsMachineVirtual", 0}},
                                     {{{"code", -1}, {"file", "ImplVm_Common.cpp"}}})}}));

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
    const Json noMethods = {{"enumerate", nullptr}, {"info", nullptr}, {"network", nullptr}};

    const Json& old = doc["hypervisors"]["parallels"];
    EXPECT_EQ(old["productVersion"]["outputs"],
              (Json{{"ProductVersion", "3.0.5584"}, {"AppPath", kParallelsApp}}));
    EXPECT_EQ(old["served"], false);
    EXPECT_EQ(old["methods"], noMethods);
    EXPECT_EQ(old["enumeration"], nullptr);
    EXPECT_EQ(old["vms"], Json::array());
    EXPECT_EQ(
        doc["hypervisors"]["vmware"],
        (Json{{"name", "VMware Fusion"},
              {"bundleId", "com.vmware.fusion"},
              {"installed", false},
              {"version", nullptr},
              {"appPath", nullptr},
              {"served", false},
              {"oldestServed", 1},
              {"productVersion", Call("VirtualMachineImpl_Common_GetProductVersion", -2, nullptr,
                                      {{{"code", -2}, {"file", "ImplVirtualMachine_Common.cpp"}}})},
              {"methods", noMethods},
              {"enumeration", nullptr},
              {"vms", Json::array()}}));
    EXPECT_EQ(doc["hypervisors"]["virtualbox"]["vms"].size(), 4u);

    ExpectLines(human, {"Parallels Desktop 3.0.5584  /Applications/Parallels Desktop.app\n"
                        "  the module serves Parallels Desktop 4 and later only\n",
                        "\nVMware Fusion: not installed (no application with bundle identifier "
                        "com.vmware.fusion)\n\nVirtualBox 7.0.14"});
}

}  // namespace
