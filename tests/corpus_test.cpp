// Real-world files through the module, the way a Mac meets them.
//
// Every file of the shared corpus (IMPLVM_CORPUS_DIR, files gathered from
// public sources) is one case. Each case puts the file at its place on a
// simulated Mac, calls the module's methods and compares the outputs with the
// reviewed expectation tests/corpus/expected/<corpus path without its
// extension>.json. The expectation also holds the case's chosen setting
// (where the file lies, the Fusion version, whether the VM runs).
//
// Beside many .vmx files lies another project's reading of the same file
// (NAME.libvirt.xml from libvirt, NAME.virt-v2v.expected from virt-v2v). Where
// one is present the display name and each adapter's presence and kind must
// agree with it, except in the cases listed in kDeliberateDifferences.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "TestMachine.h"

namespace fs = std::filesystem;
using implvm_test::Json;

namespace {

// The corpus beside the source tree, or where IMPLVM_CORPUS_DIR points (a
// worktree that is not beside it).
const fs::path kCorpus =
    std::getenv("IMPLVM_CORPUS_DIR") ? std::getenv("IMPLVM_CORPUS_DIR") : IMPLVM_CORPUS_DIR;
const fs::path kExpected = fs::path(IMPLVM_SOURCE_DIR) / "tests/corpus/expected";
const std::string kLibrary = "/Users/ann/Documents/Virtual Machines.localized/";

// Files beside a .vmx that are another project's reading of it, not cases.
const char* const kReadingSuffixes[] = {".libvirt.xml", ".virt-v2v.expected"};

// Why the module's rules and the other project's reading part, on purpose.
enum class Differs {
    // The module requires guestOS: without it the reader fails (-1) and
    // there is nothing to compare. The other project reads the file anyway.
    kNoGuestOs,
    // ESX adapters name a port group (networkName) and have no
    // connectionType. libvirt reads that as a bridge; the module writes a
    // "Type" only for nat, bridged and hostonly, so none here.
    kPortGroup,
    // connectionType "custom" (a numbered vmnet): libvirt reads a bridge; the
    // module writes no "Type".
    kCustomVmnet,
};

const std::map<std::string, Differs> kDeliberateDifferences = {
    {"annotation", Differs::kNoGuestOs},          {"ethernet-bridged", Differs::kNoGuestOs},
    {"ethernet-custom", Differs::kNoGuestOs},     {"ethernet-generated", Differs::kNoGuestOs},
    {"ethernet-nat", Differs::kNoGuestOs},        {"ethernet-null", Differs::kNoGuestOs},
    {"ethernet-other", Differs::kNoGuestOs},      {"ethernet-vds", Differs::kNoGuestOs},
    {"ethernet-vpx", Differs::kNoGuestOs},        {"case-insensitive-1", Differs::kPortGroup},
    {"case-insensitive-2", Differs::kPortGroup},  {"esx-in-the-wild-1", Differs::kPortGroup},
    {"esx-in-the-wild-2", Differs::kPortGroup},   {"esx-in-the-wild-3", Differs::kPortGroup},
    {"esx-in-the-wild-4", Differs::kPortGroup},   {"esx-in-the-wild-5", Differs::kPortGroup},
    {"esx-in-the-wild-6", Differs::kPortGroup},   {"esx-in-the-wild-8", Differs::kPortGroup},
    {"esx-in-the-wild-12", Differs::kPortGroup},  {"esx-in-the-wild-13", Differs::kPortGroup},
    {"esx-in-the-wild-16", Differs::kPortGroup},  {"esx-in-the-wild-17", Differs::kPortGroup},
    {"gsx-in-the-wild-1", Differs::kCustomVmnet}, {"gsx-in-the-wild-2", Differs::kCustomVmnet},
    {"gsx-in-the-wild-3", Differs::kCustomVmnet}, {"gsx-in-the-wild-4", Differs::kCustomVmnet},
};

// The other project's adapter kinds and the module's "Type" for the same
// attachment (nullopt: no "Type" key). libvirt: nat is 'user', bridged is
// 'bridge'; 'null' (no network) and 'vds' (a distributed switch port) have
// no counterpart. virt-v2v: Bridge is bridged, Network a named port group.
const std::map<std::string, std::optional<int>> kKindToType = {
    {"libvirt:user", 1},           {"libvirt:bridge", 2},  {"libvirt:null", std::nullopt},
    {"libvirt:vds", std::nullopt}, {"virt-v2v:Bridge", 2}, {"virt-v2v:Network", std::nullopt},
};

struct CorpusCase {
    fs::path file;         // inside the corpus
    std::string relative;  // corpus path, e.g. "vmware/vmx/x.vmx"
    std::string name;      // gtest name
};

void PrintTo(const CorpusCase& c, std::ostream* os) {
    *os << c.relative;
}

std::string ReadBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool IsReading(const fs::path& file) {
    return std::any_of(std::begin(kReadingSuffixes), std::end(kReadingSuffixes),
                       [&](const char* s) { return file.filename().string().ends_with(s); });
}

std::vector<CorpusCase> ListCorpus() {
    std::vector<CorpusCase> cases;
    std::error_code ec;
    if (!fs::is_directory(kCorpus, ec)) return {{{}, "", "CorpusAbsent"}};
    for (const auto& entry : fs::recursive_directory_iterator(kCorpus, ec)) {
        if (!entry.is_regular_file() || IsReading(entry.path())) continue;
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

fs::path ExpectedFor(const std::string& relative) {
    return (kExpected / relative).replace_extension(".json");
}

std::string Stem(const fs::path& file) {
    return file.stem().string();
}

// A process table for /bin/ps: a few unrelated processes, and the VM's
// vmware-vmx process when it runs.
std::string PsListing(const std::string& runningVmx) {
    std::string listing =
        "  PID   TT  STAT      TIME COMMAND\n"
        "    1   ??  Ss     2:11.52 /sbin/launchd\n"
        "  412   ??  S      0:40.10 /System/Library/CoreServices/Finder.app/Contents/MacOS/"
        "Finder\n";
    if (!runningVmx.empty())
        listing +=
            " 4242   ??  R     12:01.77 /Applications/VMware Fusion.app/Contents/Library/"
            "vmware-vmx -s vmx.stdio.keep=TRUE -# product=64;name=VMware Fusion; -@ "
            "duplex=3;msgs=ui " +
            runningVmx + "\n";
    return listing;
}

// Places a .vmx (content) on the Mac as setup says; returns the identifier.
std::string PlaceVmx(implvm_test::TestMachine& mac, const std::string& stem,
                     const std::string& content, const Json& setup) {
    const std::string layout = setup.value("layout", "bundle");
    std::string folder = kLibrary + stem + ".vmwarevm";
    if (layout == "bare") folder = "/Users/ann/vms";
    if (layout == "bundle-renamed") folder = kLibrary + "Renamed VM.vmwarevm";
    const std::string vmx = folder + "/" + stem + ".vmx";
    mac.writeFile(vmx, content);
    for (const auto& name : setup.value("files", Json::array()))
        mac.writeFile(folder + "/" + name.get<std::string>(), "");
    for (const auto& name : setup.value("folders", Json::array()))
        mac.makeDir(folder + "/" + name.get<std::string>());
    const bool running = setup.value("running", false);
    mac.installTool("/bin/ps").respond(PsListing(running ? vmx : ""));
    if (setup.contains("log"))
        mac.writeFile(folder + "/vmware.log", ReadBytes(kCorpus / setup["log"].get<std::string>()));
    return setup.value("identifier", "vmx") == "bundle" ? folder : vmx;
}

void ExpectCall(const implvm_test::CallResult& r, const Json& expected, const char* what) {
    SCOPED_TRACE(what);
    EXPECT_EQ(r.result, expected.at("result").get<int>());
    // An untouched output tree shows as null.
    if (expected.at("outputs").empty())
        EXPECT_TRUE(r.outputs.empty()) << r.outputs.dump(2);
    else
        EXPECT_EQ(r.outputs, expected.at("outputs")) << r.outputs.dump(2);
    // A failure leaves its record, and success none.
    if (r.result < 0) {
        ASSERT_FALSE(r.errors.empty());
        EXPECT_EQ(r.errors.back().code, r.result);
    } else {
        EXPECT_TRUE(r.errors.empty());
    }
}

// ---- The other project's reading ----

struct Reading {
    std::string source;  // "libvirt" or "virt-v2v"
    std::optional<std::string> name;
    std::vector<std::string> kinds;  // one per adapter, in order
};

std::string Between(const std::string& text, const std::string& begin, const std::string& end,
                    size_t from = 0) {
    const size_t b = text.find(begin, from);
    if (b == std::string::npos) return {};
    const size_t e = text.find(end, b + begin.size());
    return e == std::string::npos ? std::string()
                                  : text.substr(b + begin.size(), e - b - begin.size());
}

std::string XmlUnescape(std::string text) {
    static const std::pair<const char*, const char*> kEntities[] = {
        {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&amp;", "&"}};
    for (const auto& [entity, character] : kEntities)
        for (size_t at = text.find(entity); at != std::string::npos; at = text.find(entity, at + 1))
            text.replace(at, std::strlen(entity), character);
    return text;
}

std::optional<Reading> ReadingFor(const fs::path& vmx) {
    const fs::path folder = vmx.parent_path();
    if (fs::exists(folder / (Stem(vmx) + ".libvirt.xml"))) {
        const std::string xml = ReadBytes(folder / (Stem(vmx) + ".libvirt.xml"));
        Reading reading{"libvirt", std::nullopt, {}};
        if (xml.find("<name>") != std::string::npos)
            reading.name = XmlUnescape(Between(xml, "<name>", "</name>"));
        for (size_t at = xml.find("<interface type='"); at != std::string::npos;
             at = xml.find("<interface type='", at + 1))
            reading.kinds.push_back(Between(xml, "type='", "'", at));
        return reading;
    }
    if (fs::exists(folder / (Stem(vmx) + ".virt-v2v.expected"))) {
        const std::string text = ReadBytes(folder / (Stem(vmx) + ".virt-v2v.expected"));
        Reading reading{"virt-v2v", Between(text, "source name: ", "\n"), {}};
        std::istringstream nics(text.substr(text.find("\nNICs:\n") + 7));
        for (std::string line; std::getline(nics, line) && !line.empty() && line[0] == '\t';)
            reading.kinds.push_back(line.substr(1, line.find(' ') - 1));
        return reading;
    }
    return std::nullopt;
}

void CompareWithReading(const std::string& stem, const Reading& reading,
                        const implvm_test::CallResult& info, const implvm_test::CallResult& net) {
    SCOPED_TRACE("against the " + reading.source + " reading");
    const auto listed = kDeliberateDifferences.find(stem);
    if (listed != kDeliberateDifferences.end() && listed->second == Differs::kNoGuestOs) {
        EXPECT_LT(info.result, 0) << "listed as failing for want of guestOS, but it was read";
        return;
    }
    ASSERT_EQ(info.result, 0);
    if (reading.name) {
        EXPECT_EQ(info.outputs.at("UserFriendlyName"), *reading.name);
    }
    const Json networks = net.outputs.value("Networks", Json::array());
    ASSERT_EQ(networks.is_null() ? 0 : networks.size(), reading.kinds.size()) << "adapters present";
    for (size_t i = 0; i < reading.kinds.size(); ++i) {
        const Json& adapter = networks.at(i);
        const std::optional<int> ours = adapter.contains("Type")
                                            ? std::optional<int>(adapter["Type"].get<int>())
                                            : std::nullopt;
        if (listed != kDeliberateDifferences.end()) {
            // The listed difference must really be there, or the list is stale.
            EXPECT_EQ(reading.kinds[i], "bridge") << "adapter " << i;
            EXPECT_EQ(ours, std::nullopt) << "adapter " << i;
            continue;
        }
        const auto kind = kKindToType.find(reading.source + ":" + reading.kinds[i]);
        ASSERT_NE(kind, kKindToType.end()) << "no mapping for " << reading.source << " kind '"
                                           << reading.kinds[i] << "': add one to kKindToType";
        EXPECT_EQ(ours, kind->second) << "adapter " << i << " (" << reading.kinds[i] << ")";
    }
}

// ---- The cases ----

class Corpus : public testing::TestWithParam<CorpusCase> {};

void RunVmx(const CorpusCase& c, const Json& expected) {
    implvm_test::TestMachine mac;
    const Json& setup = expected.at("setup");
    const std::string id = PlaceVmx(mac, Stem(c.file), ReadBytes(c.file), setup);
    const auto fusion = setup.at("fusion").get<std::string>();
    const auto info =
        implvm_test::Call(VirtualMachineImpl_VmWareFusion1_GetVMInfo, {{"Name", id}}, fusion);
    ExpectCall(info, expected.at("GetVMInfo"), "GetVMInfo");
    const auto net =
        implvm_test::Call(VirtualMachineImpl_VmWareFusion1_GetVMNetwork, {{"Name", id}}, fusion);
    ExpectCall(net, expected.at("GetVMNetwork"), "GetVMNetwork");
    if (const auto reading = ReadingFor(c.file))
        CompareWithReading(Stem(c.file), *reading, info, net);
}

// A vmware.log excerpt as the log of a running VM with a plain .vmx.
void RunLog(const CorpusCase& c, const Json& expected) {
    implvm_test::TestMachine mac;
    Json setup = expected.at("setup");
    setup["running"] = true;
    setup["log"] = c.relative;
    const std::string id =
        PlaceVmx(mac, "Log Probe", "displayName = \"Log Probe\"\nguestOS = \"other\"\n", setup);
    const auto info = implvm_test::Call(VirtualMachineImpl_VmWareFusion1_GetVMInfo, {{"Name", id}},
                                        setup.at("fusion").get<std::string>());
    ASSERT_EQ(info.result, 0);
    EXPECT_EQ(info.outputs.at("State"), expected.at("State"));
}

void RunInventory(const CorpusCase& c, const Json& expected) {
    implvm_test::TestMachine mac;
    const Json& setup = expected.at("setup");
    const auto home = setup.at("home").get<std::string>();
    mac.setConsoleUser(setup.at("user").get<std::string>(), 501, home);
    mac.writeFile(home + "/Library/Application Support/VMware Fusion/vmInventory",
                  ReadBytes(c.file));
    ExpectCall(implvm_test::Call(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs),
               expected.at("EnumerateVMs"), "EnumerateVMs");
}

TEST_P(Corpus, MatchesExpectation) {
    const CorpusCase& c = GetParam();
    if (c.relative.empty())
        GTEST_SKIP() << "no corpus at " << kCorpus << ": real-world cases not run";
    const fs::path expectedFile = ExpectedFor(c.relative);
    ASSERT_TRUE(fs::exists(expectedFile))
        << c.relative << " has no expectation: write " << expectedFile << " from the rules";
    const Json expected = Json::parse(ReadBytes(expectedFile));
    if (c.relative.starts_with("vmware/vmx/") && c.file.extension() == ".vmx")
        return RunVmx(c, expected);
    if (c.relative.starts_with("vmware/logs/")) return RunLog(c, expected);
    if (c.relative.starts_with("vmware/inventory/")) return RunInventory(c, expected);
    FAIL() << "no runner for " << c.relative
           << ": teach this suite where such a file lives on a Mac";
}

INSTANTIATE_TEST_SUITE_P(Files, Corpus, testing::ValuesIn(ListCorpus()),
                         [](const auto& param) { return param.param.name; });

// Expectations whose corpus file is gone would silently stop being checked.
TEST(CorpusExpectations, EachHasItsFile) {
    if (!fs::is_directory(kCorpus)) GTEST_SKIP() << "no corpus at " << kCorpus;
    std::set<fs::path> wanted;
    for (const auto& c : ListCorpus()) wanted.insert(ExpectedFor(c.relative));
    for (const auto& entry : fs::recursive_directory_iterator(kExpected)) {
        if (!entry.is_regular_file()) continue;
        EXPECT_TRUE(wanted.count(entry.path())) << entry.path() << " has no corpus file";
    }
}

}  // namespace
