// The .vmx reader: a VM's name, guest OS, network adapters and, from Fusion
// 4 on, its state from the .vmx and the log of a running VM.
//
// Input: .vmx text, optionally followed by the separator and vmware.log
// text. The process listing always shows the VM running, so the log is read
// whenever the .vmx names no suspend state. Inputs of odd length are read as
// Fusion 4 reads them (the VM named by its bundle folder), others as later
// Fusions do (by its .vmx).
#include <cstdint>
#include <string>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CStringUtils.h"

namespace {

const std::string kBundle = std::string(implvm_fuzz::kHome) + "/Virtual Machines/F.vmwarevm";
const std::string kVmx = kBundle + "/F.vmx";

void Prepare() {
    static const bool ready = [] {
        implvm_fuzz::Mac().installTool("/bin/ps").respond(
            "  PID   TT  STAT      TIME COMMAND\n"
            "  412   ??  Ss     0:01.20 /Applications/VMware Fusion.app/Contents/"
            "Library/vmware-vmx -s vmx.stdio.keep=TRUE -# product=64;name=VMware "
            "Fusion; " +
            kVmx + "\n");
        return true;
    }();
    (void)ready;
}

// The adapters as a plain reading of the rules gives them: each key looked
// up on its own in the whole text (quadratic, fine for fuzz inputs), against
// which the reader's one-pass scan is checked.
KALDO::typeProperty ReferenceAdapters(const std::wstring& vmx) {
    const auto value = [&](const std::wstring& key) {
        return KALDO::CStringUtils::ParseSubstringFromString(vmx, L"", key + L" = \"", L"\"\n",
                                                             nullptr);
    };
    KALDO::typeProperty networks;
    for (int n = 0;; ++n) {
        const std::wstring key = L"ethernet" + std::to_wstring(n);
        const std::wstring present = value(key + L".present");
        if (present.empty()) break;
        if (present == L"FALSE") continue;
        KALDO::typeProperty adapter;
        adapter.addMapVal(L"Name",
                          n == 0 ? std::wstring(L"Network") : L"Network " + std::to_wstring(n + 1));
        const std::wstring connection = value(key + L".connectionType");
        const int type = connection == L"nat"        ? 1
                         : connection == L"bridged"  ? 2
                         : connection == L"hostonly" ? 3
                                                     : 0;
        if (type != 0) adapter.addMapVal(L"Type", type);
        adapter.addMapVal(L"IsConnected", value(key + L".startConnected") == L"FALSE" ? 0 : 1);
        adapter.addMapVal(L"MacAddress", std::wstring());
        networks.addVecVal(adapter);
    }
    return networks;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Prepare();
    implvm_fuzz::BeginInput();
    const auto [vmx, log] = implvm_fuzz::SplitTwo(implvm_fuzz::Bytes(data, size));
    implvm_fuzz::Mac().writeFile(kVmx, vmx);
    implvm_fuzz::Mac().writeFile(kBundle + "/vmware.log", log);

    const bool fusion4 = size % 2 == 1;
    KALDO::typeProperty description;
    const int rc = VirtualMachineImpl_VmWareFusion1_GetInfoForVm(
        KALDO::CStringUtils::StringToWString(fusion4 ? kBundle : kVmx), &description,
        fusion4 ? 4 : 5);
    if (rc == 0) {
        int state = 0;
        implvm_fuzz::Check(description.getMapVal(L"State", state) >= 0 && state >= 1 && state <= 3,
                           "a described VM without a state");
        KALDO::typeProperty networks;
        description.getMapVal(L"Networks", networks);
        const KALDO::typeProperty expected =
            ReferenceAdapters(KALDO::CStringUtils::StringToWString(vmx));
        implvm_fuzz::Check(networks == expected, "adapters differ from the key-by-key reading");
    }
    return 0;
}
