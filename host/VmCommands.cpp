// implvm start|stop|suspend|pause|resume VM and implvm snapshot take|delete|list
// VM [NAME]: one action on one VM, named as the inventory lists it. The
// hypervisor and the method are worked out here, so that a user never needs
// to know which generation of method fits the installed product.
#include <array>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "FindVm.h"
#include "Installed.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"
#include "Survey.h"
#include "SurveyText.h"
#include "TerminalText.h"
#include "WorkPool.h"

namespace implvm {

namespace {

struct ActionFacts {
    VmAction action;
    const char* command;  // "start"; for snapshots the snapshot sub-command
    const char* verb;     // "could not <verb>"
    const char* done;     // what the line says once the method answered 0 or more
    bool needsSnapshotName;
    const char* help;
};

constexpr ActionFacts kPowerActions[] = {
    {VmAction::kStart, "start", "start", "started", false,
     "Start a VM (or resume a suspended one)"},
    {VmAction::kStop, "stop", "stop", "stopped", false, "Stop (power off) a VM"},
    {VmAction::kSuspend, "suspend", "suspend", "suspended", false,
     "Suspend a VM: save its state and stop it"},
    {VmAction::kPause, "pause", "pause", "paused", false, "Pause a running VM"},
    {VmAction::kResume, "resume", "resume", "resumed", false, "Resume a paused VM"},
};

constexpr ActionFacts kSnapshotActions[] = {
    {VmAction::kSnapshotTake, "take", "take snapshot", "took snapshot", true,
     "Take a snapshot named NAME of a VM"},
    {VmAction::kSnapshotDelete, "delete", "delete snapshot", "deleted snapshot", true,
     "Delete the snapshot named NAME of a VM"},
    {VmAction::kSnapshotList, "list", "list snapshots", "", false, "List the snapshots of a VM"},
};

struct VmOptions {
    std::string vm;
    std::string snapshot;
    bool json = false;
    int jobs = WorkPool::DefaultWorkers();
};

std::string Narrow(const std::wstring& text) {
    return KALDO::CStringUtils::WStringToString(text);
}

std::string ProductText(const Product& product) {
    return std::string(product.facts().name) + " " + Printable(product.version);
}

// The snapshot names of a list answer, each on a line of its own.
std::vector<std::string> SnapshotNames(const KALDO::typeProperty& outputs) {
    std::vector<KALDO::typeProperty> entries;
    outputs.getMapVal(L"Snapshots", entries);
    std::vector<std::string> names;
    for (const KALDO::typeProperty& entry : entries) {
        std::wstring name;
        entry.getMapVal(L"Snapshot", name);
        names.push_back(Narrow(name));
    }
    return names;
}

// The commands a product's methods offer, for the error that names one they do not.
std::string OfferedCommands(const Product& product) {
    std::string offered;
    const auto add = [&](const ActionFacts& facts, const char* prefix) {
        if (!product.methods.action(facts.action)) return;
        offered += (offered.empty() ? "" : ", ") + std::string(prefix) + facts.command;
    };
    for (const ActionFacts& facts : kPowerActions) add(facts, "");
    for (const ActionFacts& facts : kSnapshotActions) add(facts, "snapshot ");
    return offered.empty() ? "none" : offered;
}

// A NUL would end the text early where a tool gets it, so the tool would act
// on another VM or snapshot than the one named; such text never gets that far.
void RefuseNul(const char* what, const std::string& text) {
    if (text.find('\0') != std::string::npos)
        throw UsageError(std::string(what) + " '" + Printable(text) +
                         "' holds a NUL character (U+0000), which no tool can be given");
}

// The VirtualBox machine's UUID from its settings file. There is no falling
// back on the name: that could act on another machine of the same name.
std::string MachineUuid(const FoundVm& vm, const std::string& given, const char* verb) {
    std::string uuid;
    const int rc = MachineUuidOf(vm.identifier, uuid);
    if (rc >= 0) return uuid;
    throw CommandFailure(
        given + ": could not " + verb + ": the machine's UUID cannot be read: " +
        (rc == KALDO::kFailed
             ? "its settings file " + vm.identifier + " names none"
             : "its settings file " + vm.identifier + " cannot be read (" + CodeMeaning(rc) + ")"));
}

void RunAction(const ActionFacts& facts, const VmOptions& options, Host& host) {
    RefuseNul("VM", options.vm);
    if (facts.needsSnapshotName) RefuseNul("NAME", options.snapshot);
    const Module& module = host.module();
    const std::array<Product, 3> products = FindProducts(module);
    const FoundVm vm = FindVm(module, products, options.vm, options.jobs);
    const Product& product = *vm.product;
    const ActionMethod& method = product.methods.action(facts.action);
    if (!method)
        throw UsageError(ProductText(product) + " cannot " + facts.verb +
                         ": the module's methods for its VMs offer " + OfferedCommands(product));

    // What the user typed and what the VM's files hold, as a terminal shows it.
    const std::string shownVm = Printable(options.vm);
    const std::string named =
        facts.needsSnapshotName ? " \"" + Printable(options.snapshot) + "\"" : "";

    std::string argument = vm.identifier;
    if (method.argument == VmArgument::kConfigFile) argument = ConfigFileOf(vm.identifier);
    if (method.argument == VmArgument::kMachineUuid)
        argument = MachineUuid(vm, options.vm, facts.verb);
    std::vector<std::pair<const wchar_t*, std::string>> pairs = {{L"Name", argument}};
    if (method.command != nullptr) pairs.emplace_back(L"COMMAND", method.command);
    if (facts.needsSnapshotName) pairs.emplace_back(L"Snapshot", options.snapshot);
    const CallOutcome outcome = module.call(method.method, TextInputs(pairs), product.version);
    host.setExitStatus(ExitStatusFor(outcome.result));
    const Json call = CallToJson(method.method, outcome);
    const std::vector<std::string> names = facts.action == VmAction::kSnapshotList
                                               ? SnapshotNames(outcome.outputs)
                                               : std::vector<std::string>();
    if (options.json) {
        Json document = {{"vm", options.vm},
                         {"action", facts.verb},
                         {"hypervisor", ProductJson(product)},
                         {"id", vm.identifier},
                         {"done", outcome.result >= 0},
                         {"call", call}};
        if (facts.action == VmAction::kSnapshotList) document["snapshots"] = names;
        PrintJson(WithSchema(document));
        return;
    }
    if (outcome.result < 0) {
        // One line on standard error; the status says it too.
        const std::string said = ToolSaid(call);
        std::cerr << "implvm: " << shownVm << ": could not " << facts.verb << named << ": "
                  << CodeMeaning(outcome.result) << (said.empty() ? "" : "; " + Printable(said))
                  << " (" << ProductText(product) << ", " << method.method << " answered "
                  << outcome.result << ")"
                  << (host.options().verbose ? "\n  " + Printable(FullFailure(call)) : "") << '\n';
        return;
    }

    const std::string how = " (" + ProductText(product) + ", " + method.method + " answered " +
                            std::to_string(outcome.result) + ")";
    if (facts.action != VmAction::kSnapshotList) {
        std::cout << shownVm << ": " << facts.done << named << how << '\n';
        return;
    }
    std::cout << shownVm << ": " << names.size() << (names.size() == 1 ? " snapshot" : " snapshots")
              << how << '\n';
    for (const std::string& name : names) std::cout << "  " << Printable(name) << '\n';
}

constexpr const char* kVmHelp =
    "The VM: its name when no other VM has it, or as implvm list shows it (a Parallels .pvm "
    "bundle or its config.pvs, a VMware .vmx or its .vmwarevm bundle, a VirtualBox settings "
    "file or machine UUID)";

constexpr const char* kVmNotes =
    "implvm finds the VM among the installed hypervisors and calls the method that fits the "
    "installed version: Parallels Desktop 9 and later (start, stop, suspend, pause, resume "
    "through prlctl), Parallels Desktop 4 to 8 (start only), VMware Fusion (start, stop, "
    "suspend; start also resumes a suspended VM), VirtualBox 4 and later (start, stop, pause, "
    "resume). An action the VM's hypervisor does not offer is a usage error. Prints one line: "
    "what happened, the product and the method's answer (on standard error when the method "
    "failed).";

CLI::App* AddVmCommand(CLI::App& parent, const ActionFacts& facts, Host& host,
                       const std::string& notes) {
    auto options = std::make_shared<VmOptions>();
    CLI::App* command = parent.add_subcommand(facts.command, facts.help);
    command->add_option("VM", options->vm, kVmHelp)->required();
    if (facts.needsSnapshotName)
        command->add_option("NAME", options->snapshot, "The snapshot's name")->required();
    command->add_flag("--json", options->json,
                      "Print the outcome as one JSON document: the VM, the method's call and "
                      "(list) the snapshots");
    AddJobsOption(*command, options->jobs);
    command->fallthrough();
    command->footer(CommandFooter(notes));
    command->callback([facts, options, &host] { RunAction(facts, *options, host); });
    return command;
}

}  // namespace

void AddVmCommands(CLI::App& app, Host& host) {
    for (const ActionFacts& facts : kPowerActions) {
        AddVmCommand(app, facts, host,
                     std::string(kVmNotes) +
                         "\n\nExamples:\n  implvm start \"Debian 12\"\n"
                         "  implvm suspend \"/Users/robin/Virtual "
                         "Machines.localized/Ubuntu 64-bit.vmwarevm/"
                         "Ubuntu 64-bit.vmx\"");
    }
    CLI::App* snapshot =
        app.add_subcommand("snapshot", "Take, delete or list the snapshots of a VMware VM");
    snapshot->require_subcommand(1, 1);
    snapshot->fallthrough();
    const std::string notes =
        "Snapshots are offered for VMware Fusion 4 and later; for any other VM this is a usage "
        "error. Prints one line (list: one line, then each snapshot's name on a line of its "
        "own).\n\nExamples:\n"
        "  implvm snapshot take VM before-update\n"
        "  implvm snapshot list VM\n"
        "  implvm snapshot delete VM before-update";
    snapshot->footer(CommandFooter(notes));
    for (const ActionFacts& facts : kSnapshotActions)
        AddVmCommand(*snapshot, facts, host, notes)->group("Commands");
}

}  // namespace implvm
