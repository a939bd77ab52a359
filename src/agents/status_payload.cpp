#include "agents/status_payload.hpp"

#include "base/json_depth.hpp"

#include <cmath>
#include <cstdint>

#include "agents/iso_date.hpp"

namespace vistrel {

namespace {

using Json = nlohmann::ordered_json;

// Seconds since 1970 further out than this (about the year 5000) are nonsense and would overflow
// the clock's nanosecond count.
constexpr double kLatestSeconds = 1e11;

const Json* member(const Json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

std::optional<double> number(const Json* value) {
  if (!value || !value->is_number()) return std::nullopt;
  double v = value->get<double>();
  if (!std::isfinite(v)) return std::nullopt;
  return v;
}

std::optional<int64_t> integer(const Json* value) {
  if (!value) return std::nullopt;
  if (value->is_number_integer() && !value->is_number_unsigned()) return value->get<int64_t>();
  if (value->is_number_unsigned()) {
    uint64_t v = value->get<uint64_t>();
    if (v > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<int64_t>(v);
  }
  auto v = number(value);
  // Within the range a 64-bit integer holds exactly; beyond it the cast is undefined.
  if (!v || std::fabs(*v) >= 9.0e18) return std::nullopt;
  return static_cast<int64_t>(std::llround(*v));
}

std::optional<std::string> text(const Json* value) {
  if (!value || !value->is_string()) return std::nullopt;
  return value->get<std::string>();
}

// A point in time given as seconds since 1970 (milliseconds are recognised by their size) or as
// an ISO 8601 date-time.
std::optional<Date> date(const Json* value) {
  if (!value) return std::nullopt;
  if (value->is_string()) return parseISODate(value->get_ref<const std::string&>());
  auto seconds = number(value);
  if (!seconds || *seconds < 0) return std::nullopt;
  if (*seconds >= kLatestSeconds && *seconds < kLatestSeconds * 1000) *seconds /= 1000;
  if (*seconds >= kLatestSeconds) return std::nullopt;
  return dateFromSeconds(*seconds);
}

// "resets_at" when given, else "resets_in_seconds" counted from the moment of receipt.
std::optional<Date> resetTime(const Json& window, Date received) {
  if (auto at = date(member(window, "resets_at"))) return at;
  auto in = number(member(window, "resets_in_seconds"));
  if (!in || *in < 0 || *in >= kLatestSeconds) return std::nullopt;
  return received + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(*in));
}

std::optional<UsageWindow> usageWindow(const Json* window, Date received, int64_t minutes) {
  if (!window) return std::nullopt;
  auto used = number(member(*window, "used_percentage"));
  if (!used) return std::nullopt;
  return UsageWindow{*used, resetTime(*window, received), minutes};
}

std::optional<SpendLimit> spendLimit(const Json* limit, Date received) {
  if (!limit) return std::nullopt;
  auto used = number(member(*limit, "used_percentage"));
  if (!used) return std::nullopt;
  auto either = [&](const char* a, const char* b) {
    auto v = number(member(*limit, a));
    return v ? v : number(member(*limit, b));
  };
  return SpendLimit{*used, resetTime(*limit, received), either("used_usd", "used"),
                    either("limit_usd", "limit"), text(member(*limit, "period"))};
}

// The integer part of a percent, as text. Bounded first: a payload may say anything.
std::string wholePercent(double percent) {
  double bounded = std::fmin(std::fmax(percent, -1e9), 1e9);
  return std::to_string(static_cast<int64_t>(bounded)) + "%";
}

}  // namespace

StatusRecord statusRecordFromJson(const Json& payload, Date received) {
  StatusRecord record;
  if (!payload.is_object()) return record;
  record.sessionId = text(member(payload, "session_id")).value_or("");
  record.received = date(member(payload, "received")).value_or(received);
  if (const Json* model = member(payload, "model")) {
    record.model = text(member(*model, "display_name"));
  }
  record.sessionName = text(member(payload, "session_name"));
  if (const Json* context = member(payload, "context_window")) {
    record.contextPercent = number(member(*context, "used_percentage"));
    record.contextSize = integer(member(*context, "context_window_size"));
  }
  if (const Json* cost = member(payload, "cost")) {
    record.cost = number(member(*cost, "total_cost_usd"));
    record.linesAdded = integer(member(*cost, "total_lines_added"));
    record.linesRemoved = integer(member(*cost, "total_lines_removed"));
    if (auto ms = number(member(*cost, "total_api_duration_ms"))) record.apiSeconds = *ms / 1000;
  }
  const Json* limits = member(payload, "rate_limits");
  if (limits && limits->is_object()) {
    PlanUsage plan;
    plan.session = usageWindow(member(*limits, "five_hour"), record.received, 300);
    plan.weekly = usageWindow(member(*limits, "seven_day"), record.received, 10080);
    plan.spend = spendLimit(member(*limits, "spend_limit"), record.received);
    plan.updated = record.received;
    record.plan = plan;
  }
  return record;
}

std::optional<Json> parseJsonObject(std::string_view text, int maxDepth) {
  if (!jsonNestingWithin(text, maxDepth)) return std::nullopt;
  Json payload = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (!payload.is_object()) return std::nullopt;
  return payload;
}

std::optional<StatusRecord> parseStatusPayload(std::string_view text, Date received) {
  auto payload = parseJsonObject(text);
  if (!payload) return std::nullopt;
  return statusRecordFromJson(*payload, received);
}

std::string statusSummary(const StatusRecord& record) {
  std::string line;
  auto add = [&](std::string_view part) {
    if (!line.empty()) line += " · ";
    line += part;
  };
  if (record.model) {
    std::string name;
    for (char c : *record.model) {
      auto u = static_cast<unsigned char>(c);
      if (u >= 0x20 && u != 0x7f) name.push_back(c);
    }
    if (!name.empty()) add(name);
  }
  if (record.contextPercent) add("context " + wholePercent(*record.contextPercent));
  if (record.plan && record.plan->session) {
    add("session " + wholePercent(record.plan->session->usedPercent));
  }
  if (record.plan && record.plan->weekly) {
    add("week " + wholePercent(record.plan->weekly->usedPercent));
  }
  return line;
}

}  // namespace vistrel
