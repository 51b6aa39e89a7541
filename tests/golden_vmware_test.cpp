// The VMware readers against their golden files (tests/data/<reader>/).
#include <gtest/gtest.h>

#include "Golden.h"
#include "KALDO/CStringUtils.h"
#include "Readers.h"

namespace {

using implvm::Json;
using implvm_test::DecodeAsFile;
namespace R = ImplVm::Readers;

std::string Narrow(const std::wstring& text) {
    return KALDO::CStringUtils::WStringToString(text);
}

TEST(VmWareReaders, Inventory) {
    implvm_test::CheckGoldenFiles("vm_inventory", "txt", [](const std::string& input) {
        Json paths = Json::array();
        for (const std::wstring& path : R::VmInventoryPaths(DecodeAsFile(input)))
            paths.push_back(Narrow(path));
        return paths;
    });
}

}  // namespace
