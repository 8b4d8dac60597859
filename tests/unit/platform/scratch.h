/// A directory that lives as long as the test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class scratch
{
public:
  scratch()
  {
    std::string name = (std::filesystem::temp_directory_path() / "platform_test.XXXXXX").string();
    path_ = mkdtemp(name.data());
  }
  ~scratch() { std::filesystem::remove_all(path_); }
  scratch(const scratch &) = delete;
  scratch &operator=(const scratch &) = delete;

  std::string path(const std::string &name) const { return path_ / name; }
  std::string write(const std::string &name, const std::string &text) const
  {
    std::ofstream(path(name)) << text;
    return path(name);
  }
  std::string read(const std::string &name) const
  {
    std::ifstream file(path(name));
    return {std::istreambuf_iterator<char>(file), {}};
  }

private:
  std::filesystem::path path_;
};
