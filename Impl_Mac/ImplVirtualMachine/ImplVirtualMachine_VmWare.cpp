// VMware Fusion, the collecting part: the files it reads (preferences,
// vmInventory, .vmx, vmware.log), the folders and the process table it
// looks at, and vmrun, which it runs for the power and snapshot actions.
// What those texts say is read by ImplVm::Readers (Readers_VmWare.cpp).
#include <string>
#include <string_view>
#include <vector>

#include "ImplVirtualMachine.h"
#include "KALDO/CAppleUtils.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/typeProperty.h"
#include "MethodFrame.h"
#include "Readers.h"

using KALDO::CStringUtils;
using KALDO::typeProperty;

namespace {

constexpr size_t npos = std::wstring::npos;

constexpr const wchar_t* kVmrun = L"/Applications/VMware Fusion.app/Contents/Library/vmrun";
constexpr const wchar_t* kPreferences = L"/Library/Preferences/com.vmware.fusion.plist";
constexpr const wchar_t* kInventory = L"/Library/Application Support/VMware Fusion/vmInventory";

// ---- .vmx reader ----

// vmx text of the VM; `vmPath` becomes the VM folder when the .vmx had to be
// searched for. Returns 0 with `searchGaveUp` set when the folder holds more
// than one .vmx: which of them is meant cannot be told.
int ReadVmxText(std::wstring& vmPath, const std::wstring& fileName, bool isVmxPath,
                std::wstring& vmx, bool& searchGaveUp) {
    searchGaveUp = false;
    const std::wstring direct = isVmxPath ? vmPath : vmPath + L"/" + fileName + L".vmx";
    if (KALDO::CFileUtils::ReadFromTextFile(direct, vmx) >= 0) return 0;

    if (isVmxPath) vmPath = vmPath.substr(0, vmPath.rfind(L'/'));
    std::wstring folder = vmPath;
    typeProperty files;
    const int listed = KALDO::CFileUtils::POSIX_ListFilesInDirectory(folder, files, 0, 32, 0, 0);
    if (listed < 0) return 0;  // no text: the missing displayName reports it

    int count = 0;
    files.getVecSize(count);
    std::wstring baseName;
    bool found = false;
    for (int i = 0; i < count; ++i) {
        std::wstring entry;
        if (files.getVecVal(i, entry) < 0 || !CStringUtils::EndsWith(entry, L".vmx", 0)) continue;
        if (found) {
            searchGaveUp = true;
            return listed;
        }
        found = true;
        baseName = entry.substr(0, entry.size() - 4);
        baseName = baseName.substr(baseName.rfind(L'/') + 1);
    }
    if (!found) return 0;
    const int rc = KALDO::CFileUtils::ReadFromTextFile(vmPath + L"/" + baseName + L".vmx", vmx);
    return rc < 0 ? IMPLVM_FAIL(rc) : 0;
}

// Fusion 4 and later: the .vmx's vmState names the suspend file while the VM
// is suspended; with no vmState a running VM shows in the process table and
// its log tells running from paused.
int StateFromVmxAndLog(const std::wstring& vmState, const std::wstring& vmPath,
                       int fusionMajorVersion, int& state) {
    if (!vmState.empty()) {
        state = ImplVm::Readers::StateFromVmState(vmState);
        return ImplVm::kDone;
    }
    std::wstring listing;
    KALDO::CProcessUtils::GetProcessListing_MAC(listing, "wwax");
    if (listing.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
    if (listing.find(vmPath) == npos) {
        state = ImplVm::kStopped;
        return ImplVm::kDone;
    }
    // Fusion 4 names a VM by its bundle folder, later versions by its .vmx.
    const std::wstring vmFolder =
        fusionMajorVersion == 4 ? vmPath : vmPath.substr(0, vmPath.rfind(L'/'));
    std::wstring log;
    const int rc = KALDO::CFileUtils::ReadFromTextFile(vmFolder + L"/vmware.log", log);
    if (rc < 0) return IMPLVM_FAIL(rc);
    state = ImplVm::Readers::StateFromLog(log);
    return ImplVm::kDone;
}

// Before Fusion 4: the memory files in the VM folder.
int StateFromMemoryFiles(const std::wstring& vmFolder, int& state) {
    std::vector<std::wstring> names;
    const int rc = KALDO::CFileUtils::GetDirectoryList(vmFolder, names);
    if (rc < 0) return IMPLVM_FAIL(rc);
    state = ImplVm::Readers::StateFromMemoryFiles(names);
    return ImplVm::kDone;
}

// Reads "Name" and fills `description` for it; failures are recorded here.
int ReadDescription(const KALDO::CSoftwareVersion* version, const typeProperty* inputs,
                    std::wstring& name, typeProperty& description) {
    int rc = ImplVm::ReadInput(inputs, L"Name", name);
    if (rc < 0) return IMPLVM_FAIL(rc);
    rc = VirtualMachineImpl_VmWareFusion1_GetInfoForVm(
        name, &description, KALDO::CGeneralUtils::GetMajorVersion(version));
    if (rc < 0) return IMPLVM_FAIL(rc);
    return 0;
}

// ---- vmrun ----

// How a failing run's output maps to a result code (ImplVm::Readers).
using VmrunAnswer = int (*)(std::wstring_view out);

int RunVmrun(const std::vector<std::wstring>& args, VmrunAnswer answer) {
    int exitCode = 0;
    std::wstring out;
    // Every run here changes the VM (power, snapshots): an action's time limit.
    const int rc = KALDO::CProcessUtils::ExecuteSafeToText(kVmrun, args, exitCode, &out, nullptr,
                                                           nullptr, {.isAction = true});
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitCode == 0) return ImplVm::kDone;
    return IMPLVM_RECORD(answer(out));
}

// StopVM and SuspendVM: nothing to do in `doneState`; in `startFirstState`
// the VM is started (resumed) before `action` is run on it.
int DriveVm(const KALDO::CSoftwareVersion* version, const typeProperty* inputs,
            ImplVm::VmState doneState, ImplVm::VmState startFirstState, const wchar_t* action) {
    std::wstring name;
    typeProperty description;
    int rc = ReadDescription(version, inputs, name, description);
    if (rc < 0) return rc;
    int state = 0;
    rc = description.getMapVal(L"State", state);
    if (rc < 0) return IMPLVM_FAIL(rc);

    if (state == doneState) return 0;
    if (state == startFirstState) {
        rc = IMPLVM_RECORD(VirtualMachineImpl_VmwareFusion_PerformVMAction(L"start", name));
        if (rc < 0) return rc;
    }
    return IMPLVM_RECORD(VirtualMachineImpl_VmwareFusion_PerformVMAction(action, name));
}

int ChangeSnapshot(const typeProperty* inputs, const wchar_t* action) {
    std::wstring name;
    int rc = IMPLVM_RECORD(ImplVm::ReadInput(inputs, L"Name", name));
    if (rc < 0) return rc;
    std::wstring snapshot;
    rc = IMPLVM_RECORD(ImplVm::ReadInput(inputs, L"Snapshot", snapshot));
    if (rc < 0) return rc;
    return IMPLVM_RECORD(ControlSnapshot(name, action, snapshot));
}

}  // namespace

// ---- Library ----

int VirtualMachineImpl_VmWareFusion1_GetAllVms(std::vector<std::wstring>& vmxPaths) try {
    std::wstring home;
    int rc = KALDO::CAppleUtils::GetCurrentLoggedInUserInfo(home, nullptr, nullptr);
    if (rc < 0) return IMPLVM_FAIL(rc);
    std::wstring path = home + kPreferences;
    typeProperty preferences;
    rc = KALDO::CAppleUtils::ReadPlistFileToTypePropertyTree(path, preferences);
    if (rc < 0) return IMPLVM_FAIL(rc);

    rc = ImplVm::Readers::FavouritePaths(preferences, vmxPaths);
    if (rc < 0) return IMPLVM_FAIL(rc);
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_EnumerateVMs(int, int, int, const KALDO::CSoftwareVersion*,
                                                  const typeProperty*, typeProperty* outputs) try {
    // Whatever the library gave up to a failure is still worth publishing.
    std::vector<std::wstring> vmxPaths;
    VirtualMachineImpl_VmWareFusion1_GetAllVms(vmxPaths);
    ImplVm::WriteVmList(outputs, std::move(vmxPaths));
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs(int, int, int, const KALDO::CSoftwareVersion*,
                                                    const typeProperty*,
                                                    typeProperty* outputs) try {
    std::wstring home;
    const int rc =
        IMPLVM_RECORD(KALDO::CAppleUtils::GetCurrentLoggedInUserInfo(home, nullptr, nullptr));
    if (rc < 0) return rc;
    // A user who never ran Fusion 5 has no inventory: an empty library.
    std::vector<std::wstring> vmxPaths;
    {
        // Let the text go before the output list is built: a large
        // inventory's text is several times the size of the list.
        std::wstring text;
        if (KALDO::CFileUtils::ReadFromTextFile(home + kInventory, text) >= 0)
            vmxPaths = ImplVm::Readers::VmInventoryPaths(text);
    }
    ImplVm::WriteVmList(outputs, std::move(vmxPaths));
    return 0;
}
IMPLVM_BOUNDARY

// ---- .vmx reader ----

int VirtualMachineImpl_VmWareFusion1_GetInfoForVm(const std::wstring& vmIdentifier,
                                                  typeProperty* description,
                                                  int fusionMajorVersion) try {
    description->clear();
    std::wstring drive, folder, fileName, extension;
    int rc = KALDO::rtSplitPath(vmIdentifier, drive, folder, fileName, extension);
    if (rc < 0) return IMPLVM_FAIL(rc);

    // The identifier is a .vmx path or a bundle folder.
    const bool isVmxPath = CStringUtils::EndsWith(vmIdentifier, L".vmx", 0);
    std::wstring vmPath = vmIdentifier;
    std::wstring vmx;
    bool searchGaveUp = false;
    rc = ReadVmxText(vmPath, fileName, isVmxPath, vmx, searchGaveUp);
    if (rc < 0 || searchGaveUp) return rc;

    const ImplVm::Readers::VmxFacts facts = ImplVm::Readers::ReadVmx(std::move(vmx));
    if (facts.displayName.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
    if (facts.guestOs.empty()) return IMPLVM_RECORD(ImplVm::kFailed);

    int state = 0;
    rc = fusionMajorVersion >= 4
             ? StateFromVmxAndLog(facts.vmState, vmPath, fusionMajorVersion, state)
             : StateFromMemoryFiles(isVmxPath ? folder : vmPath, state);
    if (rc < 0) return rc;

    ImplVm::Readers::FillDescription(*description, facts.displayName, facts.os, state,
                                     facts.networks);
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_GetVMInfo(int, int, int,
                                               const KALDO::CSoftwareVersion* version,
                                               const typeProperty* inputs,
                                               typeProperty* outputs) try {
    std::wstring name;
    typeProperty description;
    const int rc = ReadDescription(version, inputs, name, description);
    if (rc < 0) return rc;
    return ImplVm::CopyDescription(description, {L"UserFriendlyName", L"OS", L"State"}, outputs,
                                   __FILE__, __LINE__);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_GetVMNetwork(int, int, int,
                                                  const KALDO::CSoftwareVersion* version,
                                                  const typeProperty* inputs,
                                                  typeProperty* outputs) try {
    std::wstring name;
    typeProperty description;
    const int rc = ReadDescription(version, inputs, name, description);
    if (rc < 0) return rc;
    return ImplVm::CopyDescription(description, {L"Networks"}, outputs, __FILE__, __LINE__);
}
IMPLVM_BOUNDARY

// ---- Power actions ----

int VirtualMachineImpl_VmwareFusion_PerformVMAction(const std::wstring& action,
                                                    const std::wstring& vmPath) try {
    return RunVmrun({action, vmPath}, ImplVm::Readers::VmrunPowerAnswer);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_StartVM(int, int, int, const KALDO::CSoftwareVersion*,
                                             const typeProperty* inputs, typeProperty*) try {
    std::wstring name;
    const int rc = ImplVm::ReadInput(inputs, L"Name", name);
    if (rc < 0) return IMPLVM_FAIL(rc);
    return IMPLVM_RECORD(VirtualMachineImpl_VmwareFusion_PerformVMAction(L"start", name));
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_StopVM(int, int, int, const KALDO::CSoftwareVersion* version,
                                            const typeProperty* inputs, typeProperty*) try {
    // A suspended VM is resumed so that it can be shut down.
    return DriveVm(version, inputs, ImplVm::kStopped, ImplVm::kSuspended, L"stop");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_SuspendVM(int, int, int,
                                               const KALDO::CSoftwareVersion* version,
                                               const typeProperty* inputs, typeProperty*) try {
    // A stopped VM is started so that it can be suspended.
    return DriveVm(version, inputs, ImplVm::kSuspended, ImplVm::kStopped, L"suspend");
}
IMPLVM_BOUNDARY

// ---- Snapshots ----

int ControlSnapshot(const std::wstring& vmName, const std::wstring& action,
                    const std::wstring& snapshotName) try {
    return RunVmrun({action, vmName, snapshotName}, ImplVm::Readers::VmrunSnapshotAnswer);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion4_AddSnapshot(int, int, int, const KALDO::CSoftwareVersion*,
                                                 const typeProperty* inputs, typeProperty*) try {
    return ChangeSnapshot(inputs, L"snapshot");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion4_DeleteSnapshot(int, int, int, const KALDO::CSoftwareVersion*,
                                                    const typeProperty* inputs, typeProperty*) try {
    return ChangeSnapshot(inputs, L"deleteSnapshot");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion4_ListSnapshots(int, int, int, const KALDO::CSoftwareVersion*,
                                                   const typeProperty* inputs,
                                                   typeProperty* outputs) try {
    std::wstring name;
    int rc = IMPLVM_RECORD(ImplVm::ReadInput(inputs, L"Name", name));
    if (rc < 0) return rc;
    int exitCode = 0;
    std::wstring out;
    rc = KALDO::CProcessUtils::ExecuteSafeToText(kVmrun, {L"listSnapshots", name}, exitCode, &out,
                                                 nullptr, nullptr);
    if (rc < 0) return IMPLVM_FAIL(rc);
    const ImplVm::Readers::SnapshotList list = ImplVm::Readers::VmrunSnapshotList(out);
    if (list.code < 0) return IMPLVM_RECORD(list.code);
    outputs->addSubTree(L"Snapshots", list.snapshots);
    return 0;
}
IMPLVM_BOUNDARY
