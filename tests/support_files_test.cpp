// File reading and listing, the machine root and fault injection.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "KALDO/CFileUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/MachineRoot.h"
#include "KALDO/Result.h"

namespace fs = std::filesystem;
using KALDO::CFileUtils;

namespace {

TEST(Files, ReadThroughMachineRoot) {
    const fs::path root = fs::temp_directory_path() / ("kaldo-smoke-" + std::to_string(getpid()));
    fs::create_directories(root / "etc");
    std::ofstream(root / "etc" / "f.txt") << "\xEF\xBB\xBFhi\xC3\xA9";
    KALDO::CMachineRoot::Set(root.string());
    std::wstring text;
    EXPECT_EQ(CFileUtils::ReadFromTextFile(L"/etc/f.txt", text), 0);
    EXPECT_EQ(text, L"hi\u00E9");
    EXPECT_EQ(CFileUtils::ReadFromTextFile(L"/../../etc/f.txt", text), 0);
    EXPECT_EQ(CFileUtils::IsFilePresent(L"/etc"), 0);
    ASSERT_EQ(KALDO::CFailpoints::Set("ReadFromTextFile@/etc/f.txt=-32"), 0);
    EXPECT_EQ(CFileUtils::ReadFromTextFile(L"/etc/f.txt", text), KALDO::kBusy);
    KALDO::CFailpoints::Clear();
    KALDO::CMachineRoot::Set("");
    fs::remove_all(root);
}

}  // namespace
