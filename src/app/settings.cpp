#include "app/settings.hpp"

#include <algorithm>
#include <array>
#include <cmath>

namespace vistrel {

namespace {

constexpr std::array<std::pair<Page, std::string_view>, 13> kPages = {{
    {Page::overview, "overview"},
    {Page::cpu, "cpu"},
    {Page::memory, "memory"},
    {Page::gpu, "gpu"},
    {Page::disk, "disk"},
    {Page::network, "network"},
    {Page::battery, "battery"},
    {Page::heat, "heat"},
    {Page::apps, "apps"},
    {Page::agents, "agents"},
    {Page::sensors, "sensors"},
    {Page::alerts, "alerts"},
    {Page::settings, "settings"},
}};

}  // namespace

std::string_view rawValue(Appearance a) {
  switch (a) {
    case Appearance::system:
      return "system";
    case Appearance::night:
      return "night";
    case Appearance::paper:
      return "paper";
  }
  return "system";
}

std::optional<Appearance> appearanceFromRaw(std::string_view raw) {
  for (Appearance a : {Appearance::system, Appearance::night, Appearance::paper}) {
    if (rawValue(a) == raw) return a;
  }
  return std::nullopt;
}

std::string_view rawValue(Page p) {
  for (const auto& [page, raw] : kPages) {
    if (page == p) return raw;
  }
  return "overview";
}

std::optional<Page> pageFromRaw(std::string_view raw) {
  for (const auto& [page, name] : kPages) {
    if (name == raw) return page;
  }
  return std::nullopt;
}

double clampInterval(double seconds) {
  if (!std::isfinite(seconds)) return 2;
  return std::clamp(seconds, 1.0, 60.0);
}

int clampRetention(int days) {
  return std::clamp(days, 7, 3650);
}

Settings Settings::load(UserDefaults& d) {
  Settings s;
  if (auto v = d.number(keys::interval)) s.intervalSeconds = clampInterval(*v);
  if (auto v = d.integer(keys::retention)) {
    s.retentionDays = clampRetention(static_cast<int>(std::clamp<int64_t>(*v, 0, 100000)));
  }
  if (auto v = d.string(keys::appearance))
    s.appearance = appearanceFromRaw(*v).value_or(s.appearance);
  if (auto v = d.boolean(keys::fahrenheit)) s.fahrenheit = *v;
  if (auto v = d.boolean(keys::bits)) s.bits = *v;
  if (auto v = d.boolean(keys::dock)) s.showInDock = *v;
  if (auto v = d.strings(keys::menuItems)) {
    // Unknown names (from a later version, or edited by hand) are skipped, not fatal.
    std::vector<Metric> items;
    for (const auto& raw : *v) {
      if (auto m = metricFromRaw(raw);
          m && std::find(items.begin(), items.end(), *m) == items.end()) {
        items.push_back(*m);
      }
    }
    s.menuItems = std::move(items);
  }
  if (auto v = d.boolean(keys::mcpEnabled)) s.mcpEnabled = *v;
  if (auto v = d.boolean(keys::openAtLogin)) s.openAtLogin = *v;
  if (auto v = d.boolean(keys::welcomed)) s.welcomed = *v;
  return s;
}

}  // namespace vistrel
