#include "MethodFrame.h"

#include "KALDO/CErrorInfo.h"
#include "KALDO/CStringUtils.h"

namespace ImplVm {

int Record(int code, const char* file, int line) {
    if (code >= 0) return KALDO::CErrorInfo::addIfError(code, L"", line);
    const std::wstring wideFile = KALDO::CStringUtils::StringToWString(std::string(file));
    return KALDO::CErrorInfo::addIfError(code, wideFile.c_str(), line);
}

int RecordUnexpected(const char* file, int line) noexcept {
    try {
        return Record(kFailed, file, line);
    } catch (...) {
        return kFailed;
    }
}

int ReadInput(const KALDO::typeProperty* inputs, const wchar_t* key, std::wstring& value) {
    return inputs->lookupString(key, value);
}

void WriteVmList(KALDO::typeProperty* outputs, std::vector<std::wstring>&& ids) {
    KALDO::typeProperty list;
    list.changeTypeToVec();
    for (std::wstring& id : ids) {
        KALDO::typeProperty item;
        item.setVal(id);
        std::wstring().swap(id);
        list.addVecVal(item);
    }
    std::vector<std::wstring>().swap(ids);
    outputs->addSubTree(L"VMs", list);
}

int CopyDescription(const KALDO::typeProperty& description,
                    std::initializer_list<const wchar_t*> keys, KALDO::typeProperty* outputs,
                    const char* file, int line) {
    std::vector<KALDO::typeProperty> values(keys.size());
    size_t i = 0;
    for (const wchar_t* key : keys) {
        const int rc = description.getMapVal(key, values[i]);
        if (rc < 0) return Record(Propagate(rc), file, line + static_cast<int>(i));
        ++i;
    }
    i = 0;
    for (const wchar_t* key : keys) outputs->addSubTree(key, values[i++]);
    return 0;
}

int DescribeToOutputs(const KALDO::typeProperty* inputs, DescriptionReader reader,
                      std::initializer_list<const wchar_t*> keys, KALDO::typeProperty* outputs,
                      const char* file, int line) {
    std::wstring vm;
    int rc = ReadInput(inputs, L"Name", vm);
    if (rc < 0) return Record(Propagate(rc), file, line);
    KALDO::typeProperty description;
    rc = reader(vm, &description);
    if (rc < 0) return Record(Propagate(rc), file, line);
    return CopyDescription(description, keys, outputs, file, line);
}

}  // namespace ImplVm
