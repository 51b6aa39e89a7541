// The VMware readers against their golden files (tests/data/<reader>/).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Golden.h"
#include "KALDO/CAppleUtils.h"
#include "Readers.h"

namespace {

using implvm::Json;
using implvm::TreeToJson;
using implvm_test::CheckGoldenFiles;
using implvm_test::DecodeAsFile;
using implvm_test::Narrow;
using implvm_test::Strings;
namespace R = ImplVm::Readers;

// The decoded text's lines, split at LF only.
std::vector<std::wstring> Lines(const std::string& input) {
    std::vector<std::wstring> lines;
    std::wistringstream in(DecodeAsFile(input));
    for (std::wstring line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(VmWareReaders, Inventory) {
    CheckGoldenFiles("vm_inventory", "txt", [](const std::string& input) {
        return Strings(R::VmInventoryPaths(DecodeAsFile(input)));
    });
}

// A preferences file (XML or binary) as the support library's plist reader
// makes it a tree.
TEST(VmWareReaders, Favourites) {
    CheckGoldenFiles("fusion_preferences", "plist", [](const std::string& input) {
        const std::filesystem::path scratch =
            std::filesystem::temp_directory_path() / ("implvm-prefs-" + std::to_string(getpid()));
        std::ofstream(scratch, std::ios::binary).write(input.data(), std::streamsize(input.size()));
        KALDO::typeProperty preferences;
        const int read =
            KALDO::CAppleUtils::ReadPlistFileToTypePropertyTree(scratch.wstring(), preferences);
        std::filesystem::remove(scratch);
        EXPECT_EQ(read, 0);
        std::vector<std::wstring> paths;
        const int code = R::FavouritePaths(preferences, paths);
        return Json{{"code", code}, {"VMs", Strings(paths)}};
    });
}

// "State by vmState": what Fusion 4 and later make of a non-empty vmState.
TEST(VmWareReaders, Vmx) {
    CheckGoldenFiles("vmx", "vmx", [](const std::string& input) {
        const R::VmxFacts facts = R::ReadVmx(DecodeAsFile(input));
        Json json = {{"UserFriendlyName", Narrow(facts.displayName)},
                     {"guestOS", Narrow(facts.guestOs)},
                     {"OS", TreeToJson(facts.os)},
                     {"vmState", Narrow(facts.vmState)}};
        if (!facts.vmState.empty()) json["State by vmState"] = R::StateFromVmState(facts.vmState);
        json["Networks"] = TreeToJson(facts.networks);
        return json;
    });
}

// One guestOS key a line, each read as the whole of a .vmx.
TEST(VmWareReaders, GuestOsTable) {
    CheckGoldenFiles("vmx_guest_os", "txt", [](const std::string& input) {
        Json table = Json::object();
        for (const std::wstring& key : Lines(input))
            table[Narrow(key)] =
                TreeToJson(R::ReadVmx(L"displayName = \"x\"\nguestOS = \"" + key + L"\"\n").os);
        return table;
    });
}

TEST(VmWareReaders, StateFromLog) {
    CheckGoldenFiles("vmware_log", "log", [](const std::string& input) {
        return Json{{"State", R::StateFromLog(DecodeAsFile(input))}};
    });
}

// The VM folder's entry names, one a line.
TEST(VmWareReaders, StateFromMemoryFiles) {
    CheckGoldenFiles("vm_folder_entries", "txt", [](const std::string& input) {
        return Json{{"State", R::StateFromMemoryFiles(Lines(input))}};
    });
}

// What vmrun printed, as each reader of its answers takes it: a power
// action and a snapshot change that exited non-zero, and listSnapshots.
TEST(VmWareReaders, VmrunAnswers) {
    CheckGoldenFiles("vmrun_answers", "txt", [](const std::string& input) {
        const std::wstring out = DecodeAsFile(input);
        const R::SnapshotList list = R::VmrunSnapshotList(out);
        Json listed = {{"code", list.code}};
        if (list.code == 0) listed["Snapshots"] = TreeToJson(list.snapshots);
        return Json{{"power", R::VmrunPowerAnswer(out)},
                    {"snapshot", R::VmrunSnapshotAnswer(out)},
                    {"listSnapshots", listed}};
    });
}

}  // namespace
