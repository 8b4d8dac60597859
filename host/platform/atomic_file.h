/// Reading and replacing whole files.
#pragma once

#include <string>
#include <string_view>

namespace platform
{

/// Reads a regular file. On failure returns false and `error` says why.
bool file_read(const std::string &path, std::string &content, std::string &error);

/// Replaces the file's content. After a crash at any moment the file holds the whole old or the whole new content.
/// The mode stays, and so does the owner where that is allowed. On failure returns false and `error` says why. The file
/// is then as it was, or new but perhaps not yet safe from a power failure.
bool file_replace(const std::string &path, std::string_view content, std::string &error);

}  // namespace platform
