// The exported interface of libImplVirtualMachine: the method functions (the
// six-argument calling convention every host uses, listed in Methods.h) and
// the internal routines the macOS adapters share, all under their
// undecorated names.
#pragma once

#include <string>
#include <vector>

#include "KALDO/CSoftwareVersion.h"
#include "KALDO/typeProperty.h"
#include "Methods.h"

// ---- Parallels Desktop ----
IMPLVM_EXPORT int VirtualMachineImpl_Parallels4_GetAllVms(std::vector<std::wstring>& vmHomes);
IMPLVM_EXPORT int VirtualMachineImpl_Parallels4_GetInfoForVm(const std::wstring& vmHome,
                                                             KALDO::typeProperty* description);

// ---- VMware Fusion ----
IMPLVM_EXPORT int VirtualMachineImpl_VmWareFusion1_GetAllVms(std::vector<std::wstring>& vmxPaths);
IMPLVM_EXPORT int VirtualMachineImpl_VmWareFusion1_GetInfoForVm(const std::wstring& vmPath,
                                                                KALDO::typeProperty* description,
                                                                int fusionMajorVersion);
IMPLVM_EXPORT int VirtualMachineImpl_VmwareFusion_PerformVMAction(const std::wstring& action,
                                                                  const std::wstring& vmPath);
IMPLVM_EXPORT int ControlSnapshot(const std::wstring& vmName, const std::wstring& action,
                                  const std::wstring& snapshotName);

// ---- VirtualBox ----
IMPLVM_EXPORT int VirtualMachineImpl_VirtualBox2_GetAllVms(std::vector<std::wstring>* vms,
                                                           int majorVersion);
IMPLVM_EXPORT int VirtualMachineImpl_VirtualBox2_GetInfoForVm(const std::wstring& settingsPath,
                                                              KALDO::typeProperty* description);
IMPLVM_EXPORT int VirtualMachineImpl_VirtualBox_4_X_PerformVMAction(const std::wstring& action,
                                                                    const std::wstring& machine);

// Every listed routine is declared.
#define IMPLVM_CHECK_DECLARED(name) static_assert(sizeof(&name) != 0);
IMPLVM_ROUTINES(IMPLVM_CHECK_DECLARED)
#undef IMPLVM_CHECK_DECLARED
