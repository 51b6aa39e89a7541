// implvm inventory: what a host does with the module, all at once. Finds the
// installed hypervisors, lists and describes every VM with the methods that
// fit each version, and asks both host checks whether the Mac is itself a VM.
// The whole inventory is one JSON document; the human form is a view of it,
// so the two never tell different stories.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Installed.h"
#include "Survey.h"
#include "SurveyText.h"
#include "TerminalText.h"
#include "Vocabulary.h"
#include "WorkPool.h"

namespace implvm {

namespace {

// A VM's row: name, guest OS, state, adapters, identifier. A VM that cannot
// be described has why in place of its guest, state and adapters.
Row VmRow(const Json& vm, bool verbose) {
    const std::string id = Text(vm, "id");
    const Json& info = vm["info"];
    const Json& network = vm["network"];
    const auto failure = [verbose](const Json& call) {
        return verbose ? FullFailure(call) : Reason(call);
    };
    if (info.is_null()) return {{Stem(id), "not asked: " + Text(vm, "notAsked"), id}, 1, 3};
    if (Failed(info)) {
        // Both methods read the same description, so they mostly fail alike:
        // the network call is named only when its code differs.
        std::string text = "failed: " + failure(info);
        if (!network.is_null() && Failed(network) && network["result"] != info["result"])
            text += "; " + failure(network);
        return {{Stem(id), text, id}, 1, 3};
    }
    const Json& out = info["outputs"];
    return {{Text(out, "UserFriendlyName"), GuestText(out.value("OS", Json())),
             StateWord(Integer(out, "State", 0)),
             network.is_null() ? "not asked: " + Text(vm, "notAsked")
             : Failed(network) ? "failed: " + failure(network)
                               : AdaptersText(network["outputs"].value("Networks", Json())),
             id}};
}

void PrintSection(std::ostream& out, const Json& section, bool verbose) {
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
    const std::string why = verbose ? FullFailure(enumeration) : Reason(enumeration);
    if (Failed(enumeration)) {
        out << "  the VMs could not be listed: " << Printable(why) << '\n';
        return;
    }
    if (section["vms"].empty()) {
        out << "  no VMs";
        if (!enumeration["errors"].empty())
            out << " (" << Printable(FullFailure(enumeration)) << ')';
        out << '\n';
        return;
    }
    std::vector<Row> rows = {{{"NAME", "GUEST OS", "STATE", "ADAPTERS", "VM"}}};
    for (const Json& vm : section["vms"]) rows.push_back(VmRow(vm, verbose));
    PrintTable(out, rows, "  ");
}

std::string Verdict(const Json& check, bool verbose) {
    if (Failed(check)) return "check failed: " + (verbose ? FullFailure(check) : Reason(check));
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

void PrintInventory(std::ostream& out, const Json& inventory, bool verbose) {
    for (const auto& [key, section] : inventory["hypervisors"].items()) {
        PrintSection(out, section, verbose);
        out << '\n';
    }
    const Json& checks = inventory["host"];
    out << "This Mac\n"
        << "  by its hardware profile:   " << Printable(Verdict(checks["hardware"], verbose))
        << '\n'
        << "  by its network addresses:  " << Printable(Verdict(checks["network"], verbose))
        << '\n';
}

// Whether every call an inventory counts answered 0 or more: the listing
// and descriptions of every served hypervisor and both host checks. A
// product's version call is not among them: it answers negative for every
// hypervisor that is not installed.
bool EveryCallAnswered(const Json& inventory) {
    for (const auto& [key, section] : inventory["hypervisors"].items()) {
        if (!section["served"].get<bool>()) continue;
        if (Failed(section["enumeration"])) return false;
        for (const Json& vm : section["vms"])
            for (const char* call : {"info", "network"})
                if (vm[call].is_null() || Failed(vm[call])) return false;
    }
    for (const auto& [key, check] : inventory["host"].items())
        if (Failed(check)) return false;
    return true;
}

}  // namespace

void AddInventoryCommand(CLI::App& app, Host& host) {
    struct Options {
        bool json = false;
        int jobs = WorkPool::DefaultWorkers();
    };
    auto options = std::make_shared<Options>();
    CLI::App* inventory = app.add_subcommand(
        "inventory",
        "Find the installed hypervisors, list and describe every VM, and tell whether this Mac "
        "is itself a virtual machine");
    inventory->add_flag("--json", options->json,
                        "Print everything as one JSON document, with every method's result code, "
                        "outputs and error records (docs/inventory-json.md)");
    AddJobsOption(*inventory, options->jobs);
    inventory->footer(CommandFooter(
        "Each hypervisor is found by its application's bundle identifier, and the methods that "
        "fit its version list and describe its VMs. A row per VM: name, guest OS, state, "
        "adapters, and the VM identifier that the VM commands take. A VM that cannot be "
        "described shows why in its row (with -v: the failing method's code and error "
        "records), and the inventory goes on. Once a hypervisor's tool is killed at its time "
        "limit, that hypervisor is asked nothing more: its remaining VMs say \"not asked\" and "
        "why; the other hypervisors go on. Then the two host checks' verdicts. Control "
        "characters in names and paths are shown escaped (\\e, \\r, \\x00, ...) and long "
        "cells are cut with an ellipsis; --json keeps everything whole. While it works, a "
        "progress line is shown on standard error when that is a terminal.\n\n"
        "Examples:\n"
        "  implvm inventory\n"
        "  implvm inventory --jobs 1\n"
        "  implvm --root examples/demo-mac inventory --json",
        "Exit status: 0 when every call answered 0 or more (the listing and descriptions of "
        "every hypervisor the module serves, both host checks); 1 when one did not (a list "
        "that could not be read, a VM that could not be described, a failed host check, a tool "
        "killed at its time limit; the inventory is complete all the same) or the output could "
        "not be written; 2 for a usage error or a module that cannot be loaded."));
    inventory->callback([options, &host] {
        SurveyOptions survey;
        survey.jobs = options->jobs;
        const Survey taken = TakeSurvey(host.module(), survey);
        if (options->json)
            PrintJson(WithSchema(taken.document));
        else
            PrintInventory(std::cout, taken.document, host.options().verbose);
        host.setExitStatus(!taken.toolTimedOut && EveryCallAnswered(taken.document) ? kExitOk
                                                                                    : kExitFailed);
    });
}

}  // namespace implvm
