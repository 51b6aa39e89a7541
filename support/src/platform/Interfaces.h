// The machine's network interfaces: the platform service behind
// CNetworkUtils. Internal to CoreUtils.
#pragma once

#include <string>
#include <vector>

namespace KALDO::platform {

struct Interface {
    std::string name;
    std::vector<unsigned char> hardwareAddress;  // empty when it could not be read
};

// Interfaces with a link-layer address slot, loopback left out, in the
// system's order (each name once).
int ListInterfaces(std::vector<Interface>& interfaces);

}  // namespace KALDO::platform
