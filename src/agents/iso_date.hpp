#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/clock.hpp"

namespace vistrel {

// An ISO 8601 internet date-time, with or without fractional seconds: "2025-01-31T09:12:45.123Z",
// "2025-01-31T09:12:45Z", "2025-01-31T10:12:45+01:00". Anything else (a date alone, a missing
// zone, an impossible field) gives nothing.
std::optional<Date> parseISODate(std::string_view text);

// "2025-01-31T09:12:45Z" (UTC, whole seconds): the form agents read in answers.
std::string isoDate(Date date);

}  // namespace vistrel
