// implvm call: one method call, printed as one JSON document.
#include <cctype>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Commands.h"
#include "Installed.h"
#include "KALDO/CStringUtils.h"
#include "Methods.h"
#include "Suggest.h"

namespace implvm {

namespace {

struct CallOptions {
    std::string method;
    std::string productVersion;
    CLI::Option* productVersionOption = nullptr;
    std::vector<std::string> inputPairs;
    std::string inputJson;
    CLI::Option* inputJsonOption = nullptr;
};

// How deep --in-json may nest. A method's inputs are a flat map, a VM list at
// most one level more; the limit only keeps hostile input from exhausting
// the stack of the steps that walk the tree.
constexpr int kMaxInputDepth = 64;

// The input tree: the --in-json object first, then each --in pair on top (a
// key given both ways keeps its place and takes the --in value).
KALDO::typeProperty BuildInputs(const CallOptions& options) {
    KALDO::typeProperty inputs;
    inputs.changeTypeToMap();
    if (options.inputJsonOption->count() > 0) {
        Json json;
        try {
            json = ParseJson(options.inputJson, kMaxInputDepth);
        } catch (const Json::parse_error& e) {
            throw UsageError(std::string("--in-json: not valid JSON: ") + e.what());
        } catch (const std::invalid_argument& e) {
            throw UsageError(std::string("--in-json: ") + e.what());
        }
        if (!json.is_object())
            throw UsageError("--in-json: expected a JSON object of inputs, got " +
                             std::string(json.type_name()));
        try {
            inputs = JsonToTree(json);
        } catch (const std::invalid_argument& e) {
            throw UsageError(std::string("--in-json: ") + e.what());
        }
    }
    for (const std::string& pair : options.inputPairs) {
        const size_t equals = pair.find('=');
        if (equals == std::string::npos || equals == 0)
            throw UsageError("--in: expected KEY=VALUE, got '" + pair + "'");
        inputs.addMapVal(KALDO::CStringUtils::StringToWString(pair.substr(0, equals)),
                         KALDO::CStringUtils::StringToWString(pair.substr(equals + 1)));
    }
    return inputs;
}

void RunCall(const CallOptions& options, Host& host) {
    const KALDO::typeProperty inputs = BuildInputs(options);
    if (options.productVersion.empty() == false &&
        !std::isdigit(static_cast<unsigned char>(options.productVersion.front())))
        throw UsageError("--product-version: expected a version such as 5.0.3, got '" +
                         options.productVersion + "'");

    const Module& module = host.module();
    if (!module.hasMethod(options.method)) {
        const std::string closest = ClosestName(options.method, module.methods());
        throw UsageError("unknown method '" + options.method + "'" +
                         (closest.empty() ? "" : "; did you mean '" + closest + "'?") +
                         " (implvm methods lists the module's methods)");
    }

    // Without --product-version, the version of the product the method is
    // for, as the Mac has it installed: a method handed no version reads
    // some products' files as another generation would.
    std::string version = options.productVersion;
    const ImplVm::MethodEntry* entry = ImplVm::FindMethod(options.method);
    if (options.productVersionOption->count() == 0 && entry != nullptr &&
        entry->product != Hypervisor::kNone) {
        const Product product = FindProduct(module, entry->product);
        if (product.installed) version = product.version;
    }
    const CallOutcome outcome = module.call(options.method, inputs, version);
    std::cout << OutcomeToJson(outcome).dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    host.setExitStatus(ExitStatusFor(outcome.result));
}

}  // namespace

void AddCallCommand(CLI::App& app, Host& host) {
    auto options = std::make_shared<CallOptions>();
    CLI::App* call = app.add_subcommand(
        "call",
        "Call one method function and print its result code, outputs and error records as "
        "one JSON document");
    call->add_option("METHOD", options->method,
                     "A method function as implvm methods lists it, e.g. "
                     "VirtualMachineImpl_Common_GetModuleVersion")
        ->required();
    options->productVersionOption =
        call->add_option("--product-version", options->productVersion,
                         "The version record handed to the method; must start with a digit, or "
                         "be empty for none (default: the installed version of the product the "
                         "method is for; none for the common methods or a product not installed)")
            ->type_name("X.Y.Z");
    call->add_option("--in", options->inputPairs,
                     "A string input; repeatable; the key ends at the first '='")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false);
    options->inputJsonOption =
        call->add_option("--in-json", options->inputJson,
                         "Inputs as one JSON object: strings, integers, objects and arrays become "
                         "strings, integers, maps and vectors, null an empty value, true/false "
                         "1/0; nested at most " +
                             std::to_string(kMaxInputDepth) +
                             " levels; --in pairs are added on top")
            ->type_name("JSON");
    call->footer(CommandFooter(
        "Prints {\"result\": CODE, \"outputs\": TREE, \"errors\": [{\"code\", \"file\", "
        "\"line\"}, ...]}. Outputs: integers as numbers, strings as strings, maps as objects in "
        "insertion order, vectors as arrays; an output tree the method never touched is null. "
        "The errors are the records this call added to the error log, oldest first. "
        "docs/methods.md lists every method's inputs, outputs and codes.\n\n"
        "Examples:\n"
        "  implvm call VirtualMachineImpl_Common_GetHypervisorType --in HYPER_TYPE=2\n"
        "  implvm --root examples/demo-mac call VirtualMachineImpl_Common_GetProductVersion "
        "--in BundleId=com.vmware.fusion\n"
        "  implvm call VirtualMachineImpl_VmWareFusion1_GetVMInfo --product-version 13.5.0 "
        "--in Name=/path/to/VM.vmx"));
    call->callback([options, &host] { RunCall(*options, host); });
}

}  // namespace implvm
