// Every file of the shared corpus (real-world files) placed on a simulated Mac
// and read by the module, against the reviewed expectation
// tests/corpus/expected/<corpus path>.json, which also holds the case's
// setting. Where another project's reading lies beside a .vmx (libvirt,
// virt-v2v), the display name and the adapters must agree with it, except
// where a difference is listed, which must then really be there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "TestMachine.h"

namespace fs = std::filesystem;
using implvm_test::Call;
using implvm_test::CallResult;
using implvm_test::Json;

namespace {

const fs::path kCorpus =
    std::getenv("IMPLVM_CORPUS_DIR") ? std::getenv("IMPLVM_CORPUS_DIR") : IMPLVM_CORPUS_DIR;
const fs::path kExpected = fs::path(IMPLVM_SOURCE_DIR) / "tests/corpus/expected";

struct CorpusCase {
    fs::path file;
    std::string relative, name;  // corpus path ("vmware/vmx/x.vmx"), gtest name
};
void PrintTo(const CorpusCase& c, std::ostream* os) {
    *os << c.relative;
}

std::string ReadBytes(const fs::path& path) {
    return implvm_test::Slurp(path.string());
}

std::vector<CorpusCase> ListCorpus() {
    std::vector<CorpusCase> cases;
    std::error_code ec;
    if (!fs::is_directory(kCorpus, ec)) return {{{}, "", "CorpusAbsent"}};
    for (const auto& entry : fs::recursive_directory_iterator(kCorpus, ec)) {
        const std::string file = entry.path().filename().string();
        if (!entry.is_regular_file() || file.ends_with(".libvirt.xml") ||
            file.ends_with(".virt-v2v.expected"))
            continue;
        cases.push_back({entry.path(), fs::relative(entry.path(), kCorpus).generic_string(), ""});
    }
    std::sort(cases.begin(), cases.end(),
              [](const auto& a, const auto& b) { return a.relative < b.relative; });
    std::set<std::string> names;
    for (auto& c : cases) {
        for (const unsigned char ch : c.relative) c.name += std::isalnum(ch) ? char(ch) : '_';
        while (!names.insert(c.name).second) c.name += "_";
    }
    return cases;
}

// A case's expectation: tests/corpus/expected/<corpus path>.json, or, for a
// folder of short cases, the entry named after the file in
// tests/corpus/expected/<folder>.json.
fs::path ExpectedFor(const std::string& relative) {
    return (kExpected / relative).replace_extension(".json");
}
fs::path FolderExpectationsFor(const std::string& relative) {
    return kExpected / (fs::path(relative).parent_path().string() + ".json");
}

// Vendor templates and fixtures hold placeholders: setup's "fill" replaces
// each one with a text, or its occurrences in turn with the texts of a list.
std::string Filled(std::string text, const Json& setup) {
    const Json fill = setup.value("fill", Json::object());
    for (const auto& [placeholder, value] : fill.items()) {
        size_t at = 0, turn = 0;
        while ((at = text.find(placeholder, at)) != std::string::npos) {
            const std::string with =
                value.is_array() ? value.at(turn++).get<std::string>() : value.get<std::string>();
            text.replace(at, placeholder.size(), with);
            at += with.size();
        }
    }
    return text;
}

// Places a .vmx as setup says, its vmware-vmx process listed when it runs;
// returns the identifier.
std::string PlaceVmx(implvm_test::TestMachine& mac, const std::string& stem,
                     const std::string& content, const Json& setup) {
    const std::string library = "/Users/ann/Documents/Virtual Machines.localized/";
    const std::string layout = setup.value("layout", "bundle");
    std::string folder = library + stem + ".vmwarevm";
    if (layout == "bare") folder = "/Users/ann/vms";
    if (layout == "bundle-renamed") folder = library + "Renamed VM.vmwarevm";
    const std::string vmx = folder + "/" + stem + ".vmx";
    mac.writeFile(vmx, content);
    for (const auto& name : setup.value("files", Json::array()))
        mac.writeFile(folder + "/" + name.get<std::string>(), "");
    for (const auto& name : setup.value("folders", Json::array()))
        mac.makeDir(folder + "/" + name.get<std::string>());
    std::string ps =
        "  PID   TT  STAT      TIME COMMAND\n    1   ??  Ss     2:11.52 /sbin/launchd\n";
    if (setup.value("running", false))
        ps +=
            " 4242   ??  R     12:01.77 /Applications/VMware Fusion.app/Contents/Library/"
            "vmware-vmx -s vmx.stdio.keep=TRUE -# product=64;name=VMware Fusion; " +
            vmx + "\n";
    mac.installTool("/bin/ps").respond(ps);
    if (setup.contains("log"))
        mac.writeFile(folder + "/vmware.log", ReadBytes(kCorpus / setup["log"].get<std::string>()));
    return setup.value("identifier", "vmx") == "bundle" ? folder : vmx;
}

// Without guestOS the module reads nothing; an ESX port group and a "custom"
// vmnet adapter are bridges to libvirt, with no "Type" from the module.
const std::set<std::string> kNoGuestOs = {
    "annotation",    "ethernet-bridged", "ethernet-custom", "ethernet-generated", "ethernet-nat",
    "ethernet-null", "ethernet-other",   "ethernet-vds",    "ethernet-vpx"};
const std::set<std::string> kNoType = {
    "case-insensitive-1", "case-insensitive-2", "esx-in-the-wild-1",  "esx-in-the-wild-2",
    "esx-in-the-wild-3",  "esx-in-the-wild-4",  "esx-in-the-wild-5",  "esx-in-the-wild-6",
    "esx-in-the-wild-8",  "esx-in-the-wild-12", "esx-in-the-wild-13", "esx-in-the-wild-16",
    "esx-in-the-wild-17", "gsx-in-the-wild-1",  "gsx-in-the-wild-2",  "gsx-in-the-wild-3",
    "gsx-in-the-wild-4"};

// The other project's adapter kind and the module's "Type" (nullopt: none).
const std::map<std::string, std::optional<int>> kKindToType = {
    {"libvirt:user", 1},           {"libvirt:bridge", 2},  {"libvirt:null", std::nullopt},
    {"libvirt:vds", std::nullopt}, {"virt-v2v:Bridge", 2}, {"virt-v2v:Network", std::nullopt},
};

std::string Between(const std::string& text, const std::string& begin, const std::string& end,
                    size_t from = 0) {
    const size_t b = text.find(begin, from);
    const size_t e = b == std::string::npos ? b : text.find(end, b + begin.size());
    return e == std::string::npos ? "" : text.substr(b + begin.size(), e - b - begin.size());
}

void CompareWithReading(const fs::path& vmx, const CallResult& info, const CallResult& net) {
    const fs::path base = vmx.parent_path() / vmx.stem();
    std::string source, text;
    std::optional<std::string> name;
    std::vector<std::string> kinds;
    if (fs::exists(base.string() + ".libvirt.xml")) {
        source = "libvirt";
        text = ReadBytes(base.string() + ".libvirt.xml");
        if (text.find("<name>") != std::string::npos) {
            name = Between(text, "<name>", "</name>");
            for (const auto& [entity, plain] : {std::pair{"&amp;", "&"}, {"&apos;", "'"}})
                for (size_t at; (at = name->find(entity)) != std::string::npos;)
                    name->replace(at, std::string(entity).size(), plain);
        }
        for (size_t at = text.find("<interface type='"); at != std::string::npos;
             at = text.find("<interface type='", at + 1))
            kinds.push_back(Between(text, "type='", "'", at));
    } else if (fs::exists(base.string() + ".virt-v2v.expected")) {
        source = "virt-v2v";
        text = ReadBytes(base.string() + ".virt-v2v.expected");
        name = Between(text, "source name: ", "\n");
        std::istringstream nics(text.substr(text.find("\nNICs:\n") + 7));
        for (std::string line; std::getline(nics, line) && line.starts_with('\t');)
            kinds.push_back(line.substr(1, line.find(' ') - 1));
    } else {
        return;
    }
    SCOPED_TRACE("against the " + source + " reading");
    const std::string stem = vmx.stem().string();
    if (kNoGuestOs.count(stem)) {
        EXPECT_LT(info.result, 0) << "listed as failing for want of guestOS, but it was read";
        return;
    }
    ASSERT_EQ(info.result, 0);
    if (name) {
        EXPECT_EQ(info.outputs.at("UserFriendlyName"), *name);
    }
    const Json networks = net.outputs.value("Networks", Json::array());
    ASSERT_EQ(networks.is_null() ? 0 : networks.size(), kinds.size()) << "adapters present";
    for (size_t i = 0; i < kinds.size(); ++i) {
        const Json& adapter = networks.at(i);
        const auto ours = adapter.contains("Type") ? std::optional<int>(adapter["Type"].get<int>())
                                                   : std::nullopt;
        if (kNoType.count(stem)) {
            EXPECT_EQ(kinds[i], "bridge") << "adapter " << i;
            EXPECT_EQ(ours, std::nullopt) << "adapter " << i;
            continue;
        }
        const auto kind = kKindToType.find(source + ":" + kinds[i]);
        ASSERT_NE(kind, kKindToType.end()) << "no mapping for " << source << " kind " << kinds[i];
        EXPECT_EQ(ours, kind->second) << "adapter " << i << " (" << kinds[i] << ")";
    }
}

// A failure's own code is the last one recorded; a success records nothing.
void ExpectCall(const CallResult& r, const Json& expected, const char* what) {
    SCOPED_TRACE(what);
    EXPECT_EQ(r.result, expected.at("result").get<int>());
    EXPECT_EQ(r.outputs.empty() ? Json() : r.outputs,
              expected.at("outputs").empty() ? Json() : expected.at("outputs"));
    EXPECT_EQ(r.errors.empty() ? 0 : r.errors.back().code, r.result);
}

class Corpus : public testing::TestWithParam<CorpusCase> {};

TEST_P(Corpus, MatchesExpectation) {
    const CorpusCase& c = GetParam();
    if (c.relative.empty())
        GTEST_SKIP() << "no corpus at " << kCorpus << ": real-world cases not run";
    const fs::path expectedFile = ExpectedFor(c.relative),
                   folderFile = FolderExpectationsFor(c.relative);
    const std::string fileName = fs::path(c.relative).filename().string();
    const Json shared = fs::exists(folderFile) ? Json::parse(ReadBytes(folderFile)) : Json();
    ASSERT_TRUE(fs::exists(expectedFile) || shared.contains(fileName))
        << c.relative << " has no expectation: write " << expectedFile << " from the rules";
    const Json expected =
        fs::exists(expectedFile) ? Json::parse(ReadBytes(expectedFile)) : shared.at(fileName);
    Json setup = expected.at("setup");
    const std::string fusion = setup.value("fusion", "");
    implvm_test::TestMachine mac;
    if (c.relative.starts_with("vmware/vmx/") && c.file.extension() == ".vmx") {
        const std::string id = PlaceVmx(mac, c.file.stem().string(), ReadBytes(c.file), setup);
        const Json name = {{"Name", id}};
        const auto info = Call(VirtualMachineImpl_VmWareFusion1_GetVMInfo, name, fusion);
        const auto net = Call(VirtualMachineImpl_VmWareFusion1_GetVMNetwork, name, fusion);
        ExpectCall(info, expected.at("GetVMInfo"), "GetVMInfo");
        ExpectCall(net, expected.at("GetVMNetwork"), "GetVMNetwork");
        CompareWithReading(c.file, info, net);
    } else if (c.relative.starts_with("vmware/logs/")) {
        setup["running"] = true;
        setup["log"] = c.relative;
        const std::string id =
            PlaceVmx(mac, "Log Probe", "displayName = \"Log Probe\"\nguestOS = \"other\"\n", setup);
        const auto info = Call(VirtualMachineImpl_VmWareFusion1_GetVMInfo, {{"Name", id}}, fusion);
        ASSERT_EQ(info.result, 0);
        EXPECT_EQ(info.outputs.at("State"), expected.at("State"));
    } else if (c.relative.starts_with("vmware/inventory/")) {
        const std::string home = setup.at("home");
        mac.setConsoleUser(setup.at("user").get<std::string>(), 501, home);
        mac.writeFile(home + "/Library/Application Support/VMware Fusion/vmInventory",
                      ReadBytes(c.file));
        ExpectCall(Call(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs),
                   expected.at("EnumerateVMs"), "EnumerateVMs");
    } else if (c.relative.starts_with("vmware/vmrun/")) {
        const std::string vmx = "/Users/ann/Virtual Machines.localized/Win.vmwarevm/Win.vmx";
        mac.installTool("/Applications/VMware Fusion.app/Contents/Library/vmrun")
            .respond(ReadBytes(c.file), setup.value("exit", 0));
        ExpectCall(Call(VirtualMachineImpl_VmWareFusion4_ListSnapshots, {{"Name", vmx}}, fusion),
                   expected.at("ListSnapshots"), "ListSnapshots");
    } else if (c.relative.starts_with("parallels/config/")) {
        mac.setConsoleUser("ann", 501, "/Users/ann");
        const std::string home = "/Users/ann/Parallels/" + c.file.stem().string() + ".pvm";
        mac.writeFile(home + "/config.pvs", Filled(ReadBytes(c.file), setup));
        for (const auto& name : setup.value("files", Json::array()))
            mac.writeFile(home + "/" + name.get<std::string>(), "");
        ExpectCall(Call(VirtualMachineImpl_Parallels4_GetVMInfo, {{"Name", home}}),
                   expected.at("GetVMInfo"), "GetVMInfo");
        ExpectCall(Call(VirtualMachineImpl_Parallels4_GetVMNetwork, {{"Name", home}}),
                   expected.at("GetVMNetwork"), "GetVMNetwork");
        // The 9.x methods name the VM by its UUID, read from the same file.
        auto& prlctl = mac.installTool("/Applications/Parallels Desktop.app/Contents/MacOS/prlctl");
        const Json& operate = expected.at("OperateVM");
        const auto r = Call(ImplVirtualMachine_Parallels_9_X_OperateVM,
                            {{"Name", home + "/config.pvs"}, {"COMMAND", "status"}});
        EXPECT_EQ(r.result, operate.at("result").get<int>());
        const auto runs = prlctl.invocations();
        EXPECT_EQ(runs.empty() ? Json() : Json(runs.at(0).args), operate.at("prlctl"));
    } else if (c.relative.starts_with("parallels/dirlist/")) {
        for (const auto& folder : setup.value("folders", Json::array()))
            mac.makeDir(folder.get<std::string>());
        mac.writeFile("/Library/Preferences/Parallels/vmdirectorylist.desktop.xml",
                      Filled(ReadBytes(c.file), setup));
        ExpectCall(Call(VirtualMachineImpl_Parallels4_EnumerateVMs), expected.at("EnumerateVMs"),
                   "EnumerateVMs");
    } else {
        FAIL() << "no runner for " << c.relative
               << ": teach this suite where such a file lives on a Mac";
    }
}

INSTANTIATE_TEST_SUITE_P(Files, Corpus, testing::ValuesIn(ListCorpus()),
                         [](const auto& param) { return param.param.name; });

// Expectations whose corpus file is gone would silently stop being checked.
TEST(CorpusExpectations, EachHasItsFile) {
    if (!fs::is_directory(kCorpus)) GTEST_SKIP() << "no corpus at " << kCorpus;
    std::set<fs::path> wanted;
    std::map<fs::path, std::set<std::string>> inFolders;
    for (const auto& c : ListCorpus()) {
        wanted.insert(ExpectedFor(c.relative));
        inFolders[FolderExpectationsFor(c.relative)].insert(
            fs::path(c.relative).filename().string());
    }
    for (const auto& entry : fs::recursive_directory_iterator(kExpected)) {
        if (!entry.is_regular_file() || wanted.count(entry.path())) continue;
        const auto folder = inFolders.find(entry.path());
        ASSERT_NE(folder, inFolders.end()) << entry.path() << " has no corpus file";
        const Json cases = Json::parse(ReadBytes(entry.path()));
        for (const auto& [name, expectation] : cases.items())
            EXPECT_TRUE(folder->second.count(name)) << entry.path() << ": " << name << " is gone";
    }
}

}  // namespace
