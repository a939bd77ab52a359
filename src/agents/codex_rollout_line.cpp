#include "agents/codex_rollout_line.hpp"

#include <simdjson.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "agents/iso_date.hpp"
#include "agents/json_values.hpp"

namespace vistrel {

namespace {

// The full (DOM) parser, not the on-demand one: it validates the whole line before anything is
// read from it, so a malformed line is skipped whole rather than half-counted, and no value is
// read from a document that already failed.
using JsonObject = simdjson::dom::object;
using JsonField = DomField;  // the converters of json_values.hpp

std::optional<JsonObject> object(JsonField field) {
  JsonObject out;
  if (field.get_object().get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

// Dates are kept within what a nanosecond clock holds with room to spare (it ends in 2262).
constexpr double kLatestSeconds = 7'000'000'000;        // 2191
constexpr double kLongestResetSeconds = 1'000'000'000;  // 31 years ahead of the record

// A record's timestamp: an ISO 8601 date-time between 1970 and 2200. Years beyond would overflow
// the clock when converted, so they are no dates.
std::optional<Date> recordDate(JsonField field) {
  std::optional<std::string_view> text = strView(field);
  if (!text || text->size() < 4) return std::nullopt;
  int year = 0;
  for (char c : text->substr(0, 4)) {
    if (c < '0' || c > '9') return std::nullopt;
    year = year * 10 + (c - '0');
  }
  if (year < 1970 || year > 2200) return std::nullopt;
  return parseISODate(*text);
}

int64_t tokens(JsonField field) {
  return std::clamp<int64_t>(jsonInt(field), 0, CodexUsage::kMaxTokens);
}

std::optional<CodexUsage> usage(JsonField field) {
  std::optional<JsonObject> o = object(field);
  if (!o) return std::nullopt;
  CodexUsage u;
  u.input = tokens((*o)["input_tokens"]);
  u.cachedInput = tokens((*o)["cached_input_tokens"]);
  u.output = tokens((*o)["output_tokens"]);
  u.reasoning = tokens((*o)["reasoning_output_tokens"]);
  return u;
}

// One rate-limit window: an object with a numeric "used_percent" (no window without it), the reset
// from "resets_at" (seconds since 1970) or else "resets_in_seconds" counted from the record's time,
// and "window_minutes" when given.
std::optional<UsageWindow> window(JsonField field, Date recordTime) {
  std::optional<JsonObject> o = object(field);
  if (!o) return std::nullopt;
  std::optional<double> used = dbl((*o)["used_percent"]);
  if (!used) return std::nullopt;
  UsageWindow w;
  w.usedPercent = *used;
  // A length below a minute is no length; one beyond a year is cut to a year, so that no claim of a
  // file reaches the run-out arithmetic out of range.
  if (int64_t minutes = jsonInt((*o)["window_minutes"]); minutes >= 1) {
    w.windowMinutes = std::min(minutes, kLongestWindowMinutes);
  }
  std::optional<double> at = dbl((*o)["resets_at"]);
  if (at && *at >= 0 && *at <= kLatestSeconds) {
    w.resetsAt = dateFromSeconds(*at);
  } else if (std::optional<double> in = dbl((*o)["resets_in_seconds"]);
             in && *in >= 0 && *in <= kLongestResetSeconds) {
    w.resetsAt =
        recordTime + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(*in));
  }
  return w;
}

// "primary" and "secondary" are told apart by their length when Codex gives it (some plans report
// the weekly window as "primary"), by position otherwise. When both claim the same place, a window
// placed by its length beats one placed by position, and otherwise the primary one is kept.
std::optional<PlanUsage> plan(JsonField field, Date recordTime) {
  std::optional<JsonObject> o = object(field);
  if (!o) return std::nullopt;
  std::optional<UsageWindow> windows[2] = {window((*o)["primary"], recordTime),
                                           window((*o)["secondary"], recordTime)};
  PlanUsage out;
  out.updated = recordTime;
  bool placedByLength[2] = {false, false};  // session, weekly
  for (int position = 0; position < 2; ++position) {
    if (!windows[position]) continue;
    const std::optional<int64_t>& minutes = windows[position]->windowMinutes;
    const bool byLength = minutes && *minutes >= 1;
    const int slot = byLength ? (*minutes <= kLongestSessionWindowMinutes ? 0 : 1) : position;
    std::optional<UsageWindow>& target = slot == 0 ? out.session : out.weekly;
    if (target && (placedByLength[slot] || !byLength)) continue;
    target = std::move(windows[position]);
    placedByLength[slot] = byLength;
  }
  if (!out.session && !out.weekly) return std::nullopt;
  return out;
}

void sessionMeta(JsonObject payload, RolloutLine& out) {
  out.sessionId = str(payload["id"]);
  out.folder = str(payload["cwd"]);
  out.version = str(payload["cli_version"]);
  if (std::optional<JsonObject> git = object(payload["git"])) {
    out.gitBranch = str((*git)["branch"]);
  }
}

void responseItem(JsonObject payload, RolloutLine& out) {
  std::optional<std::string_view> type = strView(payload["type"]);
  if (!type) return;
  if (*type == "function_call" || *type == "custom_tool_call" || *type == "local_shell_call") {
    out.kind = RolloutLine::Kind::toolCall;
  } else if (*type == "message" && strView(payload["role"]) == "assistant") {
    out.kind = RolloutLine::Kind::reply;
  }
}

void eventMessage(JsonObject payload, RolloutLine& out) {
  std::optional<std::string_view> type = strView(payload["type"]);
  if (type == "user_message") {
    out.kind = RolloutLine::Kind::prompt;
    return;
  }
  if (type != "token_count") return;
  out.kind = RolloutLine::Kind::tokenCount;
  if (std::optional<JsonObject> info = object(payload["info"])) {
    out.total = usage((*info)["total_token_usage"]);
    out.last = usage((*info)["last_token_usage"]);
    if (int64_t size = jsonInt((*info)["model_context_window"]); size > 0) {
      out.contextWindow = size;
    }
  }
  out.plan = plan(payload["rate_limits"], out.time);
}

enum class RecordType { sessionMeta, turnContext, responseItem, eventMessage, other };

RecordType recordTypeOf(std::string_view type) {
  if (type == "session_meta") return RecordType::sessionMeta;
  if (type == "turn_context") return RecordType::turnContext;
  if (type == "response_item") return RecordType::responseItem;
  if (type == "event_msg") return RecordType::eventMessage;
  return RecordType::other;
}

simdjson::dom::parser& lineParser() {
  thread_local simdjson::dom::parser parser;
  return parser;
}

}  // namespace

TokenTotals CodexUsage::totals() const {
  TokenTotals t;
  t.input = std::max<int64_t>(input - cachedInput, 0);
  t.cacheRead = cachedInput;
  t.output = output;
  return t;
}

std::optional<RolloutLine> parseRolloutLine(std::string_view line, Date now) {
  if (line.size() > kMaxRolloutLine) return std::nullopt;
  simdjson::dom::parser& parser = lineParser();
  std::optional<RolloutLine> result;
  // Copied into the parser's own padded buffer (reused from line to line).
  if (std::optional<JsonObject> record = object(parser.parse(line.data(), line.size(), true))) {
    std::optional<std::string_view> type = strView((*record)["type"]);
    if (type) {
      const RecordType recordType = recordTypeOf(*type);
      RolloutLine out;
      out.time = recordDate((*record)["timestamp"]).value_or(now);
      std::optional<JsonObject> payload = object((*record)["payload"]);
      switch (recordType) {
        case RecordType::sessionMeta:
          out.kind = RolloutLine::Kind::sessionMeta;
          if (payload) sessionMeta(*payload, out);
          break;
        case RecordType::turnContext:
          out.kind = RolloutLine::Kind::turnContext;
          if (payload) {
            out.model = str((*payload)["model"]);
            out.folder = str((*payload)["cwd"]);
          }
          break;
        case RecordType::responseItem:
          if (payload) responseItem(*payload, out);
          break;
        case RecordType::eventMessage:
          if (payload) eventMessage(*payload, out);
          break;
        case RecordType::other:
          break;
      }
      result = std::move(out);
    }
  }
  // Give back what a long line took: the parser keeps several bytes of index per byte.
  if (line.size() > (1 << 20)) parser = simdjson::dom::parser{};
  return result;
}

}  // namespace vistrel
