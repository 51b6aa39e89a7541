// The property-list reader (XML and binary forms) under the two readers of
// it: the Fusion preferences' VM library and an application's version. A
// list it reads never nests deeper than its limit; one that does shows the
// check made before libplist parses counting otherwise than libplist, and a
// few thousand more levels would crash the host.
#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CAppleUtils.h"
#include "KALDO/CStringUtils.h"

namespace {

const std::string kPreferences =
    std::string(implvm_fuzz::kHome) + "/Library/Preferences/com.vmware.fusion.plist";
const std::string kInfoPlist = "/Applications/VMware Fusion.app/Contents/Info.plist";
constexpr int kMaxNesting = 256;  // arrays and dictionaries in one another

// Without recursion: a tree too deep is what it looks for.
int Nesting(const KALDO::typeProperty& tree) {
    int deepest = 0;
    std::vector<std::pair<const KALDO::typeProperty*, int>> pending{{&tree, 0}};
    while (!pending.empty()) {
        auto [at, depth] = pending.back();
        pending.pop_back();
        if (const auto* vec = at->vecEntries()) {
            ++depth;
            for (const KALDO::typeProperty& item : *vec) pending.emplace_back(&item, depth);
        } else if (const auto* map = at->mapEntries()) {
            ++depth;
            for (const auto& entry : *map) pending.emplace_back(&entry.second, depth);
        }
        deepest = std::max(deepest, depth);
    }
    return deepest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    implvm_fuzz::BeginInput();
    const std::string bytes = implvm_fuzz::Bytes(data, size);
    implvm_test::TestMachine& mac = implvm_fuzz::Mac();

    mac.writeFile(kPreferences, bytes);
    std::vector<std::wstring> vmxPaths;
    const int listed = VirtualMachineImpl_VmWareFusion1_GetAllVms(vmxPaths);
    implvm_fuzz::Check(listed <= 0, "GetAllVms gave a positive code");

    mac.writeFile(kInfoPlist, bytes);
    KALDO::typeProperty tree;
    if (KALDO::CAppleUtils::ReadPlistFileToTypePropertyTree(
            KALDO::CStringUtils::StringToWString(kInfoPlist), tree) == 0)
        implvm_fuzz::Check(Nesting(tree) <= kMaxNesting, "a list read nests past the limit");
    KALDO::typeProperty inputs;
    inputs.addString(L"BundleId", L"com.vmware.fusion");
    KALDO::typeProperty outputs;
    const int found = KALDO::CAppleUtils::GetProductVersion(inputs, outputs);
    if (found == 0) {
        std::wstring appPath;
        implvm_fuzz::Check(outputs.lookupString(L"AppPath", appPath) >= 0 &&
                               appPath == L"/Applications/VMware Fusion.app",
                           "GetProductVersion found another application");
    }
    return 0;
}
