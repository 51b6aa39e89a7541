// A minimal host: loads the module as a host framework does, finds one
// method function by its name and prints the module's version.
//
//   example-host [MODULE]   (default: the module of the installed copy it was built against)
#include <dlfcn.h>

#include <iostream>
#include <string>

#include "ImplVirtualMachine.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/typeProperty.h"

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : IMPLVM_MODULE;
    void* module = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        std::cerr << "example-host: " << ::dlerror() << '\n';
        return 1;
    }
    auto* getModuleVersion = reinterpret_cast<ImplVmMethod*>(
        ::dlsym(module, "VirtualMachineImpl_Common_GetModuleVersion"));
    if (getModuleVersion == nullptr) {
        std::cerr << "example-host: " << path
                  << " has no VirtualMachineImpl_Common_GetModuleVersion\n";
        return 1;
    }

    // Three host context values, the product's version record (none here),
    // the inputs and the outputs; 0 or more means success.
    KALDO::typeProperty inputs;
    KALDO::typeProperty outputs;
    const int result = getModuleVersion(0, 0, 0, nullptr, &inputs, &outputs);
    std::wstring version;
    if (result < 0 || outputs.getString(version) < 0) {
        std::cerr << "example-host: the module answered " << result << '\n';
        return 1;
    }
    std::cout << "libImplVirtualMachine " << KALDO::CStringUtils::WStringToString(version) << '\n';
    ::dlclose(module);
    return 0;
}
