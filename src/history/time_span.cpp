#include "history/time_span.hpp"

namespace vistrel {

namespace {

struct SpanRow {
  std::string_view raw;
  int64_t seconds;
  int64_t bucket;
  bool usesHours;
  std::string_view caption;
};

constexpr SpanRow kRows[] = {
    {"1 h", 3600, 60, false, "each bar 1 minute"},
    {"24 h", 86400, 300, false, "each bar 5 minutes"},
    {"7 d", 604800, 1800, false, "each bar 30 minutes"},
    {"30 d", 2592000, 7200, true, "each bar 2 hours"},
    {"1 y", 31536000, 86400, true, "each bar 1 day"},
};

const SpanRow& row(TimeSpan s) {
  return kRows[static_cast<size_t>(s)];
}

}  // namespace

std::string_view rawValue(TimeSpan s) {
  return row(s).raw;
}

std::optional<TimeSpan> timeSpanFromRaw(std::string_view raw) {
  for (TimeSpan s : kAllTimeSpans) {
    if (row(s).raw == raw) return s;
  }
  return std::nullopt;
}

int64_t seconds(TimeSpan s) {
  return row(s).seconds;
}

int64_t bucket(TimeSpan s) {
  return row(s).bucket;
}

bool usesHours(TimeSpan s) {
  return row(s).usesHours;
}

std::string_view caption(TimeSpan s) {
  return row(s).caption;
}

}  // namespace vistrel
