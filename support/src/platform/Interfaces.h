// The machine's network interfaces: the platform service behind
// CNetworkUtils. Internal to CoreUtils.
#pragma once

#include <vector>

#include "platform/LinkTypes.h"

namespace KALDO::platform {

// The interfaces whose link type carries a hardware address (ListedInterface),
// in the system's order, each name once.
int ListInterfaces(std::vector<Interface>& interfaces);

}  // namespace KALDO::platform
