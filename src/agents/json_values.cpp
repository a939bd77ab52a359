#include "agents/json_values.hpp"

#include <cmath>
#include <cstring>
#include <limits>

#include "agents/iso_date.hpp"

namespace vistrel {

namespace {

int64_t clampToInt(double value) {
  if (std::isnan(value)) return 0;
  // 2^63 is exactly representable; anything at or past it does not fit.
  if (value >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
  if (value <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

}  // namespace

std::optional<Date> parseDate(simdjson::dom::element value) {
  std::optional<std::string_view> text = strView(value);
  if (!text) return std::nullopt;
  return parseISODate(*text);
}

int64_t jsonInt(simdjson::dom::element value) {
  switch (value.type()) {
    case simdjson::dom::element_type::INT64:
      return value.get_int64().value_unsafe();
    case simdjson::dom::element_type::UINT64: {
      uint64_t u = value.get_uint64().value_unsafe();
      return u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                 ? std::numeric_limits<int64_t>::max()
                 : static_cast<int64_t>(u);
    }
    case simdjson::dom::element_type::DOUBLE:
      return clampToInt(value.get_double().value_unsafe());
    default:
      return 0;
  }
}

std::optional<double> dbl(simdjson::dom::element value) {
  if (!value.is_number()) return std::nullopt;
  double out;
  if (value.get_double().get(out) != simdjson::SUCCESS || !std::isfinite(out)) return std::nullopt;
  return out;
}

std::optional<std::string_view> strView(simdjson::dom::element value) {
  std::string_view out;
  if (value.get_string().get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

std::optional<std::string> str(simdjson::dom::element value) {
  std::optional<std::string_view> view = strView(value);
  if (!view) return std::nullopt;
  return std::string(*view);
}

std::optional<bool> boolean(simdjson::dom::element value) {
  bool out;
  if (value.get_bool().get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

namespace {

template <typename Result, typename Convert>
Result fromField(DomField field, Result absent, Convert convert) {
  simdjson::dom::element value;
  if (field.get(value) != simdjson::SUCCESS) return absent;
  return convert(value);
}

}  // namespace

std::optional<Date> parseDate(DomField field) {
  return fromField<std::optional<Date>>(field, std::nullopt, [](auto v) { return parseDate(v); });
}
int64_t jsonInt(DomField field) {
  return fromField<int64_t>(field, 0, [](auto v) { return jsonInt(v); });
}
std::optional<double> dbl(DomField field) {
  return fromField<std::optional<double>>(field, std::nullopt, [](auto v) { return dbl(v); });
}
std::optional<std::string_view> strView(DomField field) {
  return fromField<std::optional<std::string_view>>(field, std::nullopt,
                                                    [](auto v) { return strView(v); });
}
std::optional<std::string> str(DomField field) {
  return fromField<std::optional<std::string>>(field, std::nullopt, [](auto v) { return str(v); });
}
std::optional<bool> boolean(DomField field) {
  return fromField<std::optional<bool>>(field, std::nullopt, [](auto v) { return boolean(v); });
}

std::optional<simdjson::dom::object> DomLineParser::parse(std::string_view line) {
  const size_t needed = line.size() + simdjson::SIMDJSON_PADDING;
  if (buffer_.size() < needed) buffer_.resize(needed);
  if (!line.empty()) std::memcpy(buffer_.data(), line.data(), line.size());
  std::memset(buffer_.data() + line.size(), 0, simdjson::SIMDJSON_PADDING);
  return parsePadded(buffer_.data(), line.size());
}

std::optional<simdjson::dom::object> DomLineParser::parsePadded(const char* padded, size_t length) {
  simdjson::dom::object out;
  if (parser_.parse(padded, length, false).get_object().get(out) != simdjson::SUCCESS) {
    return std::nullopt;
  }
  return out;
}

void DomLineParser::trim(size_t keepBytes) {
  if (parser_.capacity() > keepBytes) parser_ = simdjson::dom::parser{};
  if (buffer_.capacity() > keepBytes + simdjson::SIMDJSON_PADDING) std::string().swap(buffer_);
}

}  // namespace vistrel
