#pragma once

#include <memory>
#include <string_view>

#include "base/user_defaults.hpp"

namespace vistrel {

// The user defaults of one preferences domain ("org.brackwood.vistrel" for the application): the
// current user's CFPreferences, on any host. Values round-trip as property lists do: integers
// above INT64_MAX come back as reals (CFNumber has no unsigned 64-bit type), nulls inside arrays
// and objects are dropped, and setting null removes the key.
std::unique_ptr<UserDefaults> makePreferencesDefaults(std::string_view domain);

}  // namespace vistrel
