#pragma once

// Field converters over simdjson's DOM, for the readers of the agents' own files (transcripts,
// rollouts, live files). The DOM parser picks the fastest kernel of the machine it runs on (the
// on-demand API is compiled for the baseline processor only, which on x86-64 is simdjson's scalar
// fallback). Outside input can hold anything: every converter takes a value or the result of a
// lookup as it comes (`object["key"]`, errors included) and never throws; a missing field, an
// error or a value of the wrong type becomes an absent value (or 0 for `jsonInt`).

#include <simdjson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.hpp"

namespace vistrel {

// The result of looking up a field; may carry an error.
using DomField = simdjson::simdjson_result<simdjson::dom::element>;

// A date from a string holding an ISO 8601 internet date-time (with or without fractional
// seconds); anything else is absent.
std::optional<Date> parseDate(simdjson::dom::element value);
// A number's integer value (a fraction is cut off; beyond the 64-bit range it is clamped);
// anything else (absent, null, a string) is 0.
int64_t jsonInt(simdjson::dom::element value);
// A number's finite value; anything else is absent.
std::optional<double> dbl(simdjson::dom::element value);
// A string's text, without copying: valid until the next parse. Absent for other types.
std::optional<std::string_view> strView(simdjson::dom::element value);
std::optional<std::string> str(simdjson::dom::element value);
// A boolean; absent for other types (1 and "true" are not booleans).
std::optional<bool> boolean(simdjson::dom::element value);
std::optional<Date> parseDate(DomField field);
int64_t jsonInt(DomField field);
std::optional<double> dbl(DomField field);
std::optional<std::string_view> strView(DomField field);
std::optional<std::string> str(DomField field);
std::optional<bool> boolean(DomField field);

// Parses one line of outside input at a time into a reusable DOM document (validated whole),
// copying it into a padded buffer that is reused. Values stay valid until the next `parse`.
class DomLineParser {
 public:
  std::optional<simdjson::dom::object> parse(std::string_view line);
  // The same over text that already sits in `padded`, of which the first `length` bytes are the
  // document and at least `simdjson::SIMDJSON_PADDING` more are readable.
  std::optional<simdjson::dom::object> parsePadded(const char* padded, size_t length);
  // The buffer `parse` copies into: callers that build the text themselves write here.
  std::string& buffer() { return buffer_; }
  // Gives back the memory of a parser grown for a long line (the DOM keeps about 13 bytes of
  // index and tape per byte of the longest document it has seen).
  void trim(size_t keepBytes);

 private:
  simdjson::dom::parser parser_;
  std::string buffer_;
};

}  // namespace vistrel
