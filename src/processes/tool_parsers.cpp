// Parsers of what the macOS process tools and the kernel's argument buffer tell us. Portable: they
// see only text and bytes, so they are tested and fuzzed on any machine.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

#include "base/decimal.hpp"
#include "processes/process_parsers.hpp"

namespace vistrel {

namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

// The whole of `text` as an integer of type T; nullopt for anything else (empty, trailing bytes,
// out of range). A '-' is accepted only for signed types, a '+' never.
template <typename T>
std::optional<T> wholeInteger(std::string_view text) {
  T value{};
  const char* end = text.data() + text.size();
  const auto [ptr, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || ptr != end) return std::nullopt;
  return value;
}

// Only digits: a pid printed by a tool, where a sign would mean the text is not a pid.
std::optional<int32_t> digitsPid(std::string_view text) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
  return wholeInteger<int32_t>(text);
}

// Calls `visit(line)` for every non-empty line of `text`, split at '\n'.
template <typename Visit>
void forEachLine(std::string_view text, Visit&& visit) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.empty()) visit(line);
  }
}

// The next piece of `rest` up to a space, skipping leading spaces; empty when none is left.
std::string_view nextSpaceField(std::string_view& rest) {
  size_t start = 0;
  while (start < rest.size() && rest[start] == ' ') ++start;
  size_t end = start;
  while (end < rest.size() && rest[end] != ' ') ++end;
  const std::string_view field = rest.substr(start, end - start);
  rest.remove_prefix(end);
  return field;
}

// Length of the valid UTF-8 sequence starting at `s[i]`, or 0 when the byte there does not begin
// one. Overlong forms, surrogates and code points above U+10FFFF are invalid.
size_t validSequenceLength(std::string_view s, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char lead = byte(i);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // overlong below U+0800
    if (lead == 0xED) high = 0x9F;  // UTF-16 surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong below U+10000
    if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (s.size() - i < length) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (size_t k = 2; k < length; ++k) {
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  }
  return length;
}

}  // namespace

std::string repairUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const size_t length = validSequenceLength(text, i);
    if (length == 0) {
      out += "\xEF\xBF\xBD";  // U+FFFD REPLACEMENT CHARACTER
      ++i;
    } else {
      out.append(text.substr(i, length));
      i += length;
    }
  }
  return out;
}

std::vector<PsRow> parsePS(std::string_view text) {
  std::vector<PsRow> rows;
  std::unordered_map<int32_t, size_t> indexOf;
  forEachLine(text, [&](std::string_view line) {
    std::string_view rest = line;
    std::string_view fields[5];
    for (auto& field : fields) {
      field = nextSpaceField(rest);
      if (field.empty()) return;
    }
    const std::string_view command = trim(rest);
    if (command.empty()) return;

    const auto pid = wholeInteger<int32_t>(fields[0]);
    const auto ppid = wholeInteger<int32_t>(fields[1]);
    const auto uid = wholeInteger<uint32_t>(fields[2]);
    const auto cpu = parseDecimal(fields[3]);
    const auto rssKb = wholeInteger<uint64_t>(fields[4]);
    if (!pid || !ppid || !uid || !cpu || !rssKb) return;
    if (*rssKb > std::numeric_limits<uint64_t>::max() / 1024) return;

    PsRow row{*pid, *ppid, *uid, *cpu, *rssKb * 1024, std::string(command)};
    const auto [at, inserted] = indexOf.emplace(*pid, rows.size());
    if (inserted) {
      rows.push_back(std::move(row));
    } else {
      rows[at->second] = std::move(row);
    }
  });
  return rows;
}

std::unordered_map<int32_t, ProcessNetBytes> parseNettop(std::string_view text) {
  std::unordered_map<int32_t, ProcessNetBytes> bytes;
  // Where the columns are, from the last header line; nothing is read before one.
  struct Columns {
    size_t count = 0;  // fields of the header, its trailing empty one included
    size_t name = 0;   // the process's "name.pid": the header's empty-named column
    size_t in = 0;
    size_t out = 0;
  };
  std::optional<Columns> columns;
  std::vector<std::string_view> fields;
  forEachLine(text, [&](std::string_view line) {
    if (line.back() == '\r') line.remove_suffix(1);
    // Fields are positional: an empty one is a missing value, not something to close up.
    fields.clear();
    for (size_t start = 0;;) {
      const size_t comma = line.find(',', start);
      fields.push_back(line.substr(start, comma == std::string_view::npos ? comma : comma - start));
      if (comma == std::string_view::npos) break;
      start = comma + 1;
    }
    const auto in = std::find(fields.begin(), fields.end(), "bytes_in");
    const auto out = std::find(fields.begin(), fields.end(), "bytes_out");
    if (in != fields.end() && out != fields.end()) {
      // A header: "time,,bytes_in,bytes_out," when the output is not a terminal (or no time
      // column: ",bytes_in,bytes_out,"). The process column is the one without a title; the
      // empty field after the trailing comma is none.
      columns.reset();
      const auto titled = fields.end() - (fields.back().empty() ? 1 : 0);
      const auto name = std::find(fields.begin(), titled, "");
      if (name == titled) return;
      columns = Columns{fields.size(), static_cast<size_t>(name - fields.begin()),
                        static_cast<size_t>(in - fields.begin()),
                        static_cast<size_t>(out - fields.begin())};
      return;
    }
    if (!columns) return;
    // A name holding commas spreads over more fields than the header has: the columns after it
    // move right by as many. A line without the trailing comma has one field fewer.
    const size_t extra = fields.size() > columns->count ? fields.size() - columns->count : 0;
    const auto at = [&](size_t column) -> std::optional<std::string_view> {
      const size_t index = column > columns->name ? column + extra : column;
      if (index >= fields.size()) return std::nullopt;
      return fields[index];
    };
    const std::optional<std::string_view> inText = at(columns->in), outText = at(columns->out);
    if (!inText || !outText) return;
    if (columns->name + extra >= fields.size()) return;
    // The pid follows the last "." of the name's last piece.
    const std::string_view last = fields[columns->name + extra];
    const size_t dot = last.rfind('.');
    if (dot == std::string_view::npos) return;
    const auto pid = digitsPid(last.substr(dot + 1));
    const auto inBytes = wholeInteger<uint64_t>(*inText);
    const auto outBytes = wholeInteger<uint64_t>(*outText);
    if (!pid || !inBytes || !outBytes) return;
    bytes[*pid] = ProcessNetBytes{*inBytes, *outBytes};
  });
  return bytes;
}

std::vector<std::string> parseProcArgs2(const uint8_t* data, size_t size) {
  std::vector<std::string> args;
  if (data == nullptr || size < 5) return args;
  int32_t argc = 0;
  std::memcpy(&argc, data, sizeof argc);
  if (argc <= 0) return args;

  size_t pos = sizeof argc;
  while (pos < size && data[pos] != 0) ++pos;  // the executable path
  while (pos < size && data[pos] == 0) ++pos;  // its terminator and the alignment padding
  const std::string_view rest(reinterpret_cast<const char*>(data) + pos, size - pos);

  size_t at = 0;
  while (args.size() < static_cast<size_t>(argc)) {
    const size_t end = rest.find('\0', at);
    // A string without its terminator was cut off by the end of the buffer: not an argument.
    if (end == std::string_view::npos) break;
    args.push_back(repairUtf8(rest.substr(at, end - at)));
    at = end + 1;
  }
  return args;
}

std::optional<int32_t> parseUserClientCreator(std::string_view text) {
  std::string_view head = text.substr(0, text.find(','));
  std::string_view last;
  while (true) {
    const std::string_view piece = nextSpaceField(head);
    if (piece.empty()) break;
    last = piece;
  }
  return digitsPid(last);
}

}  // namespace vistrel
