// Which network interfaces CNetworkUtils lists, decided from what the system
// reports of each. Pure, so that it is checked on any system with the values
// a Mac reports. Internal to CoreUtils.
#pragma once

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace KALDO::platform {

// Where a link type number comes from.
enum class LinkTypes {
    kMac,    // sockaddr_dl's sdl_type: IFT_* of <net/if_types.h>
    kLinux,  // sockaddr_ll's sll_hatype: ARPHRD_* of <net/if_arp.h>
};

// The link types whose interfaces carry an IEEE 802 hardware address by
// nature. Loopback, tunnels (utun, gif, stf, tun, sit, GRE), point-to-point
// links, packet taps and FireWire have none that the vendor check could
// judge, so they are not listed.
struct EthernetLikeType {
    LinkTypes from;
    unsigned type;
    const char* what;
};
inline constexpr EthernetLikeType kEthernetLikeTypes[] = {
    {LinkTypes::kMac, 0x06, "IFT_ETHER: Ethernet, and Wi-Fi, AWDL and most adapters on a Mac"},
    {LinkTypes::kMac, 0x09, "IFT_ISO88025: token ring"},
    {LinkTypes::kMac, 0x0f, "IFT_FDDI"},
    {LinkTypes::kMac, 0x47, "IFT_IEEE80211: Wi-Fi"},
    {LinkTypes::kMac, 0x87, "IFT_L2VLAN: VLAN"},
    {LinkTypes::kMac, 0x88, "IFT_IEEE8023ADLAG: link aggregate (bond)"},
    {LinkTypes::kMac, 0xd1, "IFT_BRIDGE: bridge"},
    {LinkTypes::kLinux, 1, "ARPHRD_ETHER: Ethernet, Wi-Fi, bridges, VLANs, bonds"},
    {LinkTypes::kLinux, 2, "ARPHRD_EETHER"},
    {LinkTypes::kLinux, 6, "ARPHRD_IEEE802"},
    {LinkTypes::kLinux, 774, "ARPHRD_FDDI"},
    {LinkTypes::kLinux, 800, "ARPHRD_IEEE802_TR: token ring"},
    {LinkTypes::kLinux, 801, "ARPHRD_IEEE80211: Wi-Fi"},
};

struct Interface {
    std::string name;
    std::vector<unsigned char> hardwareAddress;  // empty when it could not be read
};

// The interface as it is listed, or nothing when it is not: an interface
// of an Ethernet-like link type, with its address bytes as the system gave
// them (none: listed as one whose address cannot be read).
inline std::optional<Interface> ListedInterface(LinkTypes from, const std::string& name,
                                                unsigned type, const unsigned char* address,
                                                size_t length) {
    const bool ethernetLike =
        std::any_of(std::begin(kEthernetLikeTypes), std::end(kEthernetLikeTypes),
                    [&](const EthernetLikeType& t) { return t.from == from && t.type == type; });
    if (!ethernetLike || name.empty()) return std::nullopt;
    return Interface{name, std::vector<unsigned char>(address, address + length)};
}

}  // namespace KALDO::platform
