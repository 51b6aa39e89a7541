// The adapters' readers: pure functions from the texts the adapters collect
// (files read, tools' answers) to what the module reports. They touch no
// file, run no tool and record nothing, so the tests hand them texts
// directly (golden files) and the fuzz targets feed them anything. Internal
// to the module: nothing here is exported.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KALDO/typeProperty.h"
#include "Vocabulary.h"

namespace ImplVm::Readers {

// ---- Every adapter ----

// One "Networks" element: "Name", "Type" (when given), "IsConnected" (0 or
// 1) and an empty "MacAddress".
KALDO::typeProperty AdapterRecord(const std::wstring& name, std::optional<Attachment> type,
                                  bool connected);

// The four keys of a VM description, in the order hosts read them.
void FillDescription(KALDO::typeProperty& description, const std::wstring& name,
                     const KALDO::typeProperty& os, int state, const KALDO::typeProperty& networks);

// ---- VMware Fusion ----

// The .vmx paths a vmInventory names, one per `vmlistN.config = "<path>"`
// line, in file order.
std::vector<std::wstring> VmInventoryPaths(const std::wstring& text);

// Appends the .vmx paths of a Fusion 1-4 preferences tree (as the plist
// reader tags it) to vmxPaths: its older favourites list when it has one,
// else its newer list of records. 0, or the code of the first entry without
// a path, where it stops.
int FavouritePaths(const KALDO::typeProperty& preferences, std::vector<std::wstring>& vmxPaths);

// What a .vmx says of its VM. Each key reads as its first `key = "` anywhere
// in the text, up to the quote that ends that line ("" when missing).
struct VmxFacts {
    std::wstring displayName;
    std::wstring guestOs;          // the guestOS key as written
    KALDO::typeProperty os;        // "OS": Type and Distribution of the guest-OS table
    std::wstring vmState;          // Fusion 4 on: the suspend file while suspended
    KALDO::typeProperty networks;  // "Networks"; untyped without adapters
};
// The adapters are read in one pass, at a cost linear in the text's length;
// the text is let go before their records are made.
VmxFacts ReadVmx(std::wstring vmx);

// Fusion 4 on, the state a .vmx's non-empty vmState gives: suspended when
// it names a .vmss file, else stopped.
VmState StateFromVmState(std::wstring_view vmState);

// A running VM's state by its vmware.log: suspended (paused) after a last
// "pause = TRUE" with no later "pause = FALSE", else running.
VmState StateFromLog(const std::wstring& log);

// Before Fusion 4, by the VM folder's entry names: a .vmem while running or
// suspended, its .vmem.lck only while running; stopped without a .vmem.
VmState StateFromMemoryFiles(const std::vector<std::wstring>& names);

// The code of a power action (start, stop, suspend) or a snapshot change
// (snapshot, deleteSnapshot) whose vmrun exited non-zero, by what it
// printed; 0 when it printed no message the action knows.
int VmrunPowerAnswer(std::wstring_view out);
int VmrunSnapshotAnswer(std::wstring_view out);

// What `vmrun listSnapshots` printed, whatever its exit status: the code
// and, when it is 0, one {"Snapshot"} per line after the count line.
struct SnapshotList {
    int code = kDone;
    KALDO::typeProperty snapshots;
};
SnapshotList VmrunSnapshotList(const std::wstring& out);

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
