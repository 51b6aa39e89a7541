#include "KALDO/CDbUtils.h"

#include <array>
#include <map>
#include <mutex>

#include "KALDO/Failpoints.h"

namespace KALDO {

namespace {

using Context = std::array<int, 3>;

struct Registry {
    std::mutex mutex;
    std::map<Context, typeProperty> defaults;
};

Registry& TheRegistry() {
    static Registry registry;
    return registry;
}

}  // namespace

int CDbUtils::getInputsForMethod(int int1, int int2, int int3, const CSoftwareVersion* version,
                                 const typeProperty* inputs, typeProperty* merged) {
    (void)version;
    int code = 0;
    if (CFailpoints::Check("getInputsForMethod", code)) return code;
    if (!merged) return kInvalidArgument;
    if (inputs && inputs->kind() != typeProperty::Kind::Map && !inputs->isEmpty())
        return kInvalidArgument;

    typeProperty result;
    if (inputs && !inputs->isEmpty())
        result = *inputs;
    else
        result.changeTypeToMap();

    Registry& registry = TheRegistry();
    {
        std::lock_guard lock(registry.mutex);
        const auto it = registry.defaults.find(Context{int1, int2, int3});
        if (it != registry.defaults.end()) {
            // The caller's own inputs win; defaults only fill what it lacks.
            for (const auto& [key, value] : *it->second.mapEntries())
                if (!result.findMapVal(key)) result.addSubTree(key, value);
        }
    }
    *merged = std::move(result);
    return kOk;
}

int CDbUtils::registerDefaultInputs(int int1, int int2, int int3, const typeProperty& defaults) {
    if (defaults.kind() != typeProperty::Kind::Map) return kInvalidArgument;
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.defaults[Context{int1, int2, int3}] = defaults;
    return kOk;
}

void CDbUtils::clearDefaultInputs() {
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.defaults.clear();
}

}  // namespace KALDO
