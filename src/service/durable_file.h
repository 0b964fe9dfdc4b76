// Small files that must survive a crash or a power cut whole: read at once,
// replaced atomically and durably, moved aside without ever overwriting.
#pragma once

#include <string>

/// Reads the whole of `path` into `text`.  0, or the errno of the failure
/// (ENOENT when there is no such file).
int read_whole_file(const std::string& path, std::string& text);

/// Replaces `path` by a file holding `text`: written to `path` + ".new" in
/// the same directory, synced, renamed over `path`, then the directory
/// synced, so that after a crash `path` holds either the old text or the
/// new one.  0, or the errno of the step that failed (the temporary file is
/// then removed and `path` is as it was).
int replace_file_durably(const std::string& path, const std::string& text);

/// Renames `path` to the first free name `path` + ".bad.N" (N from 1) in
/// the same directory; an existing file is never replaced.  0 with the new
/// name in `aside`, or the errno of the failure.
int move_file_aside(const std::string& path, std::string& aside);
