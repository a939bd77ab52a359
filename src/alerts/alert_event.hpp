#pragma once

// One raised alert and the table of the rules that raise them. An event is a plain value: it is
// kept in the alerts list, shown on the alerts page, posted as a notification and stored in the
// user defaults as JSON.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/clock.hpp"
#include "sampling/records.hpp"

namespace vistrel {

struct AlertEvent {
  // Which rule raised the event. The raw values are stored and compared as text.
  enum class Kind { cpu, memoryGrowth, disk, network, pressure, heat, space };

  std::string id;  // a UUID, upper-case "8-4-4-4-12" hex text, new for each event
  Date date{};     // when it was raised, to the microsecond (so that it survives its JSON form)
  Kind kind = Kind::cpu;
  std::optional<std::string> app;    // the app's display name; absent for machine-wide alerts
  std::optional<std::string> appID;  // the app's grouping id; absent for machine-wide alerts
  std::string title;                 // one line
  std::string detail;                // one or two sentences; may be empty

  bool operator==(const AlertEvent&) const = default;
};

// Every kind, in the order the settings list them.
inline constexpr std::array<AlertEvent::Kind, 7> kAllAlertKinds = {
    AlertEvent::Kind::cpu,     AlertEvent::Kind::memoryGrowth, AlertEvent::Kind::disk,
    AlertEvent::Kind::network, AlertEvent::Kind::pressure,     AlertEvent::Kind::heat,
    AlertEvent::Kind::space};

// "cpu", "memoryGrowth", "disk", "network", "pressure", "heat", "space".
std::string_view rawValue(AlertEvent::Kind kind);
// nullopt for text that names no kind (raw values are case-sensitive).
std::optional<AlertEvent::Kind> alertKindFromRaw(std::string_view raw);

// The short heading of a kind ("Busy app").
std::string_view title(AlertEvent::Kind kind);
// The line beside the kind's switch in settings, in this platform's words.
std::string settingText(AlertEvent::Kind kind);
// The line as written for the Mac; `settingText` is this through `platformText`.
std::string_view macSettingText(AlertEvent::Kind kind);
// The metric page the kind belongs to.
Metric metric(AlertEvent::Kind kind);

// A new random (version 4) UUID as upper-case text.
std::string makeUUID();

// JSON form of one event: the field names as keys, in field order; "date" is seconds since 1970
// as a number; "kind" its raw value; "app" and "appID" are left out when absent.
nlohmann::ordered_json toJSON(const AlertEvent& event);
// nullopt when any field is missing or of the wrong type, the id is not a UUID or the kind is
// unknown. Unknown extra keys are ignored. The id is normalised to upper case.
std::optional<AlertEvent> alertEventFromJSON(const nlohmann::json& json);

// The stored form of a list: UTF-8 JSON text of an array of events. Text that is not valid UTF-8
// (a process name may be any bytes) is written with U+FFFD in its place, so encoding never fails.
std::vector<uint8_t> encodeAlerts(const std::vector<AlertEvent>& events);
// nullopt when the bytes are not JSON, not an array, or any element does not decode: a list of an
// older shape is dropped whole rather than kept in part.
std::optional<std::vector<AlertEvent>> decodeAlerts(std::span<const uint8_t> bytes);

}  // namespace vistrel
