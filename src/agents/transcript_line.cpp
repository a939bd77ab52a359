#include "agents/transcript_line.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

namespace vistrel {

namespace {

namespace dom = simdjson::dom;

int64_t tokens(dom::element value) {
  return std::clamp<int64_t>(jsonInt(value), 0, TranscriptLine::kMaxTokens);
}

// What a message object holds, whatever the record's type (which may come after it).
struct MessageParts {
  bool found = false;  // the record has a message object
  bool text = false;   // string content, or a "text" item
  int64_t toolUses = 0;
};

void readUsage(dom::element value, std::optional<TokenTotals>& out) {
  dom::object object;
  if (value.get_object().get(object) != simdjson::SUCCESS) return;  // not an object: none
  TokenTotals usage;
  for (const dom::key_value_pair field : object) {
    if (field.key == "input_tokens") {
      usage.input = tokens(field.value);
    } else if (field.key == "output_tokens") {
      usage.output = tokens(field.value);
    } else if (field.key == "cache_creation_input_tokens") {
      usage.cacheWrite = tokens(field.value);
    } else if (field.key == "cache_read_input_tokens") {
      usage.cacheRead = tokens(field.value);
    }
  }
  out = usage;
}

void readContent(dom::element value, MessageParts& parts) {
  if (value.is_string()) {
    parts.text = true;
    return;
  }
  dom::array items;
  if (value.get_array().get(items) != simdjson::SUCCESS) return;
  for (dom::element item : items) {
    std::optional<std::string_view> kind = strView(item["type"]);
    if (!kind) continue;  // not an item with a type: skipped
    if (*kind == "text") parts.text = true;
    if (*kind == "tool_use") ++parts.toolUses;
  }
}

void readMessage(dom::element value, TranscriptLine& line, MessageParts& parts) {
  dom::object object;
  if (value.get_object().get(object) != simdjson::SUCCESS) return;
  parts.found = true;
  for (const dom::key_value_pair field : object) {
    if (field.key == "id") {
      line.messageId = strView(field.value);
    } else if (field.key == "model") {
      line.model = strView(field.value);
      if (line.model == "<synthetic>") line.model.reset();
    } else if (field.key == "content") {
      readContent(field.value, parts);
    } else if (field.key == "usage") {
      readUsage(field.value, line.usage);
    }
  }
}

}  // namespace

std::optional<TranscriptLine> TranscriptLineParser::parse(std::string_view text) {
  // A buffer or parser grown for an earlier long line is given back before the next one.
  parser_.trim(kMaxParsed + kCompactFrom);
  std::optional<dom::object> root;
  if (text.size() >= kCompactFrom) {
    std::string& buffer = parser_.buffer();
    const size_t room = std::min(text.size(), kMaxParsed);
    if (buffer.size() < room + simdjson::SIMDJSON_PADDING) {
      buffer.resize(room + simdjson::SIMDJSON_PADDING);
    }
    const size_t length = compactLongStrings(text, buffer.data(), room, kLongString);
    if (length > room) return std::nullopt;  // still too long: mostly structure
    std::memset(buffer.data() + length, 0, simdjson::SIMDJSON_PADDING);
    root = parser_.parsePadded(buffer.data(), length);
  } else {
    root = parser_.parse(text);
  }
  if (!root) return std::nullopt;

  TranscriptLine line;
  MessageParts parts;
  bool meta = false;
  for (const dom::key_value_pair field : *root) {
    if (field.key == "type") {
      std::optional<std::string_view> type = strView(field.value);
      line.type = type == "user"        ? TranscriptLine::Type::user
                  : type == "assistant" ? TranscriptLine::Type::assistant
                                        : TranscriptLine::Type::other;
    } else if (field.key == "timestamp") {
      line.timestamp = parseDate(field.value);
    } else if (field.key == "message") {
      readMessage(field.value, line, parts);
    } else if (field.key == "requestId") {
      line.requestId = strView(field.value);
    } else if (field.key == "isMeta") {
      meta = boolean(field.value).value_or(false);
    } else if (field.key == "gitBranch") {
      line.gitBranch = strView(field.value);
    } else if (field.key == "version") {
      line.version = strView(field.value);
    } else if (field.key == "cwd") {
      line.cwd = strView(field.value);
    } else if (field.key == "sessionId") {
      line.sessionId = strView(field.value);
    }
  }
  // A record without a message object carries nothing of a prompt or a reply.
  if (!parts.found) line.type = TranscriptLine::Type::other;
  if (line.type == TranscriptLine::Type::user) {
    line.prompt = parts.text && !meta;
  } else if (line.type == TranscriptLine::Type::assistant) {
    line.toolCalls = parts.toolUses;
  }
  if (line.type != TranscriptLine::Type::assistant) line.usage.reset();
  return line;
}

std::optional<TranscriptLine> parseTranscriptLine(std::string_view line) {
  thread_local TranscriptLineParser parser;
  return parser.parse(line);
}

size_t compactLongStrings(std::string_view text, char* out, size_t room, size_t keep) {
  const char* p = text.data();
  const char* const end = p + text.size();
  size_t written = 0;
  auto put = [&](const char* from, size_t count) {
    if (count > room - written) return false;
    std::memcpy(out + written, from, count);
    written += count;
    return true;
  };
  constexpr size_t kOver = std::numeric_limits<size_t>::max();
  while (p < end) {
    // Outside strings: copy up to and including the next quote.
    const char* quote = static_cast<const char*>(std::memchr(p, '"', static_cast<size_t>(end - p)));
    if (!quote) return put(p, static_cast<size_t>(end - p)) ? written : kOver;
    if (!put(p, static_cast<size_t>(quote - p) + 1)) return kOver;
    // Inside a string: the closing quote is the first one after an even run of backslashes.
    const char* const start = quote + 1;
    const char* close = start;
    for (;;) {
      close = static_cast<const char*>(std::memchr(close, '"', static_cast<size_t>(end - close)));
      if (!close) break;
      const char* run = close;
      while (run > start && run[-1] == '\\') --run;
      if ((close - run) % 2 == 0) break;
      ++close;
    }
    const char* const stop = close ? close : end;  // an unterminated string runs to the end
    const size_t length = static_cast<size_t>(stop - start);
    if (length <= keep && !put(start, length)) return kOver;
    if (!close) break;
    if (!put(close, 1)) return kOver;
    p = close + 1;
  }
  return written;
}

}  // namespace vistrel
