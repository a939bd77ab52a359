#pragma once

namespace vistrel {

// The `--statusline` run mode: reads Claude Code's payload from standard input to its end, hands
// it to the status-line bridge and writes the line to standard output. Always returns 0. Claude
// Code starts it on every update, so it does nothing beyond that.
int runStatusLineMode();

}  // namespace vistrel
