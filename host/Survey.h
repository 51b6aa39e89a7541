// A survey of the Mac: what a host does with the module, all at once. Finds
// the installed hypervisors, lists and describes every VM with the methods
// that fit each version, and asks both host checks whether the Mac is itself
// a VM. The result is one JSON document (docs/inventory-json.md); implvm
// inventory, list and info are views of it, so they never tell different
// stories.
//
// The calls run on a bounded pool of threads (jobs): the hypervisors'
// listings and the host checks side by side, then the VMs' descriptions.
// The document is the same whatever the number of jobs, VM order included.
#pragma once

#include <vector>

#include "Installed.h"
#include "TreeJson.h"

namespace implvm {

struct SurveyOptions {
    int jobs = 1;
    std::vector<Hypervisor> hypervisors{kHypervisors.begin(), kHypervisors.end()};
    bool hostChecks = true;
    bool networks = true;  // false: VMs are described by their info call only
    const char* progressLabel = "implvm inventory";  // on the progress line
};

struct Survey {
    Json document;
    bool toolTimedOut = false;  // some tool was killed at its time limit
};

Survey TakeSurvey(const Module& module, const SurveyOptions& options);

// The JSON of a call as implvm call prints it, the method's name in front:
// {"method", "result", "outputs", "errors", "toolFailures"}.
Json CallToJson(const char* method, const CallOutcome& outcome);

// A VM without adapters has an empty "Networks" list, whichever
// hypervisor: one module leaves the key without a value then. `network` is
// a call's JSON.
void ListNetworks(Json& network);

// {"key", "name", "version"} of an installed product, as the VM commands'
// and info's JSON name the VM's hypervisor.
Json ProductJson(const Product& product);

// ---- reading the document ----

std::string Text(const Json& value, const char* key);
int Integer(const Json& value, const char* key, int otherwise);
bool Failed(const Json& call);
// A surveyed VM's "UserFriendlyName"; "" when it could not be described.
std::string VmName(const Json& vm);

}  // namespace implvm
