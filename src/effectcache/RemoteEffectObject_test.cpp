#include "effectcache/RemoteEffectObject.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCompression.h"
#include "pagefile/LittleEndian.h"
#include "support/EffectTesting.h"

namespace Tovrel {
namespace {

using Testing::EffectTesting;
using Result = RemoteEffectObject::Result;

struct Effect {
  std::string name;
  std::vector<unsigned char> bytes;
  std::vector<std::uint8_t> compressed;
};

Effect Make(const std::string& name, std::size_t size, bool compressible) {
  Effect effect{name, EffectTesting::Bytes(static_cast<std::uint32_t>(size), size, compressible), {}};
  std::uint64_t length = EffectCompression::CompressBound(size);
  effect.compressed.resize(length);
  EXPECT_EQ(EffectCompression::CompressEffect(effect.compressed.data(), length, effect.bytes.data(), size, 6),
            EffectCompression::kOk);
  effect.compressed.resize(length);
  return effect;
}

std::vector<std::uint8_t> Encode(const Effect& effect, bool permanent) {
  return RemoteEffectObject::Encode(effect.name, permanent, effect.bytes.size(), effect.compressed.data(),
                                    effect.compressed.size());
}

Result Decode(const std::vector<std::uint8_t>& object, const std::string& name, bool* permanent = nullptr) {
  Tab<unsigned char> data;
  return RemoteEffectObject::Decode(object.data(), object.size(), name, permanent, data);
}

TEST(RemoteEffectObjectTest, AnObjectDecodesToItsEffectAndPermanence) {
  for (bool permanent : {false, true}) {
    const Effect effect = Make("shaders/water.fxo", 20000, true);
    const std::vector<std::uint8_t> object = Encode(effect, permanent);
    EXPECT_EQ(object.size(), RemoteEffectObject::kHeaderSize + effect.name.size() + effect.compressed.size());
    Tab<unsigned char> data;
    bool found = !permanent;
    ASSERT_EQ(RemoteEffectObject::Decode(object.data(), object.size(), effect.name, &found, data), Result::kOk);
    EXPECT_EQ(found, permanent);
    EXPECT_EQ(EffectTesting::ToVector(data), effect.bytes);
  }
}

TEST(RemoteEffectObjectTest, TheHeaderIsLaidOutAsDocumented) {
  const Effect effect = Make("a", 100, true);
  const std::vector<std::uint8_t> object = Encode(effect, true);
  EXPECT_EQ(std::string(object.begin(), object.begin() + 8), "TVRLFXOB");
  EXPECT_EQ(LittleEndian::Load32(object.data() + 8), 1u);
  EXPECT_EQ(LittleEndian::Load32(object.data() + 12), 1u);
  EXPECT_EQ(LittleEndian::Load32(object.data() + 16), 1u);
  EXPECT_EQ(LittleEndian::Load32(object.data() + 20), 100u);
  EXPECT_EQ(LittleEndian::Load32(object.data() + 24), effect.compressed.size());
  EXPECT_EQ(object[28], 'a');
}

TEST(RemoteEffectObjectTest, AnotherNamesObjectIsRefusedEvenOfTheSameLength) {
  const std::vector<std::uint8_t> object = Encode(Make("fx/aaaa", 500, true), false);
  EXPECT_EQ(Decode(object, "fx/aaab"), Result::kName);
  EXPECT_EQ(Decode(object, "fx/aaa"), Result::kName);
  EXPECT_EQ(Decode(object, ""), Result::kName);
}

TEST(RemoteEffectObjectTest, EveryTruncationIsRefused) {
  const Effect effect = Make("cut", 3000, false);
  const std::vector<std::uint8_t> object = Encode(effect, false);
  for (std::size_t n = 0; n < object.size(); ++n) {
    const std::vector<std::uint8_t> cut(object.begin(), object.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_NE(Decode(cut, "cut"), Result::kOk) << n;
  }
  std::vector<std::uint8_t> longer = object;
  longer.push_back(0);
  EXPECT_EQ(Decode(longer, "cut"), Result::kSize);
}

TEST(RemoteEffectObjectTest, DamagedFieldsAreRefused) {
  const Effect effect = Make("field", 4000, true);
  const std::vector<std::uint8_t> good = Encode(effect, false);
  const auto patched = [&](std::size_t at, std::uint32_t value) {
    std::vector<std::uint8_t> object = good;
    LittleEndian::Store32(object.data() + at, value);
    return object;
  };
  std::vector<std::uint8_t> tag = good;
  tag[0] = 'X';
  EXPECT_EQ(Decode(tag, "field"), Result::kTag);
  EXPECT_EQ(Decode(patched(8, 2), "field"), Result::kVersion);
  EXPECT_EQ(Decode(patched(12, 2), "field"), Result::kFlags);
  EXPECT_EQ(Decode(patched(20, 0), "field"), Result::kSize);
  EXPECT_EQ(Decode(patched(20, 1048577), "field"), Result::kSize);
  EXPECT_EQ(Decode(patched(24, 0), "field"), Result::kSize);
  EXPECT_EQ(Decode(patched(24, 0xFFFFFFFF), "field"), Result::kSize);
  // A recorded size one off: the bytes decompress to another length.
  EXPECT_EQ(Decode(patched(20, 3999), "field"), Result::kCorrupt);
  EXPECT_EQ(Decode(patched(20, 4001), "field"), Result::kCorrupt);
  std::vector<std::uint8_t> flipped = good;
  flipped[RemoteEffectObject::kHeaderSize + 5 + 10] ^= 0x40;
  EXPECT_EQ(Decode(flipped, "field"), Result::kCorrupt);
}

TEST(RemoteEffectObjectTest, GarbageIsRefusedWithoutCrashing) {
  std::mt19937 random(5);
  for (int i = 0; i < 2000; ++i) {
    std::vector<std::uint8_t> junk(random() % 200);
    for (auto& b : junk) b = static_cast<std::uint8_t>(random());
    if (junk.size() >= 8 && i % 2 == 0) std::copy_n("TVRLFXOB", 8, junk.begin());
    EXPECT_NE(Decode(junk, "x"), Result::kOk);
  }
  Tab<unsigned char> data;
  EXPECT_NE(RemoteEffectObject::Decode(nullptr, 10, "x", nullptr, data), Result::kOk);
}

TEST(RemoteEffectObjectTest, TheLargestEffectFitsTheSizeLimit) {
  const Effect effect = Make(std::string(EffectCacheImpl::kEffectNameSizeLimit, 'n'), 1048576, false);
  const std::vector<std::uint8_t> object = Encode(effect, false);
  EXPECT_LE(object.size(), RemoteEffectObject::SizeLimit());
  EXPECT_EQ(Decode(object, effect.name), Result::kOk);
}

TEST(RemoteEffectObjectTest, KeysAreStableSpreadOverFoldersAndDistinct) {
  // The key of a name must never change: stores written by one version are
  // read by the next.
  EXPECT_EQ(RemoteEffectObject::KeyFor("shaders/water.fxo"),
            RemoteEffectObject::KeyFor("shaders/water.fxo"));
  const std::string key = RemoteEffectObject::KeyFor("a");
  ASSERT_EQ(key.size(), 38u);
  EXPECT_EQ(key[2], '/');
  EXPECT_EQ(key[5], '/');
  EXPECT_EQ(key.substr(0, 2), key.substr(6, 2));
  EXPECT_EQ(key.substr(3, 2), key.substr(8, 2));
  EXPECT_EQ(key, "02/c0/02c0bdbf481420f8a4e626d07eda00bc");
  std::set<std::string> keys;
  std::set<std::string> folders;
  for (int i = 0; i < 5000; ++i) {
    const std::string k = RemoteEffectObject::KeyFor("fx/" + std::to_string(i));
    keys.insert(k);
    folders.insert(k.substr(0, 2));
  }
  EXPECT_EQ(keys.size(), 5000u);
  EXPECT_EQ(folders.size(), 256u);
}

}  // namespace
}  // namespace Tovrel
