// The machine's network interfaces.
#pragma once

#include <string>
#include <vector>

#include "KALDO/Export.h"
#include "KALDO/typeProperty.h"

namespace KALDO {

class KALDO_API CNetworkUtils {
public:
    // One record (a map) per network interface whose link type carries a
    // hardware address (Ethernet, Wi-Fi, bridges, VLANs, bonds and the like;
    // loopback, tunnels such as utun, gif and stf, and point-to-point links
    // have none by nature and are left out), in the system's order, appended
    // to `devices`: "Name" (interface name) and, where it could be read,
    // "HardwareAddress" (raw form). In a machine root, one record per `nic`
    // line of .machine, in file order.
    static int GetNetworkDevices(std::vector<typeProperty>& devices);

    // The hardware address of one interface record as upper-case hexadecimal
    // pairs separated by colons ("08:00:27:AA:BB:CC"). In a machine root the
    // address is the nic fact's text exactly as written there, so a root can
    // also show what an unusual system would report. kNotFound when the
    // record has no readable address, kInvalidArgument when it is not an
    // interface record.
    static int GetMACAddress(const typeProperty& device, std::wstring& mac);
};

}  // namespace KALDO
