#include <ifaddrs.h>
#include <sys/socket.h>
#if defined(__APPLE__)
#include <net/if_dl.h>
#else
#include <netpacket/packet.h>
#endif

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "KALDO/Result.h"
#include "platform/Interfaces.h"

namespace KALDO::platform {

int ListInterfaces(std::vector<Interface>& interfaces) {
    ifaddrs* raw = nullptr;
    if (::getifaddrs(&raw) != 0) return ResultFromErrno(errno);
    // Freed also when an allocation below fails.
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(raw, ::freeifaddrs);
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr) continue;
#if defined(__APPLE__)
        if (entry->ifa_addr->sa_family != AF_LINK) continue;
        const auto* link = reinterpret_cast<const sockaddr_dl*>(entry->ifa_addr);
        const LinkTypes from = LinkTypes::kMac;
        const unsigned type = link->sdl_type;
        const auto* bytes = reinterpret_cast<const unsigned char*>(LLADDR(link));
        const size_t length = link->sdl_alen;
#else
        if (entry->ifa_addr->sa_family != AF_PACKET) continue;
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        const LinkTypes from = LinkTypes::kLinux;
        const unsigned type = link->sll_hatype;
        const unsigned char* bytes = link->sll_addr;
        const size_t length = std::min<size_t>(link->sll_halen, sizeof link->sll_addr);
#endif
        const std::string name = entry->ifa_name != nullptr ? entry->ifa_name : "";
        std::optional<Interface> listed = ListedInterface(from, name, type, bytes, length);
        const bool seen = std::any_of(interfaces.begin(), interfaces.end(),
                                      [&](const Interface& i) { return i.name == name; });
        if (listed && !seen) interfaces.push_back(std::move(*listed));
    }
    return kOk;
}

}  // namespace KALDO::platform
