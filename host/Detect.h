// The verdict of implvm detect from its signals: a pure function, so that
// every combination a Mac can show is tested here.
#pragma once

#include <string>
#include <vector>

namespace implvm {

enum class Answer { kVirtual, kNotVirtual, kUnknown };

struct Signal {
    std::string name;
    Answer answer;
    std::string vendor;  // the vendor a check named, "" for none
};

struct Verdict {
    std::string token;  // systemd-detect-virt's word: "none", "vmware", ...; "unknown"
    int exitStatus;     // 0 virtual, 1 not virtual, 2 cannot tell
};

// A signal saying virtual decides, the first one naming a vendor giving the
// token (the flag alone: "apple"); otherwise the flag saying 0, or every
// other signal saying not virtual, gives "none"; anything else cannot tell.
Verdict Decide(const std::vector<Signal>& signals);

// systemd-detect-virt's token for a vendor as the module's checks name it.
std::string TokenOf(const std::string& vendor);

}  // namespace implvm
