// A simulated Mac with Parallels Desktop, shared by the Parallels tests.
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
constexpr int kConsoleUid = 501;

// One <NetworkAdapter>; an unset field leaves its element out.
struct Adapter {
    std::optional<std::string> enabled, connected, emulatedType, friendlyName;
};

// A config.pvs reduced to what the adapter reads.
struct Config {
    std::string name = "Windows XP", osType = "8";
    std::optional<std::string> osNumber = "2055";
    std::vector<Adapter> adapters;
    std::string identification = "<Identification>";
    std::string uuid = "{" + kUuid + "}";
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
    auto element = [](const char* tag, const std::optional<std::string>& value) {
        return value ? std::string("<") + tag + ">" + *value + "</" + tag + ">\n" : "";
    };
    std::string xml = "<ParallelsVirtualMachine>\n" + c.identification + "\n<VmUuid>" + c.uuid +
                      "</VmUuid>\n<VmName>" + c.name + "</VmName>\n</Identification>\n<General>\n" +
                      element("OsType", c.osType) + element("OsNumber", c.osNumber) +
                      "</General>\n<Hardware>\n";
    for (size_t i = 0; i < c.adapters.size(); ++i) {
        const Adapter& a = c.adapters[i];
        xml += "<NetworkAdapter>\n<Index>" + std::to_string(i) + "</Index>\n" +
               element("Enabled", a.enabled) + element("Connected", a.connected) +
               element("EmulatedType", a.emulatedType) +
               element("UserFriendlyName", a.friendlyName) + "</NetworkAdapter>\n";
    }
    return xml + "</Hardware>\n</ParallelsVirtualMachine>\n";
}

// The codes the call recorded, all against the Parallels adapter's file.
inline std::vector<int> ParallelsCodes(const implvm_test::CallResult& r) {
    std::vector<int> codes;
    for (const auto& e : implvm_test::ErrorsFrom(r.errors, "ImplVirtualMachine_Parallels.cpp"))
        codes.push_back(e.code);
    EXPECT_EQ(codes.size(), r.errors.size()) << "records from another source file";
    return codes;
}

// A "ps wwax" listing of the given command columns.
inline std::string PsListing(const std::vector<std::string>& commands) {
    std::string text =
        "  PID   TT  STAT      TIME COMMAND\n    1   ??  Ss     2:01.17 /sbin/launchd\n";
    for (const std::string& command : commands)
        text += "  310   ??  Ss     0:03.52 " + command + "\n";
    return text;
}

inline std::string ServiceListing() {
    return PsListing({"/Applications/Parallels Desktop.app/Contents/MacOS/prl_disp_service"});
}

// A console user (uid 501), Parallels' tools, its service running, one VM.
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

// Waits for the child the 9.x start leaves behind, so that no child outlives
// its test's machine root. Its wait status, or -1 when there is none.
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
