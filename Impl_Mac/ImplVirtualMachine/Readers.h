// The adapters' readers: pure functions from the texts the adapters collect
// (files read, tools' answers) to what the module reports. They touch no
// file, run no tool and record nothing, so the tests hand them texts
// directly (golden files) and the fuzz targets feed them anything. Internal
// to the module: nothing here is exported.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "KALDO/typeProperty.h"
#include "Vocabulary.h"

namespace ImplVm::Readers {

// ---- VMware Fusion ----

// The .vmx paths a vmInventory names, one per `vmlistN.config = "<path>"`
// line, in file order.
std::vector<std::wstring> VmInventoryPaths(const std::wstring& text);

// ---- Parallels Desktop ----

// ---- VirtualBox ----

}  // namespace ImplVm::Readers
