#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.hpp"

struct stat;

namespace vistrel {

// Reads a small file whole into `out` (replacing its contents, reusing its capacity). Reads at most
// `maxBytes`. False when the file cannot be opened or read; `out` is then empty. No iostreams: the
// readers call this on every tick.
bool readFile(const std::string& path, std::string& out, size_t maxBytes = 1 << 20);

// The same, returning the contents; nullopt when unreadable.
std::optional<std::string> readFile(const std::string& path, size_t maxBytes = 1 << 20);

// The first line of a file without its newline and surrounding blanks (sysfs attributes).
std::optional<std::string> readLine(const std::string& path);

// A sysfs-style file holding one unsigned decimal number.
std::optional<uint64_t> readNumber(const std::string& path);

// The names in a folder, without "." and "..", in the order the system lists them. Empty when the
// folder cannot be read.
std::vector<std::string> listFolder(const std::string& path);

bool pathExists(const std::string& path);

// The target of a symbolic link; nullopt when it is not a link or cannot be read.
std::optional<std::string> readLink(const std::string& path);

// Joins two path pieces with exactly one slash between them.
std::string joinPath(std::string_view a, std::string_view b);

// The last component of a path ("/Volumes/Data" -> "Data", "/" -> "").
std::string_view lastComponent(std::string_view path);

// A file's last modification from its stat record, in nanoseconds since 1970 (UTC). The field is
// spelled st_mtim on Linux and st_mtimespec on macOS; one definition per platform.
int64_t modifiedNanoseconds(const struct stat& info);

// The same as a date.
Date modifiedDate(const struct stat& info);

// Creates a folder and its parents (mode 0700 for new ones). True when it exists afterwards.
bool makeFolders(const std::string& path);

}  // namespace vistrel
