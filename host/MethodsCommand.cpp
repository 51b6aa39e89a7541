// implvm methods: the method functions the loaded module exports.
#include <iostream>
#include <memory>

#include "Commands.h"
#include "Installed.h"
#include "Methods.h"

namespace implvm {

void AddMethodsCommand(CLI::App& app, Host& host) {
    CLI::App* methods = app.add_subcommand(
        "methods", "List the method functions the loaded module exports, one per line");
    methods->footer(CommandFooter(
        "In the order of the module's header. The module's internal routines (GetAllVms, "
        "GetInfoForVm, PerformVMAction, ControlSnapshot, macAddressCheck) have signatures of "
        "their own and are not listed; implvm call refuses them."));
    auto json = std::make_shared<bool>(false);
    methods->add_flag("--json", *json,
                      "Print {\"methods\": [{\"name\", \"hypervisor\", \"firstMajor\", "
                      "\"lastMajor\"}, ...]}; lastMajor null for no last version");
    methods->callback([&host, json] {
        const std::vector<std::string> names = host.module().methods();
        if (!*json) {
            for (const std::string& name : names) std::cout << name << '\n';
            return;
        }
        Json list = Json::array();
        for (const std::string& name : names) {
            const ImplVm::MethodEntry* entry = ImplVm::FindMethod(name);
            const bool product = entry->product != ImplVm::Hypervisor::kNone;
            list.push_back(
                {{"name", name},
                 {"hypervisor", product ? Json(FactsOf(entry->product).key) : Json(nullptr)},
                 {"firstMajor", product ? Json(entry->firstMajor) : Json(nullptr)},
                 {"lastMajor", product && entry->lastMajor != ImplVm::kAnyLater
                                   ? Json(entry->lastMajor)
                                   : Json(nullptr)}});
        }
        PrintJson(WithSchema({{"methods", list}}));
    });
}

}  // namespace implvm
