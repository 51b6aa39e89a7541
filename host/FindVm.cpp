#include "FindVm.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include "Commands.h"
#include "KALDO/CStringUtils.h"
#include "Survey.h"
#include "TerminalText.h"

namespace implvm {

namespace {

std::string WithoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::vector<std::string> ListedVms(const Module& module, const Product& product) {
    const CallOutcome listed =
        module.call(product.methods.enumerate, TextInputs({}), product.version);
    std::vector<std::string> ids;
    std::vector<KALDO::typeProperty> entries;
    if (listed.outputs.getMapVal(L"VMs", entries) < 0) return ids;
    for (const KALDO::typeProperty& entry : entries) {
        std::wstring id;
        if (entry.getString(id) >= 0) ids.push_back(KALDO::CStringUtils::WStringToString(id));
    }
    return ids;
}

// Whether a listed VM answers to `wanted` by its identifier, its bundle or
// its UUID.
bool AnswersTo(const Product& product, const std::string& id, const std::string& wanted,
               const std::string& uuid) {
    if (WithoutTrailingSlash(id) == wanted) return true;
    switch (product.hypervisor) {
        case Hypervisor::kParallels:
            return ConfigFileOf(id) == wanted;
        case Hypervisor::kVmWareFusion:
            return id.ends_with(".vmx") && FolderOf(id) == wanted;
        case Hypervisor::kVirtualBox: {
            std::string machine;
            return !uuid.empty() && MachineUuidOf(id, machine) >= 0 && AsUuid(machine) == uuid;
        }
        case Hypervisor::kNone:
            break;
    }
    return false;
}

FoundVm FindByName(const Module& module, const std::array<Product, 3>& products,
                   const std::string& given, int jobs) {
    SurveyOptions options;
    options.jobs = jobs;
    options.hostChecks = false;
    options.networks = false;
    options.progressLabel = "implvm: looking for the VM";
    const Survey survey = TakeSurvey(module, options);
    std::vector<FoundVm> named;
    std::string hung;
    for (const Product& product : products) {
        const Json& section = survey.document["hypervisors"][product.facts().key];
        if (hung.empty()) hung = Text(section, "toolTimedOut");
        for (const Json& vm : section["vms"]) {
            if (VmName(vm) == given) named.push_back({&product, Text(vm, "id"), vm});
        }
    }
    if (named.size() == 1) return named.front();
    if (named.size() > 1) {
        std::vector<std::string> candidates;
        for (const FoundVm& vm : named)
            candidates.push_back(std::string(vm.product->facts().name) + ": " + vm.identifier);
        throw UsageError("'" + given + "' names " + std::to_string(named.size()) +
                             " VMs; give one of them by its identifier:",
                         candidates);
    }
    // A name unread may be the one.
    size_t unread = 0;
    for (const Product& product : products)
        for (const Json& vm : survey.document["hypervisors"][product.facts().key]["vms"])
            if (VmName(vm).empty()) ++unread;
    if (!hung.empty())
        throw CommandFailure(given + ": the names of the VMs cannot all be read: " + hung);
    throw UsageError(
        "no VM '" + given + "' on this Mac: give a VM by its name, or as implvm list shows it" +
        (unread == 0 ? std::string()
                     : " (" + std::to_string(unread) +
                           (unread == 1 ? " VM's name" : " VMs' names") + " could not be read)"));
}

}  // namespace

std::string AsUuid(const std::string& text) {
    std::string uuid = text;
    if (uuid.size() == 38 && uuid.front() == '{' && uuid.back() == '}') uuid = uuid.substr(1, 36);
    if (uuid.size() != 36) return "";
    for (size_t i = 0; i < uuid.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        const unsigned char c = static_cast<unsigned char>(uuid[i]);
        if (dash ? c != '-' : !std::isxdigit(c)) return "";
        uuid[i] = static_cast<char>(std::tolower(c));
    }
    return uuid;
}

FoundVm FindVm(const Module& module, const std::array<Product, 3>& products,
               const std::string& given, int jobs) {
    const std::string wanted = WithoutTrailingSlash(given);
    const std::string uuid = AsUuid(given);
    for (const Product& product : products) {
        if (!product.served()) continue;
        for (const std::string& id : ListedVms(module, product))
            if (AnswersTo(product, id, wanted, uuid)) return {&product, id, nullptr};
    }
    return FindByName(module, products, given, jobs);
}

}  // namespace implvm
