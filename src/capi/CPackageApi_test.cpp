#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "tovrel/tovrel_c.h"

namespace {

using Tovrel::Testing::TempDir;

std::string PathOf(const TempDir& dir, const char* name) { return (dir.Path() / name).u8string(); }

std::vector<unsigned char> Pattern(std::size_t size, unsigned seed) {
  std::vector<unsigned char> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 31 + seed);
  return bytes;
}

// A package with three streams (a tail only, whole pages and a tail,
// empty) and user data, saved and closed; their identifiers in `ids`.
void Build(const std::string& path, std::vector<uint64_t>* ids) {
  tovrel_package* package = nullptr;
  ASSERT_EQ(tovrel_package_create(path.c_str(), nullptr, &package), TOVREL_OK);
  const std::vector<uint64_t> sizes = {100, 20000, 0};
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    uint64_t id = TOVREL_NO_STREAM;
    ASSERT_EQ(tovrel_package_stream_create(package, sizes[i], &id), TOVREL_OK);
    ids->push_back(id);
    tovrel_stream* stream = nullptr;
    if (sizes[i] == 0) {
      // A stream of no bytes has nothing to open.
      EXPECT_EQ(tovrel_package_stream_open(package, id, &stream), TOVREL_NOT_FOUND);
      continue;
    }
    ASSERT_EQ(tovrel_package_stream_open(package, id, &stream), TOVREL_OK);
    const std::vector<unsigned char> bytes = Pattern(sizes[i], static_cast<unsigned>(i));
    uint64_t done = 99;
    ASSERT_EQ(tovrel_stream_write(stream, bytes.data(), bytes.size(), &done), TOVREL_OK);
    EXPECT_EQ(done, sizes[i]);
    ASSERT_EQ(tovrel_stream_close(stream), TOVREL_OK);
  }
  const char userData[] = "user data";
  ASSERT_EQ(tovrel_package_user_data_set(package, userData, sizeof userData), TOVREL_OK);
  ASSERT_EQ(tovrel_package_save(package), TOVREL_OK);
  ASSERT_EQ(tovrel_package_close(package), TOVREL_OK);
}

std::vector<unsigned char> ReadStream(tovrel_package* package, uint64_t id) {
  tovrel_stream* stream = nullptr;
  EXPECT_EQ(tovrel_package_stream_open(package, id, &stream), TOVREL_OK);
  uint64_t size = 0;
  EXPECT_EQ(tovrel_stream_size(stream, &size), TOVREL_OK);
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size) + 10);
  uint64_t done = 0;
  EXPECT_EQ(tovrel_stream_read(stream, bytes.data(), bytes.size(), &done), TOVREL_OK);
  EXPECT_EQ(done, size) << "a read stops at the end";
  bytes.resize(static_cast<std::size_t>(done));
  EXPECT_EQ(tovrel_stream_close(stream), TOVREL_OK);
  return bytes;
}

TEST(CPackageApiTest, StreamsAndUserDataComeBackAfterReopening) {
  TempDir dir;
  const std::string path = PathOf(dir, "p.pkg");
  std::vector<uint64_t> ids;
  Build(path, &ids);
  tovrel_package* package = nullptr;
  ASSERT_EQ(tovrel_package_open(path.c_str(), nullptr, &package), TOVREL_OK);
  uint64_t count = 0;
  ASSERT_EQ(tovrel_package_stream_count(package, &count), TOVREL_OK);
  EXPECT_EQ(count, 3u);
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t id = 0;
    ASSERT_EQ(tovrel_package_stream_id(package, i, &id), TOVREL_OK);
    EXPECT_EQ(id, ids[i]);
  }
  uint64_t id = 0;
  EXPECT_EQ(tovrel_package_stream_id(package, 3, &id), TOVREL_NOT_FOUND);
  EXPECT_EQ(ReadStream(package, ids[0]), Pattern(100, 0));
  EXPECT_EQ(ReadStream(package, ids[1]), Pattern(20000, 1));
  tovrel_stream* empty = nullptr;
  EXPECT_EQ(tovrel_package_stream_open(package, ids[2], &empty), TOVREL_NOT_FOUND);
  uint64_t userSize = 0;
  ASSERT_EQ(tovrel_package_user_data_size(package, &userSize), TOVREL_OK);
  EXPECT_EQ(userSize, 10u);
  char user[16] = {};
  size_t size = 0;
  EXPECT_EQ(tovrel_package_user_data_get(package, user, 4, &size), TOVREL_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 10u);
  ASSERT_EQ(tovrel_package_user_data_get(package, user, sizeof user, &size), TOVREL_OK);
  EXPECT_STREQ(user, "user data");

  ASSERT_EQ(tovrel_package_stream_remove(package, ids[0]), TOVREL_OK);
  EXPECT_EQ(tovrel_package_stream_remove(package, ids[0]), TOVREL_NOT_FOUND);
  ASSERT_EQ(tovrel_package_close(package), TOVREL_OK);
  ASSERT_EQ(tovrel_package_open(path.c_str(), nullptr, &package), TOVREL_OK);
  ASSERT_EQ(tovrel_package_stream_count(package, &count), TOVREL_OK);
  EXPECT_EQ(count, 2u) << "close saved the removal";
  ASSERT_EQ(tovrel_package_close(package), TOVREL_OK);
}

TEST(CPackageApiTest, SeekPositionAndTheEndsOfAStream) {
  TempDir dir;
  const std::string path = PathOf(dir, "p.pkg");
  std::vector<uint64_t> ids;
  Build(path, &ids);
  tovrel_package* package = nullptr;
  ASSERT_EQ(tovrel_package_open(path.c_str(), nullptr, &package), TOVREL_OK);
  tovrel_stream* stream = nullptr;
  ASSERT_EQ(tovrel_package_stream_open(package, ids[1], &stream), TOVREL_OK);
  uint64_t position = 99;
  ASSERT_EQ(tovrel_stream_seek(stream, 2, -10), TOVREL_OK);
  ASSERT_EQ(tovrel_stream_position(stream, &position), TOVREL_OK);
  EXPECT_EQ(position, 19990u);
  EXPECT_EQ(tovrel_stream_seek(stream, 1, 11), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_stream_seek(stream, 0, -1), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_stream_seek(stream, 3, 0), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_stream_seek(stream, -1, 0), TOVREL_INVALID_ARGUMENT);
  ASSERT_EQ(tovrel_stream_position(stream, &position), TOVREL_OK);
  EXPECT_EQ(position, 19990u) << "a refused seek moves nothing";
  unsigned char bytes[32];
  uint64_t done = 0;
  ASSERT_EQ(tovrel_stream_write(stream, bytes, sizeof bytes, &done), TOVREL_OK);
  EXPECT_EQ(done, 10u) << "a write stops at the end: streams do not grow";
  EXPECT_EQ(tovrel_stream_read(stream, bytes, sizeof bytes, &done), TOVREL_OK);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(tovrel_stream_read(stream, nullptr, 0, &done), TOVREL_OK);
  EXPECT_EQ(tovrel_stream_read(stream, nullptr, 5, &done), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_stream_read(stream, bytes, 5, nullptr), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_stream_write(stream, nullptr, 5, &done), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_stream_position(stream, nullptr), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_stream_size(stream, nullptr), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_stream_close(stream), TOVREL_OK);
  EXPECT_EQ(tovrel_package_close(package), TOVREL_OK);
}

TEST(CPackageApiTest, OpenAndCreateRefuseWhatTheyCannotUse) {
  TempDir dir;
  tovrel_package* package = nullptr;
  const std::string missing = PathOf(dir, "missing.pkg");
  EXPECT_EQ(tovrel_package_open(missing.c_str(), nullptr, &package), TOVREL_NOT_FOUND);
  EXPECT_EQ(tovrel_package_open_read_only(missing.c_str(), nullptr, &package), TOVREL_NOT_FOUND);
  EXPECT_FALSE(std::filesystem::exists(missing)) << "opening makes no file";
  const std::string garbage = PathOf(dir, "garbage.pkg");
  std::ofstream(garbage, std::ios::binary) << std::string(20000, 'g');
  EXPECT_EQ(tovrel_package_open(garbage.c_str(), nullptr, &package), TOVREL_DAMAGED);
  EXPECT_EQ(tovrel_package_open(nullptr, nullptr, &package), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_package_create((dir.Path().u8string() + "/x\xff").c_str(), nullptr, &package), TOVREL_BAD_NAME);
  EXPECT_EQ(tovrel_package_create(PathOf(dir, "p.pkg").c_str(), nullptr, nullptr), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_package_create(PathOf(dir, "no-folder/p.pkg").c_str(), nullptr, &package), TOVREL_IO_ERROR);
  tovrel_package_options options;
  EXPECT_EQ(tovrel_package_options_init(nullptr), TOVREL_INVALID_ARGUMENT);
  ASSERT_EQ(tovrel_package_options_init(&options), TOVREL_OK);
  options.struct_size = 1;
  EXPECT_EQ(tovrel_package_create(PathOf(dir, "p.pkg").c_str(), &options, &package), TOVREL_INVALID_ARGUMENT);
  tovrel_package_options_init(&options);
  options.stream_limit = 0;
  EXPECT_EQ(tovrel_package_create(PathOf(dir, "p.pkg").c_str(), &options, &package), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(package, nullptr);
}

TEST(CPackageApiTest, LimitsOpenStreamsAndClosedHandlesGetTheirStatus) {
  TempDir dir;
  tovrel_package_options options;
  tovrel_package_options_init(&options);
  options.stream_limit = 2;
  tovrel_package* package = nullptr;
  ASSERT_EQ(tovrel_package_create(PathOf(dir, "p.pkg").c_str(), &options, &package), TOVREL_OK);
  uint64_t id = 0;
  EXPECT_EQ(tovrel_package_stream_create(package, 2147483648u, &id), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_package_stream_create(package, 10, nullptr), TOVREL_INVALID_ARGUMENT);
  uint64_t first = 0;
  ASSERT_EQ(tovrel_package_stream_create(package, 10, &first), TOVREL_OK);
  ASSERT_EQ(tovrel_package_stream_create(package, 10, &id), TOVREL_OK);
  EXPECT_EQ(tovrel_package_stream_create(package, 10, &id), TOVREL_REFUSED) << "past the stream limit";
  tovrel_stream* stream = nullptr;
  ASSERT_EQ(tovrel_package_stream_open(package, first, &stream), TOVREL_OK);
  tovrel_stream* again = nullptr;
  EXPECT_EQ(tovrel_package_stream_open(package, first, &again), TOVREL_BUSY);
  EXPECT_EQ(tovrel_package_stream_remove(package, first), TOVREL_BUSY);
  EXPECT_EQ(tovrel_package_stream_open(package, 12345, &again), TOVREL_NOT_FOUND);
  EXPECT_EQ(tovrel_package_stream_open(package, first, nullptr), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_package_user_data_set(package, nullptr, 3), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_package_user_data_get(package, nullptr, 3, nullptr), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_package_stream_count(package, nullptr), TOVREL_INVALID_ARGUMENT);

  // The package's handle ends before its stream's: the stream still works.
  const unsigned char bytes[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  uint64_t done = 0;
  ASSERT_EQ(tovrel_package_close(package), TOVREL_OK);
  EXPECT_EQ(tovrel_package_save(package), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_package_close(package), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_stream_write(stream, bytes, sizeof bytes, &done), TOVREL_OK);
  EXPECT_EQ(done, 10u);
  ASSERT_EQ(tovrel_stream_close(stream), TOVREL_OK);
  EXPECT_EQ(tovrel_stream_close(stream), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_stream_read(stream, nullptr, 0, &done), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_stream_seek(nullptr, 0, 0), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_package_stream_count(nullptr, &id), TOVREL_INVALID_HANDLE);

  ASSERT_EQ(tovrel_package_open(PathOf(dir, "p.pkg").c_str(), &options, &package), TOVREL_OK);
  unsigned char back[10] = {};
  ASSERT_EQ(tovrel_package_stream_open(package, first, &stream), TOVREL_OK);
  ASSERT_EQ(tovrel_stream_read(stream, back, sizeof back, &done), TOVREL_OK);
  EXPECT_EQ(std::vector<unsigned char>(back, back + 10), std::vector<unsigned char>(bytes, bytes + 10))
      << "the last stream's close saved what it wrote";
  EXPECT_EQ(tovrel_stream_close(stream), TOVREL_OK);
  EXPECT_EQ(tovrel_package_close(package), TOVREL_OK);
}

TEST(CPackageApiTest, AReadOnlyPackageRefusesEveryWriteAndLeavesTheFileAlone) {
  TempDir dir;
  const std::string path = PathOf(dir, "p.pkg");
  std::vector<uint64_t> ids;
  Build(path, &ids);
  const std::vector<std::uint8_t> before = TempDir::ReadAll(dir.File("p.pkg"));
  tovrel_package* package = nullptr;
  ASSERT_EQ(tovrel_package_open_read_only(path.c_str(), nullptr, &package), TOVREL_OK);
  EXPECT_EQ(ReadStream(package, ids[1]), Pattern(20000, 1));
  uint64_t id = 0;
  EXPECT_EQ(tovrel_package_stream_create(package, 10, &id), TOVREL_READ_ONLY);
  EXPECT_EQ(tovrel_package_stream_remove(package, ids[0]), TOVREL_READ_ONLY);
  EXPECT_EQ(tovrel_package_user_data_set(package, "x", 1), TOVREL_READ_ONLY);
  EXPECT_EQ(tovrel_package_save(package), TOVREL_READ_ONLY);
  tovrel_stream* stream = nullptr;
  ASSERT_EQ(tovrel_package_stream_open(package, ids[1], &stream), TOVREL_OK);
  const unsigned char bytes[4] = {9, 9, 9, 9};
  uint64_t done = 0;
  EXPECT_EQ(tovrel_stream_write(stream, bytes, sizeof bytes, &done), TOVREL_READ_ONLY);
  EXPECT_EQ(tovrel_stream_close(stream), TOVREL_OK);
  EXPECT_EQ(tovrel_package_close(package), TOVREL_OK);
  EXPECT_EQ(TempDir::ReadAll(dir.File("p.pkg")), before);
}

}  // namespace
