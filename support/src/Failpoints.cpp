#include "KALDO/Failpoints.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"

namespace KALDO {

namespace {

struct Rule {
    std::string op;
    bool hasSubject = false;
    std::wstring subject;
    int code = 0;
};
using Table = std::vector<Rule>;

// kUnread until KALDO_FAILPOINTS has been looked at (in a build with test
// hooks; otherwise the first check finds it empty); then kNone or kArmed.
// With nothing armed a check is this one load.
enum : int { kUnread = 0, kNone = 1, kArmed = 2 };
std::atomic<int> g_state{kUnread};
std::mutex g_mutex;
std::shared_ptr<const Table> g_table;  // guarded by g_mutex
std::once_flag g_envOnce;

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view TrimBlanks(std::string_view text) {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
    return text;
}

bool ParseCode(std::string_view text, int& code) {
    text = TrimBlanks(text);
    if (text.size() < 2 || text[0] != '-') return false;
    long long value = 0;
    for (size_t i = 1; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
        if (value > -static_cast<long long>(INT_MIN)) return false;
    }
    if (value == 0) return false;
    code = static_cast<int>(-value);
    return true;
}

bool IsOperationName(std::string_view name) {
    if (name.empty()) return false;
    for (const char c : name)
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
              c == '_'))
            return false;
    return true;
}

// "Op[@subject]=code;..." The subject runs from the first "@" to the last
// "=" of its rule, so it may hold blanks, "@" and "=" (anything but ";").
bool Parse(std::string_view spec, Table& table) {
    Table result;
    size_t start = 0;
    while (start <= spec.size()) {
        size_t stop = spec.find(';', start);
        if (stop == std::string_view::npos) stop = spec.size();
        std::string_view rule = spec.substr(start, stop - start);
        start = stop + 1;
        while (!rule.empty() && IsBlank(rule.front())) rule.remove_prefix(1);
        if (TrimBlanks(rule).empty()) continue;
        const size_t eq = rule.rfind('=');
        if (eq == std::string_view::npos) return false;
        Rule parsed;
        if (!ParseCode(rule.substr(eq + 1), parsed.code)) return false;
        const std::string_view target = rule.substr(0, eq);
        const size_t at = target.find('@');
        const std::string_view op = TrimBlanks(target.substr(0, at));
        if (!IsOperationName(op)) return false;
        parsed.op = op;
        if (at != std::string_view::npos) {
            const std::string_view subject = target.substr(at + 1);
            if (subject.empty()) return false;
            parsed.hasSubject = true;
            parsed.subject = CStringUtils::StringToWString(subject);
        }
        result.push_back(std::move(parsed));
    }
    table.swap(result);
    return true;
}

void Install(Table table) {
    std::lock_guard lock(g_mutex);
    const bool armed = !table.empty();
    g_table = armed ? std::make_shared<const Table>(std::move(table)) : nullptr;
    g_state.store(armed ? kArmed : kNone, std::memory_order_release);
}

void ReadEnvironmentOnce() {
    std::call_once(g_envOnce, [] {
        Table table;
#if defined(KALDO_TEST_HOOKS)
        const char* env = std::getenv("KALDO_FAILPOINTS");
        if (env && *env && !Parse(env, table)) {
            std::fprintf(stderr,
                         "KALDO_FAILPOINTS ignored: malformed (expected Op[@subject]=code;...)\n");
            table.clear();
        }
#endif
        Install(std::move(table));
    });
}

bool Lookup(const char* op, const std::wstring* subject, int& code) {
    int state = g_state.load(std::memory_order_acquire);
    if (state == kNone) return false;
    if (state == kUnread) {
        ReadEnvironmentOnce();
        if (g_state.load(std::memory_order_acquire) != kArmed) return false;
    }
    std::shared_ptr<const Table> table;
    {
        std::lock_guard lock(g_mutex);
        table = g_table;
    }
    if (!table || !op) return false;
    for (const Rule& rule : *table) {
        if (rule.op != op) continue;
        if (rule.hasSubject && (!subject || rule.subject != *subject)) continue;
        code = rule.code;
        return true;
    }
    return false;
}

}  // namespace

int CFailpoints::Set(const std::string& spec) {
    ReadEnvironmentOnce();  // so that a later first check does not read it over this
    Table table;
    if (!Parse(spec, table)) return kInvalidArgument;
    Install(std::move(table));
    return kOk;
}

void CFailpoints::Clear() {
    ReadEnvironmentOnce();
    Install({});
}

bool CFailpoints::Check(const char* op, const std::wstring& subject, int& code) {
    return Lookup(op, &subject, code);
}

bool CFailpoints::Check(const char* op, int& code) {
    return Lookup(op, nullptr, code);
}

}  // namespace KALDO
