#include "agents/json_values.hpp"

#include <cmath>
#include <cstring>
#include <limits>

#include "agents/iso_date.hpp"

namespace vistrel {

namespace {

using simdjson::ondemand::json_type;
using simdjson::ondemand::number_type;

int64_t clampToInt(double value) {
  if (std::isnan(value)) return 0;
  // 2^63 is exactly representable; anything at or past it does not fit.
  if (value >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
  if (value <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

}  // namespace

std::optional<Date> parseDate(JsonField field) {
  std::optional<std::string_view> text = strView(field);
  if (!text) return std::nullopt;
  return parseISODate(*text);
}

int64_t jsonInt(JsonField field) {
  simdjson::ondemand::value value;
  if (field.get(value) != simdjson::SUCCESS) return 0;
  json_type type;
  if (value.type().get(type) != simdjson::SUCCESS || type != json_type::number) return 0;
  simdjson::ondemand::number number;
  if (value.get_number().get(number) != simdjson::SUCCESS) {
    double approximate;  // an integer beyond 64 bits: its size is all that matters
    if (value.get_double().get(approximate) == simdjson::SUCCESS) return clampToInt(approximate);
    return 0;
  }
  switch (number.get_number_type()) {
    case number_type::signed_integer:
      return number.get_int64();
    case number_type::unsigned_integer: {
      uint64_t u = number.get_uint64();
      return u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                 ? std::numeric_limits<int64_t>::max()
                 : static_cast<int64_t>(u);
    }
    default:
      return clampToInt(number.get_double());
  }
}

std::optional<double> dbl(JsonField field) {
  simdjson::ondemand::value value;
  if (field.get(value) != simdjson::SUCCESS) return std::nullopt;
  json_type type;
  if (value.type().get(type) != simdjson::SUCCESS || type != json_type::number) return std::nullopt;
  double out;
  if (value.get_double().get(out) != simdjson::SUCCESS || !std::isfinite(out)) return std::nullopt;
  return out;
}

std::optional<std::string_view> strView(JsonField field) {
  std::string_view out;
  if (field.get_string().get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

std::optional<std::string> str(JsonField field) {
  std::optional<std::string_view> view = strView(field);
  if (!view) return std::nullopt;
  return std::string(*view);
}

std::optional<bool> boolean(JsonField field) {
  bool out;
  if (field.get_bool().get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

std::optional<simdjson::ondemand::object> object(JsonField field) {
  simdjson::ondemand::object out;
  if (field.get_object().get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

std::optional<simdjson::ondemand::array> array(JsonField field) {
  simdjson::ondemand::array out;
  if (field.get_array().get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

std::optional<simdjson::ondemand::object> JsonLineParser::parse(std::string_view line) {
  const size_t needed = line.size() + simdjson::SIMDJSON_PADDING;
  if (buffer_.size() < needed) buffer_.resize(needed);
  if (!line.empty()) std::memcpy(buffer_.data(), line.data(), line.size());
  std::memset(buffer_.data() + line.size(), 0, simdjson::SIMDJSON_PADDING);
  return parsePadded(buffer_.data(), line.size());
}

std::optional<simdjson::ondemand::object> JsonLineParser::parsePadded(const char* padded,
                                                                      size_t length) {
  if (parser_.iterate(padded, length, length + simdjson::SIMDJSON_PADDING).get(document_) !=
      simdjson::SUCCESS) {
    return std::nullopt;
  }
  simdjson::ondemand::object out;
  if (document_.get_object().get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

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

void JsonLineParser::trim(size_t keepBytes) {
  if (parser_.capacity() > keepBytes) parser_ = simdjson::ondemand::parser{};
  if (buffer_.capacity() > keepBytes + simdjson::SIMDJSON_PADDING) std::string().swap(buffer_);
}

}  // namespace vistrel
