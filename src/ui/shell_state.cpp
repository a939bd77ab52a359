#include "ui/shell_state.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <iterator>

namespace vistrel::ui {

std::optional<Frame> frameFromJson(const nlohmann::json& value) {
  if (!value.is_array() || value.size() != 4) return std::nullopt;
  int v[4];
  for (size_t i = 0; i < 4; ++i) {
    if (!value[i].is_number()) return std::nullopt;
    double d = value[i].get<double>();
    if (!std::isfinite(d) || std::fabs(d) > 1e6) return std::nullopt;
    v[i] = static_cast<int>(std::lround(d));
  }
  if (v[2] <= 0 || v[3] <= 0) return std::nullopt;
  return Frame{v[0], v[1], v[2], v[3]};
}

nlohmann::json frameToJson(const Frame& f) {
  return nlohmann::json::array({f.x, f.y, f.width, f.height});
}

Frame restoredFrame(const std::optional<Frame>& saved, const Frame& screen) {
  if (saved && saved->width >= kMinimumWidth && saved->height >= kMinimumHeight) return *saved;
  return Frame{screen.x + (screen.width - kWindowWidth) / 2,
               screen.y + (screen.height - kWindowHeight) / 2, kWindowWidth, kWindowHeight};
}

std::optional<ShowTarget> showTarget(std::string_view value) {
  ShowTarget t;
  if (value.empty()) return t;
  if (value == "welcome") {
    t.welcome = true;
  } else if (value == "share") {
    t.share = true;
  } else if (value == "quit") {
    t.quit = true;
    t.page = Page::apps;
  } else if (value == "hidden") {
    t.hidden = true;
  } else if (value == "tour") {
    t.tour = true;
  } else if (auto page = pageFromRaw(value)) {
    t.page = *page;
  } else if (size_t colon = value.find(':'); colon != std::string_view::npos) {
    auto metricPage = pageFromRaw(value.substr(0, colon));
    std::string_view range = value.substr(colon + 1);
    static constexpr std::pair<std::string_view, TimeSpan> kRanges[] = {{"hour", TimeSpan::hour},
                                                                        {"day", TimeSpan::day},
                                                                        {"week", TimeSpan::week},
                                                                        {"month", TimeSpan::month},
                                                                        {"year", TimeSpan::year}};
    const auto* found = std::find_if(std::begin(kRanges), std::end(kRanges),
                                     [&](const auto& r) { return r.first == range; });
    if (!metricPage || found == std::end(kRanges) || *metricPage < Page::cpu ||
        *metricPage > Page::heat) {
      return std::nullopt;
    }
    t.page = *metricPage;
    t.span = found->second;
  } else {
    return std::nullopt;
  }
  return t;
}

std::optional<std::pair<int, int>> parseSize(std::string_view text) {
  int w = 0, h = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), w);
  if (ec != std::errc() || end == text.data() + text.size()) return std::nullopt;
  const char* second = end + 1;  // one separating character
  auto [end2, ec2] = std::from_chars(second, text.data() + text.size(), h);
  if (ec2 != std::errc() || end2 != text.data() + text.size()) return std::nullopt;
  if (w <= 0 || h <= 0 || w > 20000 || h > 20000) return std::nullopt;
  return std::pair{w, h};
}

std::optional<double> parseSeconds(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::string s(text);
  char* end = nullptr;
  double v = std::strtod(s.c_str(), &end);
  if (end != s.c_str() + s.size() || !std::isfinite(v) || v < 0) return std::nullopt;
  return v;
}

DevHooks readDevHooks(const std::function<const char*(const char*)>& env) {
  DevHooks h;
  if (const char* v = env("VISTREL_SHOW")) h.show = v;
  if (const char* v = env("VISTREL_SIZE")) h.size = parseSize(v);
  if (const char* v = env("VISTREL_THEME")) {
    std::string_view t = v;
    if (t == "paper") h.theme = Appearance::paper;
    if (t == "night") h.theme = Appearance::night;
  }
  if (const char* v = env("VISTREL_SHOT"); v && *v) h.shot = v;
  if (const char* v = env("VISTREL_SHOT_DELAY")) {
    if (auto s = parseSeconds(v)) h.shotDelay = *s;
  }
  h.shotQuit = env("VISTREL_SHOT_QUIT") != nullptr;
  return h;
}

}  // namespace vistrel::ui
