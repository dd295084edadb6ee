#include "platform/HmacSha256.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Tovrel {
namespace {

std::string Hex(const std::uint8_t* bytes, std::size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (std::size_t i = 0; i < size; ++i) {
    hex.push_back(kDigits[bytes[i] >> 4]);
    hex.push_back(kDigits[bytes[i] & 15]);
  }
  return hex;
}

std::string Mac(const std::vector<std::uint8_t>& key, const std::string& data) {
  std::uint8_t mac[HmacSha256::kSize] = {};
  EXPECT_TRUE(HmacSha256::Compute(key.data(), key.size(), reinterpret_cast<const std::uint8_t*>(data.data()),
                                  data.size(), mac));
  return Hex(mac, sizeof mac);
}

// RFC 4231's test cases 1, 2, 6 and 7 (a key shorter than a block, a
// short key, keys longer than a block), and a MAC of nothing.
TEST(HmacSha256Test, GivesRfc4231sValues) {
  EXPECT_EQ(Mac(std::vector<std::uint8_t>(20, 0x0b), "Hi There"),
            "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
  EXPECT_EQ(Mac({'J', 'e', 'f', 'e'}, "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(Mac(std::vector<std::uint8_t>(131, 0xaa), "Test Using Larger Than Block-Size Key - Hash Key First"),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
  EXPECT_EQ(Mac(std::vector<std::uint8_t>(131, 0xaa),
                "This is a test using a larger than block-size key and a larger than block-size data. The key "
                "needs to be hashed before being used by the HMAC algorithm."),
            "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2");
  EXPECT_EQ(Mac(std::vector<std::uint8_t>(32, 1), ""), Mac(std::vector<std::uint8_t>(32, 1), std::string()));
  EXPECT_NE(Mac(std::vector<std::uint8_t>(32, 1), "a"), Mac(std::vector<std::uint8_t>(32, 2), "a"));
}

TEST(HmacSha256Test, SameComparesEveryByte) {
  std::uint8_t a[HmacSha256::kSize] = {};
  std::uint8_t b[HmacSha256::kSize] = {};
  EXPECT_TRUE(HmacSha256::Same(a, b));
  for (std::size_t i = 0; i < HmacSha256::kSize; ++i) {
    b[i] = 0x80;
    EXPECT_FALSE(HmacSha256::Same(a, b)) << i;
    b[i] = 0;
  }
}

}  // namespace
}  // namespace Tovrel
