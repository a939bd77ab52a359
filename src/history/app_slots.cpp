#include "history/app_slots.hpp"

#include <algorithm>
#include <cmath>

namespace vistrel {

namespace {

int64_t floorTo(int64_t value, int64_t step) {
  int64_t q = value / step;
  if (value % step < 0) --q;
  return q * step;
}

std::optional<size_t> columnIndex(std::string_view column) {
  for (size_t c = 0; c < AppSlots::kColumns.size(); ++c) {
    if (AppSlots::kColumns[c] == column) return c;
  }
  return std::nullopt;
}

// A row read from the table between a span's start and its first whole slot.
struct EdgeRow {
  int64_t t = 0;
  std::string app;
  std::string name;
  std::optional<double> value;
};

// What the slots of a span hold for one app, by the app's index.
struct Gathered {
  bool present = false;
  uint32_t name = 0;
  ColumnFigures figures;
};

AppBucket bucketOf(int64_t time, const ColumnFigures& f) {
  return {time, f.total(), f.maximum(), f.rows};
}

}  // namespace

void CompensatedSum::add(double x) {
  double t = sum + x;
  // Whichever operand is the smaller in magnitude lost its low bits in `t`; keep them aside.
  error += std::abs(sum) >= std::abs(x) ? (sum - t) + x : (x - t) + sum;
  sum = t;
}

void CompensatedSum::add(const CompensatedSum& other) {
  add(other.sum);
  error += other.error;
}

double CompensatedSum::value() const {
  // An infinite sum has a meaningless (NaN) error.
  return std::isfinite(sum) ? sum + error : sum;
}

void ColumnFigures::add(std::optional<double> value) {
  ++rows;
  if (!value) return;
  sum.add(*value);
  peak = hasValue ? std::max(peak, *value) : *value;
  hasValue = true;
}

void ColumnFigures::add(const ColumnFigures& other) {
  rows += other.rows;
  if (!other.hasValue) return;
  sum.add(other.sum);
  peak = hasValue ? std::max(peak, other.peak) : other.peak;
  hasValue = true;
}

ColumnFigures AppSlots::Entry::figures(size_t column) const {
  ColumnFigures f;
  f.rows = rows;
  f.hasValue = ((hasValue >> column) & 1) != 0;
  if (f.hasValue) {
    f.sum = sums[column];
    f.peak = peaks[column];
  }
  return f;
}

AppSlots::AppSlots(std::string table, int64_t slotSeconds)
    : table_(std::move(table)), slot_(slotSeconds) {}

int64_t AppSlots::slotOf(int64_t t) const {
  return floorTo(t, slot_);
}

void AppSlots::invalidate() {
  fresh_ = false;
}

void AppSlots::clear() {
  slots_.clear();
  strings_.clear();
  index_.clear();
  fresh_ = true;
}

bool AppSlots::rebuild(Database& db) {
  clear();
  if (read(db, std::nullopt)) return true;
  clear();
  fresh_ = false;
  return false;
}

void AppSlots::reload(Database& db, int64_t from, int64_t to) {
  if (!fresh_ || to <= from) return;
  int64_t lo = slotOf(from);
  int64_t hi = slotOf(to - 1) + slot_;
  slots_.erase(slots_.lower_bound(lo), slots_.lower_bound(hi));
  if (!read(db, std::pair{lo, hi})) invalidate();
}

void AppSlots::dropBefore(Database& db, int64_t cut) {
  if (!fresh_) return;
  int64_t lo = slotOf(cut);
  slots_.erase(slots_.begin(), slots_.lower_bound(lo));
  // The slot holding the cut lost only its rows before the cut.
  if (lo < cut) reload(db, lo, cut);
}

uint32_t AppSlots::intern(std::string_view text) {
  auto found = index_.find(text);
  if (found != index_.end()) return found->second;
  auto at = static_cast<uint32_t>(strings_.size());
  strings_.emplace_back(text);
  index_.emplace(strings_.back(), at);
  return at;
}

bool AppSlots::read(Database& db, std::optional<std::pair<int64_t, int64_t>> range) {
  std::string sql = "SELECT t, app, name";
  for (std::string_view c : kColumns) sql += ", " + std::string(c);
  sql += " FROM " + table_;
  if (range) sql += " WHERE t >= ? AND t < ?";
  Statement s = db.prepare(sql);
  if (range) s.bindAll(range->first, range->second);
  // Rows come in (t, app) order, so one slot's rows follow each other.
  Slot* slot = nullptr;
  int64_t current = 0;
  while (s.next()) {
    int64_t key = slotOf(s.int64(0));
    if (!slot || key != current) {
      slot = &slots_[key];
      current = key;
    }
    uint32_t app = intern(s.textView(1));
    std::string_view name = s.textView(2);  // NULL reads as "", which MAX(name) never prefers
    auto e = std::lower_bound(slot->begin(), slot->end(), app,
                              [](const Entry& entry, uint32_t a) { return entry.app < a; });
    if (e == slot->end() || e->app != app) {
      e = slot->insert(e, Entry{});
      e->app = app;
      e->name = intern(name);
    } else if (name > strings_[e->name]) {  // an app's name seldom changes: no lookup then
      e->name = intern(name);
    }
    ++e->rows;
    for (size_t c = 0; c < kColumns.size(); ++c) {
      if (s.isNull(static_cast<int>(c) + 3)) continue;
      double v = s.real(static_cast<int>(c) + 3);
      bool had = ((e->hasValue >> c) & 1) != 0;
      e->sums[c].add(v);
      e->peaks[c] = had ? std::max(e->peaks[c], v) : v;
      e->hasValue = static_cast<uint8_t>(e->hasValue | (1u << c));
    }
  }
  return s.error() == SQLITE_DONE;
}

std::vector<RankedApp> AppSlots::rank(Database& db, std::string_view column, int64_t from,
                                      int limit, int64_t bucket, bool& ok) const {
  ok = false;
  auto c = columnIndex(column);
  if (!fresh_ || !c || from < 0) return {};

  // The rows between the span's start and its first whole slot come from the table itself.
  int64_t firstWhole = slotOf(from) == from ? from : slotOf(from) + slot_;
  std::vector<EdgeRow> edge;
  if (firstWhole > from) {
    Statement s = db.prepare("SELECT t, app, name, " + std::string(column) + " FROM " + table_ +
                             " WHERE t >= ? AND t < ?");
    s.bindAll(from, firstWhole);
    while (s.next()) edge.push_back({s.int64(0), s.text(1), s.text(2), s.optionalReal(3)});
    if (s.error() != SQLITE_DONE) return {};
  }
  auto whole = slots_.lower_bound(firstWhole);

  std::vector<Gathered> byIndex(strings_.size());
  for (auto it = whole; it != slots_.end(); ++it) {
    for (const Entry& e : it->second) {
      Gathered& g = byIndex[e.app];
      if (!g.present || strings_[e.name] > strings_[g.name]) g.name = e.name;
      g.present = true;
      g.figures.add(e.figures(*c));
    }
  }
  // By app id, the order in which equal totals are ranked.
  std::map<std::string, std::pair<std::string, ColumnFigures>> apps;
  for (size_t i = 0; i < byIndex.size(); ++i) {
    if (byIndex[i].present) apps[strings_[i]] = {strings_[byIndex[i].name], byIndex[i].figures};
  }
  for (const EdgeRow& row : edge) {
    auto [it, added] = apps.try_emplace(row.app, row.name, ColumnFigures{});
    if (!added && row.name > it->second.first) it->second.first = row.name;
    it->second.second.add(row.value);
  }

  using Ranked = decltype(apps)::value_type;
  std::vector<const Ranked*> order;
  for (const auto& a : apps) order.push_back(&a);
  // SUM DESC puts NULL after every value; stable, so equal totals keep the order of their ids.
  std::stable_sort(order.begin(), order.end(), [](const Ranked* a, const Ranked* b) {
    const ColumnFigures& x = a->second.second;
    const ColumnFigures& y = b->second.second;
    if (x.hasValue != y.hasValue) return x.hasValue;
    return x.hasValue && x.total() > y.total();
  });
  if (order.size() > static_cast<size_t>(std::max(limit, 0))) order.resize(std::max(limit, 0));

  std::vector<RankedApp> top;
  for (const Ranked* r : order)
    top.push_back({r->first, r->second.first, r->second.second.total(), {}});
  ok = true;
  if (bucket <= 0 || bucket % slot_ != 0 || top.empty()) return top;

  // Each slot lies within one bucket; the edge rows lie within the first bucket.
  std::vector<int> selected(strings_.size(), -1);
  std::map<std::string_view, size_t> selectedById;
  for (size_t i = 0; i < top.size(); ++i) {
    selectedById[top[i].app] = i;
    auto found = index_.find(top[i].app);
    if (found != index_.end()) selected[found->second] = static_cast<int>(i);
  }
  std::vector<std::map<int64_t, ColumnFigures>> buckets(top.size());
  for (const EdgeRow& row : edge) {
    auto found = selectedById.find(row.app);
    if (found != selectedById.end()) buckets[found->second][floorTo(row.t, bucket)].add(row.value);
  }
  for (auto it = whole; it != slots_.end(); ++it) {
    int64_t k = floorTo(it->first, bucket);
    for (const Entry& e : it->second) {
      if (selected[e.app] >= 0) buckets[static_cast<size_t>(selected[e.app])][k].add(e.figures(*c));
    }
  }
  for (size_t i = 0; i < top.size(); ++i) {
    for (const auto& [k, f] : buckets[i]) top[i].buckets.push_back(bucketOf(k, f));
  }
  return top;
}

size_t AppSlots::entryCount() const {
  size_t n = 0;
  for (const auto& [start, slot] : slots_) n += slot.size();
  return n;
}

size_t AppSlots::approximateBytes() const {
  size_t bytes = entryCount() * sizeof(Entry) + slots_.size() * (sizeof(Slot) + 48);
  for (const std::string& s : strings_) bytes += 2 * (sizeof(std::string) + s.capacity()) + 32;
  return bytes;
}

}  // namespace vistrel
