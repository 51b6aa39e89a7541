#include "KALDO/CNetworkUtils.h"

#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/MachineRoot.h"
#include "KALDO/Result.h"
#include "platform/Interfaces.h"

namespace KALDO {
namespace {

constexpr const wchar_t* kNameKey = L"Name";
constexpr const wchar_t* kAddressKey = L"HardwareAddress";

typeProperty Record(const std::string& name, const std::wstring& address) {
    typeProperty record;
    record.changeTypeToMap();
    record.addMapVal(kNameKey, CStringUtils::StringToWString(name));
    if (!address.empty()) record.addMapVal(kAddressKey, address);
    return record;
}

std::wstring HexPairs(const std::vector<unsigned char>& bytes) {
    static const wchar_t kHex[] = L"0123456789ABCDEF";
    std::wstring text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) text += L':';
        text += kHex[bytes[i] >> 4];
        text += kHex[bytes[i] & 15];
    }
    return text;
}

// "nic = NAME ADDRESS" facts of a machine root; ADDRESS "-" stands for an
// interface whose address cannot be read.
int DevicesFromFacts(std::vector<typeProperty>& devices) {
    std::vector<std::string> lines;
    const int rc = CMachineRoot::Facts("nic", lines);
    if (rc == kNotFound) return kOk;  // a machine without interfaces
    if (rc < 0) return rc;
    for (const std::string& line : lines) {
        const size_t blank = line.find_first_of(" \t");
        const std::string name = line.substr(0, blank);
        std::string address;
        if (blank != std::string::npos) {
            const size_t start = line.find_first_not_of(" \t", blank);
            if (start != std::string::npos) address = line.substr(start);
        }
        if (name.empty()) continue;
        devices.push_back(
            Record(name, address == "-" ? L"" : CStringUtils::StringToWString(address)));
    }
    return kOk;
}

}  // namespace

int CNetworkUtils::GetNetworkDevices(std::vector<typeProperty>& devices) {
    int injected = 0;
    if (CFailpoints::Check("GetNetworkDevices", injected)) return injected;
    if (CMachineRoot::IsSet()) return DevicesFromFacts(devices);
    std::vector<platform::Interface> interfaces;
    const int rc = platform::ListInterfaces(interfaces);
    if (rc < 0) return rc;
    for (const platform::Interface& i : interfaces)
        devices.push_back(Record(i.name, HexPairs(i.hardwareAddress)));
    return kOk;
}

int CNetworkUtils::GetMACAddress(const typeProperty& device, std::wstring& mac) {
    std::wstring name;
    if (device.getMapVal(kNameKey, name) < 0) return kInvalidArgument;
    int injected = 0;
    if (CFailpoints::Check("GetMACAddress", name, injected)) return injected;
    std::wstring address;
    if (device.getMapVal(kAddressKey, address) < 0 || address.empty()) return kNotFound;
    mac = address;
    return kOk;
}

}  // namespace KALDO
