#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "effectcache/EffectRecord.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "tovrel/tovrel_c.h"

namespace {

using Tovrel::Testing::TempDir;

std::string Utf8(const TempDir& dir) { return dir.Path().u8string(); }

std::vector<unsigned char> Bytes(std::size_t size, unsigned seed) {
  std::vector<unsigned char> bytes(size);
  std::uint32_t x = seed * 2654435761u + 1;
  for (std::size_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    bytes[i] = static_cast<unsigned char>((x >> 16) % 7 + (i % 13));
  }
  return bytes;
}

tovrel_effect_cache* Open(const std::string& folder) {
  tovrel_effect_cache* cache = nullptr;
  EXPECT_EQ(tovrel_effect_cache_open(folder.c_str(), nullptr, &cache), TOVREL_OK);
  return cache;
}

tovrel_status Put(tovrel_effect_cache* cache, const std::string& name, const std::vector<unsigned char>& bytes,
                  int permanent = 0) {
  return tovrel_effect_cache_put(cache, name.data(), name.size(), bytes.data(), bytes.size(), permanent);
}

std::vector<unsigned char> Get(tovrel_effect_cache* cache, const std::string& name, tovrel_status* status) {
  void* data = nullptr;
  size_t size = 0;
  *status = tovrel_effect_cache_get_alloc(cache, name.data(), name.size(), &data, &size);
  std::vector<unsigned char> out;
  if (*status == TOVREL_OK) out.assign(static_cast<unsigned char*>(data), static_cast<unsigned char*>(data) + size);
  tovrel_free(data);
  return out;
}

void ExpectFound(tovrel_effect_cache* cache, const std::string& name, const std::vector<unsigned char>& bytes) {
  tovrel_status status = TOVREL_INTERNAL_ERROR;
  EXPECT_EQ(Get(cache, name, &status), bytes) << name;
  EXPECT_EQ(status, TOVREL_OK) << name;
}

TEST(CEffectCacheApiTest, EffectsCachedSavedAndFoundAgainAfterReopening) {
  TempDir dir;
  tovrel_effect_cache* cache = Open(Utf8(dir));
  ASSERT_NE(cache, nullptr);
  const std::string zeroInside("with\0zero", 9);
  const std::vector<std::string> names = {"a", "fx/long/name", "\xc3\xa9t\xc3\xa9 \xe2\x9c\x93", zeroInside};
  for (unsigned i = 0; i < names.size(); ++i) EXPECT_EQ(Put(cache, names[i], Bytes(1000 + 5000 * i, i)), TOVREL_OK);
  uint64_t inMemory = 0;
  uint64_t inFile = 0;
  ASSERT_EQ(tovrel_effect_cache_counts(cache, &inMemory, &inFile), TOVREL_OK);
  EXPECT_EQ(inMemory, names.size());
  EXPECT_EQ(inFile, 0u);
  for (unsigned i = 0; i < names.size(); ++i) ExpectFound(cache, names[i], Bytes(1000 + 5000 * i, i));
  ASSERT_EQ(tovrel_effect_cache_save(cache), TOVREL_OK);
  ASSERT_EQ(tovrel_effect_cache_counts(cache, &inMemory, &inFile), TOVREL_OK);
  EXPECT_EQ(inMemory, 0u);
  EXPECT_EQ(inFile, names.size());
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);

  cache = Open(Utf8(dir));
  for (unsigned i = 0; i < names.size(); ++i) ExpectFound(cache, names[i], Bytes(1000 + 5000 * i, i));
  tovrel_status status = TOVREL_OK;
  Get(cache, "missing", &status);
  EXPECT_EQ(status, TOVREL_NOT_FOUND);
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);
}

TEST(CEffectCacheApiTest, ABufferTooSmallGetsTheSizeNeededAndNothingElse) {
  TempDir dir;
  tovrel_effect_cache* cache = Open(Utf8(dir));
  const std::vector<unsigned char> bytes = Bytes(3000, 7);
  ASSERT_EQ(Put(cache, "fx", bytes), TOVREL_OK);
  size_t size = 0;
  EXPECT_EQ(tovrel_effect_cache_get(cache, "fx", 2, nullptr, 0, &size), TOVREL_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, bytes.size());
  std::vector<unsigned char> buffer(bytes.size() - 1, 0xEE);
  size = 0;
  EXPECT_EQ(tovrel_effect_cache_get(cache, "fx", 2, buffer.data(), buffer.size(), &size), TOVREL_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, bytes.size());
  EXPECT_EQ(buffer, std::vector<unsigned char>(bytes.size() - 1, 0xEE));
  buffer.assign(bytes.size() + 10, 0);
  EXPECT_EQ(tovrel_effect_cache_get(cache, "fx", 2, buffer.data(), buffer.size(), &size), TOVREL_OK);
  EXPECT_EQ(size, bytes.size());
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), buffer.begin()));
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);
}

TEST(CEffectCacheApiTest, BadInputGetsItsStatusAndLosesNothingStored) {
  TempDir dir;
  tovrel_effect_cache* cache = Open(Utf8(dir));
  const std::vector<unsigned char> bytes = Bytes(500, 1);
  ASSERT_EQ(Put(cache, "kept", bytes), TOVREL_OK);
  ASSERT_EQ(tovrel_effect_cache_save(cache), TOVREL_OK);
  ASSERT_EQ(Put(cache, "waiting", bytes), TOVREL_OK);

  size_t size = 0;
  void* data = nullptr;
  uint64_t count = 0;
  EXPECT_EQ(tovrel_effect_cache_put(nullptr, "n", 1, bytes.data(), bytes.size(), 0), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_effect_cache_get(nullptr, "n", 1, nullptr, 0, &size), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_effect_cache_get_alloc(nullptr, "n", 1, &data, &size), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_effect_cache_save(nullptr), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_effect_cache_counts(nullptr, &count, &count), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_effect_cache_close(nullptr), TOVREL_INVALID_HANDLE);
  int notAHandle = 0;
  EXPECT_EQ(tovrel_effect_cache_save(reinterpret_cast<tovrel_effect_cache*>(&notAHandle)), TOVREL_INVALID_HANDLE);

  EXPECT_EQ(tovrel_effect_cache_put(cache, nullptr, 4, bytes.data(), bytes.size(), 0), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_effect_cache_put(cache, "n", 0, bytes.data(), bytes.size(), 0), TOVREL_BAD_NAME);
  EXPECT_EQ(tovrel_effect_cache_put(cache, "x\xff", 2, bytes.data(), bytes.size(), 0), TOVREL_BAD_NAME);
  EXPECT_EQ(tovrel_effect_cache_put(cache, "\xed\xa0\x80", 3, bytes.data(), bytes.size(), 0), TOVREL_BAD_NAME);
  const std::string longest(65536, 'n');
  const std::string tooLong(65537, 'n');
  EXPECT_EQ(Put(cache, tooLong, bytes), TOVREL_BAD_NAME);
  EXPECT_EQ(Put(cache, longest, bytes), TOVREL_OK);
  EXPECT_EQ(tovrel_effect_cache_put(cache, "n", 1, nullptr, 10, 0), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_effect_cache_put(cache, "n", 1, bytes.data(), 0, 0), TOVREL_INVALID_ARGUMENT);
  const std::vector<unsigned char> huge(1048577, 1);
  EXPECT_EQ(Put(cache, "n", huge), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(Put(cache, "largest", std::vector<unsigned char>(huge.begin(), huge.end() - 1)), TOVREL_OK);
  EXPECT_EQ(tovrel_effect_cache_get(cache, "kept", 4, nullptr, 10, &size), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_effect_cache_get(cache, "kept", 4, nullptr, 0, nullptr), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_effect_cache_get(cache, "x\xff", 2, nullptr, 0, &size), TOVREL_BAD_NAME);
  EXPECT_EQ(tovrel_effect_cache_get_alloc(cache, "kept", 4, nullptr, &size), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_effect_cache_get_alloc(cache, "kept", 4, &data, nullptr), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_effect_cache_counts(cache, nullptr, nullptr), TOVREL_INVALID_ARGUMENT);

  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);
  EXPECT_EQ(tovrel_effect_cache_put(cache, "n", 1, bytes.data(), bytes.size(), 0), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_effect_cache_get(cache, "kept", 4, nullptr, 0, &size), TOVREL_INVALID_HANDLE);
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_INVALID_HANDLE);

  cache = Open(Utf8(dir));
  ExpectFound(cache, "kept", bytes);
  ExpectFound(cache, "waiting", bytes);
  ExpectFound(cache, longest, bytes);
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);
}

TEST(CEffectCacheApiTest, OpenRefusesBadFoldersAndOptions) {
  TempDir dir;
  tovrel_effect_cache* cache = nullptr;
  EXPECT_EQ(tovrel_effect_cache_open(nullptr, nullptr, &cache), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_effect_cache_open("", nullptr, &cache), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(tovrel_effect_cache_open((Utf8(dir) + "/\xff").c_str(), nullptr, &cache), TOVREL_BAD_NAME);
  EXPECT_EQ(tovrel_effect_cache_open(Utf8(dir).c_str(), nullptr, nullptr), TOVREL_INVALID_ARGUMENT);
  tovrel_effect_cache_options options;
  EXPECT_EQ(tovrel_effect_cache_options_init(nullptr), TOVREL_INVALID_ARGUMENT);
  ASSERT_EQ(tovrel_effect_cache_options_init(&options), TOVREL_OK);
  EXPECT_EQ(options.compression_level, 2);
  EXPECT_EQ(options.background_saving, -1);
  options.struct_size = 4;
  EXPECT_EQ(tovrel_effect_cache_open(Utf8(dir).c_str(), &options, &cache), TOVREL_INVALID_ARGUMENT);
  tovrel_effect_cache_options_init(&options);
  options.compression_level = 10;
  EXPECT_EQ(tovrel_effect_cache_open(Utf8(dir).c_str(), &options, &cache), TOVREL_INVALID_ARGUMENT);
  tovrel_effect_cache_options_init(&options);
  options.background_saving = 2;
  EXPECT_EQ(tovrel_effect_cache_open(Utf8(dir).c_str(), &options, &cache), TOVREL_INVALID_ARGUMENT);
  tovrel_effect_cache_options_init(&options);
  options.remote_store = "no store at all";
  EXPECT_EQ(tovrel_effect_cache_open(Utf8(dir).c_str(), &options, &cache), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(cache, nullptr);
}

TEST(CEffectCacheApiTest, TheOptionsReachTheCache) {
  TempDir fast;
  TempDir small;
  tovrel_effect_cache_options options;
  tovrel_effect_cache_options_init(&options);
  options.background_saving = 1;
  options.compression_level = 0;
  tovrel_effect_cache* stored = nullptr;
  ASSERT_EQ(tovrel_effect_cache_open(Utf8(fast).c_str(), &options, &stored), TOVREL_OK);
  options.background_saving = 0;
  options.compression_level = 9;
  tovrel_effect_cache* packed = nullptr;
  ASSERT_EQ(tovrel_effect_cache_open(Utf8(small).c_str(), &options, &packed), TOVREL_OK);
  for (unsigned i = 0; i < 20; ++i) {
    const std::string name = "fx" + std::to_string(i);
    ASSERT_EQ(Put(stored, name, Bytes(20000, i)), TOVREL_OK);
    ASSERT_EQ(Put(packed, name, Bytes(20000, i)), TOVREL_OK);
  }
  EXPECT_EQ(tovrel_effect_cache_close(stored), TOVREL_OK);
  EXPECT_EQ(tovrel_effect_cache_close(packed), TOVREL_OK);
  tovrel_effect_cache_stats level0{};
  tovrel_effect_cache_stats level9{};
  ASSERT_EQ(tovrel_effect_cache_stats_read(Utf8(fast).c_str(), &level0), TOVREL_OK);
  ASSERT_EQ(tovrel_effect_cache_stats_read(Utf8(small).c_str(), &level9), TOVREL_OK);
  EXPECT_EQ(level0.effects, 20u);
  EXPECT_EQ(level9.effects, 20u);
  EXPECT_EQ(level0.effect_bytes, 20u * 20000u);
  // Level 0 stores the bytes as they are (plus zlib's framing).
  EXPECT_GT(level0.stored_bytes, level0.effect_bytes);
  EXPECT_LT(level9.stored_bytes, level0.stored_bytes);
  EXPECT_EQ(level0.cached, 20u);
}

TEST(CEffectCacheApiTest, ACacheWhoseFileCannotBeMadeAnswersUnusable) {
  TempDir dir;
  const std::string notAFolder = Utf8(dir) + "/plain-file";
  std::ofstream(dir.Path() / "plain-file") << "x";
  tovrel_effect_cache* cache = Open(notAFolder);
  ASSERT_NE(cache, nullptr);
  const std::vector<unsigned char> bytes = Bytes(100, 3);
  EXPECT_EQ(Put(cache, "fx", bytes), TOVREL_UNUSABLE);
  size_t size = 0;
  EXPECT_EQ(tovrel_effect_cache_get(cache, "fx", 2, nullptr, 0, &size), TOVREL_UNUSABLE);
  EXPECT_EQ(tovrel_effect_cache_save(cache), TOVREL_UNUSABLE);
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_UNUSABLE);
}

struct Listed {
  std::vector<std::string> names;
  std::vector<tovrel_effect_info> infos;
  int stopAfter = 1000;
};

int ListOne(void* context, const tovrel_effect_info* effect) {
  Listed& listed = *static_cast<Listed*>(context);
  listed.names.emplace_back(effect->name, effect->name_size);
  listed.infos.push_back(*effect);
  return static_cast<int>(listed.names.size()) >= listed.stopAfter ? 1 : 0;
}

void Fill(const TempDir& dir, unsigned count) {
  tovrel_effect_cache* cache = Open(Utf8(dir));
  for (unsigned i = 0; i < count; ++i) {
    ASSERT_EQ(Put(cache, "fx" + std::to_string(i), Bytes(4000 + i * 100, i), i == 0 ? 1 : 0), TOVREL_OK);
  }
  ASSERT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);
}

TEST(CEffectCacheApiTest, ListAndStatisticsTellWhatTheFileHolds) {
  TempDir dir;
  Fill(dir, 5);
  Listed listed;
  ASSERT_EQ(tovrel_effect_cache_list(Utf8(dir).c_str(), &ListOne, &listed), TOVREL_OK);
  ASSERT_EQ(listed.names.size(), 5u);
  for (unsigned i = 0; i < 5; ++i) {
    EXPECT_EQ(listed.names[i], "fx" + std::to_string(i));
    EXPECT_EQ(listed.infos[i].size, 4000u + i * 100);
    EXPECT_GT(listed.infos[i].stored_size, 0u);
    EXPECT_EQ(listed.infos[i].permanent, i == 0 ? 1 : 0);
    EXPECT_GT(listed.infos[i].last_used, 1600000000);
  }
  Listed stopped;
  stopped.stopAfter = 2;
  EXPECT_EQ(tovrel_effect_cache_list(Utf8(dir).c_str(), &ListOne, &stopped), TOVREL_OK);
  EXPECT_EQ(stopped.names.size(), 2u);
  EXPECT_EQ(tovrel_effect_cache_list(Utf8(dir).c_str(), nullptr, nullptr), TOVREL_INVALID_ARGUMENT);

  tovrel_effect_cache_stats stats{};
  ASSERT_EQ(tovrel_effect_cache_stats_read(Utf8(dir).c_str(), &stats), TOVREL_OK);
  EXPECT_EQ(stats.effects, 5u);
  EXPECT_EQ(stats.cached, 5u);
  EXPECT_GT(stats.file_bytes, stats.stored_bytes);
  EXPECT_EQ(tovrel_effect_cache_stats_read(Utf8(dir).c_str(), nullptr), TOVREL_INVALID_ARGUMENT);

  TempDir empty;
  EXPECT_EQ(tovrel_effect_cache_stats_read(Utf8(empty).c_str(), &stats), TOVREL_NOT_FOUND);
  EXPECT_EQ(tovrel_effect_cache_list(Utf8(empty).c_str(), &ListOne, &listed), TOVREL_NOT_FOUND);
  std::ofstream(empty.Path() / "norvaneFxoCache.dat", std::ios::binary) << std::string(20000, 'g');
  EXPECT_EQ(tovrel_effect_cache_stats_read(Utf8(empty).c_str(), &stats), TOVREL_DAMAGED);
}

TEST(CEffectCacheApiTest, MaintenanceRemovesTrimsClearsAndCompacts) {
  TempDir dir;
  Fill(dir, 6);
  tovrel_maintenance_result result{};
  const char* names[] = {"fx1", "absent"};
  const size_t sizes[] = {3, 6};
  ASSERT_EQ(tovrel_effect_cache_remove(Utf8(dir).c_str(), names, sizes, 2, 1, &result), TOVREL_OK);
  EXPECT_EQ(result.removed_effects, 1u);
  EXPECT_EQ(result.names_not_found, 1u);
  tovrel_effect_cache_stats stats{};
  ASSERT_EQ(tovrel_effect_cache_stats_read(Utf8(dir).c_str(), &stats), TOVREL_OK);
  EXPECT_EQ(stats.effects, 6u) << "a dry run writes nothing";
  ASSERT_EQ(tovrel_effect_cache_remove(Utf8(dir).c_str(), names, sizes, 2, 0, &result), TOVREL_OK);
  ASSERT_EQ(tovrel_effect_cache_stats_read(Utf8(dir).c_str(), &stats), TOVREL_OK);
  EXPECT_EQ(stats.effects, 5u);
  const char* bad[] = {"x\xff"};
  const size_t badSizes[] = {2};
  EXPECT_EQ(tovrel_effect_cache_remove(Utf8(dir).c_str(), bad, badSizes, 1, 0, &result), TOVREL_BAD_NAME);
  EXPECT_EQ(tovrel_effect_cache_remove(Utf8(dir).c_str(), nullptr, nullptr, 1, 0, &result), TOVREL_INVALID_ARGUMENT);

  ASSERT_EQ(tovrel_effect_cache_trim(Utf8(dir).c_str(), 1, -1, 0, &result), TOVREL_OK);
  EXPECT_EQ(result.removed_effects, 4u);
  EXPECT_EQ(result.kept_effects, 1u) << "the permanent effect stays";
  EXPECT_EQ(tovrel_effect_cache_trim(Utf8(dir).c_str(), UINT64_MAX, -2, 0, &result), TOVREL_INVALID_ARGUMENT);

  uint64_t before = 0;
  uint64_t after = 0;
  ASSERT_EQ(tovrel_effect_cache_compact(Utf8(dir).c_str(), &before, &after), TOVREL_OK);
  EXPECT_GT(after, 0u);
  EXPECT_LE(after, before);
  uint64_t problems = 99;
  ASSERT_EQ(tovrel_effect_cache_verify(Utf8(dir).c_str(), nullptr, nullptr, &problems), TOVREL_OK);
  EXPECT_EQ(problems, 0u);
  tovrel_effect_cache* cache = Open(Utf8(dir));
  ExpectFound(cache, "fx0", Bytes(4000, 0));
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);

  ASSERT_EQ(tovrel_effect_cache_clear(Utf8(dir).c_str(), 1, 0, &result), TOVREL_OK);
  EXPECT_EQ(result.kept_effects, 1u);
  ASSERT_EQ(tovrel_effect_cache_clear(Utf8(dir).c_str(), 0, 0, &result), TOVREL_OK);
  EXPECT_EQ(result.removed_effects, 1u);
  EXPECT_EQ(result.kept_effects, 0u);

  TempDir empty;
  EXPECT_EQ(tovrel_effect_cache_clear(Utf8(empty).c_str(), 0, 0, &result), TOVREL_NOT_FOUND);
  EXPECT_EQ(tovrel_effect_cache_trim(Utf8(empty).c_str(), 1, -1, 0, &result), TOVREL_NOT_FOUND);
  EXPECT_EQ(tovrel_effect_cache_compact(Utf8(empty).c_str(), &before, &after), TOVREL_NOT_FOUND);
  EXPECT_FALSE(std::filesystem::exists(empty.Path() / "norvaneFxoCache.dat")) << "no cache is made where there was none";
}

TEST(CEffectCacheApiTest, MaintenanceOnADamagedFileAnswersDamagedAndChangesNothing) {
  TempDir dir;
  Fill(dir, 4);
  const std::wstring file = dir.File("norvaneFxoCache.dat");
  Tovrel::Testing::EffectTesting::PatchRecord(file, "fx2", [](Tovrel::EffectRecord& r) { r.streamId += 100000; });
  const std::vector<std::uint8_t> before = TempDir::ReadAll(file);
  tovrel_maintenance_result result{};
  uint64_t bytes = 0;
  EXPECT_EQ(tovrel_effect_cache_compact(Utf8(dir).c_str(), &bytes, &bytes), TOVREL_DAMAGED);
  EXPECT_EQ(tovrel_effect_cache_trim(Utf8(dir).c_str(), 1, -1, 0, &result), TOVREL_DAMAGED);
  EXPECT_EQ(tovrel_effect_cache_clear(Utf8(dir).c_str(), 0, 0, &result), TOVREL_DAMAGED);
  EXPECT_EQ(TempDir::ReadAll(file), before);
  uint64_t problems = 0;
  EXPECT_EQ(tovrel_effect_cache_verify(Utf8(dir).c_str(), nullptr, nullptr, &problems), TOVREL_OK);
  EXPECT_GE(problems, 1u);
}

int Collect(void* context, const char* text, size_t size) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(text, size);
  return 0;
}

TEST(CEffectCacheApiTest, VerifyFindsNothingInASoundCacheAndTheDamageInAnother) {
  TempDir dir;
  Fill(dir, 4);
  std::vector<std::string> problems;
  uint64_t count = 99;
  ASSERT_EQ(tovrel_effect_cache_verify(Utf8(dir).c_str(), &Collect, &problems, &count), TOVREL_OK);
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(problems.empty());

  // At level 0 an effect's bytes sit in the file as they are: change one.
  const std::vector<unsigned char> effect = Bytes(4200, 2);
  TempDir scratch;
  tovrel_effect_cache_options options;
  tovrel_effect_cache_options_init(&options);
  options.compression_level = 0;
  tovrel_effect_cache* plain = nullptr;
  ASSERT_EQ(tovrel_effect_cache_open(Utf8(scratch).c_str(), &options, &plain), TOVREL_OK);
  ASSERT_EQ(Put(plain, "plain", effect), TOVREL_OK);
  ASSERT_EQ(tovrel_effect_cache_close(plain), TOVREL_OK);
  const std::wstring plainFile = scratch.File("norvaneFxoCache.dat");
  std::vector<std::uint8_t> stored = TempDir::ReadAll(plainFile);
  const auto at = std::search(stored.begin(), stored.end(), effect.begin() + 100, effect.begin() + 164);
  ASSERT_NE(at, stored.end());
  *at ^= 0x55;
  TempDir::WriteAll(plainFile, stored);
  problems.clear();
  ASSERT_EQ(tovrel_effect_cache_verify(Utf8(scratch).c_str(), &Collect, &problems, &count), TOVREL_OK);
  EXPECT_EQ(count, 1u);
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("plain"), std::string::npos) << problems[0];
  EXPECT_EQ(tovrel_effect_cache_verify(Utf8(scratch).c_str(), nullptr, nullptr, &count), TOVREL_OK);
  EXPECT_EQ(count, 1u);

  EXPECT_EQ(tovrel_effect_cache_verify(Utf8(dir).c_str(), nullptr, nullptr, nullptr), TOVREL_INVALID_ARGUMENT);
  TempDir empty;
  EXPECT_EQ(tovrel_effect_cache_verify(Utf8(empty).c_str(), nullptr, nullptr, &count), TOVREL_NOT_FOUND);
}

TEST(CEffectCacheApiTest, ThreadsSearchOneHandleAtOnce) {
  TempDir dir;
  Fill(dir, 8);
  tovrel_effect_cache* cache = Open(Utf8(dir));
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([cache, t, &wrong] {
      for (int round = 0; round < 50; ++round) {
        const unsigned i = static_cast<unsigned>((round + t) % 8);
        tovrel_status status = TOVREL_INTERNAL_ERROR;
        if (Get(cache, "fx" + std::to_string(i), &status) != Bytes(4000 + i * 100, i) || status != TOVREL_OK) {
          ++wrong[t];
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);
}

TEST(CEffectCacheApiTest, ThreadsSearchingWhileAnotherClosesSeeTheEffectOrAnEndedHandle) {
  TempDir dir;
  Fill(dir, 4);
  tovrel_effect_cache* cache = Open(Utf8(dir));
  std::atomic<int> unexpected{0};
  std::atomic<int> ended{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 400; ++round) {
        tovrel_status status = TOVREL_INTERNAL_ERROR;
        const std::vector<unsigned char> found = Get(cache, "fx1", &status);
        if (status == TOVREL_INVALID_HANDLE) {
          ++ended;
        } else if (status != TOVREL_OK || found != Bytes(4100, 1)) {
          ++unexpected;
        }
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_OK);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(unexpected.load(), 0);
  EXPECT_EQ(tovrel_effect_cache_close(cache), TOVREL_INVALID_HANDLE);
}

}  // namespace
