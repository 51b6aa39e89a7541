#include "Installed.h"

#include <algorithm>
#include <cwctype>

#include "KALDO/CFileUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"

namespace implvm {

namespace {

constexpr ProductFacts kFacts[] = {
    {"parallels", "Parallels Desktop", "com.parallels.desktop.console", 4},
    {"vmware", "VMware Fusion", "com.vmware.fusion", 1},
    {"virtualbox", "VirtualBox", "org.virtualbox.app.VirtualBox", 2},
};

void Offer(ProductMethods& methods, VmAction action, ActionMethod method) {
    methods.actions[static_cast<size_t>(action)] = method;
}

// Parallels Desktop 4 and later are read from their files; 9 brought prlctl,
// which the 9.x methods run on the VM's configuration file. Before 9 a VM can
// only be opened (started) in the application.
ProductMethods ParallelsMethods(int major) {
    ProductMethods m;
    if (major < 4) return m;
    m.enumerate = "VirtualMachineImpl_Parallels4_EnumerateVMs";
    m.info = "VirtualMachineImpl_Parallels4_GetVMInfo";
    m.network = "VirtualMachineImpl_Parallels4_GetVMNetwork";
    if (major < 9) {
        Offer(m, VmAction::kStart, {"VirtualMachineImpl_Parallels4_StartVM"});
        return m;
    }
    constexpr const char* kOperate = "ImplVirtualMachine_Parallels_9_X_OperateVM";
    Offer(m, VmAction::kStart,
          {"ImplVirtualMachine_Parallels_9_X_StartVM", nullptr, VmArgument::kConfigFile});
    Offer(m, VmAction::kStop, {kOperate, "stop", VmArgument::kConfigFile});
    Offer(m, VmAction::kSuspend, {kOperate, "suspend", VmArgument::kConfigFile});
    Offer(m, VmAction::kPause, {kOperate, "pause", VmArgument::kConfigFile});
    Offer(m, VmAction::kResume, {kOperate, "resume", VmArgument::kConfigFile});
    return m;
}

// Fusion 1 to 4 keep the VM library in the preferences, 5 and later in the
// vmInventory file. vmrun offers no pause; the snapshot methods were written
// for Fusion 4.
ProductMethods FusionMethods(int major) {
    ProductMethods m;
    if (major < 1) return m;
    m.enumerate = major >= 5 ? "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs"
                             : "VirtualMachineImpl_VmWareFusion1_EnumerateVMs";
    m.info = "VirtualMachineImpl_VmWareFusion1_GetVMInfo";
    m.network = "VirtualMachineImpl_VmWareFusion1_GetVMNetwork";
    Offer(m, VmAction::kStart, {"VirtualMachineImpl_VmWareFusion1_StartVM"});
    Offer(m, VmAction::kStop, {"VirtualMachineImpl_VmWareFusion1_StopVM"});
    Offer(m, VmAction::kSuspend, {"VirtualMachineImpl_VmWareFusion1_SuspendVM"});
    if (major >= 4) {
        Offer(m, VmAction::kSnapshotTake, {"VirtualMachineImpl_VmWareFusion4_AddSnapshot"});
        Offer(m, VmAction::kSnapshotDelete, {"VirtualMachineImpl_VmWareFusion4_DeleteSnapshot"});
        Offer(m, VmAction::kSnapshotList, {"VirtualMachineImpl_VmWareFusion4_ListSnapshots"});
    }
    return m;
}

// VirtualBox 2 and later are read from VirtualBox.xml and showvminfo; the
// actions, for 4 and later, name the machine by its UUID, which VBoxManage
// takes as readily as a name and which, unlike a name, is never shared.
// VBoxManage's save-state is not among them, so there is no suspend.
ProductMethods VirtualBoxMethods(int major) {
    ProductMethods m;
    if (major < 2) return m;
    m.enumerate = "VirtualMachineImpl_VirtualBox2_EnumerateVMs";
    m.info = "VirtualMachineImpl_VirtualBox2_GetVMInfo";
    m.network = "VirtualMachineImpl_VirtualBox2_GetVMNetwork";
    if (major < 4) return m;
    Offer(m, VmAction::kStart,
          {"VirtualMachineImpl_VirtualBox_4_X_StartVM", nullptr, VmArgument::kMachineUuid});
    Offer(m, VmAction::kStop,
          {"VirtualMachineImpl_VirtualBox_4_X_StopVM", nullptr, VmArgument::kMachineUuid});
    Offer(m, VmAction::kPause,
          {"VirtualMachineImpl_VirtualBox_4_X_PauseVM", nullptr, VmArgument::kMachineUuid});
    Offer(m, VmAction::kResume,
          {"VirtualMachineImpl_VirtualBox_4_X_ResumeVM", nullptr, VmArgument::kMachineUuid});
    return m;
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

ProductMethods MethodsFor(Hypervisor hypervisor, int majorVersion) {
    switch (hypervisor) {
        case Hypervisor::kParallels:
            return ParallelsMethods(majorVersion);
        case Hypervisor::kVmWareFusion:
            return FusionMethods(majorVersion);
        case Hypervisor::kVirtualBox:
            return VirtualBoxMethods(majorVersion);
    }
    return {};
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
