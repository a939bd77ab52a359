#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "agents/status_record.hpp"
#include "base/clock.hpp"

namespace vistrel {

// Claude Code's status-line payload: the JSON it pipes to its status-line command on every update
// (session id, model, context window, cost, and for Pro and Max plans "rate_limits"), as received
// or as the bridge stored it with "received" added.

// The text as a JSON object, keys in their order; nullopt when it is not one, or when it nests
// deeper than `maxDepth` levels (real payloads nest four deep, settings files a few more): writing
// such a document back would recurse once per level. Never throws.
std::optional<nlohmann::ordered_json> parseJsonObject(std::string_view text, int maxDepth = 64);

// The payload's fields as a record. `received` stands in when the payload carries no "received"
// of its own. Fields with the wrong type are left out; a payload without "rate_limits" has no plan.
// The 5-hour window is given 300 minutes and the weekly one 10,080.
StatusRecord statusRecordFromJson(const nlohmann::ordered_json& payload, Date received);

// The same from text; nullopt when the text is not a JSON object. Never throws.
std::optional<StatusRecord> parseStatusPayload(std::string_view text, Date received);

// The short status line, its parts joined with " · " and each present only when its value is:
// "Opus · context 42% · session 23% · week 41%". Whole percents, cut down (a window at 99.6 % is
// not yet full). Control characters in the model's name are dropped so that a payload cannot
// steer the terminal.
std::string statusSummary(const StatusRecord& record);

}  // namespace vistrel
