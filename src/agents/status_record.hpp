#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "agents/agent_records.hpp"
#include "base/clock.hpp"

namespace vistrel {

// One Claude Code session as its status line last reported it (written by the `--statusline`
// side, read by the app).
struct StatusRecord {
  std::string sessionId;
  Date received{};  // when the status-line side received the data
  std::optional<std::string> model;
  std::optional<std::string> sessionName;
  std::optional<double> contextPercent;
  std::optional<int64_t> contextSize;
  std::optional<double> cost;  // Claude Code's own estimate, US dollars
  std::optional<int64_t> linesAdded;
  std::optional<int64_t> linesRemoved;
  std::optional<double> apiSeconds;
  std::optional<PlanUsage> plan;
  bool operator==(const StatusRecord&) const = default;
};

// Records keyed by session id.
using StatusRecords = std::map<std::string, StatusRecord>;

}  // namespace vistrel
