// implvm: a command-line host for libImplVirtualMachine.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "Commands.h"

int main(int argc, char** argv) {
    implvm::Host host(argc > 0 ? argv[0] : nullptr);

    CLI::App app{"Load libImplVirtualMachine and call its methods.", "implvm"};
    app.require_subcommand(0, 1);  // none is caught below, naming an unknown one
    app.fallthrough();             // global options may also follow the command
    app.footer(
        "Exit status: 0 when the method answered 0 or more, 1 when it answered a negative "
        "code, 2 for a usage error.");

    implvm::GlobalOptions& options = host.options();
    options.rootOption = app.add_option("--root", options.root,
                                        "Look at the Mac whose disk is this folder (machine root)")
                             ->type_name("DIR");
    options.moduleOption = app.add_option("--module", options.modulePath,
                                          "The module to load (default: ../lib/ beside implvm)")
                               ->type_name("PATH");
    options.failOption =
        app.add_option("--fail", options.failpoints,
                       "Make support-library operations fail: Operation[@path-or-tool]=code;...")
            ->type_name("SPEC");
    app.parse_complete_callback([&host] { host.applyGlobalOptions(); });

    implvm::AddCallCommand(app, host);
    implvm::AddMethodsCommand(app, host);

    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
            throw implvm::UsageError("a command is required (see implvm --help)");
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
        std::cerr << "implvm: " << e.what() << " (see implvm --help)\n";
        return implvm::kExitUsage;
    } catch (const std::exception& e) {
        // UsageError, ModuleError, or a failure outside any method call.
        std::cerr << "implvm: " << e.what() << '\n';
        return implvm::kExitUsage;
    }
    return host.exitStatus();
}
