// The common methods: the module's own version, the installed product's
// version, the hypervisor type the host hands in, and whether this Mac is
// itself a virtual machine judged from its hardware profile.
#include <iterator>
#include <string>
#include <vector>

#include "ImplVirtualMachine.h"
#include "KALDO/CAppleUtils.h"
#include "KALDO/CDbUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CStringUtils.h"
#include "MethodFrame.h"
#include "TextRules.h"

using KALDO::CSoftwareVersion;
using KALDO::typeProperty;

namespace {

constexpr const wchar_t* kModuleVersion = L"3.6.10676.2";

// The hardware and storage reports of system_profiler; a hypervisor's name
// shows up in the machine model or in a disk or controller name.
constexpr const wchar_t* kProfilerDataTypes[] = {
    L"SPHardwareDataType",     L"SPParallelATADataType",  L"SPSerialATADataType",
    L"SPHardwareRAIDDataType", L"SPParallelSCSIDataType", L"SPStorageDataType",
};

// Case-sensitive, anywhere in the report: a report naming both counts as
// VMware.
constexpr ImplVm::TextRule<const wchar_t*> kHardwareMarkers[] = {
    {L"VMware", ImplVm::Where::kAnywhere, L"VMware, Inc."},
    {L"VBOX", ImplVm::Where::kAnywhere, L"Oracle Corporation"},
};

}  // namespace

int VirtualMachineImpl_Common_GetModuleVersion(int, int, int, const CSoftwareVersion*,
                                               const typeProperty*, typeProperty* outputs) try {
    if (outputs == nullptr) return ImplVm::kDone;
    outputs->setString(kModuleVersion);
    return ImplVm::kDone;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Common_GetProductVersion(int context1, int context2, int context3,
                                                const CSoftwareVersion* version,
                                                const typeProperty* inputs,
                                                typeProperty* outputs) try {
    typeProperty merged;
    if (KALDO::CDbUtils::getInputsForMethod(context1, context2, context3, version, inputs,
                                            &merged) < 0)
        return IMPLVM_RECORD(ImplVm::kFailed);
    // The library's own code, success included, is the answer.
    return IMPLVM_RECORD(KALDO::CAppleUtils::GetProductVersion(merged, *outputs));
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Common_GetHypervisorType(int, int, int, const CSoftwareVersion*,
                                                const typeProperty* inputs,
                                                typeProperty* outputs) try {
    // Unlike every other method, a missing input here is -3 and no record.
    if (inputs == nullptr) return ImplVm::kBadInput;
    std::wstring hyperType;
    if (outputs == nullptr) return ImplVm::kBadInput;
    if (ImplVm::ReadInput(inputs, L"HYPER_TYPE", hyperType) < 0) return ImplVm::kBadInput;
    outputs->addInteger(L"HypervisorType", KALDO::CStringUtils::StrToI32(hyperType));
    return ImplVm::kDone;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Common_IsMachineVirtual(int, int, int, const CSoftwareVersion*,
                                               const typeProperty*, typeProperty* outputs) try {
    const std::vector<std::wstring> arguments(std::begin(kProfilerDataTypes),
                                              std::end(kProfilerDataTypes));
    int exitCode = 0;  // the report decides, not the tool's status
    std::wstring report;
    if (KALDO::CProcessUtils::ExecuteSafeToText(L"system_profiler", arguments, exitCode, &report,
                                                nullptr, nullptr) < 0)
        return IMPLVM_RECORD(ImplVm::kFailed);

    if (const wchar_t* vendor = ImplVm::FirstMatch(kHardwareMarkers, report, nullptr)) {
        outputs->addInteger(L"IsMachineVirtual", ImplVm::kVirtual);
        outputs->addString(L"VMCompanyName", vendor);
        return ImplVm::kDone;
    }
    outputs->addInteger(L"IsMachineVirtual", ImplVm::kNotVirtual);
    return ImplVm::kDone;
}
IMPLVM_BOUNDARY
