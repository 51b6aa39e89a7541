// Bad input through the methods, starting from the simulated Mac's good files:
// bad hypervisor files, tools that misbehave, inputs missing or of the wrong
// kind. Each gets a definite code, a negative one always with an error
// record; never a crash or a hang.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "DemoMac.h"
#include "KALDO/CProcessUtils.h"

namespace fs = std::filesystem;
using implvm_test::CallResult;
using implvm_test::FakeResponse;
using implvm_test::Json;
using implvm_test::MethodCall;

namespace {

// Under the sanitizers a smaller file reaches the same code paths.
constexpr size_t kHugeBytes = size_t{implvm_test::kSanitized ? 32 : 256} << 20;
// A tool is killed once it has printed past the output limit.
constexpr size_t kFloodBytes = 2 * KALDO::CProcessUtils::kToolOutputLimitBytes;

const std::string kPvm = "/Users/robin/Parallels/",
                  kVmx = "/Users/robin/Virtual Machines.localized/",
                  kWindows7 = kVmx + "Windows 7 x64.vmwarevm/Windows 7 x64.vmx",
                  kServer =
                      "/Users/robin/VirtualBox VMs/Ubuntu 22.04 Server/Ubuntu 22.04 Server.vbox",
                  kXpConfig = kPvm + "Windows XP.pvm/config.pvs", kFusion = "13.5.0";

// A negative code always comes with a record.
void ExpectAccountedFor(const CallResult& r, const std::string& what) {
    EXPECT_TRUE(r.result >= 0 || !r.errors.empty()) << what << ": " << r.result << " unrecorded";
}

// A case's codes are one letter per kind of bad input, in its table's order:
// '0', E = -1 (general failure), N = -2 (the library's "not found"), A = -4
// ("access denied", kept by the propagation rule), T = -7 (timed out), L = -8
// (the tool printed past the output limit).
void Expect(const MethodCall& call, const std::string& codes, int kind, const std::string& what) {
    const CallResult r = call.run();
    const int code[] = {0, -1, -2, -4, -7, -8};
    EXPECT_EQ(r.result, code[std::string("0ENATL").find(codes.at(size_t(kind)))]) << what;
    ExpectAccountedFor(r, what);
}

struct FileCase {
    std::string file;    // the Mac path of the file made bad
    std::string marker;  // the truncated file ends halfway through it
    MethodCall call;
    std::string codes;
};

// `insert` after every '=', '"' and '>': inside values and beside markers.
std::string Sprinkled(const std::string& good, const std::string& insert) {
    std::string out;
    for (const char c : good)
        out += c == '=' || c == '"' || c == '>' ? c + insert : std::string(1, c);
    return out;
}

class BadFiles : public testing::TestWithParam<FileCase> {
protected:
    // One line of one character, written once and linked into each Mac.
    static void SetUpTestSuite() {
        std::ofstream out(huge_, std::ios::binary);
        const std::string block(1 << 20, 'x');
        for (size_t done = 0; done < kHugeBytes; done += block.size()) out << block;
    }
    static void TearDownTestSuite() { fs::remove(huge_); }
    static inline const std::string huge_ =
        (fs::temp_directory_path() / ("implvm-huge-" + std::to_string(::getpid()))).string();
};

TEST_P(BadFiles, GetADefiniteCode) {
    const FileCase& c = GetParam();
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    const std::string good = mac.readFile(c.file);
    ASSERT_NE(good.find(c.marker), std::string::npos) << c.marker;
    // From a fixed generator: NULs, 0xFF, stray continuation bytes.
    std::string binary(64 << 10, '\0');
    uint32_t x = 2463534242u;
    for (char& b : binary) b = static_cast<char>(x ^= x << 13, x ^= x >> 17, x ^= x << 5);
    const std::string files[] = {"", binary, Sprinkled(good, "\xFF\xC0\xAF\xED\xA0\x80\xE2\x82"),
                                 Sprinkled(good, std::string(1, '\0')),
                                 good.substr(0, good.find(c.marker) + c.marker.size() / 2)};
    for (int kind = 0; kind < 6; ++kind) {
        mac.remove(c.file);
        if (kind == 5)
            fs::create_hard_link(huge_, mac.hostPath(c.file));
        else
            mac.writeFile(c.file, files[kind]);
        Expect(c.call, c.codes, kind,
               c.file + ", kind " + std::to_string(kind) + ": " + c.call.name);
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Files, BadFiles, testing::Values(
    //                                 empty binary utf8 NUL truncated huge
    FileCase{"/Library/Preferences/Parallels/vmdirectorylist.desktop.xml", "</VmHome>",
             IMPLVM_CALL(VirtualMachineImpl_Parallels4_EnumerateVMs), "000000"},
    FileCase{kXpConfig, "</OsType>", IMPLVM_CALL(VirtualMachineImpl_Parallels4_GetVMInfo,
             {{"Name", kPvm + "Windows XP.pvm"}}), "EE00EE"},
    FileCase{"/Users/robin/Library/Application Support/VMware Fusion/vmInventory", ".config = \"",
             IMPLVM_CALL(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs, Json::object(), kFusion),
             "000000"},
    FileCase{kWindows7, "guestOS", IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_GetVMInfo,
             {{"Name", kWindows7}}, kFusion), "EEEEEE"},
    FileCase{kWindows7, "ethernet0.connectionType",
             IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_GetVMNetwork, {{"Name", kWindows7}}, kFusion),
             "EEEE0E"},
    FileCase{kVmx + "Debian 11.vmwarevm/vmware.log", "VMAutomation_Pause",
             IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_GetVMInfo,
             {{"Name", kVmx + "Debian 11.vmwarevm/Debian 11.vmx"}}, kFusion), "000000"},
    FileCase{"/Users/robin/Library/VirtualBox/VirtualBox.xml", "<MachineEntry",
             IMPLVM_CALL(VirtualMachineImpl_VirtualBox2_EnumerateVMs, Json::object(), "7.0.14"),
             "000000"},
    FileCase{kServer, "<Machine uuid=", IMPLVM_CALL(VirtualMachineImpl_VirtualBox2_GetVMInfo,
             {{"Name", kServer}}), "EEEEEE"},
    FileCase{"/Applications/VMware Fusion.app/Contents/Info.plist", "CFBundleShortVersionString",
             IMPLVM_CALL(VirtualMachineImpl_Common_GetProductVersion,
             {{"BundleId", "com.vmware.fusion"}}), "NNNNNN"}));
// clang-format on

struct ToolCase {
    std::string tool;  // Mac path
    MethodCall call;
    std::string codes;
};

class BadTools : public testing::TestWithParam<ToolCase> {};

TEST_P(BadTools, GetADefiniteCode) {
    const ToolCase& c = GetParam();
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    const std::string line((64 << 10) - 1, 'x');
    const std::pair<const char*, FakeResponse> behaviours[] = {
        {"hangs up early", {.hangUp = true}},
        {"prints nothing", {}},
        {"floods its output", {.out = line + "\n", .outRepeat = kFloodBytes / (64 << 10)}},
        {"dies from SIGSEGV", {.signal = SIGSEGV}},
        {"not executable", {}},
        {"never ends", {.sleepSeconds = 60}}};
    for (int b = 0; b < 6; ++b) {
        mac.installTool(c.tool).respond(behaviours[b].second);
        if (b == 4) {
            mac.remove(c.tool);
            mac.writeFile(c.tool, "#!/bin/sh\necho never\n");  // mode 0644
        }
        // The host's limit, made short for the tool that never ends.
        if (b == 5) ::setenv("KALDO_TOOL_TIMEOUT", "0.3", 1);
        Expect(c.call, c.codes, b, c.tool + " " + behaviours[b].first + ": " + c.call.name);
        ::unsetenv("KALDO_TOOL_TIMEOUT");
    }
}

const std::string kVBoxManage = "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage",
                  kVmrun = "/Applications/VMware Fusion.app/Contents/Library/vmrun";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Tools, BadTools, testing::Values(
    //                          hang-up silent flood killed no-exec never
    ToolCase{kVBoxManage, IMPLVM_CALL(VirtualMachineImpl_VirtualBox2_GetVMInfo,
             {{"Name", kServer}}), "EEEEAE"},
    // A killed action tool reads as a failed exit without "error" in its
    // text, which the answer tables count as done. A flood is cut off at the
    // output limit: the tool could not run.
    ToolCase{kVBoxManage, IMPLVM_CALL(VirtualMachineImpl_VirtualBox_4_X_StartVM,
             {{"Name", "Debian 12"}}), "00E0AE"},
    ToolCase{kVmrun, IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_StartVM,
             {{"Name", kVmx + "macOS 10.15.vmwarevm/macOS 10.15.vmx"}}, kFusion), "00E0AE"},
    ToolCase{kVmrun, IMPLVM_CALL(VirtualMachineImpl_VmWareFusion4_ListSnapshots,
             {{"Name", kWindows7}}, kFusion), "EEEEAE"},
    ToolCase{"/usr/sbin/system_profiler",
             IMPLVM_CALL(VirtualMachineImpl_Common_IsMachineVirtual), "00E0EE"},
    // Without a process listing the running VM's state is unknown.
    ToolCase{"/bin/ps", IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_GetVMInfo,
             {{"Name", kWindows7}}, kFusion), "EEEEEE"},
    ToolCase{"/Applications/Parallels Desktop.app/Contents/MacOS/prlctl",
             IMPLVM_CALL(ImplVirtualMachine_Parallels_9_X_OperateVM,
             {{"Name", kXpConfig}, {"COMMAND", "stop"}}), "00L0AT"},
    ToolCase{"/usr/bin/open", IMPLVM_CALL(VirtualMachineImpl_Parallels4_StartVM,
             {{"Name", kPvm + "Ubuntu 22.04.pvm"}}), "00EEEE"}));
// clang-format on

// Every method that reads inputs, with each input in turn missing, an integer
// or a map instead of text.
TEST(BadInputs, MissingOrWrongKindIsRecordedAndRunsNothing) {
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    std::vector<MethodCall> calls = implvm_test::ReadingCalls();
    for (MethodCall& action : implvm_test::ActionCalls()) calls.push_back(std::move(action));
    std::set<std::string> seen;
    for (const MethodCall& call : calls) {
        if (call.inputs.empty() || !seen.insert(call.name).second) continue;
        for (const auto& [key, value] : call.inputs.items()) {
            for (const Json& replacement : {Json(), Json(7), Json{{"Text", value}}}) {
                MethodCall bad = call;
                if (replacement.is_null())
                    bad.inputs.erase(key);
                else
                    bad.inputs[key] = replacement;
                const CallResult r = bad.run();
                EXPECT_LT(r.result, 0) << bad.label();
                // GetHypervisorType's -3 goes unrecorded, as documented.
                if (call.method != VirtualMachineImpl_Common_GetHypervisorType)
                    ExpectAccountedFor(r, bad.label());
            }
        }
    }
    EXPECT_GT(seen.size(), 15u);
}

}  // namespace
