// Writes the remote object fuzz target's seed corpus: objects the library
// itself makes (name length byte, name, object), one file each in the
// folder given as the only argument, their effects compressed at level 6,
// and at the cache's level 2 and at level 0, one of them signed.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "effectcache/EffectCompression.h"
#include "effectcache/RemoteEffectObject.h"

namespace {

void Write(const std::filesystem::path& folder, const std::string& file, const std::string& name,
           const std::vector<std::uint8_t>& bytes, bool permanent, int level = 6,
           const std::vector<std::uint8_t>* key = nullptr) {
  std::vector<std::uint8_t> compressed(Tovrel::EffectCompression::CompressBound(bytes.size()));
  std::uint64_t length = compressed.size();
  Tovrel::EffectCompression::CompressEffect(compressed.data(), length, bytes.data(), bytes.size(), level);
  const std::vector<std::uint8_t> object =
      Tovrel::RemoteEffectObject::Encode(name, permanent, bytes.size(), compressed.data(), length, key);
  std::ofstream out(folder / file, std::ios::binary);
  out.put(static_cast<char>(name.size()));
  out.write(name.data(), static_cast<std::streamsize>(name.size()));
  out.write(reinterpret_cast<const char*>(object.data()), static_cast<std::streamsize>(object.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::filesystem::path folder(argv[1]);
  std::vector<std::uint8_t> text(3000);
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<std::uint8_t>("shader "[i % 7]);
  std::vector<std::uint8_t> noise(700);
  std::uint32_t x = 12345;
  for (auto& b : noise) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    b = static_cast<std::uint8_t>(x);
  }
  Write(folder, "text", "fx/water.fxo", text, false);
  Write(folder, "noise-permanent", "fx/fire.fxo", noise, true);
  Write(folder, "one-byte", "a", std::vector<std::uint8_t>(1, 7), false);
  // At the cache's level: one block of dynamic codes, which libdeflate
  // decodes; and stored blocks (level 0).
  std::vector<std::uint8_t> bytecode(2500);
  for (std::size_t i = 0; i < bytecode.size(); ++i) bytecode[i] = static_cast<std::uint8_t>((i * 37) % 23 + i / 300);
  Write(folder, "bytecode-level-2", "fx/sky.fxo", bytecode, false, 2);
  Write(folder, "noise-level-0", "fx/ash.fxo", noise, false, 0);
  // Signed with the key the target's keyed reader holds.
  const std::vector<std::uint8_t> key(32, 0x5A);
  Write(folder, "bytecode-signed", "fx/ice.fxo", bytecode, true, 2, &key);
  return 0;
}
