#include "KALDO/CSoftwareVersion.h"

#include <algorithm>
#include <climits>

#include "KALDO/CStringUtils.h"

namespace KALDO {

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// The leading run of dot-separated numbers; anything after it is a suffix
// that only the text keeps. A component too large for an int is clamped.
std::vector<int> ParseComponents(const std::string& text) {
    std::vector<int> components;
    size_t i = 0;
    while (i < text.size() && IsDigit(text[i])) {
        long long value = 0;
        while (i < text.size() && IsDigit(text[i])) {
            if (value <= INT_MAX) value = value * 10 + (text[i] - '0');
            ++i;
        }
        components.push_back(value > INT_MAX ? INT_MAX : static_cast<int>(value));
        if (i + 1 < text.size() && text[i] == '.' && IsDigit(text[i + 1]))
            ++i;
        else
            break;
    }
    return components;
}

}  // namespace

CSoftwareVersion::CSoftwareVersion() = default;

CSoftwareVersion::CSoftwareVersion(const std::string& text)
    : text_(text), components_(ParseComponents(text)) {}

CSoftwareVersion::CSoftwareVersion(const std::wstring& text)
    : CSoftwareVersion(CStringUtils::WStringToString(text)) {}

CSoftwareVersion::CSoftwareVersion(const CSoftwareVersion& other) = default;
CSoftwareVersion& CSoftwareVersion::operator=(const CSoftwareVersion& other) = default;
CSoftwareVersion::~CSoftwareVersion() = default;

std::string CSoftwareVersion::toCharStr() const {
    return text_;
}

int CSoftwareVersion::component(size_t index) const {
    return index < components_.size() ? components_[index] : 0;
}

int CSoftwareVersion::compare(const CSoftwareVersion& other) const {
    const size_t n = std::max(components_.size(), other.components_.size());
    for (size_t i = 0; i < n; ++i) {
        const int a = component(i);
        const int b = other.component(i);
        if (a != b) return a < b ? -1 : 1;
    }
    return 0;
}

int CGeneralUtils::GetMajorVersion(const CSoftwareVersion* version) {
    return version ? version->major() : 0;
}

}  // namespace KALDO
