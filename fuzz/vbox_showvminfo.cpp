// A VirtualBox machine's description: the UUID from its .vbox settings, then
// the report VBoxManage showvminfo prints for it (name, guest OS, state,
// network adapters).
//
// Input: the report, optionally followed by the separator and .vbox text
// (a fixed .vbox when there is none).
#include <cstdint>
#include <string>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CStringUtils.h"

namespace {

const std::string kSettings = std::string(implvm_fuzz::kHome) + "/VirtualBox VMs/F/F.vbox";
const std::string kDefaultSettings =
    "<?xml version=\"1.0\"?>\n<VirtualBox xmlns=\"http://www.virtualbox.org/\" version=\"1.19\">\n"
    "  <Machine uuid=\"{7578c3c7-9a9a-4cc8-a025-9f5999b030ed}\" name=\"F\" OSType=\"Ubuntu_64\">\n"
    "  </Machine>\n</VirtualBox>\n";

implvm_test::FakeTool& VBoxManage() {
    static implvm_test::FakeTool& tool = [&]() -> implvm_test::FakeTool& {
        implvm_test::TestMachine& mac = implvm_fuzz::Mac();
        mac.installApp("/Applications/VirtualBox.app", "org.virtualbox.app.VirtualBox", "7.0.12");
        return mac.installTool("/Applications/VirtualBox.app/Contents/MacOS/VBoxManage");
    }();
    return tool;
}

// The adapters as a plain reading of the rules gives them, each adapter's
// key searched for in the whole report in turn (quadratic, fine for fuzz
// inputs), against which the reader's one-pass index is checked. False when
// the rules fail the report.
bool ReferenceAdapters(const std::wstring& report, KALDO::typeProperty& networks) {
    using KALDO::CStringUtils;
    for (int n = 1;; ++n) {
        const std::wstring key = L"NIC " + std::to_wstring(n) + L": ";
        if (report.find(key) == std::wstring::npos) return true;
        const std::wstring line =
            CStringUtils::ParseSubstringFromString(report, L"", key, L"\n", nullptr);
        if (line.empty()) return false;
        if (CStringUtils::Trim(line) == L"disabled") continue;
        const std::wstring raw =
            CStringUtils::ParseSubstringFromString(report, key, L"Attachment: ", L",", nullptr);
        if (raw.empty()) return false;
        const std::wstring attachment = CStringUtils::Trim(raw);
        int type = 0;
        for (const auto& [prefix, t] : {std::pair{L"NAT", 1}, {L"Bridged", 2}, {L"Host-only", 3}})
            if (type == 0 && CStringUtils::BeginsWith(attachment, prefix, 0)) type = t;
        KALDO::typeProperty adapter;
        adapter.addMapVal(L"Name", L"Adapter " + std::to_wstring(n));
        adapter.addMapVal(L"Type", type);
        adapter.addMapVal(L"IsConnected", type == 0 ? 0 : 1);
        adapter.addMapVal(L"MacAddress", std::wstring());
        networks.addVecVal(adapter);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    implvm_test::FakeTool& tool = VBoxManage();
    implvm_fuzz::BeginInput();
    const auto [report, settings] = implvm_fuzz::SplitTwo(implvm_fuzz::Bytes(data, size));
    implvm_fuzz::Mac().writeFile(kSettings, settings.empty() ? kDefaultSettings : settings);
    tool.reset();
    tool.respond(report, 0);

    KALDO::typeProperty description;
    const int rc = VirtualMachineImpl_VirtualBox2_GetInfoForVm(
        KALDO::CStringUtils::StringToWString(kSettings), &description);
    if (rc == 0) {
        int state = 0;
        implvm_fuzz::Check(description.getMapVal(L"State", state) >= 0 && state >= 1 && state <= 3,
                           "a described machine without a state");
        KALDO::typeProperty networks, expected;
        description.getMapVal(L"Networks", networks);
        implvm_fuzz::Check(
            ReferenceAdapters(KALDO::CStringUtils::StringToWString(report), expected) &&
                networks == expected,
            "adapters differ from the key-by-key reading");
    }
    return 0;
}
