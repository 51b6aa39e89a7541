// implvm list and implvm info: the VMs of the Mac one line each, and one VM
// in full, in the words of the hypervisors' own tools.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "FindVm.h"
#include "Survey.h"
#include "SurveyText.h"
#include "TerminalText.h"
#include "WorkPool.h"

namespace implvm {

namespace {

struct ListOptions {
    std::string hypervisor;
    bool running = false;
    bool json = false;
    int jobs = WorkPool::DefaultWorkers();
};

// What the survey says of one VM, in the words both commands print.
struct VmFacts {
    std::string name;      // the display name; the identifier's stem when unread
    std::string state;     // "running", "suspended", "stopped"; "unknown" when unread
    int stateCode = 0;     // the module's number, 0 when unread
    std::string guest;     // the distribution, else the family
    std::string adapters;  // "NAT, bridged"; "none"
    std::string failure;   // why it could not be described, "" when it could
    bool described = false;
};

VmFacts FactsOfVm(const Json& vm, bool verbose) {
    VmFacts facts;
    const std::string id = Text(vm, "id");
    const Json& info = vm["info"];
    const Json& network = vm["network"];
    facts.name = VmName(vm);
    if (info.is_null()) {
        facts.failure = "not asked: " + Text(vm, "notAsked");
    } else if (Failed(info)) {
        facts.failure = verbose ? FullFailure(info) : Reason(info);
    } else {
        const Json& out = info["outputs"];
        facts.stateCode = Integer(out, "State", 0);
        facts.guest = GuestText(out.value("OS", Json()));
        facts.described = true;
    }
    if (facts.name.empty()) facts.name = Stem(id);
    facts.state = StateName(facts.stateCode);
    if (network.is_object() && !Failed(network))
        facts.adapters = AdaptersText(network["outputs"].value("Networks", Json()));
    return facts;
}

Json VmJson(const Json& vm, const std::string& key, const VmFacts& facts) {
    Json entry = {{"hypervisor", key},
                  {"name", facts.name},
                  {"state", facts.state},
                  {"stateCode", facts.stateCode},
                  {"id", Text(vm, "id")}};
    if (!facts.failure.empty()) entry["failure"] = facts.failure;
    return entry;
}

Hypervisor ParseHypervisor(const std::string& key) {
    for (Hypervisor hypervisor : kHypervisors)
        if (key == FactsOf(hypervisor).key) return hypervisor;
    throw UsageError("--hypervisor: expected parallels, vmware or virtualbox, got '" + key + "'");
}

void RunList(const ListOptions& options, Host& host) {
    SurveyOptions survey;
    survey.jobs = options.jobs;
    survey.hostChecks = false;
    survey.progressLabel = "implvm list";
    if (!options.hypervisor.empty()) survey.hypervisors = {ParseHypervisor(options.hypervisor)};
    const Survey taken = TakeSurvey(host.module(), survey);

    Json vms = Json::array();
    std::vector<Row> rows = {{{"HYPERVISOR", "NAME", "STATE", "VM"}}};
    bool complete = !taken.toolTimedOut;
    for (const auto& [key, section] : taken.document["hypervisors"].items()) {
        if (!section["served"].get<bool>()) continue;
        if (Failed(section["enumeration"])) {
            complete = false;
            rows.push_back(
                {{key, "(the VMs could not be listed: " + Reason(section["enumeration"]) + ")"}});
            continue;
        }
        for (const Json& vm : section["vms"]) {
            const VmFacts facts = FactsOfVm(vm, host.options().verbose);
            // A VM that could not be described may be running: it stays.
            if (options.running && facts.described && facts.stateCode != ImplVm::kRunning) continue;
            if (!facts.described) complete = false;
            vms.push_back(VmJson(vm, key, facts));
            if (facts.described)
                rows.push_back({{key, facts.name, facts.state, Text(vm, "id")}});
            else
                rows.push_back({{key, facts.name, "unknown: " + facts.failure, Text(vm, "id")}, 2});
        }
    }
    if (options.json)
        PrintJson(WithSchema({{"vms", vms}}));
    else if (rows.size() > 1)
        PrintTable(std::cout, rows, "");
    host.setExitStatus(complete ? kExitOk : kExitFailed);
}

void RunInfo(const std::string& given, int jobs, bool json, Host& host) {
    const Module& module = host.module();
    const std::array<Product, 3> products = FindProducts(module);
    FoundVm vm = FindVm(module, products, given, jobs);
    const Product& product = *vm.product;
    if (vm.described.is_null() || vm.described["network"].is_null()) {
        // Described as a survey describes it, so both tell the same.
        const KALDO::typeProperty inputs = TextInputs({{L"Name", vm.identifier}});
        vm.described = {
            {"id", vm.identifier},
            {"info", CallToJson(product.methods.info,
                                module.call(product.methods.info, inputs, product.version))},
            {"network", CallToJson(product.methods.network,
                                   module.call(product.methods.network, inputs, product.version))},
            {"notAsked", nullptr}};
        ListNetworks(vm.described["network"]);
    }
    const VmFacts facts = FactsOfVm(vm.described, host.options().verbose);
    const bool complete = facts.described && !Failed(vm.described["network"]);
    host.setExitStatus(complete ? kExitOk : kExitFailed);
    const Json& networkCall = vm.described["network"];
    if (json) {
        Json document = VmJson(vm.described, product.facts().key, facts);
        document["hypervisor"] = ProductJson(product);
        document["guest"] = facts.described ? Json(facts.guest) : Json(nullptr);
        document["networks"] =
            Failed(networkCall) ? Json(nullptr) : networkCall["outputs"].value("Networks", Json());
        document["calls"] = {{"info", vm.described["info"]}, {"network", networkCall}};
        PrintJson(WithSchema(document));
        return;
    }
    std::vector<Row> rows = {
        {{"Name:", facts.name}},
        {{"Guest OS:", facts.described ? facts.guest : "unknown: " + facts.failure}},
        {{"State:", facts.state}},
        {{"Adapters:", Failed(networkCall)
                           ? "unknown: " + (host.options().verbose ? FullFailure(networkCall)
                                                                   : Reason(networkCall))
                           : facts.adapters}},
        {{"VM:", vm.identifier}},
        {{"Hypervisor:", std::string(product.facts().name) + " " + product.version}},
    };
    PrintTable(std::cout, rows, "");
}

}  // namespace

void AddListCommands(CLI::App& app, Host& host) {
    auto options = std::make_shared<ListOptions>();
    CLI::App* list = app.add_subcommand("list", "List the VMs of the Mac, one line each");
    list->add_option("--hypervisor", options->hypervisor,
                     "Only the VMs of this hypervisor: parallels, vmware or virtualbox")
        ->type_name("NAME");
    list->add_flag("--running", options->running,
                   "Only the running VMs (and those whose state cannot be read)");
    list->add_flag("--json", options->json,
                   "Print {\"vms\": [{\"hypervisor\", \"name\", \"state\", \"stateCode\", "
                   "\"id\"}, ...]}");
    AddJobsOption(*list, options->jobs);
    list->footer(CommandFooter(
        "A line per VM: hypervisor, name, state (running, suspended, stopped) and the VM as the "
        "other commands take it. A VM that cannot be described shows why (with -v: the "
        "method's code and error records).\n\nExamples:\n  implvm list\n"
        "  implvm list --hypervisor virtualbox --running\n  implvm list --json",
        "Exit status: 0 when every VM was listed and described; 1 when a list could not be "
        "read or a VM could not be described (the others are shown all the same) or the output "
        "could not be written; 2 for a usage error."));
    list->callback([options, &host] { RunList(*options, host); });

    struct InfoOptions {
        std::string vm;
        bool json = false;
        int jobs = WorkPool::DefaultWorkers();
    };
    auto info = std::make_shared<InfoOptions>();
    CLI::App* command = app.add_subcommand("info", "Describe one VM");
    command
        ->add_option("VM", info->vm,
                     "The VM: its name when no other VM has it, or as implvm list shows it (or "
                     "a .vmwarevm bundle, a Parallels config.pvs, a VirtualBox machine UUID)")
        ->required();
    command->add_flag("--json", info->json,
                      "Print the VM as one JSON document, with the module's calls");
    AddJobsOption(*command, info->jobs);
    command->footer(CommandFooter(
        "Prints the VM's name, guest OS, state, adapters, identifier, and its hypervisor with "
        "the version.\n\nExamples:\n  implvm info \"Debian 12\"\n"
        "  implvm info 3f6c2a52-95a4-4b8e-9d1e-3d3bc6d7a0a1 --json",
        "Exit status: 0 when the VM was described; 1 when it could not be (what could be read "
        "is shown) or the output could not be written; 2 for a usage error: no such VM, or a "
        "name several VMs have (each is listed with its identifier)."));
    command->callback([info, &host] { RunInfo(info->vm, info->jobs, info->json, host); });
}

}  // namespace implvm
