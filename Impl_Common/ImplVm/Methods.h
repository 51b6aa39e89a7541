// The module's method functions: one list, from which the module declares
// them, hosts learn their names and pick the ones that fit an installed
// product's version, and the tests check what the module exports.
#pragma once

#include <climits>
#include <string>
#include <string_view>

#include "KALDO/CSoftwareVersion.h"
#include "KALDO/typeProperty.h"
#include "Vocabulary.h"

#define IMPLVM_EXPORT extern "C" __attribute__((visibility("default")))

// host context 1..3, product version, inputs, outputs -> 0 or a negative code
using ImplVmMethod = int(int, int, int, const KALDO::CSoftwareVersion*, const KALDO::typeProperty*,
                         KALDO::typeProperty*);

#define IMPLVM_METHOD(name)                                               \
    IMPLVM_EXPORT int name(int, int, int, const KALDO::CSoftwareVersion*, \
                           const KALDO::typeProperty*, KALDO::typeProperty*)

namespace ImplVm {

// What a method does for its host.
enum class Role {
    kModuleVersion,
    kProductVersion,
    kHypervisorType,
    kHardwareCheck,  // is this machine virtual, from its hardware report
    kAddressCheck,   // is this machine virtual, from its adapters' addresses
    kEnumerate,      // no inputs; output "VMs"
    kInfo,           // input "Name"; outputs "UserFriendlyName", "OS", "State"
    kNetwork,        // input "Name"; output "Networks"
    kStart,
    kStop,
    kSuspend,
    kPause,
    kResume,
    kOperate,  // stop, suspend, pause and resume, named by input "COMMAND"
    kSnapshotTake,
    kSnapshotDelete,
    kSnapshotList,
};

// What an action method wants under "Name", made from the identifier the
// product's enumeration lists.
enum class Argument {
    kIdentifier,   // the identifier as listed
    kConfigFile,   // the configuration file inside the listed bundle
    kMachineUuid,  // the machine's UUID from the listed settings file
};

inline constexpr int kAnyLater = INT_MAX;

// One method: its name, the product and the major versions it serves.
struct MethodEntry {
    std::string_view name;
    Hypervisor product;
    Role role;
    int firstMajor;
    int lastMajor;
    Argument argument;
};

}  // namespace ImplVm

// X(name, product, role, first major, last major, argument), in the order
// hosts list them.
#define IMPLVM_METHODS(X)                                                                          \
    X(VirtualMachineImpl_Common_GetModuleVersion, kNone, kModuleVersion, 0, 0, kIdentifier)        \
    X(VirtualMachineImpl_Common_GetProductVersion, kNone, kProductVersion, 0, 0, kIdentifier)      \
    X(VirtualMachineImpl_Common_GetHypervisorType, kNone, kHypervisorType, 0, 0, kIdentifier)      \
    X(VirtualMachineImpl_Common_IsMachineVirtual, kNone, kHardwareCheck, 0, 0, kIdentifier)        \
    X(ImplVm_Common_IsMachineVirtual, kNone, kAddressCheck, 0, 0, kIdentifier)                     \
    X(VirtualMachineImpl_Parallels4_EnumerateVMs, kParallels, kEnumerate, 4, kAnyLater,            \
      kIdentifier)                                                                                 \
    X(VirtualMachineImpl_Parallels4_GetVMInfo, kParallels, kInfo, 4, kAnyLater, kIdentifier)       \
    X(VirtualMachineImpl_Parallels4_GetVMNetwork, kParallels, kNetwork, 4, kAnyLater, kIdentifier) \
    X(VirtualMachineImpl_Parallels4_StartVM, kParallels, kStart, 4, 8, kIdentifier)                \
    X(ImplVirtualMachine_Parallels_9_X_StartVM, kParallels, kStart, 9, kAnyLater, kConfigFile)     \
    X(ImplVirtualMachine_Parallels_9_X_OperateVM, kParallels, kOperate, 9, kAnyLater, kConfigFile) \
    X(VirtualMachineImpl_VmWareFusion1_EnumerateVMs, kVmWareFusion, kEnumerate, 1, 4, kIdentifier) \
    X(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs, kVmWareFusion, kEnumerate, 5, kAnyLater,    \
      kIdentifier)                                                                                 \
    X(VirtualMachineImpl_VmWareFusion1_GetVMInfo, kVmWareFusion, kInfo, 1, kAnyLater, kIdentifier) \
    X(VirtualMachineImpl_VmWareFusion1_GetVMNetwork, kVmWareFusion, kNetwork, 1, kAnyLater,        \
      kIdentifier)                                                                                 \
    X(VirtualMachineImpl_VmWareFusion1_StartVM, kVmWareFusion, kStart, 1, kAnyLater, kIdentifier)  \
    X(VirtualMachineImpl_VmWareFusion1_StopVM, kVmWareFusion, kStop, 1, kAnyLater, kIdentifier)    \
    X(VirtualMachineImpl_VmWareFusion1_SuspendVM, kVmWareFusion, kSuspend, 1, kAnyLater,           \
      kIdentifier)                                                                                 \
    X(VirtualMachineImpl_VmWareFusion4_AddSnapshot, kVmWareFusion, kSnapshotTake, 4, kAnyLater,    \
      kIdentifier)                                                                                 \
    X(VirtualMachineImpl_VmWareFusion4_DeleteSnapshot, kVmWareFusion, kSnapshotDelete, 4,          \
      kAnyLater, kIdentifier)                                                                      \
    X(VirtualMachineImpl_VmWareFusion4_ListSnapshots, kVmWareFusion, kSnapshotList, 4, kAnyLater,  \
      kIdentifier)                                                                                 \
    X(VirtualMachineImpl_VirtualBox2_EnumerateVMs, kVirtualBox, kEnumerate, 2, kAnyLater,          \
      kIdentifier)                                                                                 \
    X(VirtualMachineImpl_VirtualBox2_GetVMInfo, kVirtualBox, kInfo, 2, kAnyLater, kIdentifier)     \
    X(VirtualMachineImpl_VirtualBox2_GetVMNetwork, kVirtualBox, kNetwork, 2, kAnyLater,            \
      kIdentifier)                                                                                 \
    X(VirtualMachineImpl_VirtualBox_4_X_StartVM, kVirtualBox, kStart, 4, kAnyLater, kMachineUuid)  \
    X(VirtualMachineImpl_VirtualBox_4_X_StopVM, kVirtualBox, kStop, 4, kAnyLater, kMachineUuid)    \
    X(VirtualMachineImpl_VirtualBox_4_X_PauseVM, kVirtualBox, kPause, 4, kAnyLater, kMachineUuid)  \
    X(VirtualMachineImpl_VirtualBox_4_X_ResumeVM, kVirtualBox, kResume, 4, kAnyLater, kMachineUuid)

// The internal routines the adapters export beside the methods, with
// signatures of their own: never called as methods.
#define IMPLVM_ROUTINES(X)                             \
    X(macAddressCheck)                                 \
    X(VirtualMachineImpl_Parallels4_GetAllVms)         \
    X(VirtualMachineImpl_Parallels4_GetInfoForVm)      \
    X(VirtualMachineImpl_VmWareFusion1_GetAllVms)      \
    X(VirtualMachineImpl_VmWareFusion1_GetInfoForVm)   \
    X(VirtualMachineImpl_VmwareFusion_PerformVMAction) \
    X(ControlSnapshot)                                 \
    X(VirtualMachineImpl_VirtualBox2_GetAllVms)        \
    X(VirtualMachineImpl_VirtualBox2_GetInfoForVm)     \
    X(VirtualMachineImpl_VirtualBox_4_X_PerformVMAction)

#define IMPLVM_DECLARE_METHOD(name, ...) IMPLVM_METHOD(name);
IMPLVM_METHODS(IMPLVM_DECLARE_METHOD)
#undef IMPLVM_DECLARE_METHOD

// The vendor of the first adapter address from a hypervisor's block: 0; -6
// when an adapter's address could not be read, -1 when none is virtual.
IMPLVM_EXPORT int macAddressCheck(std::wstring& vendor);

namespace ImplVm {

#define IMPLVM_METHOD_ENTRY(name, product, role, first, last, argument) \
    {#name, Hypervisor::product, Role::role, first, last, Argument::argument},
inline constexpr MethodEntry kMethods[] = {IMPLVM_METHODS(IMPLVM_METHOD_ENTRY)};
#undef IMPLVM_METHOD_ENTRY

#define IMPLVM_ROUTINE_NAME(name) std::string_view(#name),
inline constexpr std::string_view kRoutineNames[] = {IMPLVM_ROUTINES(IMPLVM_ROUTINE_NAME)};
#undef IMPLVM_ROUTINE_NAME

// The method entry named `name`, or null.
constexpr const MethodEntry* FindMethod(std::string_view name) {
    for (const MethodEntry& entry : kMethods)
        if (entry.name == name) return &entry;
    return nullptr;
}

}  // namespace ImplVm
