/// Reading and replacing whole files.
#pragma once

#include <string>
#include <string_view>

namespace platform
{

/// Reads a regular file. On failure returns false and `error` says why.
bool file_read(const std::string &path, std::string &content, std::string &error);

/// Replaces the file's content so that after a crash at any moment the old or the new content is there whole.
/// The mode stays, and the owner where that is allowed. On failure returns false and `error` says why; the file is as
/// it was, or new but perhaps not yet safe from a power failure.
bool file_replace(const std::string &path, std::string_view content, std::string &error);

}  // namespace platform
