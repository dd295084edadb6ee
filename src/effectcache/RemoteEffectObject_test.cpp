#include "effectcache/RemoteEffectObject.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCompression.h"
#include "pagefile/LittleEndian.h"
#include "platform/HmacSha256.h"
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

std::vector<std::uint8_t> Encode(const Effect& effect, bool permanent, const std::vector<std::uint8_t>* key = nullptr) {
  return RemoteEffectObject::Encode(effect.name, permanent, effect.bytes.size(), effect.compressed.data(),
                                    effect.compressed.size(), key);
}

Result Decode(const std::vector<std::uint8_t>& object, const std::string& name, bool* permanent = nullptr,
              const std::vector<std::uint8_t>* key = nullptr) {
  Tab<unsigned char> data;
  return RemoteEffectObject::Decode(object.data(), object.size(), name, permanent, data, key);
}

std::vector<std::uint8_t> Key(std::uint8_t seed, std::size_t size = 32) {
  std::vector<std::uint8_t> key(size);
  for (std::size_t i = 0; i < size; ++i) key[i] = static_cast<std::uint8_t>(seed + i * 7);
  return key;
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
  EXPECT_EQ(Decode(patched(12, 4), "field"), Result::kFlags);
  EXPECT_EQ(Decode(patched(12, 0x80000000u), "field"), Result::kFlags);
  // Said to be signed, without the MAC's bytes.
  EXPECT_EQ(Decode(patched(12, 2), "field"), Result::kShort);
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
  const std::vector<std::uint8_t> key = Key(3);
  for (const std::vector<std::uint8_t>* signer : {static_cast<const std::vector<std::uint8_t>*>(nullptr), &key}) {
    const std::vector<std::uint8_t> object = Encode(effect, false, signer);
    EXPECT_LE(object.size(), RemoteEffectObject::SizeLimit());
    EXPECT_EQ(Decode(object, effect.name, nullptr, signer), Result::kOk);
  }
}

// A signed object is the unsigned one with the signed flag and the
// HMAC-SHA256 of everything before it appended.
TEST(RemoteEffectObjectTest, ASignedObjectCarriesTheMacOfItsBytes) {
  const Effect effect = Make("fx/signed", 6000, true);
  const std::vector<std::uint8_t> key = Key(9);
  const std::vector<std::uint8_t> plain = Encode(effect, true);
  const std::vector<std::uint8_t> object = Encode(effect, true, &key);
  ASSERT_EQ(object.size(), plain.size() + RemoteEffectObject::kMacSize);
  EXPECT_EQ(LittleEndian::Load32(object.data() + 12), 3u);  // permanent, signed
  EXPECT_TRUE(std::equal(plain.begin() + 16, plain.end(), object.begin() + 16));
  std::uint8_t mac[HmacSha256::kSize];
  ASSERT_TRUE(HmacSha256::Compute(key.data(), key.size(), object.data(), plain.size(), mac));
  EXPECT_TRUE(HmacSha256::Same(mac, object.data() + plain.size()));
  bool permanent = false;
  EXPECT_EQ(Decode(object, effect.name, &permanent, &key), Result::kOk);
  EXPECT_TRUE(permanent);
  // A reader without a key takes it as it would the unsigned one.
  permanent = false;
  EXPECT_EQ(Decode(object, effect.name, &permanent), Result::kOk);
  EXPECT_TRUE(permanent);
}

// With a key, only objects signed with that key are taken: unsigned ones,
// another key's, and any byte changed anywhere (header, name, compressed
// bytes, MAC) are refused before anything is decompressed.
TEST(RemoteEffectObjectTest, AKeyedReaderTakesOnlyItsKeysObjects) {
  const Effect effect = Make("fx/guarded", 3000, false);
  const std::vector<std::uint8_t> key = Key(1);
  const std::vector<std::uint8_t> other = Key(2);
  const std::vector<std::uint8_t> longer = Key(1, 33);
  EXPECT_EQ(Decode(Encode(effect, false), effect.name, nullptr, &key), Result::kUnsigned);
  EXPECT_EQ(Decode(Encode(effect, false, &other), effect.name, nullptr, &key), Result::kSignature);
  EXPECT_EQ(Decode(Encode(effect, false, &longer), effect.name, nullptr, &key), Result::kSignature);
  const std::vector<std::uint8_t> object = Encode(effect, false, &key);
  for (std::size_t at = 12; at < object.size(); ++at) {
    if (at >= 16 && at < 20) continue;  // the name's length: another name
    std::vector<std::uint8_t> changed = object;
    changed[at] ^= 0x01;
    const Result result = Decode(changed, effect.name, nullptr, &key);
    EXPECT_NE(result, Result::kOk) << at;
    if (at >= RemoteEffectObject::kHeaderSize + effect.name.size()) {
      EXPECT_EQ(result, Result::kSignature) << at;
    }
  }
  // Without the signed flag, the same bytes are an unsigned object's of
  // the wrong length.
  std::vector<std::uint8_t> stripped = object;
  LittleEndian::Store32(stripped.data() + 12, 0);
  EXPECT_EQ(Decode(stripped, effect.name, nullptr, &key), Result::kSize);
  stripped.resize(stripped.size() - RemoteEffectObject::kMacSize);
  EXPECT_EQ(Decode(stripped, effect.name, nullptr, &key), Result::kUnsigned);
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
