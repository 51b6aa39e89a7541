// Method inputs: what a host registers for a method, merged with what it
// passes in a call.
#pragma once

#include "KALDO/CSoftwareVersion.h"
#include "KALDO/Export.h"
#include "KALDO/typeProperty.h"

namespace KALDO {

class KALDO_API CDbUtils {
public:
    // Fills `merged` (replaced) with the effective inputs of a method call:
    // the map `inputs` plus, for every key it lacks, the value that the host
    // registered for the context (int1, int2, int3). A null `inputs` counts
    // as an empty map. kInvalidArgument when merged is null or inputs is
    // neither a map nor empty. The version is accepted for the host's use and
    // not read.
    static int getInputsForMethod(int int1, int int2, int int3, const CSoftwareVersion* version,
                                  const typeProperty* inputs, typeProperty* merged);

    // Registers default inputs (a map) for a host context; replaces earlier
    // defaults for it. kInvalidArgument when defaults is not a map.
    static int registerDefaultInputs(int int1, int int2, int int3, const typeProperty& defaults);
    // Forgets every registration.
    static void clearDefaultInputs();
};

}  // namespace KALDO
