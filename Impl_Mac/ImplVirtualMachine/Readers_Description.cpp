// The shape of what every adapter reports: a VM description and its
// adapters' records, made one way for all three.
#include "Readers.h"

namespace ImplVm::Readers {

KALDO::typeProperty AdapterRecord(const std::wstring& name, std::optional<Attachment> type,
                                  bool connected) {
    // The keys made once: a VM may have many thousands of adapters.
    static const std::wstring kName = L"Name", kType = L"Type", kIsConnected = L"IsConnected",
                              kMacAddress = L"MacAddress";
    KALDO::typeProperty adapter;
    adapter.addMapVal(kName, name);
    if (type) adapter.addMapVal(kType, static_cast<int>(*type));
    adapter.addMapVal(kIsConnected, connected ? 1 : 0);
    // No adapter's address is read; the key is part of the record all the
    // same.
    adapter.addMapVal(kMacAddress, std::wstring());
    return adapter;
}

void FillDescription(KALDO::typeProperty& description, const std::wstring& name,
                     const KALDO::typeProperty& os, int state,
                     const KALDO::typeProperty& networks) {
    description.addString(L"UserFriendlyName", name);
    description.addSubTree(L"OS", os);
    description.addInteger(L"State", state);
    description.addSubTree(L"Networks", networks);
}

}  // namespace ImplVm::Readers
