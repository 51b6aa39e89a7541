// implvm inventory: what a host does with the module, all at once. Finds the
// installed hypervisors, lists and describes every VM with the methods that
// fit each version, and asks both host checks whether the Mac is itself a VM.
// The whole inventory is one JSON document; the human form is a view of it,
// so the two never tell different stories.
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Installed.h"
#include "KALDO/CStringUtils.h"
#include "TerminalText.h"
#include "Vocabulary.h"

namespace implvm {

namespace {

// One line on standard error, rewritten in place, while the inventory runs;
// nothing at all when standard error is not a terminal (a log, a pipe).
class Progress {
public:
    Progress() : enabled_(::isatty(STDERR_FILENO) == 1) {}
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(const std::string& text) {
        if (!enabled_) return;
        std::cerr << "\r\033[K" << text << std::flush;
        shown_ = true;
    }
    void clear() {
        if (shown_) std::cerr << "\r\033[K" << std::flush;
        shown_ = false;
    }

private:
    bool enabled_;
    bool shown_ = false;
};

// One pass over the Mac. A hypervisor whose tool hung once is asked nothing
// more in the pass: its other VMs would most likely hang the same way, each
// for the whole time limit, and hold up everything after them.
struct Pass {
    const Module& module;
    Progress& progress;
    bool toolTimedOut = false;  // some tool was killed at its time limit
};

// {"method", "result", "outputs", "errors"}: a call as `implvm call` prints
// it, with the method's name in front. `timedOut` gets the support library's
// word on a tool it killed at its time limit, "" when none.
Json MethodCall(Pass& pass, const char* method, const KALDO::typeProperty& inputs,
                const std::string& version, std::string& timedOut) {
    const CallOutcome outcome = pass.module.call(method, inputs, version);
    timedOut = TimedOutTool(outcome);
    pass.toolTimedOut = pass.toolTimedOut || !timedOut.empty();
    Json call = {{"method", method}};
    call.update(OutcomeToJson(outcome));
    return call;
}

Json MethodCall(Pass& pass, const char* method, const KALDO::typeProperty& inputs,
                const std::string& version) {
    std::string timedOut;
    return MethodCall(pass, method, inputs, version, timedOut);
}

Json NullableText(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

Json NullableText(const char* text) {
    return text != nullptr ? Json(text) : Json(nullptr);
}

Json HypervisorSection(Pass& pass, const Product& product) {
    const ProductFacts& facts = product.facts();
    Json section = {
        {"name", facts.name},
        {"bundleId", facts.bundleId},
        {"installed", product.installed},
        {"version", product.installed ? Json(product.version) : Json(nullptr)},
        {"appPath", product.installed ? Json(product.appPath) : Json(nullptr)},
        {"served", product.served()},
        {"oldestServed", OldestServed(product.hypervisor)},
        {"productVersion", Json{{"method", "VirtualMachineImpl_Common_GetProductVersion"}}},
        {"methods",
         {{"enumerate", NullableText(product.methods.enumerate)},
          {"info", NullableText(product.methods.info)},
          {"network", NullableText(product.methods.network)}}},
        {"enumeration", nullptr},
        {"vms", Json::array()},
        {"toolTimedOut", nullptr},
    };
    section["productVersion"].update(OutcomeToJson(product.versionCall));
    if (!product.served()) return section;

    pass.progress.show(std::string("implvm inventory: listing the ") + facts.name + " VMs");
    std::string timedOut;
    section["enumeration"] = MethodCall(pass, product.methods.enumerate, KALDO::typeProperty(),
                                        product.version, timedOut);
    const Json& listed = section["enumeration"]["outputs"];
    if (listed.is_object() && listed.contains("VMs") && listed["VMs"].is_array()) {
        Json& vms = section["vms"];
        const size_t count = listed["VMs"].size();
        for (const Json& id : listed["VMs"]) {
            if (!id.is_string()) continue;
            Json vm = {{"id", id}, {"info", nullptr}, {"network", nullptr}, {"notAsked", nullptr}};
            pass.progress.show(std::string("implvm inventory: ") + facts.name + ", VM " +
                               std::to_string(vms.size() + 1) + " of " + std::to_string(count));
            const KALDO::typeProperty inputs = TextInputs({{L"Name", id.get<std::string>()}});
            for (const auto& [key, method] :
                 {std::pair{"info", product.methods.info}, {"network", product.methods.network}}) {
                if (!timedOut.empty()) break;
                vm[key] = MethodCall(pass, method, inputs, product.version, timedOut);
            }
            if (vm["network"].is_null()) vm["notAsked"] = timedOut;
            vms.push_back(std::move(vm));
        }
    }
    section["toolTimedOut"] = NullableText(timedOut);
    return section;
}

// The whole inventory; `toolTimedOut` tells whether some tool was killed at
// its time limit on the way.
Json TakeInventory(const Module& module, bool& toolTimedOut) {
    Progress progress;
    Pass pass{module, progress};
    progress.show("implvm inventory: looking for hypervisors");
    const std::array<Product, 3> products = FindProducts(module);
    Json hypervisors = Json::object();
    for (const Product& product : products)
        hypervisors[product.facts().key] = HypervisorSection(pass, product);

    progress.show("implvm inventory: checking whether this Mac is a virtual machine");
    const KALDO::typeProperty noInputs;
    Json checks = {
        {"hardware", MethodCall(pass, "VirtualMachineImpl_Common_IsMachineVirtual", noInputs, "")},
        {"network", MethodCall(pass, "ImplVm_Common_IsMachineVirtual", noInputs, "")},
    };
    toolTimedOut = pass.toolTimedOut;
    return {{"hypervisors", std::move(hypervisors)}, {"host", std::move(checks)}};
}

// ---- the human form ----

std::string Text(const Json& value, const char* key) {
    const auto it = value.is_object() ? value.find(key) : value.end();
    return it != value.end() && it->is_string() ? it->get<std::string>() : std::string();
}

int Integer(const Json& value, const char* key, int otherwise) {
    const auto it = value.is_object() ? value.find(key) : value.end();
    return it != value.end() && it->is_number_integer() ? it->get<int>() : otherwise;
}

std::string FileName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The last path element without its extension: "Kali Purple" for
// ".../Kali Purple.vmwarevm/Kali Purple.vmx".
std::string Stem(const std::string& path) {
    const std::string name = FileName(path);
    const size_t dot = name.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

// "GetVMInfo answered -1 (-1 at ImplVirtualMachine_VmWare.cpp:412)"; a
// record that explains itself ("VBoxManage did not answer within 60 s")
// shows that text instead of where it was made.
std::string Failure(const Json& call) {
    const std::string method = Text(call, "method");
    std::string text = method.substr(method.find_last_of('_') + 1) + " answered " +
                       std::to_string(Integer(call, "result", 0));
    std::string records;
    for (const Json& record : call["errors"]) {
        records += records.empty() ? " (" : "; ";
        const std::string detail = Text(record, "detail");
        records += !detail.empty() ? detail
                                   : std::to_string(Integer(record, "code", 0)) + " at " +
                                         FileName(Text(record, "file")) + ":" +
                                         std::to_string(Integer(record, "line", 0));
    }
    return text + records + (records.empty() ? "" : ")");
}

bool Failed(const Json& call) {
    return Integer(call, "result", -1) < 0;
}

// The vocabulary's label of a value, `otherwise` for a value it does not
// name.
template <size_t N>
const char* Label(const ImplVm::Naming (&table)[N], int value, const char* otherwise) {
    const ImplVm::Naming* naming = ImplVm::NamingOf(table, value);
    return naming != nullptr ? naming->label.data() : otherwise;
}

const char* StateWord(int state) {
    return Label(ImplVm::kStateNames, state, "unknown");
}

const char* FamilyWord(int type) {
    return Label(ImplVm::kOsFamilyNames, type, "other");
}

const char* AttachmentWord(int type) {
    return Label(ImplVm::kAttachmentNames, type, "other");
}

std::string GuestText(const Json& os) {
    const std::string distribution = Text(os, "Distribution");
    return distribution.empty() ? FamilyWord(Integer(os, "Type", 0)) : distribution;
}

// "NAT, host-only (disconnected)"; "none" for a VM without adapters.
std::string AdaptersText(const Json& networks) {
    std::string text;
    if (networks.is_array()) {
        for (const Json& adapter : networks) {
            if (!text.empty()) text += ", ";
            text += AttachmentWord(Integer(adapter, "Type", 0));
            if (Integer(adapter, "IsConnected", 1) == 0) text += " (disconnected)";
        }
    }
    return text.empty() ? "none" : text;
}

// A table row. A VM that cannot be described has one text in place of its
// guest, state and adapter cells.
struct Row {
    std::vector<std::string> cells;  // 5 cells, or 3 when spanning
    bool spanning() const { return cells.size() == 3; }
};

Row VmRow(const Json& vm) {
    const std::string id = Text(vm, "id");
    const Json& info = vm["info"];
    const Json& network = vm["network"];
    if (info.is_null()) return {{Stem(id), "not asked: " + Text(vm, "notAsked"), id}};
    if (Failed(info)) {
        // Both methods read the same description, so they mostly fail alike:
        // the network call is named only when its code differs.
        std::string failure = "failed: " + Failure(info);
        if (!network.is_null() && Failed(network) && network["result"] != info["result"])
            failure += "; " + Failure(network);
        return {{Stem(id), failure, id}};
    }
    const Json& out = info["outputs"];
    return {{Text(out, "UserFriendlyName"), GuestText(out.value("OS", Json())),
             StateWord(Integer(out, "State", 0)),
             network.is_null() ? "not asked: " + Text(vm, "notAsked")
             : Failed(network) ? "failed: " + Failure(network)
                               : AdaptersText(network["outputs"].value("Networks", Json())),
             id}};
}

// The cells as a terminal shows them: escaped, and cut where they would
// widen a column. The VM is never cut, since it is what the VM commands
// take, and nor is a failure text; neither widens a column for other rows.
Row Shown(const Row& row) {
    Row shown;
    for (size_t c = 0; c < row.cells.size(); ++c) {
        const bool whole = c + 1 == row.cells.size() || (row.spanning() && c == 1);
        shown.cells.push_back(
            Printable(row.cells[c], whole ? std::string_view::npos : kMaxCellColumns));
    }
    return shown;
}

// Columns padded to their widest cell, counted in terminal columns. A
// failure text runs on over the guest, state and adapter columns and may
// push that one row's VM further right, rather than widening the table for
// every row.
void PrintTable(std::ostream& out, const std::vector<Row>& given) {
    constexpr size_t kGap = 2;
    std::vector<Row> rows;
    for (const Row& row : given) rows.push_back(Shown(row));
    std::vector<size_t> widths(5, 0);
    for (const Row& row : rows) {
        for (size_t c = 0; c < row.cells.size(); ++c) {
            const size_t column = row.spanning() && c == 2 ? 4 : c;
            if (!(row.spanning() && c == 1))
                widths[column] = std::max(widths[column], DisplayWidth(row.cells[c]));
        }
    }
    for (const Row& row : rows) {
        std::string line = "  ";
        for (size_t c = 0; c < row.cells.size(); ++c) {
            const std::string& cell = row.cells[c];
            line += cell;
            if (c + 1 == row.cells.size()) break;
            const size_t width =
                row.spanning() && c == 1 ? widths[1] + widths[2] + widths[3] + 2 * kGap : widths[c];
            line.append(width - std::min(width, DisplayWidth(cell)) + kGap, ' ');
        }
        out << line << '\n';
    }
}

void PrintSection(std::ostream& out, const Json& section) {
    const std::string name = Text(section, "name");
    if (!section["installed"].get<bool>()) {
        out << name << ": not installed (no application with bundle identifier "
            << Text(section, "bundleId") << ")\n";
        return;
    }
    out << name << ' ' << Printable(Text(section, "version")) << "  "
        << Printable(Text(section, "appPath")) << '\n';
    if (!section["served"].get<bool>()) {
        out << "  the module serves " << name << ' ' << Integer(section, "oldestServed", 0)
            << " and later only\n";
        return;
    }
    const Json& enumeration = section["enumeration"];
    if (Failed(enumeration)) {
        out << "  the VMs could not be listed: " << Printable(Failure(enumeration)) << '\n';
        return;
    }
    if (section["vms"].empty()) {
        out << "  no VMs";
        if (!enumeration["errors"].empty()) out << " (" << Printable(Failure(enumeration)) << ')';
        out << '\n';
        return;
    }
    std::vector<Row> rows = {{{"NAME", "GUEST OS", "STATE", "ADAPTERS", "VM"}}};
    for (const Json& vm : section["vms"]) rows.push_back(VmRow(vm));
    PrintTable(out, rows);
}

std::string Verdict(const Json& check) {
    if (Failed(check)) return "check failed: " + Failure(check);
    const Json& out = check["outputs"];
    const std::string vendor = Text(out, "VMCompanyName");
    switch (Integer(out, "IsMachineVirtual", -1)) {
        case ImplVm::kNotVirtual:
            return "not a virtual machine";
        case ImplVm::kVirtual:
            return "a virtual machine (" + (vendor.empty() ? "vendor unknown" : vendor) + ")";
        case ImplVm::kPerhapsVirtual:
            return "perhaps a virtual machine (an adapter's address could not be read)";
        default:
            return "no verdict";
    }
}

void PrintInventory(std::ostream& out, const Json& inventory) {
    for (const auto& [key, section] : inventory["hypervisors"].items()) {
        PrintSection(out, section);
        out << '\n';
    }
    const Json& checks = inventory["host"];
    out << "This Mac\n"
        << "  by its hardware profile:   " << Printable(Verdict(checks["hardware"])) << '\n'
        << "  by its network addresses:  " << Printable(Verdict(checks["network"])) << '\n';
}

}  // namespace

void AddInventoryCommand(CLI::App& app, Host& host) {
    auto json = std::make_shared<bool>(false);
    CLI::App* inventory = app.add_subcommand(
        "inventory",
        "Find the installed hypervisors, list and describe every VM, and tell whether this Mac "
        "is itself a virtual machine");
    inventory->add_flag("--json", *json,
                        "Print everything as one JSON document, with every method's result code, "
                        "outputs and error records (docs/inventory-json.md)");
    inventory->footer(CommandFooter(
        "Each hypervisor is found by its application's bundle identifier, and the methods that "
        "fit its version list and describe its VMs. A row per VM: name, guest OS, state, "
        "adapters, and the VM identifier that the VM commands take. A VM that cannot be "
        "described shows the failing method's code and error records in its row, and the "
        "inventory goes on. Once a hypervisor's tool is killed at its time limit, that "
        "hypervisor is asked nothing more: its remaining VMs say \"not asked\" and why. Then "
        "the two host checks' verdicts. Control characters in names and paths are shown "
        "escaped (\\e, \\r, \\x00, ...) and long cells are cut with an ellipsis; --json keeps "
        "everything whole. While it works, a progress line is shown on standard error when "
        "that is a terminal.\n\n"
        "Examples:\n"
        "  implvm inventory\n"
        "  implvm --root examples/demo-mac inventory --json",
        "Exit status: 0 when the inventory ran to the end, also where methods answered negative "
        "codes (those are in its output); 1 when a tool was killed at its time limit (the rest "
        "of the inventory is complete) or the output could not be written; 2 for a usage error "
        "or a module that cannot be loaded."));
    inventory->callback([json, &host] {
        bool toolTimedOut = false;
        const Json document = TakeInventory(host.module(), toolTimedOut);
        if (*json)
            std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
        else
            PrintInventory(std::cout, document);
        host.setExitStatus(toolTimedOut ? kExitFailed : kExitOk);
    });
}

}  // namespace implvm
