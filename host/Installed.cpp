#include "Installed.h"

#include <algorithm>
#include <cwctype>
#include <utility>

#include "KALDO/CFileUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"

namespace implvm {

namespace {

constexpr ProductFacts kFacts[] = {
    {"parallels", "Parallels Desktop", "com.parallels.desktop.console"},
    {"vmware", "VMware Fusion", "com.vmware.fusion"},
    {"virtualbox", "VirtualBox", "org.virtualbox.app.VirtualBox"},
};

using ImplVm::Role;

// The host's actions as the module's method list names their roles.
constexpr std::pair<Role, VmAction> kActionRoles[] = {
    {Role::kStart, VmAction::kStart},
    {Role::kStop, VmAction::kStop},
    {Role::kSuspend, VmAction::kSuspend},
    {Role::kPause, VmAction::kPause},
    {Role::kResume, VmAction::kResume},
    {Role::kSnapshotTake, VmAction::kSnapshotTake},
    {Role::kSnapshotDelete, VmAction::kSnapshotDelete},
    {Role::kSnapshotList, VmAction::kSnapshotList},
};

// An operating method does these, told which by its "COMMAND" input.
constexpr std::pair<VmAction, const char*> kOperations[] = {
    {VmAction::kStop, "stop"},
    {VmAction::kSuspend, "suspend"},
    {VmAction::kPause, "pause"},
    {VmAction::kResume, "resume"},
};

bool Serves(const ImplVm::MethodEntry& method, Hypervisor hypervisor, int major) {
    return method.product == hypervisor && major >= method.firstMajor && major <= method.lastMajor;
}

bool IsUuid(const std::wstring& text) {
    constexpr size_t kLength = 36;  // 8-4-4-4-12 hexadecimal digits
    if (text.size() != kLength) return false;
    for (size_t i = 0; i < kLength; ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != L'-' : !std::iswxdigit(text[i])) return false;
    }
    return true;
}

std::string OutputText(const KALDO::typeProperty& outputs, const wchar_t* key) {
    std::wstring value;
    if (outputs.getMapVal(key, value) < 0) return "";
    return KALDO::CStringUtils::WStringToString(value);
}

}  // namespace

const ProductFacts& FactsOf(Hypervisor hypervisor) {
    return kFacts[static_cast<size_t>(hypervisor)];
}

int OldestServed(Hypervisor hypervisor) {
    int oldest = ImplVm::kAnyLater;
    for (const ImplVm::MethodEntry& method : ImplVm::kMethods)
        if (method.product == hypervisor) oldest = std::min(oldest, method.firstMajor);
    return oldest;
}

ProductMethods MethodsFor(Hypervisor hypervisor, int majorVersion) {
    ProductMethods m;
    for (const ImplVm::MethodEntry& method : ImplVm::kMethods) {
        if (!Serves(method, hypervisor, majorVersion)) continue;
        // The list's names are literals, so their views end in a NUL.
        const char* name = method.name.data();
        const ActionMethod action{name, nullptr, method.argument};
        if (method.role == Role::kEnumerate) m.enumerate = name;
        if (method.role == Role::kInfo) m.info = name;
        if (method.role == Role::kNetwork) m.network = name;
        for (const auto& [role, vmAction] : kActionRoles)
            if (method.role == role) m.actions[static_cast<size_t>(vmAction)] = action;
        if (method.role == Role::kOperate)
            for (const auto& [vmAction, command] : kOperations)
                m.actions[static_cast<size_t>(vmAction)] = {name, command, method.argument};
    }
    return m;
}

Product FindProduct(const Module& module, Hypervisor hypervisor) {
    Product product;
    product.hypervisor = hypervisor;
    KALDO::typeProperty inputs;
    inputs.changeTypeToMap();
    inputs.addMapVal(L"BundleId", KALDO::CStringUtils::StringToWString(
                                      std::string(FactsOf(hypervisor).bundleId)));
    product.versionCall = module.call("VirtualMachineImpl_Common_GetProductVersion", inputs);
    if (product.versionCall.result < 0) return product;
    product.version = OutputText(product.versionCall.outputs, L"ProductVersion");
    product.appPath = OutputText(product.versionCall.outputs, L"AppPath");
    // A bundle that names no version cannot be matched with methods.
    product.installed = !product.version.empty();
    if (!product.installed) return product;
    product.major = KALDO::CSoftwareVersion(product.version).major();
    product.methods = MethodsFor(hypervisor, product.major);
    return product;
}

std::array<Product, 3> FindProducts(const Module& module) {
    std::array<Product, 3> products;
    for (size_t i = 0; i < kHypervisors.size(); ++i)
        products[i] = FindProduct(module, kHypervisors[i]);
    return products;
}

int MachineUuidOf(const std::string& settingsFile, std::string& uuid) {
    using KALDO::CStringUtils;
    std::wstring text;
    const int rc =
        KALDO::CFileUtils::ReadFromTextFile(CStringUtils::StringToWString(settingsFile), text);
    if (rc < 0) return rc;
    // The start tag of <Machine> alone: a later element's uuid (a disk's, a
    // snapshot's) must never stand in for a machine's missing one.
    for (size_t from = 0;;) {
        size_t at = 0;
        std::wstring tag =
            CStringUtils::ExtractStringBetweenEnhance(text, L"<Machine", L">", from, &at);
        if (at == std::wstring::npos) return KALDO::kFailed;
        from = at + tag.size();
        if (tag.empty() || !std::iswspace(tag.front())) continue;  // <MachineEntry ...>
        std::replace_if(
            tag.begin(), tag.end(), [](wchar_t c) { return std::iswspace(c) != 0; }, L' ');
        std::wstring value = CStringUtils::ExtractStringBetween(tag, L" uuid=\"", L"\"");
        if (value.size() == 38 && value.front() == L'{' && value.back() == L'}')
            value = value.substr(1, 36);
        if (!IsUuid(value)) return KALDO::kFailed;
        uuid = CStringUtils::WStringToString(value);
        return 0;
    }
}

std::string ConfigFileOf(const std::string& bundle) {
    std::string path = bundle;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path + "/config.pvs";
}

}  // namespace implvm
