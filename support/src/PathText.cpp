#include "PathText.h"

#include <vector>

#include "KALDO/CStringUtils.h"
#include "KALDO/MachineRoot.h"
#include "KALDO/Result.h"

namespace KALDO::detail {

std::string NormalizeAbsolute(const std::string& path) {
    std::vector<std::string_view> parts;
    const std::string_view text(path);
    size_t start = 0;
    while (start <= text.size()) {
        size_t stop = text.find('/', start);
        if (stop == std::string_view::npos) stop = text.size();
        const std::string_view part = text.substr(start, stop - start);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = stop + 1;
    }
    if (parts.empty()) return "/";
    std::string result;
    result.reserve(path.size());
    for (const std::string_view part : parts) {
        result.push_back('/');
        result.append(part);
    }
    return result;
}

int ToHostPath(const std::wstring& path, std::string& hostPath) {
    if (path.empty() || path.find(L'\0') != std::wstring::npos) return kInvalidArgument;
    hostPath = CMachineRoot::Map(CStringUtils::WStringToString(path));
    return kOk;
}

}  // namespace KALDO::detail
