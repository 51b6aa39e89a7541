// The common methods: the module's own version, the installed product's
// version, the hypervisor type the host hands in, and whether this Mac is
// itself a virtual machine judged from its hardware profile.
#include <string>

#include "ImplVirtualMachine.h"
#include "KALDO/CStringUtils.h"
#include "MethodFrame.h"

using KALDO::CSoftwareVersion;
using KALDO::typeProperty;

namespace {

constexpr const wchar_t* kModuleVersion = L"3.6.10676.2";

}  // namespace

int VirtualMachineImpl_Common_GetModuleVersion(int, int, int, const CSoftwareVersion*,
                                               const typeProperty*, typeProperty* outputs) {
    if (outputs == nullptr) return 0;
    outputs->setString(kModuleVersion);
    return 0;
}

int VirtualMachineImpl_Common_GetHypervisorType(int, int, int, const CSoftwareVersion*,
                                                const typeProperty* inputs, typeProperty* outputs) {
    // Unlike every other method, a missing input here is -3 and no record.
    if (inputs == nullptr) return -3;
    std::wstring hyperType;
    if (outputs == nullptr) return -3;
    if (ImplVm::ReadInput(inputs, L"HYPER_TYPE", hyperType) < 0) return -3;
    outputs->addInteger(L"HypervisorType", KALDO::CStringUtils::StrToI32(hyperType));
    return 0;
}
