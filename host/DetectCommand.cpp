// implvm detect: is this Mac a virtual machine, and under which hypervisor?
// One token and an exit status, as systemd-detect-virt gives them, from
// three signals: the module's hardware-profile and network-address checks,
// and the kernel's own flag kern.hv_vmm_present, which macOS sets in every
// guest (Apple's Virtualization framework and Apple-silicon guests
// included, which leave no vendor's name in the hardware or the addresses).
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Detect.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CStringUtils.h"
#include "Survey.h"
#include "SurveyText.h"
#include "Vocabulary.h"

namespace implvm {

namespace {

constexpr const char* kSysctl = "/usr/sbin/sysctl";
constexpr const char* kFlag = "kern.hv_vmm_present";

Signal FromCheck(const char* name, const Json& call) {
    Signal signal{name, Answer::kUnknown, ""};
    if (Failed(call)) return signal;
    const Json& out = call["outputs"];
    switch (Integer(out, "IsMachineVirtual", -1)) {
        case ImplVm::kVirtual:
            signal.answer = Answer::kVirtual;
            signal.vendor = Text(out, "VMCompanyName");
            break;
        case ImplVm::kNotVirtual:
            signal.answer = Answer::kNotVirtual;
            break;
        default:  // "perhaps": an address could not be read
            break;
    }
    return signal;
}

// sysctl -n kern.hv_vmm_present: "1" in a guest, "0" on a physical Mac;
// anything else (an older macOS without the key, a failed run) says nothing.
Signal FromFlag(Json& record) {
    int exitCode = 0;
    std::wstring out;
    using KALDO::CStringUtils;
    const int rc = KALDO::CProcessUtils::ExecuteSafeToText(
        CStringUtils::StringToWString(std::string(kSysctl)),
        {L"-n", CStringUtils::StringToWString(std::string(kFlag))}, exitCode, &out, nullptr,
        nullptr);
    const std::string value = CStringUtils::WStringToString(CStringUtils::Trim(out));
    record = {{"tool", kSysctl},
              {"arguments", {"-n", kFlag}},
              {"result", rc},
              {"exitStatus", exitCode},
              {"output", value}};
    Signal signal{kFlag, Answer::kUnknown, ""};
    if (rc < 0 || exitCode != 0) return signal;
    if (value == "1") signal.answer = Answer::kVirtual;
    if (value == "0") signal.answer = Answer::kNotVirtual;
    return signal;
}

const char* AnswerName(Answer answer) {
    switch (answer) {
        case Answer::kVirtual:
            return "virtual";
        case Answer::kNotVirtual:
            return "not virtual";
        case Answer::kUnknown:
            break;
    }
    return "cannot tell";
}

}  // namespace

void AddDetectCommand(CLI::App& app, Host& host) {
    auto json = std::make_shared<bool>(false);
    CLI::App* detect = app.add_subcommand(
        "detect", "Tell whether this Mac is a virtual machine: one token, as systemd-detect-virt");
    detect->add_flag("--json", *json, "Print each signal, its answer and the verdict");
    detect->footer(CommandFooter(
        "Prints one token: none, or the hypervisor (vmware, oracle, parallels, xen, apple, "
        "vm-other, ...), or unknown. Three signals: the module's hardware-profile check, its "
        "network-address check, and the kernel flag kern.hv_vmm_present (sysctl), which macOS "
        "sets in every guest, also under Apple's Virtualization framework where the other two "
        "see no vendor. A vendor named by a check gives the token; the flag alone gives apple. "
        "The flag saying 0 outweighs a check that could not tell.\n\n"
        "Examples:\n  implvm detect\n  implvm --root examples/demo-mac detect --json",
        "Exit status: 0 when this Mac is a virtual machine, 1 when it is not, 2 when it cannot "
        "be told (or for a usage error)."));
    detect->callback([json, &host] {
        const Module& module = host.module();
        const KALDO::typeProperty noInputs;
        const Json hardware =
            CallToJson("VirtualMachineImpl_Common_IsMachineVirtual",
                       module.call("VirtualMachineImpl_Common_IsMachineVirtual", noInputs));
        const Json network = CallToJson("ImplVm_Common_IsMachineVirtual",
                                        module.call("ImplVm_Common_IsMachineVirtual", noInputs));
        Json flagRun;
        const std::vector<Signal> signals = {FromCheck("hardware", hardware),
                                             FromCheck("network", network), FromFlag(flagRun)};
        const Verdict verdict = Decide(signals);
        host.setExitStatus(verdict.exitStatus);
        if (!*json) {
            std::cout << verdict.token << '\n';
            return;
        }
        Json list = Json::array();
        const Json* sources[] = {&hardware, &network, &flagRun};
        for (size_t i = 0; i < signals.size(); ++i) {
            Json entry = {
                {"signal", signals[i].name},
                {"answer", AnswerName(signals[i].answer)},
                {"vendor", signals[i].vendor.empty() ? Json(nullptr) : Json(signals[i].vendor)}};
            entry[i < 2 ? "call" : "run"] = *sources[i];
            list.push_back(std::move(entry));
        }
        PrintJson(WithSchema({{"verdict", verdict.token},
                              {"virtual", verdict.exitStatus == 0   ? Json(true)
                                          : verdict.exitStatus == 1 ? Json(false)
                                                                    : Json(nullptr)},
                              {"signals", list}}));
    });
}

}  // namespace implvm
