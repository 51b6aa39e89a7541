// The VirtualBox adapter's collecting half: the machine list comes from the
// console user's VirtualBox.xml, a machine's description from the text
// report of `VBoxManage showvminfo`, and power actions from running
// VBoxManage once. What each text says is read in Readers_VirtualBox.cpp.
#include <string>
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

namespace {

using KALDO::CStringUtils;
using KALDO::typeProperty;
namespace Readers = ImplVm::Readers;

// ---- Inventory ----

// Appended to the home folder as it is returned; the result is also the
// folder that VirtualBox 3 wrote its relative machine paths against.
constexpr wchar_t kSettingsFolder[] = L"/Library/VirtualBox/";
constexpr wchar_t kGlobalSettingsFile[] = L"VirtualBox.xml";

// The major version from the version record's text ("4.3.12" gives 4). A
// host that passes no record gets the reading of empty text: 0, i.e. the
// oldest layout.
int MajorVersionOf(const KALDO::CSoftwareVersion* version) {
    std::string text;
    if (version != nullptr) {
        const KALDO::CSoftwareVersion copy(*version);
        text = copy.toCharStr();
    }
    return CStringUtils::StrToI32(CStringUtils::StringToWString(text));
}

// ---- Machine description ----

constexpr wchar_t kBundleId[] = L"org.virtualbox.app.VirtualBox";
constexpr wchar_t kToolInBundle[] = L"/Contents/MacOS/VBoxManage";

// ---- Power actions ----

// Unlike the description, actions use the tool at its standard place only.
constexpr wchar_t kVBoxManage[] = L"/Applications/VirtualBox.app/Contents/MacOS/VBoxManage";
constexpr wchar_t kStartAction[] = L"startvm";

int RunPowerMethod(const typeProperty* inputs, const wchar_t* action) {
    std::wstring machine;
    const int rc = ImplVm::ReadInput(inputs, L"Name", machine);
    if (rc < 0) return IMPLVM_FAIL(rc);
    return IMPLVM_RECORD(VirtualMachineImpl_VirtualBox_4_X_PerformVMAction(action, machine));
}

}  // namespace

// ---- Inventory ----

int VirtualMachineImpl_VirtualBox2_GetAllVms(std::vector<std::wstring>* vms, int majorVersion) try {
    if (vms == nullptr) return IMPLVM_RECORD(ImplVm::kBadInput);
    std::wstring home;
    int rc = KALDO::CAppleUtils::GetCurrentLoggedInUserInfo(home, nullptr, nullptr);
    if (rc < 0) return IMPLVM_FAIL(rc);
    const std::wstring settingsFolder = home + kSettingsFolder;

    std::wstring xml;
    rc = KALDO::CFileUtils::ReadFromTextFile(settingsFolder + kGlobalSettingsFile, xml);
    if (rc < 0) return IMPLVM_FAIL(rc);

    rc = Readers::VBoxMachinePaths(xml, majorVersion, settingsFolder, *vms);
    if (rc < 0) return IMPLVM_FAIL(rc);
    return 0;
}
IMPLVM_BOUNDARY

// Never fails: a host learns of a missing installation from an empty list
// (and the error log).
int VirtualMachineImpl_VirtualBox2_EnumerateVMs(int, int, int,
                                                const KALDO::CSoftwareVersion* version,
                                                const typeProperty*, typeProperty* outputs) try {
    std::vector<std::wstring> vms;
    (void)VirtualMachineImpl_VirtualBox2_GetAllVms(&vms, MajorVersionOf(version));
    ImplVm::WriteVmList(outputs, std::move(vms));
    return 0;
}
IMPLVM_BOUNDARY

// ---- Machine description ----

int VirtualMachineImpl_VirtualBox2_GetInfoForVm(const std::wstring& settingsPath,
                                                typeProperty* description) try {
    if (description == nullptr) return IMPLVM_RECORD(ImplVm::kBadInput);
    description->clear();

    std::wstring appPath;
    int rc = KALDO::CAppleUtils::LS_GetAppPathByAppId(kBundleId, appPath);
    if (rc < 0) return IMPLVM_FAIL(rc);
    const std::wstring tool = appPath + kToolInBundle;

    std::wstring settings;
    rc = KALDO::CFileUtils::ReadFromTextFile(settingsPath, settings);
    if (rc < 0) return IMPLVM_FAIL(rc);
    const std::wstring uuid = Readers::VBoxMachineUuid(settings);
    if (uuid.empty()) return IMPLVM_RECORD(ImplVm::kFailed);

    int exitCode = 0;
    std::wstring report;
    rc = KALDO::CProcessUtils::ExecuteSafeToText(tool, {L"showvminfo", uuid}, exitCode, &report,
                                                 nullptr, nullptr);
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitCode != 0) return IMPLVM_RECORD(ImplVm::kFailed);

    rc = Readers::VBoxDescription(report, *description);
    if (rc < 0) return IMPLVM_RECORD(rc);
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox2_GetVMInfo(int, int, int, const KALDO::CSoftwareVersion*,
                                             const typeProperty* inputs,
                                             typeProperty* outputs) try {
    return ImplVm::DescribeToOutputs(inputs, &VirtualMachineImpl_VirtualBox2_GetInfoForVm,
                                     {L"UserFriendlyName", L"OS", L"State"}, outputs, __FILE__,
                                     __LINE__);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox2_GetVMNetwork(int, int, int, const KALDO::CSoftwareVersion*,
                                                const typeProperty* inputs,
                                                typeProperty* outputs) try {
    return ImplVm::DescribeToOutputs(inputs, &VirtualMachineImpl_VirtualBox2_GetInfoForVm,
                                     {L"Networks"}, outputs, __FILE__, __LINE__);
}
IMPLVM_BOUNDARY

// ---- Power actions ----

int VirtualMachineImpl_VirtualBox_4_X_PerformVMAction(const std::wstring& action,
                                                      const std::wstring& machine) try {
    // Built step by step: g++ 12 destroys the strings of a braced list in a
    // conditional expression a second time when one of them fails to
    // allocate.
    std::vector<std::wstring> args;
    if (action != kStartAction) args.emplace_back(L"controlvm");
    args.push_back(action == kStartAction ? action : machine);
    args.push_back(action == kStartAction ? machine : action);
    int exitCode = 0;
    std::wstring text;
    const int rc = KALDO::CProcessUtils::ExecuteSafeToText(kVBoxManage, args, exitCode, &text,
                                                           nullptr, nullptr, {.isAction = true});
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitCode == 0) return 0;
    return IMPLVM_RECORD(Readers::VBoxManageAnswer(text));
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox_4_X_StartVM(int, int, int, const KALDO::CSoftwareVersion*,
                                              const typeProperty* inputs, typeProperty*) try {
    return RunPowerMethod(inputs, kStartAction);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox_4_X_StopVM(int, int, int, const KALDO::CSoftwareVersion*,
                                             const typeProperty* inputs, typeProperty*) try {
    return RunPowerMethod(inputs, L"poweroff");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox_4_X_PauseVM(int, int, int, const KALDO::CSoftwareVersion*,
                                              const typeProperty* inputs, typeProperty*) try {
    return RunPowerMethod(inputs, L"pause");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox_4_X_ResumeVM(int, int, int, const KALDO::CSoftwareVersion*,
                                               const typeProperty* inputs, typeProperty*) try {
    return RunPowerMethod(inputs, L"resume");
}
IMPLVM_BOUNDARY
