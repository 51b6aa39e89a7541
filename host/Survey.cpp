#include "Survey.h"

#include <unistd.h>

#include <atomic>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "Commands.h"
#include "WorkPool.h"

namespace implvm {

namespace {

// One line on standard error, rewritten in place, while the survey runs;
// nothing at all when standard error is not a terminal (a log, a pipe).
class Progress {
public:
    Progress() : enabled_(::isatty(STDERR_FILENO) == 1) {}
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(const std::string& text) {
        if (!enabled_) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        std::cerr << "\r\033[K" << text << std::flush;
        shown_ = true;
    }
    void clear() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (shown_) std::cerr << "\r\033[K" << std::flush;
        shown_ = false;
    }

private:
    std::mutex mutex_;
    bool enabled_;
    bool shown_ = false;
};

// What the tasks of one survey share.
struct Pass {
    Pass(const Module& m, const SurveyOptions& o) : module(m), options(o) {}
    const Module& module;
    const SurveyOptions& options;
    Progress progress;
    std::atomic<bool> toolTimedOut = false;
    std::atomic<size_t> described = 0;
};

// One hypervisor's section as its tasks fill it. A hypervisor whose tool
// hung is asked nothing more: its other VMs would most likely hang the same
// way, each for the whole time limit.
struct Section {
    Json* json = nullptr;
    Product product;
    std::mutex mutex;
    std::string timedOut;  // the support library's word on the hung tool

    std::string hung() {
        const std::lock_guard<std::mutex> lock(mutex);
        return timedOut;
    }
    void noteHung(const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (timedOut.empty()) timedOut = text;
    }
};

Json Call(Pass& pass, Section* section, const char* method, const KALDO::typeProperty& inputs,
          const std::string& version) {
    const CallOutcome outcome = pass.module.call(method, inputs, version);
    const std::string timedOut = TimedOutTool(outcome);
    if (!timedOut.empty()) {
        pass.toolTimedOut = true;
        if (section != nullptr) section->noteHung(timedOut);
    }
    return CallToJson(method, outcome);
}

Json NullableText(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

Json NullableText(const char* text) {
    return text != nullptr ? Json(text) : Json(nullptr);
}

void DescribeVm(Pass& pass, Section& section, Json& vm, size_t count) {
    const Product& product = section.product;
    const KALDO::typeProperty inputs = TextInputs({{L"Name", vm["id"].get<std::string>()}});
    for (const auto& [key, method] :
         {std::pair{"info", product.methods.info}, {"network", product.methods.network}}) {
        if (!section.hung().empty()) break;
        if (key == std::string_view("network") && !pass.options.networks) break;
        vm[key] = Call(pass, &section, method, inputs, product.version);
    }
    if (vm["network"].is_object())
        ListNetworks(vm["network"]);
    else if (!section.hung().empty())
        vm["notAsked"] = section.hung();
    pass.progress.show(std::string(pass.options.progressLabel) + ": " + product.facts().name +
                       ", " + std::to_string(++pass.described) + " VMs described, of " +
                       std::to_string(count) + " listed");
}

void SurveyHypervisor(Pass& pass, WorkPool& pool, Section& section, Hypervisor hypervisor) {
    section.product = FindProduct(pass.module, hypervisor);
    const Product& product = section.product;
    const ProductFacts& facts = product.facts();
    Json& json = *section.json;
    json = {
        {"name", facts.name},
        {"bundleId", facts.bundleId},
        {"installed", product.installed},
        {"version", product.installed ? Json(product.version) : Json(nullptr)},
        {"appPath", product.installed ? Json(product.appPath) : Json(nullptr)},
        {"served", product.served()},
        {"oldestServed", OldestServed(product.hypervisor)},
        {"productVersion", Json{{"method", "VirtualMachineImpl_Common_GetProductVersion"}}},
        {"methods",
         {{"enumerate", NullableText(product.methods.enumerate)},
          {"info", NullableText(product.methods.info)},
          {"network", NullableText(product.methods.network)}}},
        {"enumeration", nullptr},
        {"vms", Json::array()},
        {"toolTimedOut", nullptr},
    };
    json["productVersion"].update(OutcomeToJson(product.versionCall));
    if (!product.served()) return;

    pass.progress.show(std::string(pass.options.progressLabel) + ": listing the " + facts.name +
                       " VMs");
    json["enumeration"] =
        Call(pass, &section, product.methods.enumerate, KALDO::typeProperty(), product.version);
    const Json& listed = json["enumeration"]["outputs"];
    if (!listed.is_object() || !listed.contains("VMs") || !listed["VMs"].is_array()) return;
    // Every slot is made before any task writes one, so none moves.
    Json& vms = json["vms"];
    for (const Json& id : listed["VMs"]) {
        if (!id.is_string()) continue;
        vms.push_back({{"id", id}, {"info", nullptr}, {"network", nullptr}, {"notAsked", nullptr}});
    }
    for (Json& vm : vms)
        pool.post(
            [&pass, &section, &vm, count = vms.size()] { DescribeVm(pass, section, vm, count); });
}

}  // namespace

Json ProductJson(const Product& product) {
    return {
        {"key", product.facts().key}, {"name", product.facts().name}, {"version", product.version}};
}

void ListNetworks(Json& network) {
    Json& outputs = network["outputs"];
    if (outputs.is_object() && outputs.contains("Networks") && outputs["Networks"].is_null())
        outputs["Networks"] = Json::array();
}

Json CallToJson(const char* method, const CallOutcome& outcome) {
    Json call = {{"method", method}};
    call.update(OutcomeToJson(outcome));
    return call;
}

Survey TakeSurvey(const Module& module, const SurveyOptions& options) {
    Pass pass{module, options};
    pass.progress.show(std::string(options.progressLabel) + ": looking for hypervisors");
    Json hypervisors = Json::object();
    std::vector<std::unique_ptr<Section>> sections;
    for (Hypervisor hypervisor : options.hypervisors) {
        sections.push_back(std::make_unique<Section>());
        hypervisors[FactsOf(hypervisor).key] = nullptr;
    }
    Json checks = Json::object();
    if (options.hostChecks) checks = {{"hardware", nullptr}, {"network", nullptr}};
    {
        WorkPool pool(options.jobs);
        for (size_t i = 0; i < sections.size(); ++i) {
            Section& section = *sections[i];
            const Hypervisor hypervisor = options.hypervisors[i];
            section.json = &hypervisors[FactsOf(hypervisor).key];
            pool.post([&pass, &pool, &section, hypervisor] {
                SurveyHypervisor(pass, pool, section, hypervisor);
            });
        }
        const KALDO::typeProperty noInputs;
        if (options.hostChecks) {
            for (const auto& check :
                 {std::pair{"hardware", "VirtualMachineImpl_Common_IsMachineVirtual"},
                  {"network", "ImplVm_Common_IsMachineVirtual"}}) {
                Json* slot = &checks[check.first];
                const char* method = check.second;
                pool.post([&pass, &noInputs, slot, method] {
                    *slot = Call(pass, nullptr, method, noInputs, "");
                });
            }
        }
        pool.wait();
    }
    for (const auto& section : sections)
        (*section->json)["toolTimedOut"] = NullableText(section->hung());

    Survey survey;
    survey.toolTimedOut = pass.toolTimedOut;
    survey.document = {{"hypervisors", std::move(hypervisors)}};
    if (options.hostChecks) survey.document["host"] = std::move(checks);
    return survey;
}

std::string Text(const Json& value, const char* key) {
    const auto it = value.is_object() ? value.find(key) : value.end();
    return it != value.end() && it->is_string() ? it->get<std::string>() : std::string();
}

int Integer(const Json& value, const char* key, int otherwise) {
    const auto it = value.is_object() ? value.find(key) : value.end();
    return it != value.end() && it->is_number_integer() ? it->get<int>() : otherwise;
}

bool Failed(const Json& call) {
    return Integer(call, "result", -1) < 0;
}

std::string VmName(const Json& vm) {
    const auto info = vm.find("info");
    if (info == vm.end() || !info->is_object() || Failed(*info)) return "";
    const auto outputs = info->find("outputs");
    return outputs == info->end() ? "" : Text(*outputs, "UserFriendlyName");
}

}  // namespace implvm
