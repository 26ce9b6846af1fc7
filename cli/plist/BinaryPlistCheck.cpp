#include "cli/plist/BinaryPlistCheck.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace cli {

namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
// More nodes than any settings file needs, few enough to build in memory.
constexpr std::uint64_t kMaxExpandedNodes = 1u << 24;

std::uint64_t readBigEndian(std::string_view bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
        value = (value << 8) | static_cast<unsigned char>(bytes[offset + i]);
    }
    return value;
}

bool fail(std::string* problem, const char* why) {
    if (problem) *problem = why;
    return false;
}

// A count in the low nibble of a marker, or in the integer object that
// follows when the nibble is 0xF. Answers the position after the count.
bool readCount(std::string_view bytes, std::uint64_t position, std::uint64_t end,
               std::uint64_t& count, std::uint64_t& next) {
    count = static_cast<unsigned char>(bytes[position]) & 0x0F;
    next = position + 1;
    if (count != 0x0F) return true;
    if (next >= end) return false;
    const unsigned char sizeMarker = static_cast<unsigned char>(bytes[next]);
    const std::size_t countSize = std::size_t{1} << (sizeMarker & 0x0F);
    if ((sizeMarker >> 4) != 0x1 || countSize > 8 || next + 1 + countSize > end) return false;
    count = readBigEndian(bytes, next + 1, countSize);
    next += 1 + countSize;
    return true;
}

// An ASCII (0x5) or UTF-16 (0x6) string must lie inside the object area and
// hold no NUL character, which libplist's getters cannot carry.
bool stringIsCarried(std::string_view bytes, std::uint64_t offset, std::uint64_t end,
                     std::string* problem) {
    std::uint64_t count = 0;
    std::uint64_t position = 0;
    if (!readCount(bytes, offset, end, count, position)) return fail(problem, "bad string length");
    const std::uint64_t unitSize = (static_cast<unsigned char>(bytes[offset]) >> 4) == 0x6 ? 2 : 1;
    if (count > (end - position) / unitSize) return fail(problem, "string outside the data");
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t at = position + i * unitSize;
        const bool zero =
            unitSize == 1 ? bytes[at] == '\0' : (bytes[at] == '\0' && bytes[at + 1] == '\0');
        if (zero) return fail(problem, "string holds a NUL character");
    }
    return true;
}

}  // namespace

bool binaryPlistIsWellFormed(std::string_view bytes, std::size_t maxNesting, std::string* problem) {
    if (bytes.size() < kHeaderSize + kTrailerSize) return fail(problem, "binary data too short");
    const std::size_t trailer = bytes.size() - kTrailerSize;
    const std::size_t offsetSize = static_cast<unsigned char>(bytes[trailer + 6]);
    const std::size_t referenceSize = static_cast<unsigned char>(bytes[trailer + 7]);
    const std::uint64_t objectCount = readBigEndian(bytes, trailer + 8, 8);
    const std::uint64_t topObject = readBigEndian(bytes, trailer + 16, 8);
    const std::uint64_t tableOffset = readBigEndian(bytes, trailer + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || referenceSize < 1 || referenceSize > 8) {
        return fail(problem, "bad integer sizes in the trailer");
    }
    if (objectCount == 0 || topObject >= objectCount) return fail(problem, "bad object count");
    if (tableOffset < kHeaderSize || tableOffset > trailer ||
        objectCount > (trailer - tableOffset) / offsetSize) {
        return fail(problem, "offset table outside the data");
    }

    // Children of every object, read from its marker.
    std::vector<std::vector<std::uint64_t>> children(objectCount);
    std::vector<bool> isContainer(objectCount, false);
    for (std::uint64_t object = 0; object < objectCount; ++object) {
        const std::uint64_t offset =
            readBigEndian(bytes, tableOffset + object * offsetSize, offsetSize);
        if (offset < kHeaderSize || offset >= tableOffset) {
            return fail(problem, "object offset outside the data");
        }
        const unsigned char marker = static_cast<unsigned char>(bytes[offset]);
        const unsigned type = marker >> 4;
        if (type == 0x5 || type == 0x6) {
            if (!stringIsCarried(bytes, offset, tableOffset, problem)) return false;
            continue;
        }
        // Arrays (0xA), sets (0xB, 0xC) and dictionaries (0xD) refer to
        // other objects; nothing else does.
        if (type < 0xA || type > 0xD) continue;
        isContainer[object] = true;
        std::uint64_t count = 0;
        std::uint64_t position = 0;
        if (!readCount(bytes, offset, tableOffset, count, position)) {
            return fail(problem, "bad object count");
        }
        const std::uint64_t references = type == 0xD ? count * 2 : count;
        if (count > tableOffset || references > (tableOffset - position) / referenceSize) {
            return fail(problem, "object references outside the data");
        }
        children[object].reserve(references);
        for (std::uint64_t i = 0; i < references; ++i) {
            const std::uint64_t child =
                readBigEndian(bytes, position + i * referenceSize, referenceSize);
            if (child >= objectCount) return fail(problem, "reference to a missing object");
            children[object].push_back(child);
        }
    }

    // Depth-first walk without recursion: cycles, depth, expanded size.
    enum : std::uint8_t { kUnvisited, kOnPath, kDone };
    std::vector<std::uint8_t> state(objectCount, kUnvisited);
    std::vector<std::uint64_t> depth(objectCount, 0);  // containers on the deepest path
    std::vector<std::uint64_t> nodes(objectCount, 0);  // nodes once expanded into a tree
    std::vector<std::pair<std::uint64_t, std::size_t>> stack{{topObject, 0}};
    state[topObject] = kOnPath;
    while (!stack.empty()) {
        auto& [object, next] = stack.back();
        if (next < children[object].size()) {
            const std::uint64_t child = children[object][next++];
            if (state[child] == kOnPath) return fail(problem, "object graph has a cycle");
            if (state[child] == kUnvisited) {
                if (stack.size() > maxNesting + 1) return fail(problem, "nesting too deep");
                state[child] = kOnPath;
                stack.emplace_back(child, 0);
            }
            continue;
        }
        std::uint64_t deepest = 0;
        std::uint64_t total = 1;
        for (std::uint64_t child : children[object]) {
            deepest = std::max(deepest, depth[child]);
            total += nodes[child];
            if (total > kMaxExpandedNodes) return fail(problem, "object graph expands too far");
        }
        // An empty container still counts as one level.
        depth[object] = deepest + (isContainer[object] ? 1 : 0);
        nodes[object] = total;
        state[object] = kDone;
        stack.pop_back();
    }
    if (depth[topObject] > maxNesting) return fail(problem, "nesting too deep");
    return true;
}

}  // namespace cli
