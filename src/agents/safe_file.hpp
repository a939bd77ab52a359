#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace vistrel {

// Puts a finished temporary file in place of its target (the system's rename by default). Tests
// inject a failing step to stand for a crash between a backup and the rename: the target must then
// be exactly as it was.
using RenameStep = std::function<bool(const std::string& from, const std::string& to)>;

// Replaces `target` with `bytes` so that a reader (or a crash) only ever sees the old file or the
// new one whole: the bytes go to a temporary file in the target's folder, which is renamed over
// the target. `durable` flushes the file and the folder to disk (the user's own files); records
// that the next update rewrites anyway skip it. A target that is a symbolic link keeps the link:
// the file it points to is replaced. An existing target's permissions are kept; a new file gets
// owner-only ones. On failure the temporary file is removed and the target left untouched.
bool replaceFile(const std::string& target, std::string_view bytes, bool durable,
                 const RenameStep& rename = {});

// Creates `path`, which must not exist yet, with `bytes`, flushed to disk (backups: an earlier one
// is never overwritten). On failure nothing is left behind.
bool writeNewFile(const std::string& path, std::string_view bytes);

}  // namespace vistrel
