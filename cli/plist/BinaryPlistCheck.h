#pragma once

// A structural check of a binary property list ("bplist00"), made before the
// bytes reach libplist, whose parser recurses once per nesting level and
// expands shared objects: the trailer and offset table must lie inside the
// data, every object reference must name an object, the object graph must
// be acyclic, no deeper than `maxNesting` containers, and must not expand
// into an unreasonable number of nodes.

#include <cstddef>
#include <string>
#include <string_view>

namespace cli {

bool binaryPlistIsWellFormed(std::string_view bytes, std::size_t maxNesting, std::string* problem);

}  // namespace cli
