#include "alerts/alert_event.hpp"

#include <cctype>
#include <chrono>
#include <cmath>
#include <random>

#include "format/platform_text.hpp"

namespace vistrel {

namespace {

using json = nlohmann::json;

struct KindInfo {
  AlertEvent::Kind kind;
  std::string_view raw;
  std::string_view title;
  std::string_view settingText;
  Metric metric;
};

constexpr std::array<KindInfo, 7> kKinds = {{
    {AlertEvent::Kind::cpu, "cpu", "Busy app", "An app keeps a CPU core busy for 5 minutes",
     Metric::cpu},
    {AlertEvent::Kind::memoryGrowth, "memoryGrowth", "Growing memory",
     "An app's memory keeps growing for an hour", Metric::memory},
    {AlertEvent::Kind::disk, "disk", "Heavy disk writes", "An app writes more than 5 GB in a day",
     Metric::disk},
    {AlertEvent::Kind::network, "network", "Heavy network use",
     "An app moves more than 3 GB in an hour", Metric::network},
    {AlertEvent::Kind::pressure, "pressure", "Memory pressure", "Memory pressure turns critical",
     Metric::memory},
    {AlertEvent::Kind::heat, "heat", "Running hot", "The Mac stays above 95° for 2 minutes",
     Metric::heat},
    {AlertEvent::Kind::space, "space", "Low disk space", "The startup disk drops below 10 GB free",
     Metric::disk},
}};

static_assert(
    [] {
      for (size_t i = 0; i < kKinds.size(); ++i) {
        if (static_cast<size_t>(kKinds[i].kind) != i) return false;
      }
      return true;
    }(),
    "the kind table is indexed by the kind's value");

const KindInfo& info(AlertEvent::Kind kind) {
  return kKinds[static_cast<size_t>(kind)];
}

bool isUUID(std::string_view text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

// Rounds to the microsecond: the precision a date keeps through its JSON number of seconds.
Date dateFromJSONSeconds(double seconds) {
  return Date(
      std::chrono::round<std::chrono::microseconds>(std::chrono::duration<double>(seconds)));
}

std::optional<std::string> optionalString(const json& object, const char* key, bool& ok) {
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) return std::nullopt;
  if (!it->is_string()) {
    ok = false;
    return std::nullopt;
  }
  return it->get<std::string>();
}

}  // namespace

std::string_view rawValue(AlertEvent::Kind kind) {
  return info(kind).raw;
}

std::optional<AlertEvent::Kind> alertKindFromRaw(std::string_view raw) {
  for (const auto& k : kKinds) {
    if (k.raw == raw) return k.kind;
  }
  return std::nullopt;
}

std::string_view title(AlertEvent::Kind kind) {
  return info(kind).title;
}

std::string_view macSettingText(AlertEvent::Kind kind) {
  return info(kind).settingText;
}

std::string settingText(AlertEvent::Kind kind) {
  return platformText(info(kind).settingText);
}

Metric metric(AlertEvent::Kind kind) {
  return info(kind).metric;
}

std::string makeUUID() {
  // One generator per thread, seeded once from the system's entropy.
  thread_local std::mt19937_64 generator{std::random_device{}()};
  std::array<uint8_t, 16> bytes{};
  for (size_t i = 0; i < bytes.size(); i += 8) {
    const uint64_t word = generator();
    for (size_t j = 0; j < 8; ++j) bytes[i + j] = static_cast<uint8_t>(word >> (8 * j));
  }
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4: random
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0x0f];
  }
  return text;
}

nlohmann::ordered_json toJSON(const AlertEvent& event) {
  nlohmann::ordered_json out;
  out["id"] = event.id;
  out["date"] = secondsSince1970(event.date);
  out["kind"] = rawValue(event.kind);
  if (event.app) out["app"] = *event.app;
  if (event.appID) out["appID"] = *event.appID;
  out["title"] = event.title;
  out["detail"] = event.detail;
  return out;
}

std::optional<AlertEvent> alertEventFromJSON(const json& object) {
  if (!object.is_object()) return std::nullopt;
  auto id = object.find("id");
  auto date = object.find("date");
  auto kind = object.find("kind");
  auto title = object.find("title");
  auto detail = object.find("detail");
  if (id == object.end() || date == object.end() || kind == object.end() || title == object.end() ||
      detail == object.end()) {
    return std::nullopt;
  }
  if (!id->is_string() || !date->is_number() || !kind->is_string() || !title->is_string() ||
      !detail->is_string()) {
    return std::nullopt;
  }
  AlertEvent event;
  event.id = id->get<std::string>();
  if (!isUUID(event.id)) return std::nullopt;
  for (char& c : event.id) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const double seconds = date->get<double>();
  // Beyond a few thousand years the duration would overflow; such a date is not one we wrote.
  if (!std::isfinite(seconds) || std::abs(seconds) > 1e11) return std::nullopt;
  event.date = dateFromJSONSeconds(seconds);
  auto k = alertKindFromRaw(kind->get<std::string>());
  if (!k) return std::nullopt;
  event.kind = *k;
  bool ok = true;
  event.app = optionalString(object, "app", ok);
  event.appID = optionalString(object, "appID", ok);
  if (!ok) return std::nullopt;
  event.title = title->get<std::string>();
  event.detail = detail->get<std::string>();
  return event;
}

std::vector<uint8_t> encodeAlerts(const std::vector<AlertEvent>& events) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const auto& event : events) list.push_back(toJSON(event));
  const std::string text = list.dump(-1, ' ', false, json::error_handler_t::replace);
  return std::vector<uint8_t>(text.begin(), text.end());
}

std::optional<std::vector<AlertEvent>> decodeAlerts(std::span<const uint8_t> bytes) {
  const json list = json::parse(bytes.begin(), bytes.end(), nullptr, false);
  if (list.is_discarded() || !list.is_array()) return std::nullopt;
  std::vector<AlertEvent> events;
  events.reserve(list.size());
  for (const auto& item : list) {
    auto event = alertEventFromJSON(item);
    if (!event) return std::nullopt;
    events.push_back(std::move(*event));
  }
  return events;
}

}  // namespace vistrel
