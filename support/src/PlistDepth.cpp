#include "PlistDepth.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "KALDO/Result.h"

namespace KALDO::detail {
namespace {

// ---- XML ----
//
// The scan follows markup exactly as far as it must to count arrays and
// dictionaries, and refuses whatever a reader could take two ways: a '<'
// inside a tag, a '>' after an unpaired quote, a document type with an
// internal subset, CDATA outside a text element. Anything it lets through,
// libplist reads the same way, so the count below is libplist's depth.

bool IsXmlSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

enum class Element { kContainer, kText, kPlist, kUnknown };

Element Classify(std::string_view name) {
    static constexpr std::string_view kTextElements[] = {"key",  "string", "integer", "real",
                                                         "date", "data",   "true",    "false"};
    if (name == "array" || name == "dict") return Element::kContainer;
    if (name == "plist") return Element::kPlist;
    for (std::string_view text : kTextElements)
        if (name == text) return Element::kText;
    return Element::kUnknown;
}

// The '>' that ends the markup starting at `from`, or npos when the markup
// holds a '<', ends after an unpaired quote of either kind, or never ends.
// Quotes of both kinds are tracked because readers differ in which they
// honour; with both paired, the first '>' is the end for all of them.
size_t MarkupEnd(std::string_view xml, size_t from) {
    bool inDouble = false, inSingle = false;
    for (size_t i = from; i < xml.size(); ++i) {
        switch (xml[i]) {
            case '<':
                return std::string_view::npos;
            case '"':
                inDouble = !inDouble;
                break;
            case '\'':
                inSingle = !inSingle;
                break;
            case '>':
                return inDouble || inSingle ? std::string_view::npos : i;
            default:
                break;
        }
    }
    return std::string_view::npos;
}

// A tag's name: from `from` up to a space, '/', '<' or '>'.
std::string_view TagName(std::string_view xml, size_t from) {
    size_t end = from;
    while (end < xml.size() && !IsXmlSpace(xml[end]) && xml[end] != '/' && xml[end] != '>' &&
           xml[end] != '<')
        ++end;
    return xml.substr(from, end - from);
}

bool StartsAt(std::string_view xml, size_t at, std::string_view prefix) {
    return xml.compare(at, prefix.size(), prefix) == 0;
}

int CheckXml(std::string_view xml) {
    size_t at = 0;
    while (at < xml.size() && IsXmlSpace(xml[at])) ++at;
    if (at == xml.size() || xml[at] != '<') return kInvalidArgument;

    int depth = 0;
    // The open text element (<string>, <key>...), whose content may hold
    // comments and CDATA but no element.
    std::string_view text;
    for (;;) {
        at = xml.find('<', at);  // text between tags opens nothing
        if (at == std::string_view::npos) return kOk;
        if (StartsAt(xml, at, "<!--")) {
            const size_t end = xml.find("-->", at + 4);
            if (end == std::string_view::npos) return kInvalidArgument;
            at = end + 3;
            continue;
        }
        if (StartsAt(xml, at, "<![CDATA[")) {
            const size_t end = text.empty() ? std::string_view::npos : xml.find("]]>", at + 9);
            if (end == std::string_view::npos) return kInvalidArgument;
            at = end + 3;
            continue;
        }
        const bool closing = StartsAt(xml, at, "</");
        if (!text.empty() && !closing) return kInvalidArgument;
        if (StartsAt(xml, at, "<?")) {
            const size_t end = MarkupEnd(xml, at + 2);
            if (end == std::string_view::npos || xml[end - 1] != '?') return kInvalidArgument;
            at = end + 1;
            continue;
        }
        if (StartsAt(xml, at, "<!DOCTYPE")) {
            const size_t end = MarkupEnd(xml, at + 9);
            if (end == std::string_view::npos ||
                xml.substr(at, end - at).find('[') != std::string_view::npos)
                return kInvalidArgument;
            at = end + 1;
            continue;
        }
        if (StartsAt(xml, at, "<!")) return kInvalidArgument;

        const std::string_view name = TagName(xml, at + (closing ? 2 : 1));
        const size_t end = MarkupEnd(xml, at + 1);
        if (end == std::string_view::npos) return kInvalidArgument;
        const bool empty = !closing && xml[end - 1] == '/';
        at = end + 1;
        const Element kind = Classify(name);
        if (closing) {
            if (!text.empty()) {
                if (name != text) return kInvalidArgument;
                text = {};
            } else if (kind == Element::kContainer) {
                if (depth == 0) return kInvalidArgument;
                --depth;
            } else if (kind != Element::kPlist) {
                return kInvalidArgument;
            }
        } else if (kind == Element::kUnknown) {
            return kInvalidArgument;
        } else if (kind == Element::kPlist) {
            // no node of its own
        } else if (kind == Element::kText) {
            if (!empty) text = name;
        } else if (!empty) {
            if (++depth > kMaxPlistNesting) return kInvalidArgument;
        } else if (depth == 0) {
            // libplist puts whatever follows an empty top array or
            // dictionary inside it, as if it had stayed open.
            depth = 1;
        } else if (depth + 1 > kMaxPlistNesting) {
            return kInvalidArgument;
        }
    }
}

// ---- Binary ----
//
// The trailer and offset table are read and checked as libplist checks
// them, and the object graph is walked from the top object with an explicit
// stack. Each object is measured once (its nesting and the number of nodes
// it unfolds into); a later reference reuses the figures, so a graph whose
// objects are shared many times still costs one visit per object and one
// step per reference.
//
// Dictionary keys are also read: libplist asserts (and so aborts the whole
// process) when it hands out a key holding U+0000, which only a UTF-16 key
// can.

constexpr size_t kHeaderSize = 8;  // "bplist00"
constexpr size_t kTrailerSize = 32;
constexpr uint16_t kUnseen = 0xFFFF;
constexpr uint16_t kOpen = 0xFFFE;  // on the walk's stack: a reference to it is a cycle

uint64_t ReadBigEndian(const unsigned char* p, unsigned width) {
    uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) value = value << 8 | p[i];
    return value;
}

class BinaryWalk {
public:
    explicit BinaryWalk(std::string_view bytes)
        : data_(reinterpret_cast<const unsigned char*>(bytes.data())), size_(bytes.size()) {}

    int Run() {
        if (!ReadTrailer()) return kInvalidArgument;
        budget_ = std::min<uint64_t>(std::max<uint64_t>(size_, kMinPlistNodeBudget),
                                     std::numeric_limits<uint32_t>::max());
        depthOf_.assign(objects_, kUnseen);
        nodesOf_.assign(objects_, 0);
        keyRead_.assign(objects_, false);
        stack_.reserve(kMaxPlistNesting);

        Frame root{};
        if (!Reach(top_, root)) return kInvalidArgument;
        while (!stack_.empty()) {
            Frame& frame = stack_.back();
            if (frame.next == frame.refs) {
                const Frame done = frame;
                stack_.pop_back();
                depthOf_[done.object] = static_cast<uint16_t>(done.depth);
                nodesOf_[done.object] = static_cast<uint32_t>(done.nodes);
                Frame& parent = stack_.empty() ? root : stack_.back();
                if (!Fold(parent, done.object)) return kInvalidArgument;
                continue;
            }
            const uint64_t child =
                ReadBigEndian(data_ + frame.refsAt + frame.next * refSize_, refSize_);
            const bool isKey = frame.next < frame.keys;
            ++frame.next;
            if ((isKey && !KeyReadable(child)) || !Reach(child, frame)) return kInvalidArgument;
        }
        return kOk;
    }

private:
    struct Frame {
        uint32_t object = 0;
        uint64_t refsAt = 0;  // where its references start
        uint64_t refs = 0;    // how many (a dictionary's keys and values)
        uint64_t keys = 0;    // how many of them are keys (they come first)
        uint64_t next = 0;    // the next one to follow
        uint64_t depth = 0;   // itself and its deepest child so far
        uint64_t nodes = 0;   // itself and its children's nodes so far
    };

    bool ReadTrailer() {
        if (size_ < kHeaderSize + kTrailerSize) return false;
        const unsigned char* trailer = data_ + size_ - kTrailerSize;
        offsetSize_ = trailer[6];
        refSize_ = trailer[7];
        const uint64_t objects = ReadBigEndian(trailer + 8, 8);
        top_ = ReadBigEndian(trailer + 16, 8);
        tableAt_ = ReadBigEndian(trailer + 24, 8);
        const uint64_t tableEnd = size_ - kTrailerSize;
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return false;
        if (tableAt_ < kHeaderSize || tableAt_ >= tableEnd) return false;
        // libplist takes object indexes as 32-bit numbers.
        if (objects == 0 || objects > std::numeric_limits<uint32_t>::max()) return false;
        if (objects > (tableEnd - tableAt_) / offsetSize_ || top_ >= objects) return false;
        objects_ = static_cast<uint32_t>(objects);
        return true;
    }

    // Where an object starts; false when its offset is outside the objects.
    bool ObjectAt(uint64_t index, uint64_t& offset) const {
        if (index >= objects_) return false;
        offset = ReadBigEndian(data_ + tableAt_ + index * offsetSize_, offsetSize_);
        return offset >= kHeaderSize && offset < tableAt_;
    }

    // The count of the object at `offset` (elements, characters or bytes),
    // and in `at` where its contents start. From 15 on the count follows the
    // marker as an integer object of 1, 2, 4 or 8 bytes.
    bool Count(uint64_t offset, uint64_t& count, uint64_t& at) const {
        count = data_[offset] & 0xF;
        at = offset + 1;
        if (count != 0xF) return true;
        if (at >= tableAt_) return false;
        const unsigned sizeMarker = data_[at];
        if ((sizeMarker >> 4) != 0x1 || (sizeMarker & 0xF) > 3) return false;
        const unsigned width = 1u << (sizeMarker & 0xF);
        if (tableAt_ - at - 1 < width) return false;
        count = ReadBigEndian(data_ + at + 1, width);
        at += 1 + width;
        return true;
    }

    // False for a UTF-16 key holding U+0000, or one running past the
    // objects. Each object is read once however many dictionaries use it.
    bool KeyReadable(uint64_t index) {
        uint64_t offset = 0, count = 0, at = 0;
        if (!ObjectAt(index, offset)) return false;
        if (keyRead_[index] || data_[offset] >> 4 != 0x6) return true;
        if (!Count(offset, count, at) || count > (tableAt_ - at) / 2) return false;
        for (uint64_t i = 0; i < count; ++i)
            if (data_[at + 2 * i] == 0 && data_[at + 2 * i + 1] == 0) return false;
        keyRead_[index] = true;
        return true;
    }

    // Follows a reference from `parent` (the root's stand-in for the top
    // object): a measured object is folded in at once, an array, set or
    // dictionary not yet seen is pushed, anything else is a leaf.
    bool Reach(uint64_t index, Frame& parent) {
        uint64_t offset = 0, count = 0, at = 0;
        if (!ObjectAt(index, offset)) return false;
        const auto object = static_cast<uint32_t>(index);
        if (depthOf_[object] == kOpen) return false;
        if (depthOf_[object] != kUnseen) return Fold(parent, object);

        const unsigned type = data_[offset] >> 4;
        if (type != 0xA && type != 0xC && type != 0xD) {
            depthOf_[object] = 0;
            nodesOf_[object] = 1;
            return Fold(parent, object);
        }
        if (!Count(offset, count, at)) return false;
        const uint64_t room = (tableAt_ - at) / refSize_;
        if (count > room || (type == 0xD && count > room / 2)) return false;
        if (stack_.size() >= static_cast<size_t>(kMaxPlistNesting)) return false;
        depthOf_[object] = kOpen;
        Frame frame;
        frame.object = object;
        frame.refsAt = at;
        frame.refs = type == 0xD ? 2 * count : count;
        frame.keys = type == 0xD ? count : 0;
        frame.depth = 1;
        frame.nodes = 1;
        stack_.push_back(frame);
        return true;
    }

    // Adds a measured child to its parent; false when that makes the tree
    // too deep (counted from the parent's own level) or too large.
    bool Fold(Frame& parent, uint32_t child) {
        const uint64_t childDepth = depthOf_[child];
        if (stack_.size() + childDepth > static_cast<size_t>(kMaxPlistNesting)) return false;
        parent.depth = std::max(parent.depth, childDepth + 1);
        parent.nodes += nodesOf_[child];
        return parent.nodes <= budget_;
    }

    const unsigned char* data_;
    uint64_t size_;
    unsigned offsetSize_ = 0, refSize_ = 0;
    uint32_t objects_ = 0;
    uint64_t top_ = 0, tableAt_ = 0, budget_ = 0;
    std::vector<uint16_t> depthOf_;  // kUnseen, kOpen, or the nesting below and with it
    std::vector<uint32_t> nodesOf_;  // the nodes it unfolds into, itself included
    std::vector<bool> keyRead_;      // read as a key and found readable
    std::vector<Frame> stack_;
};

}  // namespace

int CheckPlistShape(std::string_view bytes) {
    if (bytes.substr(0, kHeaderSize) == "bplist00") return BinaryWalk(bytes).Run();
    return CheckXml(bytes);
}

}  // namespace KALDO::detail
