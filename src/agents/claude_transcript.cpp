#include "agents/claude_transcript.hpp"

#include <vector>

namespace vistrel {

namespace {

void assignIf(std::optional<std::string>& into, const std::optional<std::string_view>& value) {
  if (!value) return;
  if (into) {
    if (*into != *value) into->assign(value->data(), value->size());
  } else {
    into.emplace(*value);
  }
}

bool wholeNumber(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

}  // namespace

std::string claudeModelName(std::string_view id) {
  std::string rest;
  rest.reserve(id.size());
  for (size_t at = 0; at < id.size();) {
    if (id.substr(at, 7) == "claude-") {
      at += 7;
    } else {
      rest.push_back(id[at++]);
    }
  }
  std::vector<std::string_view> parts;
  std::string_view view = rest;
  for (size_t start = 0;;) {
    const size_t dash = view.find('-', start);
    parts.push_back(view.substr(start, dash == std::string_view::npos ? dash : dash - start));
    if (dash == std::string_view::npos) break;
    start = dash + 1;
  }
  if (parts.size() > 1 && parts.back().size() == 8 && wholeNumber(parts.back())) parts.pop_back();
  std::string name(parts.front());
  if (!name.empty() && name[0] >= 'a' && name[0] <= 'z') name[0] = static_cast<char>(name[0] - 32);
  std::string version;
  for (size_t i = 1; i < parts.size(); ++i) {
    if (!wholeNumber(parts[i])) continue;
    if (!version.empty()) version += '.';
    version += parts[i];
  }
  if (!version.empty()) name += ' ' + version;
  return name;
}

const std::string& ClaudeTranscript::nameOf(std::string_view modelId) {
  if (modelName_.empty() || modelId_ != modelId) {
    modelId_.assign(modelId.data(), modelId.size());
    modelName_ = claudeModelName(modelId);
    if (modelName_.empty()) modelName_ = "Other";
  }
  return modelName_;
}

void ClaudeTranscript::add(const TranscriptLine& line, bool subagent, Date today,
                           MessageLedger& shared) {
  if (line.timestamp) {
    if (!first || *line.timestamp < *first) first = line.timestamp;
    if (!last || *line.timestamp > *last) last = line.timestamp;
  }
  assignIf(gitBranch, line.gitBranch);
  assignIf(version, line.version);
  if (!subagent) assignIf(cwd, line.cwd);

  if (line.type == TranscriptLine::Type::user) {
    if (line.prompt && !subagent) ++prompts;
    return;
  }
  if (line.type != TranscriptLine::Type::assistant) return;
  toolCalls = addSaturating(toolCalls, line.toolCalls);
  // The line's own model names its tokens; a line without one (or "<synthetic>") falls back on
  // the session's model.
  const std::string* modelOfLine = line.model ? &nameOf(*line.model) : nullptr;
  if (modelOfLine && !subagent) assignIf(model, std::string_view(*modelOfLine));
  if (!modelOfLine && model) modelOfLine = &*model;

  const TokenTotals usage = line.usage.value_or(TokenTotals{});
  TokenTotals ownAdded = usage, sharedAdded = usage;
  bool firstLine = true;
  if (line.messageId) {
    const uint64_t key = messageKey(*line.messageId, line.requestId.value_or(""));
    MessageLedger::Added added = own_.count(key, usage);
    ownAdded = added.tokens;
    firstLine = added.first;
    sharedAdded = shared.count(key, usage).tokens;
  }
  if (firstLine && !subagent) ++replies;
  if (!line.timestamp || *line.timestamp < today) return;
  addSaturating(todayOwn, ownAdded);
  addSaturating(todayShared, sharedAdded);
  const int64_t fresh =
      addSaturating(addSaturating(sharedAdded.input, sharedAdded.output), sharedAdded.cacheWrite);
  if (fresh == 0 && line.usage == std::nullopt) return;
  const std::string_view name = modelOfLine ? std::string_view(*modelOfLine) : "Other";
  auto at = todayByModel.find(name);
  if (at == todayByModel.end()) at = todayByModel.emplace(std::string(name), 0).first;
  at->second = addSaturating(at->second, fresh);
}

void ClaudeTranscript::startDay() {
  todayOwn = {};
  todayShared = {};
  todayByModel.clear();
}

}  // namespace vistrel
