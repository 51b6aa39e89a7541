// Bad input through the methods: hypervisor files that are empty, huge,
// binary, not UTF-8, full of NUL bytes or cut off inside a marker; tools that
// hang up, print nothing, print hundreds of megabytes, die from a signal,
// cannot be run or never end; inputs missing or of the wrong kind. Each gets
// a definite code (a negative one always with an error record), never a crash
// or a hang. The files start from the simulated Mac's good ones.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "DemoMac.h"

namespace fs = std::filesystem;
using implvm_test::CallResult;
using implvm_test::FakeResponse;
using implvm_test::Json;
using implvm_test::MethodCall;
using implvm_test::TestMachine;

namespace {

// Under the sanitizers (a debug build, every byte checked) a smaller flood
// reaches the same code paths in a fraction of the time.
constexpr size_t kHugeBytes = size_t{implvm_test::kSanitized ? 32 : 256} << 20;

const std::string kParallels = "/Users/robin/Parallels/";
const std::string kVmware = "/Users/robin/Virtual Machines.localized/";
const std::string kWindows7 = kVmware + "Windows 7 x64.vmwarevm/Windows 7 x64.vmx";
const std::string kUbuntuServer =
    "/Users/robin/VirtualBox VMs/Ubuntu 22.04 Server/Ubuntu 22.04 Server.vbox";
const std::string kXpConfig = kParallels + "Windows XP.pvm/config.pvs";

// Whoever passes a negative code on records it.
void ExpectAccountedFor(const CallResult& r, const std::string& what) {
    if (r.result < 0) {
        EXPECT_FALSE(r.errors.empty()) << what << ": " << r.result << " unrecorded";
    }
}

std::string Name(const MethodCall& call) {
    return call.name.substr(call.name.rfind('_') + 1);
}

// ---- files ----

enum Kind { kEmpty, kBinary, kInvalidUtf8, kNulBytes, kTruncated, kHuge, kKinds };
const char* const kKindNames[kKinds] = {"empty",     "binary",    "invalid UTF-8",
                                        "NUL bytes", "truncated", "huge, one line"};

struct FileCase {
    std::string file;    // the Mac path of the file made bad
    std::string marker;  // the truncated file ends halfway through it
    MethodCall call;
    std::array<int, kKinds> codes;  // in the order of Kind
};

// `insert` after every '=', '"' and '>': inside values and beside markers.
std::string Sprinkled(const std::string& good, const std::string& insert) {
    std::string out;
    for (const char c : good)
        out += c == '=' || c == '"' || c == '>' ? c + insert : std::string(1, c);
    return out;
}

std::string Bad(Kind kind, const std::string& good, const std::string& marker) {
    if (kind == kBinary) {  // from a fixed generator: NULs, 0xFF, stray continuation bytes
        std::string bytes(64 << 10, '\0');
        uint32_t x = 2463534242u;
        for (char& c : bytes) c = static_cast<char>(x ^= x << 13, x ^= x >> 17, x ^= x << 5);
        return bytes;
    }
    if (kind == kInvalidUtf8) return Sprinkled(good, "\xFF\xC0\xAF\xED\xA0\x80\xE2\x82");
    if (kind == kNulBytes) return Sprinkled(good, std::string(1, '\0'));
    if (kind == kTruncated) return good.substr(0, good.find(marker) + marker.size() / 2);
    return "";
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
    TestMachine mac;
    mac.copyDemoMac();
    const std::string good = mac.readFile(c.file);
    ASSERT_NE(good.find(c.marker), std::string::npos) << c.marker;
    for (int kind = 0; kind < kKinds; ++kind) {
        mac.remove(c.file);
        if (kind == kHuge)
            fs::create_hard_link(huge_, mac.hostPath(c.file));
        else
            mac.writeFile(c.file, Bad(static_cast<Kind>(kind), good, c.marker));
        const CallResult r = c.call.run();
        const std::string what = c.file + ", " + kKindNames[kind] + ": " + c.call.name;
        EXPECT_EQ(r.result, c.codes[static_cast<size_t>(kind)]) << what;
        ExpectAccountedFor(r, what);
    }
}

constexpr int E = -1;  // the general failure
constexpr int N = -2;  // the library's "not found", passed on as it is
constexpr int A = -4;  // the library's "access denied", kept by the propagation rule
constexpr int T = -7;  // the library's "timed out", passed on as it is
constexpr const char* kFusion = "13.5.0";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Files, BadFiles, testing::Values(
    //                                                                         empty bin utf8 NUL trunc huge
    FileCase{"/Library/Preferences/Parallels/vmdirectorylist.desktop.xml", "</VmHome>",
             IMPLVM_CALL(VirtualMachineImpl_Parallels4_EnumerateVMs),              {0, 0, 0, 0, 0, 0}},
    FileCase{kXpConfig, "</OsType>", IMPLVM_CALL(VirtualMachineImpl_Parallels4_GetVMInfo,
             {{"Name", kParallels + "Windows XP.pvm"}}),                           {E, E, 0, 0, E, E}},
    FileCase{"/Users/robin/Library/Application Support/VMware Fusion/vmInventory", ".config = \"",
             IMPLVM_CALL(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs, Json::object(), kFusion),
                                                                                   {0, 0, 0, 0, 0, 0}},
    FileCase{kWindows7, "guestOS", IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_GetVMInfo,
             {{"Name", kWindows7}}, kFusion),                                      {E, E, E, E, E, E}},
    FileCase{kWindows7, "ethernet0.connectionType", IMPLVM_CALL(
             VirtualMachineImpl_VmWareFusion1_GetVMNetwork, {{"Name", kWindows7}}, kFusion),
                                                                                   {E, E, E, E, 0, E}},
    FileCase{kVmware + "Debian 11.vmwarevm/vmware.log", "VMAutomation_Pause",
             IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_GetVMInfo,
             {{"Name", kVmware + "Debian 11.vmwarevm/Debian 11.vmx"}}, kFusion),   {0, 0, 0, 0, 0, 0}},
    FileCase{"/Users/robin/Library/VirtualBox/VirtualBox.xml", "<MachineEntry",
             IMPLVM_CALL(VirtualMachineImpl_VirtualBox2_EnumerateVMs, Json::object(), "7.0.14"),
                                                                                   {0, 0, 0, 0, 0, 0}},
    FileCase{kUbuntuServer, "<Machine uuid=", IMPLVM_CALL(VirtualMachineImpl_VirtualBox2_GetVMInfo,
             {{"Name", kUbuntuServer}}),                                           {E, E, E, E, E, E}},
    FileCase{"/Applications/VMware Fusion.app/Contents/Info.plist", "CFBundleShortVersionString",
             IMPLVM_CALL(VirtualMachineImpl_Common_GetProductVersion,
             {{"BundleId", "com.vmware.fusion"}}),                                 {N, N, N, N, N, N}}),
    [](const auto& p) { return std::to_string(p.index) + "_" + Name(p.param.call); });
// clang-format on

// ---- tools ----

enum Behaviour { kHangsUpEarly, kSilent, kFlood, kKilled, kNotExecutable, kNeverEnds, kBehaviours };
const char* const kBehaviourNames[kBehaviours] = {"hangs up early",    "prints nothing",
                                                  "floods its output", "dies from SIGSEGV",
                                                  "not executable",    "never ends"};

struct ToolCase {
    std::string tool;  // Mac path
    MethodCall call;
    std::array<int, kBehaviours> codes;  // in the order of Behaviour
};

class BadTools : public testing::TestWithParam<ToolCase> {};

TEST_P(BadTools, GetADefiniteCode) {
    const ToolCase& c = GetParam();
    TestMachine mac;
    mac.copyDemoMac();
    const std::string line((64 << 10) - 1, 'x');
    const FakeResponse responses[kBehaviours] = {
        {.hangUp = true},    {}, {.out = line + "\n", .outRepeat = kHugeBytes / (64 << 10)},
        {.signal = SIGSEGV}, {}, {.sleepSeconds = 60}};
    for (int b = 0; b < kBehaviours; ++b) {
        mac.installTool(c.tool).respond(responses[b]);
        if (b == kNotExecutable) {
            mac.remove(c.tool);
            mac.writeFile(c.tool, "#!/bin/sh\necho never\n");  // mode 0644
        }
        // The host's limit, made short for the tool that never ends.
        if (b == kNeverEnds) ::setenv("KALDO_TOOL_TIMEOUT", "0.3", 1);
        const CallResult r = c.call.run();
        ::unsetenv("KALDO_TOOL_TIMEOUT");
        const std::string what = c.tool + " " + kBehaviourNames[b] + ": " + c.call.name;
        EXPECT_EQ(r.result, c.codes[static_cast<size_t>(b)]) << what;
        ExpectAccountedFor(r, what);
    }
}

const std::string kVBoxManage = "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage";
const std::string kVmrun = "/Applications/VMware Fusion.app/Contents/Library/vmrun";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Tools, BadTools, testing::Values(
    //                                                                  hang-up silent flood killed no-exec never
    ToolCase{kVBoxManage, IMPLVM_CALL(VirtualMachineImpl_VirtualBox2_GetVMInfo,
             {{"Name", kUbuntuServer}}),                                        {E, E, E, E, A, E}},
    // A killed action tool reads as a failed exit without "error" in its
    // text, which the answer tables count as done.
    ToolCase{kVBoxManage, IMPLVM_CALL(VirtualMachineImpl_VirtualBox_4_X_StartVM,
             {{"Name", "Debian 12"}}),                                          {0, 0, 0, 0, A, E}},
    ToolCase{kVmrun, IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_StartVM,
             {{"Name", kVmware + "macOS 10.15.vmwarevm/macOS 10.15.vmx"}}, kFusion), {0, 0, 0, 0, A, E}},
    ToolCase{kVmrun, IMPLVM_CALL(VirtualMachineImpl_VmWareFusion4_ListSnapshots,
             {{"Name", kWindows7}}, kFusion),                                   {E, E, E, E, A, E}},
    ToolCase{"/usr/sbin/system_profiler", IMPLVM_CALL(VirtualMachineImpl_Common_IsMachineVirtual),
                                                                                {0, 0, 0, 0, E, E}},
    // Without a process listing the running VM's state is unknown.
    ToolCase{"/bin/ps", IMPLVM_CALL(VirtualMachineImpl_VmWareFusion1_GetVMInfo,
             {{"Name", kWindows7}}, kFusion),                                   {E, E, 0, E, E, E}},
    ToolCase{"/Applications/Parallels Desktop.app/Contents/MacOS/prlctl",
             IMPLVM_CALL(ImplVirtualMachine_Parallels_9_X_OperateVM,
             {{"Name", kXpConfig}, {"COMMAND", "stop"}}),                       {0, 0, 0, 0, A, T}},
    ToolCase{"/usr/bin/open", IMPLVM_CALL(VirtualMachineImpl_Parallels4_StartVM,
             {{"Name", kParallels + "Ubuntu 22.04.pvm"}}),                      {0, 0, 0, E, E, E}}),
    [](const auto& p) { return std::to_string(p.index) + "_" + Name(p.param.call); });
// clang-format on

// ---- inputs ----

// Every method that reads inputs, with each input in turn missing and then
// given as an integer or a map instead of text.
TEST(BadInputs, MissingOrWrongKindIsRecordedAndRunsNothing) {
    TestMachine mac;
    mac.copyDemoMac();
    std::vector<MethodCall> calls = implvm_test::ReadingCalls();
    for (MethodCall& action : implvm_test::ActionCalls()) calls.push_back(std::move(action));
    std::set<std::string> seen;
    int checked = 0;
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
                ++checked;
                EXPECT_LT(r.result, 0) << bad.label();
                if (call.method == VirtualMachineImpl_Common_GetHypervisorType) {
                    EXPECT_EQ(r.result, -3) << "unrecorded -3, as documented";
                } else {
                    ExpectAccountedFor(r, bad.label());
                }
            }
        }
    }
    EXPECT_GT(checked, 40);
}

}  // namespace
