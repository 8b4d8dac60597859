#include "sim_disk.h"

#include <algorithm>

namespace sim
{

namespace
{

std::string directory_of(const std::string &path)
{
  return path.substr(0, path.rfind('/'));
}

}  // namespace

sim_disk::file_ptr sim_disk::find(const std::string &path) const
{
  const auto at = names_.find(path);
  return at == names_.end() ? nullptr : at->second;
}

sim_disk::file_ptr sim_disk::create(const std::string &path)
{
  if (directories_.count(directory_of(path)) == 0) {
    return nullptr;
  }
  auto made = std::make_shared<file>();
  names_[path] = made;
  changes_.push_back({{path, made}});
  return made;
}

bool sim_disk::rename(const std::string &from, const std::string &to)
{
  const auto at = names_.find(from);
  if (at == names_.end()) {
    return false;
  }
  const file_ptr moved = at->second;
  names_.erase(at);
  names_[to] = moved;
  changes_.push_back({{from, nullptr}, {to, moved}});
  return true;
}

bool sim_disk::unlink(const std::string &path)
{
  if (names_.erase(path) == 0) {
    return false;
  }
  changes_.push_back({{path, nullptr}});
  return true;
}

void sim_disk::truncate(const std::string &path)
{
  const file_ptr one = find(path);
  one->bytes.clear();
  one->is_clean = one->on_disk.empty();
  changes_.push_back({{path, one}});  // so that sync() finds it
}

void sim_disk::write(file &one, size_t at, const uint8_t *bytes, size_t size)
{
  if (size == 0) {
    return;
  }
  one.bytes.resize(std::max(one.bytes.size(), at + size));
  std::copy_n(bytes, size, one.bytes.begin() + static_cast<ptrdiff_t>(at));
  one.is_clean = false;
}

void sim_disk::datasync(file &one)
{
  if (!one.is_clean) {
    one.on_disk = one.bytes;
    one.is_clean = true;
  }
}

void sim_disk::sync()
{
  // Only names that changed since the last sync can name a file that is not clean.
  for (const std::vector<change> &step : changes_) {
    for (const change &one : step) {
      if (one.to != nullptr) {
        if (!sync_fails_for || one.name.find(*sync_fails_for) == std::string::npos) {
          datasync(*one.to);
        }
        names_on_disk_[one.name] = one.to;
      } else {
        names_on_disk_.erase(one.name);
      }
    }
  }
  changes_.clear();
}

void sim_disk::make_directory(const std::string &path)
{
  directories_.insert(path);  // a payload's file is synced after it: no need to lose one
}

void sim_disk::remove_directory(const std::string &path)
{
  directories_.erase(path);
}

bool sim_disk::is_durable(const std::string &path) const
{
  const auto at = names_on_disk_.find(path);
  return at != names_on_disk_.end() && at->second->is_clean && at->second == find(path);
}

std::vector<std::string> sim_disk::list(const std::string &directory) const
{
  std::vector<std::string> found;
  const std::string prefix = directory + "/";
  for (auto at = names_.lower_bound(prefix); at != names_.end() && at->first.starts_with(prefix); ++at) {
    const std::string name = at->first.substr(prefix.size());
    if (name.find('/') == std::string::npos) {
      found.push_back(name);
    }
  }
  return found;
}

void sim_disk::cut_power(draw &from)
{
  const size_t kept = from.below(changes_.size() + 1);
  for (size_t i = 0; i < kept; ++i) {
    for (const change &one : changes_[i]) {
      if (one.to != nullptr) {
        names_on_disk_[one.name] = one.to;
      } else {
        names_on_disk_.erase(one.name);
      }
    }
  }
  changes_.clear();
  for (auto &[name, one] : names_on_disk_) {
    if (one->is_clean) {
      continue;
    }
    switch (from.below(3)) {
    case 0:
      one->bytes = one->on_disk;
      break;
    case 1:
      break;
    default:
      one->bytes.resize(from.below(one->bytes.size() + 1));
      break;
    }
    one->on_disk = one->bytes;
    one->is_clean = true;
  }
  names_ = names_on_disk_;
}

void sim_disk::empty()
{
  names_.clear();
  names_on_disk_.clear();
  changes_.clear();
  directories_ = {"/flashdisk/cons", "/var/run"};
}

void sim_disk::put(const std::string &path, const std::string &bytes)
{
  auto made = std::make_shared<file>();
  made->bytes.assign(bytes.begin(), bytes.end());
  made->on_disk = made->bytes;
  names_[path] = made;
  names_on_disk_[path] = made;
}

std::optional<std::string> sim_disk::get(const std::string &path) const
{
  const file_ptr one = find(path);
  if (one == nullptr) {
    return std::nullopt;
  }
  return std::string(one->bytes.begin(), one->bytes.end());
}

}  // namespace sim
