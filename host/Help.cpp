// implvm help [COMMAND] and implvm's words for a mistake in how it was
// called.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Suggest.h"

namespace implvm {

namespace {

std::vector<std::string> CommandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    return names;
}

// The command named on the command line ("snapshot list" for a nested
// one), "" when none is; `unknown` gets the first word that is neither an
// option nor a command, when no command came before it.
std::string NamedCommand(const CLI::App& app, int argc, char** argv, std::string& unknown) {
    const CLI::App* level = &app;
    std::string named;
    bool skipValue = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (skipValue) {
            skipValue = false;
            continue;
        }
        if (word.starts_with("-")) {
            // The global options that take a value as the next word.
            skipValue = word == "--root" || word == "--module" || word == "--fail";
            continue;
        }
        const CLI::App* sub = nullptr;
        for (const CLI::App* command : level->get_subcommands([](const CLI::App*) { return true; }))
            if (command->get_name() == word) sub = command;
        if (sub == nullptr) {
            if (named.empty() && unknown.empty()) unknown = word;
            break;
        }
        named += (named.empty() ? "" : " ") + word;
        level = sub;
    }
    return named;
}

std::string AfterColon(const std::string& text) {
    const size_t colon = text.find(": ");
    return colon == std::string::npos ? text : text.substr(colon + 2);
}

}  // namespace

void AddHelpCommand(CLI::App& app) {
    auto topic = std::make_shared<std::vector<std::string>>();
    CLI::App* help = app.add_subcommand("help", "Show the help of implvm or of one command");
    help->add_option("COMMAND", *topic, "A command, e.g. inventory or snapshot list");
    help->callback([&app, topic] {
        const CLI::App* level = &app;
        for (const std::string& word : *topic) {
            const CLI::App* sub = nullptr;
            for (const CLI::App* command :
                 level->get_subcommands([](const CLI::App*) { return true; }))
                if (command->get_name() == word) sub = command;
            if (sub == nullptr) {
                const std::string closest = ClosestName(word, CommandNames(*level));
                throw UsageError("no command '" + word + "'" +
                                 (closest.empty() ? "" : "; did you mean '" + closest + "'?") +
                                 " (implvm help lists the commands)");
            }
            level = sub;
        }
        std::cout << level->help();
    });
}

std::string UsageMessage(const CLI::ParseError& error, const CLI::App& app, int argc, char** argv) {
    std::string unknown;
    const std::string command = NamedCommand(app, argc, argv, unknown);
    const std::string see =
        command.empty() ? " (see implvm help)" : " (see implvm help " + command + ")";
    const std::string who = command.empty() ? "" : command + ": ";
    const auto kind = static_cast<CLI::ExitCodes>(error.get_exit_code());
    if (kind == CLI::ExitCodes::ExtrasError) {
        if (command.empty() && !unknown.empty()) {
            const std::string closest = ClosestName(unknown, CommandNames(app));
            return "no command '" + unknown + "'" +
                   (closest.empty() ? "" : "; did you mean '" + closest + "'?") +
                   " (implvm help lists the commands)";
        }
        return who + "did not expect " + AfterColon(error.what()) + see;
    }
    if (kind == CLI::ExitCodes::RequiredError) return who + error.what() + see;
    if (kind == CLI::ExitCodes::ConversionError || kind == CLI::ExitCodes::ValidationError ||
        kind == CLI::ExitCodes::ArgumentMismatch)
        return who + "a value is not what the option takes: " + error.what() + see;
    return who + error.what() + see;
}

}  // namespace implvm
