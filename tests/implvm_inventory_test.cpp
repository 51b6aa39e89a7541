// implvm inventory end to end, on copies of the simulated Mac.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

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

// The --json document (normalised) and the human form; every call
// answered 0 or more unless `broken`. The document is the same whatever the
// number of jobs.
std::pair<Json, std::string> Inventory(const TestMachine& mac, bool broken = false) {
    const auto json =
        implvm_test::Implvm({"--root", mac.root(), "inventory", "--json", "--jobs", "8"});
    const auto serial =
        implvm_test::Implvm({"--root", mac.root(), "inventory", "--json", "--jobs", "1"});
    const auto human = implvm_test::Implvm({"--root", mac.root(), "inventory", "--jobs", "8"});
    EXPECT_EQ(json.out, serial.out);
    EXPECT_EQ(json.exitCode, broken ? 1 : 0);
    EXPECT_EQ(human.exitCode, json.exitCode);
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
    const auto [doc, human] = Inventory(mac, true);

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
              "outputs": null, "errors": [{"code": -1, "file": "ImplVirtualMachine_VmWare.cpp"}]},
  "notAsked": null},
 {"id": "/Users/robin/Parallels/Windows Server 2008.pvm",
  "info": {"method": "VirtualMachineImpl_Parallels4_GetVMInfo", "result": 0,
           "outputs": {"UserFriendlyName": "Windows Server 2008",
                       "OS": {"Type": 3, "Distribution": "Windows Server 2008"}, "State": 2},
           "errors": []},
  "network": {"method": "VirtualMachineImpl_Parallels4_GetVMNetwork", "result": 0,
              "outputs": {"Networks": [
    {"Name": "Network Adapter 1", "Type": 2, "IsConnected": 1, "MacAddress": ""},
    {"Name": "Network Adapter 2", "Type": 3, "IsConnected": 0, "MacAddress": ""}]},
              "errors": []},
  "notAsked": null},
 {"hardware": {"method": "VirtualMachineImpl_Common_IsMachineVirtual", "result": 0,
               "outputs": {"IsMachineVirtual": 0}, "errors": []},
  "network": {"method": "ImplVm_Common_IsMachineVirtual", "result": 0,
              "outputs": {"IsMachineVirtual": 0},
              "errors": [{"code": -1, "file": "ImplVm_Common.cpp"}]}}])"));

    ExpectLines(human, {"Parallels Desktop 18.3.2  /Applications/Parallels Desktop.app\n",
                        "  Windows XP           Windows XP           running           NAT  ",
                        "  Ubuntu 22.04         failed: GetVMInfo answered -1: failed  ",
                        "  Kali Purple    failed: GetVMInfo answered -1: failed  ",
                        "  Debian 12            Debian (64-bit)      stopped           NAT, other "
                        "(disconnected)  /Users/robin/VirtualBox VMs/Debian 12/Debian 12.vbox\n",
                        "This Mac\n  by its hardware profile:   not a virtual machine\n"
                        "  by its network addresses:  not a virtual machine\n"});
    // -v: the records, with their source files.
    ExpectLines(implvm_test::Implvm({"--root", mac.root(), "-v", "inventory"}).out,
                {"  Ubuntu 22.04         failed: GetVMInfo answered -1 (-1 at "
                 "ImplVirtualMachine_Parallels.cpp:",
                 "  Kali Purple    failed: GetVMInfo answered -1 (-1 at "
                 "ImplVirtualMachine_VmWare.cpp:"});
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
        "info": null, "network": null}, "enumeration": null, "vms": [], "toolTimedOut": null})"));
    EXPECT_EQ(doc["hypervisors"]["virtualbox"]["vms"].size(), 4u);

    ExpectLines(human, {"Parallels Desktop 3.0.5584  /Applications/Parallels Desktop.app\n"
                        "  the module serves Parallels Desktop 4 and later only\n",
                        "\nVMware Fusion: not installed (no application with bundle identifier "
                        "com.vmware.fusion)\n\nVirtualBox 7.0.14"});
}

// Names and paths are the Mac's, not ours: a terminal must show their control
// characters, never obey them, and one long name must not widen every row.
// The JSON form keeps them whole.
TEST(ImplvmInventory, NamesAndPathsReachTheTerminalEscapedAndCut) {
    TestMachine mac;
    mac.copyDemoMac();
    const std::string xp = kPvm + "Windows\x1b[2JXP.pvm";
    fs::rename(mac.hostPath(kPvm + "Windows XP.pvm"), mac.hostPath(xp));
    const std::string list = "/Library/Preferences/Parallels/vmdirectorylist.desktop.xml";
    std::string dirs = mac.readFile(list);
    dirs.replace(dirs.find(kPvm + "Windows XP.pvm"), (kPvm + "Windows XP.pvm").size(), xp);
    mac.writeFile(list, dirs);
    const std::pair<std::string, std::string> names[] = {
        // bundle, VM name
        {xp, "\x1b[31mred\x1b[0m\x1b]0;t\x07"},
        {kPvm + "Windows Server 2008.pvm", std::string("two\rlines\0nul\x7f\xc2\x9b!", 17)},
        {kPvm + "Ubuntu 22.04.pvm", std::string(5000, 'n')},
    };
    for (const auto& [bundle, name] : names) {
        std::string config = mac.readFile(bundle + "/config.pvs");
        const size_t from = config.find("<VmName>") + 8;
        config.replace(from, config.find("</VmName>") - from, name);
        mac.writeFile(bundle + "/config.pvs", config);
    }
    const std::string debian = "/Users/robin/VirtualBox VMs/Debian 12/Debian 12.vbox";
    std::string vbox = mac.readFile(debian);
    vbox.replace(vbox.find("name=\"Debian 12\""), 16, "name=\"\u65e5\u672c\u8a9e Debian\"");
    mac.writeFile(debian, vbox);

    const auto json = implvm_test::Implvm({"--root", mac.root(), "inventory", "--json"});
    const Json doc = Json::parse(json.out);
    for (size_t i = 0; i < std::size(names); ++i)
        EXPECT_EQ(doc["hypervisors"]["parallels"]["vms"][i]["info"]["outputs"]["UserFriendlyName"],
                  names[i].second);
    EXPECT_EQ(doc["hypervisors"]["parallels"]["vms"][0]["id"], xp);

    const auto human = implvm_test::Implvm({"--root", mac.root(), "inventory"});
    EXPECT_EQ(human.exitCode, 1);  // the demo's broken VMware VM
    for (size_t i = 0; i < human.out.size(); ++i) {
        const auto c = static_cast<unsigned char>(human.out[i]);
        const bool c1 = c == 0xC2 && i + 1 < human.out.size() &&
                        static_cast<unsigned char>(human.out[i + 1]) <= 0x9F;
        ASSERT_TRUE((c >= 0x20 || c == '\n') && c != 0x7F && !c1) << "byte " << i;
    }
    std::istringstream lines(human.out);
    for (std::string line; std::getline(lines, line);) EXPECT_LT(line.size(), 400u) << line;
    // The NAME column is as wide as the cut name, 48 columns; the escaped
    // names are ASCII, a column a byte.
    const auto padded = [](const std::string& cell) {
        return "  " + cell + std::string(48 - cell.size() + 2, ' ');
    };
    ExpectLines(human.out, {padded("\\e[31mred\\e[0m\\e]0;t\\x07") + "Windows XP ",
                            "  /Users/robin/Parallels/Windows\\e[2JXP.pvm\n",
                            padded("two\\rlines\\x00nul\\x7f\\u009b!") + "Windows Server 2008 ",
                            "  " + std::string(47, 'n') + "\u2026  Linux ",
                            // Three wide characters take two columns each.
                            "  \u65e5\u672c\u8a9e Debian        Debian (64-bit)  "});
}

// A hypervisor whose tool hangs is asked nothing more once the tool has been
// killed at its time limit, and the rest of the inventory goes on; so for the
// hardware check, which runs system_profiler.
TEST(ImplvmInventory, AHungToolStopsOnlyItsOwnHypervisor) {
    const std::string vboxManage = "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage",
                      vms = "/Users/robin/VirtualBox VMs/";
    const struct {
        std::string tool;
        std::string detail;
        std::vector<std::string> lines;  // in the human form
    } rows[] = {
        {vboxManage,
         "VBoxManage did not answer within 0.3 s",
         {"  Ubuntu 22.04 Server  failed: VBoxManage did not answer within 0.3 s  ",
          "  Windows 10           not asked: VBoxManage did not answer within 0.3 s  " + vms +
              "Windows 10/Windows 10.vbox\n",
          "  Fedora 39            not asked: VBoxManage did not answer within 0.3 s  " + vms +
              "Fedora 39/Fedora 39.vbox\n",
          "  by its hardware profile:   not a virtual machine\n"}},
        {"/usr/sbin/system_profiler",
         "system_profiler did not answer within 0.3 s",
         {"  by its hardware profile:   check failed: system_profiler did not answer within "
          "0.3 s\n",
          "  Fedora 39            Fedora (64-bit)      suspended/paused  NAT  "}},
    };
    for (const auto& row : rows) {
        TestMachine mac;
        mac.copyDemoMac();
        implvm_test::FakeTool& tool = mac.installTool(row.tool);
        tool.respond(implvm_test::FakeResponse{.sleepSeconds = 600});
        const auto run = [&](std::vector<std::string> args) {
            args.insert(args.begin(), {IMPLVM_BIN, "--root", mac.root(), "inventory"});
            return implvm_test::RunProcess(
                args,
                {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}, {"KALDO_TOOL_TIMEOUT", "0.3"}});
        };
        // One call after another: exactly the first VM's description hangs.
        const auto json = run({"--json", "--jobs", "1"});
        EXPECT_EQ(json.exitCode, 1) << row.tool;
        EXPECT_EQ(tool.invocations().size(), 1u) << row.tool;
        const Json doc = Json::parse(json.out);

        // Hung here: the first VM's description, and nothing after it.
        const bool vbox = row.tool == vboxManage;
        const Json& section = doc["hypervisors"]["virtualbox"];
        EXPECT_EQ(section["toolTimedOut"], vbox ? Json(row.detail) : Json()) << row.tool;
        for (size_t i = 0; i < section["vms"].size(); ++i) {
            const Json& vm = section["vms"][i];
            EXPECT_EQ(vm["notAsked"], vbox ? Json(row.detail) : Json());
            EXPECT_EQ(vm["network"].is_null(), vbox);
            EXPECT_EQ(vm["info"].is_null(), vbox && i > 0);
        }
        const Json& hung = vbox ? section["vms"][0]["info"] : doc["host"]["hardware"];
        EXPECT_EQ(hung["result"], -1);
        EXPECT_EQ(hung["errors"][0]["code"], -7);
        EXPECT_EQ(hung["errors"][0]["detail"], row.detail);

        // Everything else as on a Mac whose tools all answer.
        for (const char* key : {"parallels", "vmware"}) {
            EXPECT_EQ(doc["hypervisors"][key]["toolTimedOut"], Json());
            for (const Json& vm : doc["hypervisors"][key]["vms"]) {
                EXPECT_EQ(vm["notAsked"], Json());
                EXPECT_EQ(vm["network"]["method"].is_string(), true);
            }
        }
        EXPECT_EQ(doc["hypervisors"]["vmware"]["vms"].size(), 5u);
        EXPECT_EQ(doc["host"]["network"]["result"], 0);
        EXPECT_EQ(doc["host"]["hardware"]["result"], vbox ? 0 : -1);

        tool.reset();
        tool.respond(implvm_test::FakeResponse{.sleepSeconds = 600});
        const auto human = run({"--jobs", "1"});
        EXPECT_EQ(human.exitCode, 1);
        EXPECT_EQ(human.err, "");
        ExpectLines(human.out, row.lines);

        // Side by side, as many descriptions may hang as run at once; the
        // hypervisor's other VMs are still not asked, the other sections
        // complete.
        tool.reset();
        tool.respond(implvm_test::FakeResponse{.sleepSeconds = 600});
        const auto wide = run({"--json", "--jobs", "8"});
        const Json all = Json::parse(wide.out);
        EXPECT_EQ(wide.exitCode, 1);
        EXPECT_LE(tool.invocations().size(), vbox ? 4u : 1u);
        for (const Json& vm : all["hypervisors"]["virtualbox"]["vms"])
            EXPECT_TRUE(!vbox || vm["network"].is_null()) << vm;
        EXPECT_EQ(all["hypervisors"]["vmware"], doc["hypervisors"]["vmware"]);
        EXPECT_EQ(all["hypervisors"]["parallels"], doc["hypervisors"]["parallels"]);
    }
}

}  // namespace
