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

// Appends the settings-file path of every `<MachineEntry ... src="..."/>` of
// a global VirtualBox.xml, in file order, duplicates kept; before major
// version 4 the values are relative and get `settingsFolder` in front.
// 0, or the support library's code when its search fails (nothing appended).
int VBoxMachinePaths(const std::wstring& xml, int majorVersion, const std::wstring& settingsFolder,
                     std::vector<std::wstring>& paths);

// The UUID of a machine's .vbox settings text (after `<Machine`, without
// its braces); "" when there is none.
std::wstring VBoxMachineUuid(const std::wstring& settings);

// Adds "UserFriendlyName", "OS", "State" and "Networks" read from a
// `showvminfo` report to `description` and answers kDone; kFailed, with
// nothing added, when the name, the state or an adapter's value is missing.
int VBoxDescription(const std::wstring& report, KALDO::typeProperty& description);

// The code of an action whose VBoxManage exited non-zero, from what it
// printed (standard output and error together): kDone when no lower-case
// "error" is in it.
int VBoxManageAnswer(std::wstring_view printed);

}  // namespace ImplVm::Readers
