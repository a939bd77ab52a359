#pragma once

#include <string_view>

namespace vistrel {

// The deepest nesting of arrays and objects in a JSON text, brackets inside strings not counted,
// without parsing it. Stops counting once `limit` is exceeded (returns limit + 1). Used to refuse
// absurdly nested input before a recursive parser (or a later re-serialisation) sees it.
int jsonNestingDepth(std::string_view text, int limit);

inline bool jsonNestingWithin(std::string_view text, int limit) {
  return jsonNestingDepth(text, limit) <= limit;
}

}  // namespace vistrel
