// The version record of an installed product, and version helpers.
#pragma once

#include <string>
#include <vector>

#include "KALDO/Export.h"

namespace KALDO {

// A dotted version such as "5.0.3" or "4.3.12r93733".
//
// Built from text: the leading run of dot-separated decimal numbers is parsed
// into components; whatever follows (a build suffix such as "r93733" or
// " beta") is kept as the suffix. Text that does not begin with a digit gives
// a record with no components (major number 0). toCharStr() gives back the
// text the record was built from, unchanged.
class KALDO_API CSoftwareVersion {
public:
    CSoftwareVersion();
    explicit CSoftwareVersion(const std::string& text);
    explicit CSoftwareVersion(const std::wstring& text);
    CSoftwareVersion(const CSoftwareVersion& other);
    CSoftwareVersion& operator=(const CSoftwareVersion& other);
    ~CSoftwareVersion();

    // The version as narrow text, exactly as given.
    std::string toCharStr() const;

    // Numeric components (e.g. {5, 0, 3}); component(i) is 0 past the end.
    const std::vector<int>& components() const { return components_; }
    int component(size_t index) const;
    int major() const { return component(0); }
    int minor() const { return component(1); }

    // Orders by components (missing components count as 0).
    int compare(const CSoftwareVersion& other) const;

private:
    std::string text_;
    std::vector<int> components_;
};

class KALDO_API CGeneralUtils {
public:
    // Major number of the version; 0 for a null pointer or a version without
    // numbers.
    static int GetMajorVersion(const CSoftwareVersion* version);
};

}  // namespace KALDO
