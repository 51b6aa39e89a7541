// Finding the VM a user names, the ways users of the hypervisors' own tools
// name one: the identifier implvm inventory lists, a Parallels bundle's
// config.pvs, a VMware .vmwarevm bundle folder, a VirtualBox machine's UUID,
// or the VM's display name when it is unique on the Mac.
#pragma once

#include <array>
#include <string>

#include "Installed.h"
#include "TreeJson.h"

namespace implvm {

struct FoundVm {
    const Product* product = nullptr;
    std::string identifier;  // as the product's enumeration lists it
    // The VM's entry of a survey ({"id", "info", "network", "notAsked"}),
    // when finding it took describing it; null otherwise.
    Json described;
};

// Finds `given` among the served products' VMs. Identifiers, bundles and
// UUIDs are tried first; names only when none matched, since they need every
// VM described (on `jobs` threads). Throws UsageError when no VM or several
// VMs answer to it (naming each candidate with its identifier), and
// CommandFailure when a hypervisor's tool hung before the names could be
// read.
FoundVm FindVm(const Module& module, const std::array<Product, 3>& products,
               const std::string& given, int jobs);

// The VM's UUID when `text` is one, in lower case; "" otherwise.
std::string AsUuid(const std::string& text);

}  // namespace implvm
