// The Parallels readers against their golden files (tests/data/<reader>/).
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

// A code with its name, for the reviewer of an expected file.
Json Code(int code) {
    const ImplVm::Naming* naming = ImplVm::NamingOf(ImplVm::kCodeNames, code);
    return {{"code", code}, {"name", naming ? Json(naming->name) : Json()}};
}

// The parts of the input between the separators.
std::vector<std::wstring> Split(const std::string& input, std::wstring_view separator) {
    const std::wstring text = DecodeAsFile(input);
    std::vector<std::wstring> parts;
    size_t from = 0;
    for (size_t at; (at = text.find(separator, from)) != std::wstring::npos;
         from = at + separator.size())
        parts.push_back(text.substr(from, at - from));
    parts.push_back(text.substr(from));
    return parts;
}

TEST(ParallelsReaders, VmHomes) {
    CheckGoldenFiles("parallels_vm_homes", "xml", [](const std::string& input) {
        std::vector<std::wstring> homes;
        Json answer = Code(R::ParallelsVmHomes(DecodeAsFile(input), homes));
        answer["homes"] = Strings(homes);
        return answer;
    });
}

TEST(ParallelsReaders, Config) {
    CheckGoldenFiles("parallels_config", "pvs", [](const std::string& input) {
        KALDO::typeProperty description;
        Json answer = Code(R::ParallelsConfig(DecodeAsFile(input), description));
        answer["description"] = implvm::TreeToJson(description);
        return answer;
    });
}

// One entry name a line, each line ended.
TEST(ParallelsReaders, State) {
    CheckGoldenFiles("parallels_state", "txt", [](const std::string& input) {
        std::vector<std::wstring> entries = Split(input, L"\n");
        entries.pop_back();
        const int state = R::ParallelsState(entries);
        return Json{{"State", state}, {"name", ImplVm::NamingOf(ImplVm::kStateNames, state)->name}};
    });
}

TEST(ParallelsReaders, VmUuid) {
    CheckGoldenFiles("parallels_vm_uuid", "pvs", [](const std::string& input) {
        return Json{{"uuid", Narrow(R::ParallelsVmUuid(DecodeAsFile(input)))}};
    });
}

// The run's result, then after each "--8<--" line a text: output and error
// for a start attempt, error for an operation.
TEST(ParallelsReaders, StartAnswer) {
    CheckGoldenFiles("prlctl_start", "txt", [](const std::string& input) {
        const std::vector<std::wstring> s = Split(input, L"--8<--\n");
        return s.size() != 3 ? Json() : Code(R::ParallelsStartAnswer(std::stoi(s[0]), s[1], s[2]));
    });
}

TEST(ParallelsReaders, OperationAnswer) {
    CheckGoldenFiles("prlctl_operation", "txt", [](const std::string& input) {
        const std::vector<std::wstring> s = Split(input, L"--8<--\n");
        return s.size() != 2 ? Json() : Code(R::ParallelsOperationAnswer(std::stoi(s[0]), s[1]));
    });
}

}  // namespace
