// Which hypervisors the Mac has, and which of the module's methods fit each
// one's installed version. The module serves several generations of every
// product side by side and leaves the choice to its host; this is that
// choice, made once for every implvm command.
//
// Typical use:
//   for (const Product& product : FindProducts(host.module())) {
//       if (!product.served()) continue;  // not installed, or too old
//       CallOutcome vms = host.module().call(product.methods.enumerate, {}, product.version);
//       ...
//   }
#pragma once

#include <array>
#include <string>

#include "Methods.h"
#include "ModuleLoader.h"

namespace implvm {

using Hypervisor = ImplVm::Hypervisor;

inline constexpr std::array<Hypervisor, 3> kHypervisors = {
    Hypervisor::kParallels, Hypervisor::kVmWareFusion, Hypervisor::kVirtualBox};

// The fixed facts of one product.
struct ProductFacts {
    const char* key;       // short stable name: "parallels", "vmware", "virtualbox"
    const char* name;      // the product's name as its maker writes it
    const char* bundleId;  // CFBundleIdentifier of its application bundle
};

const ProductFacts& FactsOf(Hypervisor hypervisor);

// The first major version any of the module's methods is for.
int OldestServed(Hypervisor hypervisor);

// What a VM action method wants under "Name", made from the VM identifier
// that the product's enumeration lists.
using VmArgument = ImplVm::Argument;

// The method that performs one action, or none (a null method) when the
// installed version's methods do not offer it.
struct ActionMethod {
    const char* method = nullptr;
    const char* command = nullptr;  // the "COMMAND" input it needs, null for none
    VmArgument argument = VmArgument::kIdentifier;

    explicit operator bool() const { return method != nullptr; }
};

enum class VmAction {
    kStart,
    kStop,
    kSuspend,
    kPause,
    kResume,
    kSnapshotTake,    // inputs "Name", "Snapshot"
    kSnapshotDelete,  // inputs "Name", "Snapshot"
    kSnapshotList,    // input "Name"; output "Snapshots"
};
inline constexpr size_t kVmActionCount = 8;

// The methods that fit one product at one major version. The three reading
// methods are null together when the version is older than any the module
// serves.
struct ProductMethods {
    const char* enumerate = nullptr;  // no inputs; output "VMs"
    const char* info = nullptr;       // input "Name" (a listed identifier)
    const char* network = nullptr;    // input "Name" (a listed identifier)
    std::array<ActionMethod, kVmActionCount> actions{};

    const ActionMethod& action(VmAction a) const { return actions[static_cast<size_t>(a)]; }
};

ProductMethods MethodsFor(Hypervisor hypervisor, int majorVersion);

// One product as found on the Mac.
struct Product {
    Hypervisor hypervisor = Hypervisor::kParallels;
    // The module's product-version answer for the bundle identifier, as is:
    // a negative result (with its error records) when no such application
    // is installed or it names no version.
    CallOutcome versionCall;
    bool installed = false;
    std::string version;     // "ProductVersion", e.g. "13.5.0"; handed to every method call
    std::string appPath;     // "AppPath", the bundle folder as the Mac sees it
    int major = 0;           // leading number of the version
    ProductMethods methods;  // all null when not installed

    const ProductFacts& facts() const { return FactsOf(hypervisor); }
    // Installed and of a version the module has methods for.
    bool served() const { return installed && methods.enumerate != nullptr; }
};

// Asks the module for the product's version (by its bundle identifier) and
// picks its methods. Throws ModuleError when the module lacks the version
// method.
Product FindProduct(const Module& module, Hypervisor hypervisor);

// The three products in kHypervisors order, installed or not.
std::array<Product, 3> FindProducts(const Module& module);

// "<bundle>/config.pvs" for a Parallels VM bundle (a trailing "/" allowed).
std::string ConfigFileOf(const std::string& bundle);

// The UUID of the VirtualBox machine whose settings file (a .vbox path as
// the Mac sees it) this is: the uuid attribute of its <Machine> element,
// without braces ("bc31c968-bbb2-4bea-b045-321f9f32e056"). Returns 0, the
// support library's code when the file cannot be read, or KALDO::kFailed
// when it holds no <Machine> element with a well-formed UUID.
int MachineUuidOf(const std::string& settingsFile, std::string& uuid);

}  // namespace implvm
