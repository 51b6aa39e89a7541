// A simulated Mac with Parallels Desktop, shared by the Parallels adapter's
// tests: config.pvs texts, the 9.x tools, and the handling of the child that
// the 9.x start leaves behind.
#pragma once

#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestMachine.h"

namespace parallels_test {

using implvm_test::Json;

inline const std::string kPrlctl = "/Applications/Parallels Desktop.app/Contents/MacOS/prlctl";
inline const std::string kClientApp =
    "/Applications/Parallels Desktop.app/Contents/MacOS/prl_client_app";
inline const std::string kUuid = "5c1e8a0f-3b7d-4e62-9a14-d2f07b6c8e39";
inline const std::string kParallelsSource = "ImplVirtualMachine_Parallels.cpp";
constexpr int kConsoleUid = 501;

// One <NetworkAdapter> element; an unset field leaves its element out.
struct Adapter {
    std::optional<std::string> enabled, connected, emulatedType, friendlyName;
};

inline std::string AdapterXml(const Adapter& a, int index) {
    std::string xml = "   <NetworkAdapter>\n    <Index>" + std::to_string(index) + "</Index>\n";
    auto element = [&xml](const char* tag, const std::optional<std::string>& value) {
        if (value) xml += std::string("    <") + tag + ">" + *value + "</" + tag + ">\n";
    };
    element("Enabled", a.enabled);
    element("Connected", a.connected);
    element("EmulatedType", a.emulatedType);
    element("UserFriendlyName", a.friendlyName);
    xml += "    <MAC>001C42" + std::to_string(100000 + index) + "</MAC>\n";
    xml += "   </NetworkAdapter>\n";
    return xml;
}

// A config.pvs as Parallels Desktop lays it out, reduced to what the adapter
// reads. osNumber nullopt leaves <OsNumber> out; uuidElement replaces the
// whole <VmUuid> line.
struct Config {
    std::string name = "Windows XP";
    std::string osType = "8";
    std::optional<std::string> osNumber = "2055";
    std::vector<Adapter> adapters;
    std::string identification = "<Identification>";
    std::optional<std::string> uuidElement;
};

inline Config Guest(const std::string& name, const std::string& osType, const std::string& osNumber,
                    const std::vector<Adapter>& adapters = {}) {
    Config c;
    c.name = name;
    c.osType = osType;
    c.osNumber = osNumber;
    c.adapters = adapters;
    return c;
}

inline std::string ConfigPvs(const Config& c) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<ParallelsVirtualMachine schemaVersion=\"1.0\">\n"
        " " +
        c.identification +
        "\n"
        "  " +
        c.uuidElement.value_or("<VmUuid>{" + kUuid + "}</VmUuid>") +
        "\n"
        "  <VmName>" +
        c.name +
        "</VmName>\n"
        " </Identification>\n"
        " <Settings>\n"
        "  <General>\n"
        "   <OsType>" +
        c.osType + "</OsType>\n";
    if (c.osNumber) xml += "   <OsNumber>" + *c.osNumber + "</OsNumber>\n";
    xml +=
        "   <VmDescription></VmDescription>\n"
        "  </General>\n"
        " </Settings>\n"
        " <Hardware>\n"
        "  <Memory><RAM>2048</RAM></Memory>\n";
    for (size_t i = 0; i < c.adapters.size(); ++i) xml += AdapterXml(c.adapters[i], int(i));
    xml +=
        " </Hardware>\n"
        "</ParallelsVirtualMachine>\n";
    return xml;
}

// The codes that the calls recorded against the Parallels adapter, oldest
// first; every record of the call must come from it.
inline std::vector<int> ParallelsCodes(const implvm_test::CallResult& r) {
    std::vector<int> codes;
    for (const auto& e : implvm_test::ErrorsFrom(r.errors, kParallelsSource))
        codes.push_back(e.code);
    EXPECT_EQ(codes.size(), r.errors.size()) << "records from another source file";
    return codes;
}

// Nothing was added to the output tree.
inline bool NothingWritten(const Json& outputs) {
    return outputs.is_null() || outputs.empty();
}

// A "ps wwax" listing; `commands` are the command columns.
inline std::string PsListing(const std::vector<std::string>& commands) {
    std::string text =
        "  PID   TT  STAT      TIME COMMAND\n"
        "    1   ??  Ss     2:01.17 /sbin/launchd\n";
    int pid = 310;
    for (const std::string& command : commands)
        text += "  " + std::to_string(pid++) + "   ??  Ss     0:03.52 " + command + "\n";
    return text;
}

inline std::string ServiceListing() {
    return PsListing({"/Applications/Parallels Desktop.app/Contents/MacOS/prl_disp_service"});
}

// A Mac with a console user (uid 501), Parallels Desktop's tools, its
// service running and one VM whose config.pvs carries kUuid.
struct Parallels9Mac {
    implvm_test::TestMachine mac;
    implvm_test::FakeTool& ps = mac.installTool("/bin/ps");
    implvm_test::FakeTool& clientApp = mac.installTool(kClientApp);
    implvm_test::FakeTool& prlctl = mac.installTool(kPrlctl);
    std::string config = "/Users/ann/Documents/Parallels/Windows XP.pvm/config.pvs";

    Parallels9Mac() {
        mac.setConsoleUser("ann", kConsoleUid, "/Users/ann");
        ps.respond(ServiceListing());
        mac.writeFile(config, ConfigPvs({}));
    }
};

// The 9.x start leaves its child to run the client application; the fake one
// ends at once. Waiting for that child keeps a test's machine root in place
// until the child is done with it, and no child outlives its test. Returns
// the child's wait status, or -1 when the call left no child.
inline int ReapStartChild() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid > 0) return status;
        if (pid < 0 && errno == ECHILD) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ADD_FAILURE() << "the start's child did not end";
    return -1;
}

}  // namespace parallels_test
