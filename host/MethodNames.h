// The names of the module's method functions (the six-argument entry points),
// in the order of ImplVirtualMachine.h. The internal routines, which have
// signatures of their own, are not here: a host must never call them as
// methods. Every name is checked against the module's header at compile
// time, and a test checks that the header declares no method missing here.
#pragma once

#include <type_traits>

#include "ImplVirtualMachine.h"

#define IMPLVM_METHOD_NAMES(X)                         \
    X(VirtualMachineImpl_Common_GetModuleVersion)      \
    X(VirtualMachineImpl_Common_GetProductVersion)     \
    X(VirtualMachineImpl_Common_GetHypervisorType)     \
    X(VirtualMachineImpl_Common_IsMachineVirtual)      \
    X(ImplVm_Common_IsMachineVirtual)                  \
    X(VirtualMachineImpl_Parallels4_EnumerateVMs)      \
    X(VirtualMachineImpl_Parallels4_GetVMInfo)         \
    X(VirtualMachineImpl_Parallels4_GetVMNetwork)      \
    X(VirtualMachineImpl_Parallels4_StartVM)           \
    X(ImplVirtualMachine_Parallels_9_X_StartVM)        \
    X(ImplVirtualMachine_Parallels_9_X_OperateVM)      \
    X(VirtualMachineImpl_VmWareFusion1_EnumerateVMs)   \
    X(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs) \
    X(VirtualMachineImpl_VmWareFusion1_GetVMInfo)      \
    X(VirtualMachineImpl_VmWareFusion1_GetVMNetwork)   \
    X(VirtualMachineImpl_VmWareFusion1_StartVM)        \
    X(VirtualMachineImpl_VmWareFusion1_StopVM)         \
    X(VirtualMachineImpl_VmWareFusion1_SuspendVM)      \
    X(VirtualMachineImpl_VmWareFusion4_AddSnapshot)    \
    X(VirtualMachineImpl_VmWareFusion4_DeleteSnapshot) \
    X(VirtualMachineImpl_VmWareFusion4_ListSnapshots)  \
    X(VirtualMachineImpl_VirtualBox2_EnumerateVMs)     \
    X(VirtualMachineImpl_VirtualBox2_GetVMInfo)        \
    X(VirtualMachineImpl_VirtualBox2_GetVMNetwork)     \
    X(VirtualMachineImpl_VirtualBox_4_X_StartVM)       \
    X(VirtualMachineImpl_VirtualBox_4_X_StopVM)        \
    X(VirtualMachineImpl_VirtualBox_4_X_PauseVM)       \
    X(VirtualMachineImpl_VirtualBox_4_X_ResumeVM)

namespace implvm {

#define IMPLVM_CHECK_IS_METHOD(name)                            \
    static_assert(std::is_same_v<decltype(name), ImplVmMethod>, \
                  #name " is not declared as a method function");
IMPLVM_METHOD_NAMES(IMPLVM_CHECK_IS_METHOD)
#undef IMPLVM_CHECK_IS_METHOD

#define IMPLVM_METHOD_NAME_TEXT(name) #name,
inline constexpr const char* kMethodNames[] = {IMPLVM_METHOD_NAMES(IMPLVM_METHOD_NAME_TEXT)};
#undef IMPLVM_METHOD_NAME_TEXT

}  // namespace implvm
