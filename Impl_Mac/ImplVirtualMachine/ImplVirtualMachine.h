// The exported interface of libImplVirtualMachine: method functions (the
// six-argument calling convention every host uses) and the internal routines
// the adapters share, all under their undecorated names.
#pragma once

#include <string>
#include <vector>

#include "KALDO/CSoftwareVersion.h"
#include "KALDO/typeProperty.h"

#define IMPLVM_EXPORT extern "C" __attribute__((visibility("default")))

// host context 1..3, product version, inputs, outputs -> 0 or a negative code
using ImplVmMethod = int(int, int, int, const KALDO::CSoftwareVersion*, const KALDO::typeProperty*,
                         KALDO::typeProperty*);

#define IMPLVM_METHOD(name)                                               \
    IMPLVM_EXPORT int name(int, int, int, const KALDO::CSoftwareVersion*, \
                           const KALDO::typeProperty*, KALDO::typeProperty*)

// ---- Common ----
IMPLVM_METHOD(VirtualMachineImpl_Common_GetModuleVersion);
IMPLVM_METHOD(VirtualMachineImpl_Common_GetProductVersion);
IMPLVM_METHOD(VirtualMachineImpl_Common_GetHypervisorType);
IMPLVM_METHOD(VirtualMachineImpl_Common_IsMachineVirtual);
IMPLVM_METHOD(ImplVm_Common_IsMachineVirtual);
IMPLVM_EXPORT int macAddressCheck(std::wstring& vendor);

// ---- Parallels Desktop ----
IMPLVM_METHOD(VirtualMachineImpl_Parallels4_EnumerateVMs);
IMPLVM_METHOD(VirtualMachineImpl_Parallels4_GetVMInfo);
IMPLVM_METHOD(VirtualMachineImpl_Parallels4_GetVMNetwork);
IMPLVM_METHOD(VirtualMachineImpl_Parallels4_StartVM);
IMPLVM_METHOD(ImplVirtualMachine_Parallels_9_X_StartVM);
IMPLVM_METHOD(ImplVirtualMachine_Parallels_9_X_OperateVM);
IMPLVM_EXPORT int VirtualMachineImpl_Parallels4_GetAllVms(std::vector<std::wstring>& vmHomes);
IMPLVM_EXPORT int VirtualMachineImpl_Parallels4_GetInfoForVm(const std::wstring& vmHome,
                                                             KALDO::typeProperty* description);

// ---- VMware Fusion ----
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion1_EnumerateVMs);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion1_GetVMInfo);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion1_GetVMNetwork);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion1_StartVM);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion1_StopVM);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion1_SuspendVM);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion4_AddSnapshot);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion4_DeleteSnapshot);
IMPLVM_METHOD(VirtualMachineImpl_VmWareFusion4_ListSnapshots);
IMPLVM_EXPORT int VirtualMachineImpl_VmWareFusion1_GetAllVms(std::vector<std::wstring>& vmxPaths);
IMPLVM_EXPORT int VirtualMachineImpl_VmWareFusion1_GetInfoForVm(const std::wstring& vmPath,
                                                                KALDO::typeProperty* description,
                                                                int fusionMajorVersion);
IMPLVM_EXPORT int VirtualMachineImpl_VmwareFusion_PerformVMAction(const std::wstring& action,
                                                                  const std::wstring& vmPath);
IMPLVM_EXPORT int ControlSnapshot(const std::wstring& vmName, const std::wstring& action,
                                  const std::wstring& snapshotName);

// ---- VirtualBox ----
IMPLVM_METHOD(VirtualMachineImpl_VirtualBox2_EnumerateVMs);
IMPLVM_METHOD(VirtualMachineImpl_VirtualBox2_GetVMInfo);
IMPLVM_METHOD(VirtualMachineImpl_VirtualBox2_GetVMNetwork);
IMPLVM_METHOD(VirtualMachineImpl_VirtualBox_4_X_StartVM);
IMPLVM_METHOD(VirtualMachineImpl_VirtualBox_4_X_StopVM);
IMPLVM_METHOD(VirtualMachineImpl_VirtualBox_4_X_PauseVM);
IMPLVM_METHOD(VirtualMachineImpl_VirtualBox_4_X_ResumeVM);
IMPLVM_EXPORT int VirtualMachineImpl_VirtualBox2_GetAllVms(std::vector<std::wstring>* vms,
                                                           int majorVersion);
IMPLVM_EXPORT int VirtualMachineImpl_VirtualBox2_GetInfoForVm(const std::wstring& settingsPath,
                                                              KALDO::typeProperty* description);
IMPLVM_EXPORT int VirtualMachineImpl_VirtualBox_4_X_PerformVMAction(const std::wstring& action,
                                                                    const std::wstring& machine);
