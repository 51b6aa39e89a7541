// implvm: a command-line host for libImplVirtualMachine.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <memory>

#include "Commands.h"
#include "TerminalText.h"

int main(int argc, char** argv) {
    implvm::StandardOutput output;
    implvm::Host host(argc > 0 ? argv[0] : nullptr);

    CLI::App app{
        "implvm loads libImplVirtualMachine and calls its methods the way a host framework "
        "does: to look at the VMs of a Mac's hypervisors (Parallels Desktop, VMware Fusion, "
        "VirtualBox) or to try one method at a time.",
        "implvm"};
    auto formatter = std::make_shared<CLI::Formatter>();
    formatter->label("SUBCOMMAND", "COMMAND");
    formatter->column_width(34);
    app.formatter(formatter);
    app.require_subcommand(0, 1);  // none is caught below, naming an unknown one
    app.fallthrough();             // global options may also follow the command

    implvm::GlobalOptions& options = host.options();
    options.rootOption =
        app.add_option("--root", options.root,
                       "Look at the Mac whose disk is this folder (the machine root): every "
                       "absolute path the module reads or runs is taken inside it")
            ->type_name("DIR");
    options.moduleOption =
        app.add_option(
               "--module", options.modulePath,
               "The module to load (default: ../lib/implvm/libImplVirtualMachine beside implvm)")
            ->type_name("PATH");
    options.failOption = app.add_option("--fail", options.failpoints,
                                        "Make support-library operations fail on purpose: "
                                        "Operation[@path-or-tool]=code;...")
                             ->type_name("SPEC");
    app.add_flag("-v,--verbose", options.verbose,
                 "Show failures in full: each method's code and error records with their source "
                 "files and lines");
    app.parse_complete_callback([&host] { host.applyGlobalOptions(); });

    app.set_version_flag("--version", std::string("implvm ") + IMPLVM_VERSION);

    implvm::AddInventoryCommand(app, host);
    implvm::AddListCommands(app, host);
    implvm::AddVmCommands(app, host);
    implvm::AddDetectCommand(app, host);
    implvm::AddCallCommand(app, host);
    implvm::AddMethodsCommand(app, host);
    implvm::AddHelpCommand(app);
    for (CLI::App* command : app.get_subcommands({})) command->group("Commands");

    app.footer(std::string("Every command has --help (or: implvm help COMMAND). Examples:\n"
                           "  implvm inventory\n"
                           "  implvm list --running\n"
                           "  implvm info \"Debian 12\"\n"
                           "  implvm start \"Debian 12\"\n"
                           "  implvm detect\n"
                           "  implvm snapshot list \"/Users/robin/Virtual Machines.localized/"
                           "Windows 7 x64.vmwarevm/Windows 7 x64.vmx\"\n"
                           "  implvm methods\n"
                           "  implvm call VirtualMachineImpl_Common_GetHypervisorType "
                           "--in HYPER_TYPE=2\n"
                           "  implvm --root examples/demo-mac call "
                           "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs\n\n") +
               implvm::kExitStatusHelp);

    // Messages quote what the user typed and what the Mac's files hold, so
    // they are made printable, which also keeps each on one line.
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
            throw implvm::UsageError("a command is required (see implvm --help)");
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
            return output.finish(app.exit(e));
        std::cerr << "implvm: " << implvm::Printable(implvm::UsageMessage(e, app, argc, argv))
                  << '\n';
        return implvm::kExitUsage;
    } catch (const implvm::UsageError& e) {
        std::cerr << "implvm: " << implvm::Printable(e.what()) << '\n';
        for (const std::string& line : e.lines())
            std::cerr << "  " << implvm::Printable(line) << '\n';
        return output.finish(implvm::kExitUsage);
    } catch (const implvm::CommandFailure& e) {
        std::cerr << "implvm: " << implvm::Printable(e.what()) << '\n';
        return output.finish(implvm::kExitFailed);
    } catch (const std::exception& e) {
        // UsageError, ModuleError, or a failure outside any method call.
        std::cerr << "implvm: " << implvm::Printable(e.what()) << '\n';
        return output.finish(implvm::kExitUsage);
    }
    return output.finish(host.exitStatus());
}
