#include "sampling/proc_parsers.hpp"

#include <charconv>
#include <limits>
#include <optional>

#include "base/decimal.hpp"

namespace vistrel {

namespace {

constexpr uint64_t kMax64 = std::numeric_limits<uint64_t>::max();

// Sums that cannot wrap: garbage values saturate instead of producing a small plausible figure.
uint64_t addSat(uint64_t a, uint64_t b) {
  return a > kMax64 - b ? kMax64 : a + b;
}
uint64_t mulSat(uint64_t a, uint64_t b) {
  return b != 0 && a > kMax64 / b ? kMax64 : a * b;
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// Splits `text` into lines without allocating; the last line may lack its newline.
class Lines {
 public:
  explicit Lines(std::string_view text) : rest_(text) {}
  bool next(std::string_view& line) {
    if (rest_.empty()) return false;
    auto end = rest_.find('\n');
    if (end == std::string_view::npos) {
      line = rest_;
      rest_ = {};
    } else {
      line = rest_.substr(0, end);
      rest_.remove_prefix(end + 1);
    }
    return true;
  }

 private:
  std::string_view rest_;
};

// Splits a line into blank-separated fields.
class Fields {
 public:
  explicit Fields(std::string_view line) : rest_(line) {}
  bool next(std::string_view& field) {
    size_t i = 0;
    while (i < rest_.size() && isBlank(rest_[i])) ++i;
    if (i == rest_.size()) {
      rest_ = {};
      return false;
    }
    size_t j = i;
    while (j < rest_.size() && !isBlank(rest_[j])) ++j;
    field = rest_.substr(i, j - i);
    rest_.remove_prefix(j);
    return true;
  }

 private:
  std::string_view rest_;
};

template <typename T>
bool parseWhole(std::string_view s, T& value, int base = 10) {
  if (s.empty()) return false;
  auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value, base);
  return ec == std::errc() && ptr == s.data() + s.size();
}

bool parseDouble(std::string_view s, double& value) {
  const std::optional<double> parsed = parseDecimal(s);
  if (parsed) value = *parsed;
  return parsed.has_value();
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isOctal(char c) {
  return c >= '0' && c <= '7';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string decodeEscapes(std::string_view text, bool hex) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
        isOctal(text[i + 3])) {
      int value = (text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0');
      if (value <= 0xff) {
        out.push_back(static_cast<char>(value));
        i += 3;
        continue;
      }
    }
    if (hex && c == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
        hexValue(text[i + 2]) >= 0 && hexValue(text[i + 3]) >= 0) {
      out.push_back(static_cast<char>(hexValue(text[i + 2]) * 16 + hexValue(text[i + 3])));
      i += 3;
      continue;
    }
    out.push_back(c);
  }
  return out;
}

}  // namespace

bool parseProcStat(std::string_view text, std::vector<CoreTicks>& out) {
  out.clear();
  Lines lines(text);
  std::string_view line;
  while (lines.next(line)) {
    // Only "cpuN" lines: the aggregate "cpu" line and anything merely starting with "cpu" (a
    // future key, a garbled line) are skipped.
    if (line.size() < 4 || line.substr(0, 3) != "cpu" || !isDigit(line[3])) continue;
    Fields fields(line);
    std::string_view field;
    fields.next(field);
    uint32_t index = 0;
    if (!parseWhole(field.substr(3), index)) continue;
    // user nice system idle [iowait irq softirq steal guest guest_nice]: kernels before 2.6 wrote
    // only the first four; a missing later field counts as 0. guest time is already inside user.
    uint64_t values[7] = {};
    int count = 0;
    bool bad = false;
    while (count < 7 && fields.next(field)) {
      if (!parseWhole(field, values[count])) {
        bad = true;
        break;
      }
      ++count;
    }
    if (bad || count < 4) continue;
    // Wrapping sums, then truncation: the counters are only ever used as 32-bit deltas, and
    // truncating after the sum equals summing the truncated parts modulo 2^32.
    CoreTicks ticks;
    ticks.user = static_cast<uint32_t>(values[0]);
    ticks.nice = static_cast<uint32_t>(values[1]);
    ticks.system = static_cast<uint32_t>(values[2] + values[5] + values[6]);
    ticks.idle = static_cast<uint32_t>(values[3] + values[4]);
    out.push_back(ticks);
  }
  return !out.empty();
}

MemInfo parseMeminfo(std::string_view text) {
  MemInfo info;
  struct Key {
    std::string_view name;
    std::optional<uint64_t> MemInfo::*field;
  };
  static constexpr Key keys[] = {
      {"MemTotal", &MemInfo::memTotal},     {"AnonPages", &MemInfo::anonPages},
      {"SUnreclaim", &MemInfo::sUnreclaim}, {"KernelStack", &MemInfo::kernelStack},
      {"PageTables", &MemInfo::pageTables}, {"Unevictable", &MemInfo::unevictable},
      {"Zswap", &MemInfo::zswap},           {"Buffers", &MemInfo::buffers},
      {"Cached", &MemInfo::cached},         {"SReclaimable", &MemInfo::sReclaimable},
      {"Shmem", &MemInfo::shmem},           {"SwapTotal", &MemInfo::swapTotal},
      {"SwapFree", &MemInfo::swapFree},
  };
  Lines lines(text);
  std::string_view line;
  while (lines.next(line)) {
    auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string_view name = line.substr(0, colon);
    const Key* key = nullptr;
    for (const Key& k : keys) {
      if (k.name == name) {
        key = &k;
        break;
      }
    }
    if (!key) continue;
    Fields fields(line.substr(colon + 1));
    std::string_view number, unit;
    uint64_t value = 0;
    if (!fields.next(number) || !parseWhole(number, value)) continue;
    // Every field read here is in kB (KiB); a line with another unit is not one the kernel wrote.
    if (fields.next(unit) && unit != "kB") continue;
    info.*(key->field) = mulSat(value, 1024);
  }
  return info;
}

MemoryFigures memoryFromMeminfo(const MemInfo& info, uint64_t zramUsed) {
  auto v = [](const std::optional<uint64_t>& field) { return field.value_or(0); };
  MemoryFigures figures;
  figures.app = v(info.anonPages);
  figures.wired = addSat(addSat(v(info.sUnreclaim), v(info.kernelStack)),
                         addSat(v(info.pageTables), v(info.unevictable)));
  figures.compressed = addSat(v(info.zswap), zramUsed);
  // Shmem (tmpfs, shared anonymous memory) is counted inside Cached but cannot simply be dropped
  // like file cache, so it is taken out; it can exceed the rest on a machine with a large tmpfs.
  uint64_t cache = addSat(addSat(v(info.buffers), v(info.cached)), v(info.sReclaimable));
  figures.cached = cache > v(info.shmem) ? cache - v(info.shmem) : 0;
  figures.swapTotal = v(info.swapTotal);
  figures.swapUsed =
      figures.swapTotal > v(info.swapFree) ? figures.swapTotal - v(info.swapFree) : 0;
  return figures;
}

uint64_t parseZramUsed(std::string_view text) {
  // orig_data_size compr_data_size mem_used_total mem_limit mem_used_max same_pages ...
  Fields fields(text);
  std::string_view field;
  for (int i = 0; i < 3; ++i) {
    if (!fields.next(field)) return 0;
  }
  uint64_t value = 0;
  return parseWhole(field, value) ? value : 0;
}

Pressure parseMemoryPressure(std::string_view text) {
  // "some avg10=0.00 avg60=0.00 avg300=0.00 total=0" and the same for "full".
  double some = 0;
  double full = 0;
  Lines lines(text);
  std::string_view line;
  while (lines.next(line)) {
    Fields fields(line);
    std::string_view kind, avg10;
    if (!fields.next(kind) || !fields.next(avg10)) continue;
    if (avg10.substr(0, 6) != "avg10=") continue;
    double value = 0;
    if (!parseDouble(avg10.substr(6), value) || !(value >= 0)) continue;
    if (kind == "some") {
      some = value;
    } else if (kind == "full") {
      full = value;
    }
  }
  if (full >= 20) return Pressure::critical;
  if (some >= 10 || full >= 5) return Pressure::warning;
  return Pressure::normal;
}

DiskCounters sumDiskstats(std::string_view text,
                          const std::function<bool(std::string_view name)>& include) {
  // major minor name reads reads_merged sectors_read ms_reading writes writes_merged
  // sectors_written ...; a sector here is always 512 bytes, whatever the device's own size.
  DiskCounters counters;
  Lines lines(text);
  std::string_view line;
  while (lines.next(line)) {
    Fields fields(line);
    std::string_view field[10];
    int count = 0;
    while (count < 10 && fields.next(field[count])) ++count;
    if (count < 10) continue;
    uint64_t sectorsRead = 0, sectorsWritten = 0;
    if (!parseWhole(field[5], sectorsRead) || !parseWhole(field[9], sectorsWritten)) continue;
    if (!include || !include(field[2])) continue;
    counters.read = addSat(counters.read, mulSat(sectorsRead, 512));
    counters.write = addSat(counters.write, mulSat(sectorsWritten, 512));
  }
  return counters;
}

std::vector<MountEntry> parseMountinfo(std::string_view text) {
  // id parent major:minor root mount-point options [optional fields...] - fstype source
  // super-options
  std::vector<MountEntry> entries;
  Lines lines(text);
  std::string_view line;
  while (lines.next(line)) {
    Fields fields(line);
    std::string_view id, parent, device, root, mountPoint, options;
    if (!fields.next(id) || !fields.next(parent) || !fields.next(device) || !fields.next(root) ||
        !fields.next(mountPoint) || !fields.next(options)) {
      continue;
    }
    auto colon = device.find(':');
    if (colon == std::string_view::npos) continue;
    MountEntry entry;
    if (!parseWhole(device.substr(0, colon), entry.major) ||
        !parseWhole(device.substr(colon + 1), entry.minor)) {
      continue;
    }
    std::string_view field;
    bool separator = false;
    while (fields.next(field)) {
      if (field == "-") {
        separator = true;
        break;
      }
    }
    std::string_view fsType, source;
    if (!separator || !fields.next(fsType) || !fields.next(source)) continue;
    entry.mountPoint = decodeOctalEscapes(mountPoint);
    entry.fsType = std::string(fsType);
    entry.source = decodeOctalEscapes(source);
    entries.push_back(std::move(entry));
  }
  return entries;
}

bool isRealFilesystem(std::string_view fsType, std::string_view mountPoint) {
  static constexpr std::string_view real[] = {
      "ext2",     "ext3",  "ext4",     "xfs",     "btrfs", "f2fs", "vfat", "exfat",
      "ntfs",     "ntfs3", "fuseblk",  "zfs",     "nfs",   "nfs4", "cifs", "smb3",
      "bcachefs", "jfs",   "reiserfs", "hfsplus", "apfs",  "ufs",
  };
  // A container's root is an overlay whose figures are those of the disk underneath; elsewhere an
  // overlay repeats a disk that is already listed.
  if (fsType == "overlay") return mountPoint == "/";
  for (std::string_view name : real) {
    if (fsType == name) return true;
  }
  return false;
}

std::optional<std::string> parseDefaultRoute(std::string_view text) {
  // Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT, hexadecimal addresses
  // and flags, a header line first.
  constexpr uint32_t kRouteUp = 0x1;  // RTF_UP
  std::optional<std::string> best;
  uint64_t bestMetric = 0;
  Lines lines(text);
  std::string_view line;
  while (lines.next(line)) {
    Fields fields(line);
    std::string_view iface, destination, gateway, flagsText, refCount, use, metricText;
    if (!fields.next(iface) || !fields.next(destination) || !fields.next(gateway) ||
        !fields.next(flagsText) || !fields.next(refCount) || !fields.next(use) ||
        !fields.next(metricText)) {
      continue;
    }
    uint32_t dest = 1, flags = 0;
    uint64_t metric = 0;
    if (!parseWhole(destination, dest, 16) || dest != 0) continue;
    if (!parseWhole(flagsText, flags, 16) || !(flags & kRouteUp)) continue;
    if (!parseWhole(metricText, metric)) continue;
    if (!best || metric < bestMetric) {
      best = std::string(iface);
      bestMetric = metric;
    }
  }
  return best;
}

std::string decodeOctalEscapes(std::string_view text) {
  return decodeEscapes(text, false);
}

std::string decodeDeviceLabel(std::string_view text) {
  return decodeEscapes(text, true);
}

std::array<double, 3> parseLoadavg(std::string_view text) {
  std::array<double, 3> load{};
  Fields fields(text);
  std::string_view field;
  for (double& value : load) {
    double parsed = 0;
    if (!fields.next(field) || !parseDouble(field, parsed) || !(parsed >= 0)) return {};
    value = parsed;
  }
  return load;
}

int countCPUList(std::string_view text) {
  while (!text.empty() && (isBlank(text.back()) || text.back() == '\n')) text.remove_suffix(1);
  if (text.empty()) return 0;
  // A CPU number above this is not a real machine's; it keeps a garbled range from counting
  // billions of cores.
  constexpr uint32_t kMaxCPU = 1 << 16;
  uint64_t count = 0;
  while (!text.empty()) {
    auto comma = text.find(',');
    std::string_view part = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    auto dash = part.find('-');
    uint32_t first = 0, last = 0;
    if (dash == std::string_view::npos) {
      if (!parseWhole(part, first)) return 0;
      last = first;
    } else if (!parseWhole(part.substr(0, dash), first) ||
               !parseWhole(part.substr(dash + 1), last)) {
      return 0;
    }
    if (last < first || last > kMaxCPU) return 0;
    count += last - first + 1;
  }
  return count > kMaxCPU ? 0 : static_cast<int>(count);
}

std::optional<uint64_t> parseSysfsNumber(std::string_view text) {
  while (!text.empty() && (isBlank(text.front()) || text.front() == '\n')) text.remove_prefix(1);
  while (!text.empty() && (isBlank(text.back()) || text.back() == '\n')) text.remove_suffix(1);
  uint64_t value = 0;
  if (!parseWhole(text, value)) return std::nullopt;
  return value;
}

}  // namespace vistrel
