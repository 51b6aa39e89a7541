// implvm methods: the method functions the loaded module exports.
#include <iostream>

#include "Commands.h"

namespace implvm {

void AddMethodsCommand(CLI::App& app, Host& host) {
    CLI::App* methods = app.add_subcommand(
        "methods", "List the method functions the loaded module exports, one per line");
    methods->footer(CommandFooter(
        "In the order of the module's header. The module's internal routines (GetAllVms, "
        "GetInfoForVm, PerformVMAction, ControlSnapshot, macAddressCheck) have signatures of "
        "their own and are not listed; implvm call refuses them."));
    methods->callback([&host] {
        for (const std::string& name : host.module().methods()) std::cout << name << '\n';
    });
}

}  // namespace implvm
