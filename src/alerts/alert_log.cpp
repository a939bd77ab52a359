#include "alerts/alert_log.hpp"

#include <algorithm>

#include "format/fmt.hpp"

namespace vistrel {

namespace {

constexpr const char* kAlertsKey = "alerts";
constexpr const char* kUnreadKey = "unreadAlerts";
constexpr const char* kKindsKey = "alertKinds";
constexpr const char* kNotifyKey = "notify";
constexpr const char* kMutedKey = "mutedToday";

// The stored list's bytes: data as written, or JSON text kept as a string by a store that has no
// data type.
std::optional<std::vector<uint8_t>> storedBytes(UserDefaults& defaults) {
  auto value = defaults.get(kAlertsKey);
  if (!value) return std::nullopt;
  if (value->is_binary()) {
    const auto& bytes = value->get_binary();
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
  }
  if (value->is_string()) {
    const auto& text = value->get_ref<const std::string&>();
    return std::vector<uint8_t>(text.begin(), text.end());
  }
  return std::nullopt;
}

// The mutes stored for `today`; none when they belong to another day or cannot be read.
std::set<std::string> storedMutes(UserDefaults& defaults, const std::string& today) {
  auto value = defaults.get(kMutedKey);
  if (!value || !value->is_object()) return {};
  auto day = value->find("day");
  auto apps = value->find("apps");
  if (day == value->end() || !day->is_string() || *day != today) return {};
  if (apps == value->end() || !apps->is_array()) return {};
  std::set<std::string> ids;
  for (const auto& id : *apps) {
    if (id.is_string()) ids.insert(id.get<std::string>());
  }
  return ids;
}

}  // namespace

DayText AlertLog::defaultDayText() {
  return [](Date date) { return Fmt::monthDay(date); };
}

AlertLog::AlertLog(UserDefaults& defaults, AlertEngine& engine, const Clock& clock, DayText dayText)
    : defaults_(defaults), engine_(engine), clock_(clock), dayText_(std::move(dayText)) {
  if (auto bytes = storedBytes(defaults_)) {
    if (auto decoded = decodeAlerts(*bytes)) alerts_ = std::move(*decoded);
  }
  // A list longer than kept (written by another build) is cut when next saved, not now.
  if (alerts_.size() > kMaxAlerts) alerts_.resize(kMaxAlerts);
  unread_ = std::max<int64_t>(defaults_.integer(kUnreadKey).value_or(0), 0);

  if (auto raws = defaults_.strings(kKindsKey)) {
    std::set<AlertEvent::Kind> kinds;
    for (const auto& raw : *raws) {
      if (auto kind = alertKindFromRaw(raw)) kinds.insert(*kind);
    }
    engine_.enabled = std::move(kinds);
  } else {
    engine_.enabled = {kAllAlertKinds.begin(), kAllAlertKinds.end()};
  }
  engine_.notify = defaults_.boolean(kNotifyKey).value_or(true);
  engine_.mutedToday = storedMutes(defaults_, dayText_(clock_.now()));
}

void AlertLog::add(const std::vector<AlertEvent>& events, bool alertsPageShowing) {
  if (events.empty()) return;
  // Last raised first, ahead of everything kept, so the list stays newest first.
  alerts_.insert(alerts_.begin(), events.rbegin(), events.rend());
  if (alerts_.size() > kMaxAlerts) alerts_.resize(kMaxAlerts);
  if (!alertsPageShowing) {
    unread_ += static_cast<int64_t>(events.size());
    defaults_.set(kUnreadKey, unread_);
  }
  saveAlerts();
}

std::vector<AlertEvent> AlertLog::receive(const Snapshot& snapshot, bool alertsPageShowing) {
  std::vector<AlertEvent> events = engine_.check(snapshot);
  add(events, alertsPageShowing);
  return events;
}

void AlertLog::markRead() {
  unreadWhenRead_ = unread_;
  unread_ = 0;
  defaults_.set(kUnreadKey, 0);
}

void AlertLog::clearAlerts() {
  alerts_.clear();
  saveAlerts();
}

std::string_view AlertLog::muteToday(const std::string& appID) {
  engine_.mutedToday.insert(appID);
  nlohmann::json apps = nlohmann::json::array();
  for (const auto& id : engine_.mutedToday) apps.push_back(id);
  defaults_.set(kMutedKey, {{"day", dayText_(clock_.now())}, {"apps", std::move(apps)}});
  return kMutedToast;
}

void AlertLog::setAlertKinds(const std::set<AlertEvent::Kind>& kinds) {
  nlohmann::json raws = nlohmann::json::array();
  for (auto kind : kinds) raws.push_back(rawValue(kind));
  defaults_.set(kKindsKey, std::move(raws));
  engine_.enabled = kinds;
}

void AlertLog::setNotify(bool on) {
  defaults_.set(kNotifyKey, on);
  engine_.notify = on;
  if (on) engine_.requestPermission();
}

void AlertLog::saveAlerts() {
  defaults_.setData(kAlertsKey, encodeAlerts(alerts_));
}

}  // namespace vistrel
