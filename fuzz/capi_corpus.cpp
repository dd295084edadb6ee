// Writes the C interface fuzz target's seed corpus: call programs, in the
// target's encoding, that reach past the argument checks: a cache that
// opens, keeps, finds, saves, verifies and closes an effect; a package
// with a stream written, read back, saved and closed; maintenance on a
// cache that holds an effect. One file each in the folder given as the
// only argument.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Program = std::vector<std::uint8_t>;

// Calls of the target's four kinds (the first byte of each call).
enum : std::uint8_t { kCache = 0, kFolder = 1, kPackage = 2, kStream = 3 };
// A byte that picks the first live handle of its kind.
constexpr std::uint8_t kLive = 2;
// Size(): a 16-bit number, high byte first.
Program Bytes16(std::uint8_t high) { return {2, high, 0}; }

void Append(Program& to, const Program& more) { to.insert(to.end(), more.begin(), more.end()); }

Program CacheRoundTrip() {
  Program p;
  // open folder "-a" with options (level 2, background off)
  Append(p, {kCache, kLive, 2, 'f', 'x', 1, 0, 2, 1, 1, 0, 1});
  // put "fx", 256 bytes, not permanent
  Append(p, {kCache, kLive, 2, 'f', 'x', 1, 2, 1});
  Append(p, Bytes16(1));
  Append(p, {0});
  // get "fx" into 4096 bytes
  Append(p, {kCache, kLive, 2, 'f', 'x', 1, 3, 1});
  Append(p, Bytes16(16));
  Append(p, {1});
  // save, verify the folder, close
  Append(p, {kCache, kLive, 0, 1, 5});
  Append(p, {kFolder, 0, 0, 1, 2, 1, 1});
  Append(p, {kCache, kLive, 0, 1, 1});
  return p;
}

Program PackageRoundTrip() {
  Program p;
  // create "-a.pkg" with 3 pages and 5 streams
  Append(p, {kPackage, kLive, 0, 3, 5, 0, 1, 0});
  // a stream of 12288 bytes, opened (the first identifier, 0)
  Append(p, {kPackage, kLive, 4});
  Append(p, Bytes16(0x30));
  Append(p, {1});
  Append(p, {kPackage, kLive, 6, 0, 1});
  // write 4096 bytes, seek to 0, read 4096 bytes
  Append(p, {kStream, kLive, 2, 1});
  Append(p, Bytes16(16));
  Append(p, {1});
  Append(p, {kStream, kLive, 3, 1, 0});
  Append(p, {kStream, kLive, 1, 1});
  Append(p, Bytes16(16));
  Append(p, {1});
  // save, close the stream, close the package
  Append(p, {kPackage, kLive, 3, kStream, kLive, 0, kPackage, kLive, 2});
  return p;
}

Program Maintenance() {
  Program p = CacheRoundTrip();
  // trim to 1 byte, no age rule (dry run, then for real), compact, clear
  Append(p, {kFolder, 0, 0, 1, 3, 1, 1, 2, 1, 1});
  Append(p, {kFolder, 0, 0, 1, 3, 1, 1, 2, 0, 1});
  Append(p, {kFolder, 0, 0, 1, 6, 1});
  Append(p, {kFolder, 0, 0, 1, 4, 0, 0});
  return p;
}

void Write(const std::filesystem::path& folder, const std::string& file, const Program& program) {
  std::ofstream out(folder / file, std::ios::binary);
  out.write(reinterpret_cast<const char*>(program.data()), static_cast<std::streamsize>(program.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::filesystem::path folder(argv[1]);
  Write(folder, "cache-round-trip", CacheRoundTrip());
  Write(folder, "package-round-trip", PackageRoundTrip());
  Write(folder, "maintenance", Maintenance());
  return 0;
}
