#include "SurveyText.h"

#include <algorithm>

#include "Commands.h"
#include "Survey.h"
#include "TerminalText.h"
#include "Vocabulary.h"

namespace implvm {

namespace {

std::string FileName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// "GetVMInfo" of "VirtualMachineImpl_VirtualBox2_GetVMInfo".
std::string ShortMethod(const Json& call) {
    const std::string method = Text(call, "method");
    return method.substr(method.find_last_of('_') + 1);
}

// The vocabulary's label (or name) of a value, `otherwise` for a value it
// does not name.
template <size_t N>
const char* Word(const ImplVm::Naming (&table)[N], int value, bool label, const char* otherwise) {
    const ImplVm::Naming* naming = ImplVm::NamingOf(table, value);
    if (naming == nullptr) return otherwise;
    return (label ? naming->label : naming->name).data();
}

}  // namespace

std::string Stem(const std::string& path) {
    const std::string name = FileName(path);
    const size_t dot = name.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

std::string ToolSaid(const Json& call) {
    if (call.contains("toolFailures")) {
        for (const Json& failure : call["toolFailures"]) {
            // The first line kept is the message; tools add details below it
            // ("VBoxManage: error: Details: ...").
            std::string said = Text(failure, "said");
            said = said.substr(0, said.find('\n'));
            if (said.empty()) continue;
            const std::string tool = Text(failure, "tool");
            return said.starts_with(tool + ":") ? said : tool + ": " + said;
        }
    }
    for (const Json& record : call["errors"]) {
        const std::string detail = Text(record, "detail");
        if (!detail.empty()) return detail;
    }
    return "";
}

std::string Reason(const Json& call) {
    const std::string said = ToolSaid(call);
    if (!said.empty()) return said;
    const int result = Integer(call, "result", 0);
    return ShortMethod(call) + " answered " + std::to_string(result) + ": " + CodeMeaning(result);
}

std::string FullFailure(const Json& call) {
    std::string text =
        ShortMethod(call) + " answered " + std::to_string(Integer(call, "result", 0));
    std::string records;
    for (const Json& record : call["errors"]) {
        records += records.empty() ? " (" : "; ";
        const std::string detail = Text(record, "detail");
        records += !detail.empty() ? detail
                                   : std::to_string(Integer(record, "code", 0)) + " at " +
                                         FileName(Text(record, "file")) + ":" +
                                         std::to_string(Integer(record, "line", 0));
    }
    if (call.contains("toolFailures")) {
        for (const Json& failure : call["toolFailures"]) {
            records += records.empty() ? " (" : "; ";
            records += Text(failure, "tool") + " " + Text(failure, "ended");
            const std::string said = Text(failure, "said");
            if (!said.empty()) records += ": " + said;
        }
    }
    return text + records + (records.empty() ? "" : ")");
}

const char* StateWord(int state) {
    return Word(ImplVm::kStateNames, state, true, "unknown");
}

const char* StateName(int state) {
    return Word(ImplVm::kStateNames, state, false, "unknown");
}

std::string GuestText(const Json& os) {
    const std::string distribution = Text(os, "Distribution");
    return distribution.empty()
               ? Word(ImplVm::kOsFamilyNames, Integer(os, "Type", 0), true, "other")
               : distribution;
}

std::string AdaptersText(const Json& networks) {
    std::string text;
    if (networks.is_array()) {
        for (const Json& adapter : networks) {
            if (!text.empty()) text += ", ";
            text += Word(ImplVm::kAttachmentNames, Integer(adapter, "Type", 0), true, "other");
            if (Integer(adapter, "IsConnected", 1) == 0) text += " (disconnected)";
        }
    }
    return text.empty() ? "none" : text;
}

void PrintTable(std::ostream& out, const std::vector<Row>& given, const std::string& indent) {
    constexpr size_t kGap = 2;
    size_t columns = 0;
    for (const Row& row : given) columns = std::max(columns, row.cells.size());
    // The column a cell starts in.
    const auto columnOf = [](const Row& row, size_t c) {
        return row.flow != std::string::npos && c > row.flow ? c + row.cover - 1 : c;
    };
    std::vector<Row> rows;
    std::vector<size_t> widths(columns, 0);
    for (const Row& row : given) {
        Row shown = row;
        for (size_t c = 0; c < row.cells.size(); ++c) {
            const bool whole = c + 1 == row.cells.size() || c == row.flow;
            shown.cells[c] =
                Printable(row.cells[c], whole ? std::string_view::npos : kMaxCellColumns);
            if (c != row.flow)
                widths[columnOf(row, c)] =
                    std::max(widths[columnOf(row, c)], DisplayWidth(shown.cells[c]));
        }
        rows.push_back(std::move(shown));
    }
    for (const Row& row : rows) {
        std::string line = indent;
        for (size_t c = 0; c < row.cells.size(); ++c) {
            const std::string& cell = row.cells[c];
            line += cell;
            if (c + 1 == row.cells.size()) break;
            size_t width = widths[columnOf(row, c)];
            if (c == row.flow)
                for (size_t k = 1; k < row.cover; ++k) width += kGap + widths[c + k];
            line.append(width - std::min(width, DisplayWidth(cell)) + kGap, ' ');
        }
        out << line << '\n';
    }
}

}  // namespace implvm
