// Parallels Desktop: the registered VMs, what each one is (from its
// config.pvs and the files of its bundle), and starting or operating VMs
// through the system's "open", the Parallels client application and prlctl.
//
// A VM is named by its .pvm bundle (the 4.x methods) or by the config.pvs
// inside it (the 9.x methods).
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "ImplVirtualMachine.h"
#include "KALDO/CAppleUtils.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "MethodFrame.h"
#include "Readers.h"

using KALDO::CAppleUtils;
using KALDO::CFileUtils;
using KALDO::CProcessUtils;
using KALDO::typeProperty;

namespace {

const std::wstring kDirectoryList = L"/Library/Preferences/Parallels/vmdirectorylist.desktop.xml";
const std::wstring kOpenTool = L"open";
const std::wstring kClientApp =
    L"/Applications/Parallels Desktop.app/Contents/MacOS/prl_client_app";
const std::wstring kClientAppProcess = L"prl_client_app";
const std::wstring kServiceProcess = L"Parallels Desktop.app/Contents/MacOS/prl_disp_service";
const std::wstring kPrlctl = L"/Applications/Parallels Desktop.app/Contents/MacOS/prlctl";

constexpr int kServiceLookups = 40;
constexpr int kStartAttempts = 40;

namespace Readers = ImplVm::Readers;

// prlctl and the Parallels GUI run wholly as the console user (ids, groups
// and home), switched in the tool's own process: the host's ids never
// change, so nothing else the host does meanwhile runs as that user.
// Every prlctl run here acts on a VM: an action's time limit.
const CProcessUtils::RunOptions kAsConsoleUser{.asConsoleUser = true, .isAction = true};
// The GUI is meant to keep running: no time limit ends it.
const CProcessUtils::RunOptions kGuiAsConsoleUser{.asConsoleUser = true, .noTimeLimit = true};

// The forked child of the 9.x start: it brings up the Parallels GUI as the
// console user and ends. It never returns into the host: no exit handlers,
// no flush of the stdio buffers it inherited, no exception past this frame.
[[noreturn]] void RunClientAppAndEnd() {
    close(1);
    close(2);
    try {
        int pid = -1;
        (void)CProcessUtils::GetProcessIdByName(kClientAppProcess, pid, false, true);
        int exitStatus = 0;
        (void)CProcessUtils::ExecuteSafeToText(kClientApp, {L""}, exitStatus, nullptr, nullptr,
                                               nullptr, kGuiAsConsoleUser);
    } catch (...) {
        _exit(1);
    }
    _exit(0);
}

// Waits for the Parallels service to show up in the process list, for a
// bounded number of looks; whether it came does not matter to the caller.
void WaitForService() {
    int pid = -1;
    for (int look = 0; look < kServiceLookups; ++look) {
        if (CProcessUtils::GetProcessIdByName(kServiceProcess, pid, false, true) < 0 || pid != -1)
            break;
    }
}

// One prlctl run as the console user: the run's result; its output and
// error texts. Its exit status decides nothing.
int RunPrlctl(const std::vector<std::wstring>& args, std::wstring& out, std::wstring& err) {
    int exitStatus = 0;
    std::wstring diagnostic;
    return CProcessUtils::ExecuteSafeToText(kPrlctl, args, exitStatus, &out, &err, &diagnostic,
                                            kAsConsoleUser);
}

// One "prlctl start" attempt, judged by its texts.
int StartAttempt(const std::vector<std::wstring>& args) {
    std::wstring out;
    std::wstring err;
    const int code = RunPrlctl(args, out, err);
    return Readers::ParallelsStartAnswer(code, out, err);
}

}  // namespace

// ---- Inventory ----

int VirtualMachineImpl_Parallels4_GetAllVms(std::vector<std::wstring>& vmHomes) try {
    std::wstring text;
    int rc = CFileUtils::ReadFromTextFile(kDirectoryList, text);
    if (rc < 0) return IMPLVM_FAIL(rc);

    std::vector<std::wstring> homes;
    rc = Readers::ParallelsVmHomes(text, homes);
    if (rc < 0) return IMPLVM_FAIL(rc);

    // A registered VM whose bundle is gone is simply not listed.
    for (std::wstring& home : homes)
        if (CFileUtils::IsFilePresent(home) >= 0) vmHomes.push_back(std::move(home));
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Parallels4_EnumerateVMs(int, int, int, const KALDO::CSoftwareVersion*,
                                               const typeProperty*, typeProperty* outputs) try {
    // An unreadable directory list is already recorded by the list builder;
    // the host sees it as no VMs.
    std::vector<std::wstring> homes;
    (void)VirtualMachineImpl_Parallels4_GetAllVms(homes);
    ImplVm::WriteVmList(outputs, std::move(homes));
    return 0;
}
IMPLVM_BOUNDARY

// ---- Configuration reader ----

int VirtualMachineImpl_Parallels4_GetInfoForVm(const std::wstring& vmHome,
                                               typeProperty* description) try {
    description->clear();

    std::wstring text;
    int rc = CFileUtils::ReadFromTextFile(vmHome + L"/config.pvs", text);
    if (rc < 0) return IMPLVM_FAIL(rc);

    typeProperty config;
    const int parsed = Readers::ParallelsConfig(text, config);
    // A missing name or OS (nothing read) fails before the bundle is
    // listed, a failed adapter parse after.
    if (parsed < 0 && config.findMapVal(L"OS") == nullptr) return IMPLVM_FAIL(parsed);

    std::vector<std::wstring> entries;
    rc = CFileUtils::GetDirectoryList(vmHome, entries);
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (parsed < 0) return IMPLVM_FAIL(parsed);

    std::wstring name;
    typeProperty os;
    typeProperty networks;
    (void)config.getMapVal(L"UserFriendlyName", name);
    (void)config.getMapVal(L"OS", os);
    (void)config.getMapVal(L"Networks", networks);
    Readers::FillDescription(*description, name, os, Readers::ParallelsState(entries), networks);
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Parallels4_GetVMInfo(int, int, int, const KALDO::CSoftwareVersion*,
                                            const typeProperty* inputs, typeProperty* outputs) try {
    return ImplVm::DescribeToOutputs(inputs, &VirtualMachineImpl_Parallels4_GetInfoForVm,
                                     {L"UserFriendlyName", L"OS", L"State"}, outputs, __FILE__,
                                     __LINE__);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Parallels4_GetVMNetwork(int, int, int, const KALDO::CSoftwareVersion*,
                                               const typeProperty* inputs,
                                               typeProperty* outputs) try {
    return ImplVm::DescribeToOutputs(inputs, &VirtualMachineImpl_Parallels4_GetInfoForVm,
                                     {L"Networks"}, outputs, __FILE__, __LINE__);
}
IMPLVM_BOUNDARY

// ---- Control ----

int VirtualMachineImpl_Parallels4_StartVM(int, int, int, const KALDO::CSoftwareVersion*,
                                          const typeProperty* inputs, typeProperty*) try {
    std::wstring vmHome;
    int rc = ImplVm::ReadInput(inputs, L"Name", vmHome);
    if (rc < 0) return IMPLVM_FAIL(rc);

    // "open" hands the bundle to the Parallels application; the VM's state
    // is not looked at before or after.
    int exitStatus = 0;
    std::wstring out;
    rc = CProcessUtils::ExecuteSafeToText(kOpenTool, {vmHome}, exitStatus, &out, nullptr, nullptr,
                                          {.isAction = true});
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitStatus != 0) return IMPLVM_RECORD(ImplVm::kFailed);
    return 0;
}
IMPLVM_BOUNDARY

int ImplVirtualMachine_Parallels_9_X_StartVM(int, int, int, const KALDO::CSoftwareVersion*,
                                             const typeProperty* inputs, typeProperty*) try {
    std::wstring configPath;
    if (ImplVm::ReadInput(inputs, L"Name", configPath) < 0) return IMPLVM_RECORD(ImplVm::kBadInput);

    // Both processes look up the console user; the child ends whatever it
    // finds, and only the parent answers the host.
    const pid_t child = fork();
    int consoleUser = 0;
    std::wstring consoleHome;
    const bool known =
        CAppleUtils::GetCurrentLoggedInUserInfo(consoleHome, &consoleUser, nullptr) >= 0;
    if (child == 0) {
        if (!known) _exit(1);
        RunClientAppAndEnd();
    }
    if (!known) return IMPLVM_RECORD(ImplVm::kRefused);
    if (child < 0) return IMPLVM_RECORD(ImplVm::kFailed);

    // The child is left to itself: it lives as long as the GUI it started.
    WaitForService();
    sleep(1);

    if (CFileUtils::IsFilePresent(configPath) < 0) return IMPLVM_RECORD(ImplVm::kNotFound);
    // An unreadable file leaves the path in place, which holds no UUID.
    std::wstring text = configPath;
    (void)CFileUtils::ReadFromTextFile(configPath, text);
    const std::wstring uuid = Readers::ParallelsVmUuid(text);
    if (uuid.empty()) return IMPLVM_RECORD(ImplVm::kNotFound);

    const std::vector<std::wstring> args = {L"start", uuid};
    int code = 0;
    // The service may still be coming up: it refuses logins until it is.
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        sleep(1);
        code = StartAttempt(args);
        if (code >= 0) break;
    }
    return IMPLVM_RECORD(code);
}
IMPLVM_BOUNDARY

int ImplVirtualMachine_Parallels_9_X_OperateVM(int, int, int, const KALDO::CSoftwareVersion*,
                                               const typeProperty* inputs, typeProperty*) try {
    std::wstring configPath;
    if (ImplVm::ReadInput(inputs, L"Name", configPath) < 0) return IMPLVM_RECORD(ImplVm::kBadInput);
    std::wstring command;
    if (ImplVm::ReadInput(inputs, L"COMMAND", command) < 0) return IMPLVM_RECORD(ImplVm::kBadInput);
    std::wstring option;
    (void)ImplVm::ReadInput(inputs, L"OPTION", option);

    if (CFileUtils::IsFilePresent(configPath) < 0) return IMPLVM_RECORD(ImplVm::kNotFound);
    std::wstring text;
    if (CFileUtils::ReadFromTextFile(configPath, text) < 0) return IMPLVM_RECORD(ImplVm::kFailed);
    const std::wstring uuid = Readers::ParallelsVmUuid(text);
    if (uuid.empty()) return IMPLVM_RECORD(ImplVm::kNotFound);

    std::vector<std::wstring> args = {command, uuid};
    if (!option.empty()) args.push_back(option);

    int consoleUser = 0;
    std::wstring consoleHome;
    if (CAppleUtils::GetCurrentLoggedInUserInfo(consoleHome, &consoleUser, nullptr) < 0)
        return IMPLVM_RECORD(ImplVm::kFailed);

    std::wstring out;
    std::wstring err;
    const int run = RunPrlctl(args, out, err);
    const int code = Readers::ParallelsOperationAnswer(run, err);
    return IMPLVM_RECORD(code);
}
IMPLVM_BOUNDARY
