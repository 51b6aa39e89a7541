#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#if defined(__APPLE__)
#include <net/if_dl.h>
#else
#include <netpacket/packet.h>
#endif

#include <algorithm>
#include <cerrno>

#include "KALDO/Result.h"
#include "platform/Interfaces.h"

namespace KALDO::platform {

int ListInterfaces(std::vector<Interface>& interfaces) {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return ResultFromErrno(errno);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
        const unsigned char* bytes = nullptr;
        size_t length = 0;
#if defined(__APPLE__)
        if (entry->ifa_addr->sa_family != AF_LINK) continue;
        const auto* link = reinterpret_cast<const sockaddr_dl*>(entry->ifa_addr);
        bytes = reinterpret_cast<const unsigned char*>(LLADDR(link));
        length = link->sdl_alen;
#else
        if (entry->ifa_addr->sa_family != AF_PACKET) continue;
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        bytes = link->sll_addr;
        length = std::min<size_t>(link->sll_halen, sizeof link->sll_addr);
#endif
        const std::string name = entry->ifa_name != nullptr ? entry->ifa_name : "";
        const bool seen = std::any_of(interfaces.begin(), interfaces.end(),
                                      [&](const Interface& i) { return i.name == name; });
        if (seen || name.empty()) continue;
        interfaces.push_back({name, std::vector<unsigned char>(bytes, bytes + length)});
    }
    ::freeifaddrs(list);
    return kOk;
}

}  // namespace KALDO::platform
