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

// The VM homes a vmdirectorylist.desktop.xml registers (the <VmHome> of each
// <VirtualMachine>, in file order), each cut after its last ".pvm"; whether
// a bundle exists is not looked at. The parse's code when it fails, `homes`
// then untouched; else kDone and `homes` replaced.
int ParallelsVmHomes(const std::wstring& text, std::vector<std::wstring>& homes);

// "UserFriendlyName", "OS" and "Networks" of a VM from its config.pvs, added
// to an empty `description` ("State" comes from the bundle). kFailed with
// nothing added when the name, OS type or OS number is missing; the
// adapter parse's code with the name and OS only when that parse fails.
int ParallelsConfig(const std::wstring& text, KALDO::typeProperty& description);

// "State" from the names of the bundle's entries: a memory file means the
// VM is up; a saved configuration beside it means it is suspended.
VmState ParallelsState(const std::vector<std::wstring>& entries);

// The VM's UUID, without its braces, from config.pvs text ("" when absent).
std::wstring ParallelsVmUuid(const std::wstring& configText);

// One "prlctl start" attempt: a failed run's result as it stands; kDone
// when `out` says the VM is starting and then started or was running; else
// kRefused for a refusal on `err`, or the run's result.
int ParallelsStartAnswer(int run, std::wstring_view out, std::wstring_view err);

// Any other prlctl run: the run's result, or kRefused for a failed login on
// `err`.
int ParallelsOperationAnswer(int run, std::wstring_view err);

// ---- VirtualBox ----

}  // namespace ImplVm::Readers
