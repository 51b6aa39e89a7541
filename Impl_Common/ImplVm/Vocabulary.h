// The words the module and its hosts share: result codes, VM states, guest
// OS families, network attachments, the machine verdict and the
// hypervisors. Each value is named once here, with the number it has on the
// wire (in the output trees and the error log), a stable name for
// machine-readable output and a label for people.
#pragma once

#include <string_view>

namespace ImplVm {

// What a method function answers (0 or more: done).
enum Code : int {
    kDone = 0,
    kFailed = -1,
    kLibraryNotFound = -2,  // the support library's own "not found", passed on as is
    kBadInput = -3,
    kRefused = -4,
    kUnchanged = -5,
    kNotFound = -6,
    kTimedOut = -7,
    kTooLarge = -8,  // the support library's own "too large", passed on as is
    kLocked = -32,
};

// "State" of a VM description.
enum VmState : int { kRunning = 1, kSuspended = 2, kStopped = 3 };

// "OS"/"Type" of a VM description.
enum OsFamily : int { kOtherOs = 0, kLinux = 1, kMacOs = 2, kWindows = 3 };

// "Networks"/"Type" of an adapter; an adapter of any other kind has none or
// kOtherAttachment.
enum Attachment : int { kOtherAttachment = 0, kNat = 1, kBridged = 2, kHostOnly = 3 };

// "IsMachineVirtual" of the machine checks.
enum Virtuality : int { kNotVirtual = 0, kVirtual = 1, kPerhapsVirtual = 2 };

enum class Hypervisor { kParallels, kVmWareFusion, kVirtualBox, kNone };

// One row of a naming table: the wire value, its stable name and its label.
struct Naming {
    int value;
    std::string_view name;
    std::string_view label;
};

inline constexpr Naming kCodeNames[] = {
    {kDone, "done", "done"},
    {kFailed, "failed", "failed"},
    {kLibraryNotFound, "missing", "not found"},
    {kBadInput, "badInput", "a required input is missing or invalid"},
    {kRefused, "refused", "refused by the system or the hypervisor"},
    {kUnchanged, "unchanged", "nothing changed since the last snapshot"},
    {kNotFound, "notFound",
     "the VM, its configuration file or the snapshot cannot be found or opened"},
    {kTimedOut, "timedOut", "a tool ran past its time limit"},
    {kTooLarge, "tooLarge", "a tool printed more than the support library holds"},
    {kLocked, "locked", "the VM is locked or busy"},
};

inline constexpr Naming kStateNames[] = {
    {kRunning, "running", "running"},
    {kSuspended, "suspended", "suspended/paused"},
    {kStopped, "stopped", "stopped"},
};

inline constexpr Naming kOsFamilyNames[] = {
    {kOtherOs, "other", "other"},
    {kLinux, "linux", "Linux"},
    {kMacOs, "macos", "Mac OS X"},
    {kWindows, "windows", "Windows"},
};

inline constexpr Naming kAttachmentNames[] = {
    {kOtherAttachment, "other", "other"},
    {kNat, "nat", "NAT"},
    {kBridged, "bridged", "bridged"},
    {kHostOnly, "hostOnly", "host-only"},
};

// The row of `value`, or null.
template <size_t N>
constexpr const Naming* NamingOf(const Naming (&table)[N], int value) {
    for (const Naming& row : table)
        if (row.value == value) return &row;
    return nullptr;
}

// Of a callee's failure codes only "refused" and "locked" reach the host as
// they are; every other negative code becomes kFailed.
constexpr int Propagate(int code) {
    return (code == kRefused || code == kLocked) ? code : kFailed;
}

}  // namespace ImplVm
