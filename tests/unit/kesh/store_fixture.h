/// Stores in a directory of their own, and payloads for them.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "store/store.h"
#include "store/store_copy.h"

namespace store_testing
{

namespace fs = std::filesystem;

constexpr uint64_t LIFE = 77;

struct want {
  uint64_t sequence;
  uint32_t attempt = 1;
  std::string text = "text";
};

inline std::string bytes_of(uint8_t origin, const std::vector<want> &items)
{
  kesh::payload made{origin, LIFE, {}};
  for (const want &one : items) {
    const bool is_no_op = one.text == "no-op";
    made.items.push_back({is_no_op ? kesh::item_kind::no_op : kesh::item_kind::line, one.sequence, one.attempt,
                          is_no_op ? std::string_view() : std::string_view(one.text)});
  }
  return kesh::payload_encode(made);
}

inline std::string read_file(const fs::path &path)
{
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_file(const fs::path &path, std::string_view bytes)
{
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class store_fixture : public testing::Test
{
protected:
  void SetUp() override
  {
    // Thousands of synced commits: in memory they take no time.
    const fs::path room = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string name = (room / "kesh_store_XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
  }
  void TearDown() override { fs::remove_all(directory); }

  std::string path(const std::string &name) const { return (directory / name).string(); }
  kesh::store_settings settings(const std::string &name) const { return {path(name), "cluster A", state_max}; }

  /// Opens the store, or makes it.
  std::unique_ptr<kesh::store> open(const std::string &name)
  {
    auto result = std::make_unique<kesh::store>();
    const auto found = result->open(settings(name), why);
    EXPECT_NE(found, kesh::store_found::unusable) << why;
    if (found == kesh::store_found::absent) {
      result->create();
    }
    return result;
  }

  /// As the library does: the entry before is that of the payload before.
  static kesh::applied apply(kesh::store &to, const std::string &bytes)
  {
    kesh::payload decoded;
    std::string fault;
    EXPECT_TRUE(kesh::payload_decode(bytes, decoded, fault)) << fault;
    return to.apply(bytes, decoded, {1, static_cast<uint32_t>(to.position().n + 1)});
  }
  /// Payloads of one line each, from node 2.
  static void apply_lines(kesh::store &to, uint64_t first, uint64_t last, const std::string &text = "text")
  {
    for (uint64_t i = first; i <= last; ++i) {
      apply(to, bytes_of(2, {{i, 1, text}}));
    }
  }

  static std::string state_of(kesh::store &from)
  {
    uint8_t *bytes = nullptr;
    uint32_t size = 0;
    from.encode_state(&bytes, &size);
    std::string state(reinterpret_cast<char *>(bytes), size);
    free(bytes);
    return state;
  }
  static kesh::adoption adopt(kesh::store &to, const std::string &state)
  {
    to.begin_adopt(state);
    return to.commit_adopt({1, 1}, {1, 2});
  }

  static void expect_same(kesh::store &a, kesh::store &b)
  {
    EXPECT_EQ(a.position().n, b.position().n);
    EXPECT_EQ(a.position().hash, b.position().hash);
    EXPECT_EQ(a.position().lines, b.position().lines);
  }
  static void expect_sound(const std::string &path)
  {
    const auto result = kesh::store_verify(path);
    EXPECT_EQ(result.fault, "") << path;
  }
  /// The only file whose name contains `part` and ends as the database's does.
  std::string aside_of(const std::string &name) const
  {
    std::string found;
    for (const auto &file : fs::directory_iterator(directory)) {
      const std::string one = file.path().filename().string();
      if (one.starts_with(name + ".aside-") && !one.ends_with("-wal")) {
        EXPECT_EQ(found, "") << "two were put aside";
        found = file.path().string();
      }
    }
    return found;
  }

  fs::path directory;
  std::string why;
  uint64_t state_max = 1 << 20;
};

}  // namespace store_testing
