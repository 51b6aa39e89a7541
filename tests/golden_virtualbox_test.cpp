// The VirtualBox readers against their golden files (tests/data/<reader>/).
#include <gtest/gtest.h>

#include "Golden.h"
#include "Readers.h"

namespace {

using implvm::Json;
using implvm_test::CheckGoldenFiles;
using implvm_test::DecodeAsFile;
using implvm_test::Narrow;
using implvm_test::Strings;
namespace R = ImplVm::Readers;

// Each file read as VirtualBox 3 (relative paths) and 4 (absolute) wrote it.
TEST(VirtualBoxReaders, GlobalSettings) {
    CheckGoldenFiles("vbox_global_settings", "xml", [](const std::string& input) {
        Json got = Json::object();
        for (const int major : {3, 4}) {
            std::vector<std::wstring> paths;
            const int code = R::VBoxMachinePaths(DecodeAsFile(input), major,
                                                 L"/Users/ann/Library/VirtualBox/", paths);
            got["major " + std::to_string(major)] = {{"code", code}, {"paths", Strings(paths)}};
        }
        return got;
    });
}

TEST(VirtualBoxReaders, MachineUuid) {
    CheckGoldenFiles("vbox_machine_settings", "vbox", [](const std::string& input) {
        return Json{{"uuid", Narrow(R::VBoxMachineUuid(DecodeAsFile(input)))}};
    });
}

TEST(VirtualBoxReaders, ShowVmInfo) {
    CheckGoldenFiles("vbox_showvminfo", "txt", [](const std::string& input) {
        KALDO::typeProperty description;
        const int code = R::VBoxDescription(DecodeAsFile(input), description);
        return Json{{"code", code}, {"description", implvm::TreeToJson(description)}};
    });
}

TEST(VirtualBoxReaders, VBoxManageAnswers) {
    CheckGoldenFiles("vboxmanage_answers", "txt", [](const std::string& input) {
        return Json{{"code", R::VBoxManageAnswer(DecodeAsFile(input))}};
    });
}

}  // namespace
