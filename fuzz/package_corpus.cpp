// Writes the fuzz target's seed corpus: small packages of several shapes,
// made by the library itself, one file each, into the folder given as the
// only argument.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tovrel/tovrel.h"

namespace {

void Fill(Tovrel::IDataStreamSet& package, std::uint64_t size, unsigned seed) {
  const std::uint64_t id = package.CreateStream(size);
  RefPtr<Tovrel::IDataStream> stream = package.OpenStream(id);
  if (!stream) return;
  std::vector<unsigned char> bytes(size);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 13 + seed);
  stream->Write(bytes.data(), bytes.size());
}

struct Shape {
  const char* name;
  std::function<void(Tovrel::IDataStreamSet&)> make;
};

const std::vector<Shape>& Shapes() {
  static const std::vector<Shape> shapes{
      {"empty", [](Tovrel::IDataStreamSet&) {}},
      {"one-tail", [](Tovrel::IDataStreamSet& p) { Fill(p, 100, 1); }},
      {"whole-pages", [](Tovrel::IDataStreamSet& p) { Fill(p, 2 * 8192, 2); }},
      {"pages-and-crossing-tail",
       [](Tovrel::IDataStreamSet& p) {
         Fill(p, 8000, 3);
         Fill(p, 8192 + 1000, 4);
         Fill(p, 0, 5);
       }},
      {"user-data",
       [](Tovrel::IDataStreamSet& p) {
         Fill(p, 30, 6);
         p.SetUserDataSize(40);
         std::memset(p.GetUserData(), 0x55, 40);
       }},
      {"removed-and-compacted",
       [](Tovrel::IDataStreamSet& p) {
         for (unsigned i = 0; i < 5; ++i) Fill(p, 1000 + 700 * i, 7 + i);
         p.RemoveStream(1);
         p.RemoveStream(3);
       }},
      {"two-child-files",
       [](Tovrel::IDataStreamSet& p) {
         for (unsigned i = 0; i < 9; ++i) Fill(p, 7900, 20 + i);
       }},
      {"long-head-chain",
       [](Tovrel::IDataStreamSet& p) {
         for (unsigned i = 0; i < 300; ++i) p.CreateStream(i % 3 == 0 ? 0 : 1 + i % 7);
       }},
  };
  return shapes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: package_corpus FOLDER\n");
    return 2;
  }
  const std::filesystem::path folder(argv[1]);
  std::filesystem::create_directories(folder);
  for (const Shape& shape : Shapes()) {
    const std::wstring path = (folder / shape.name).wstring();
    RefPtr<Tovrel::IDataStreamSet> package = Tovrel::CreateFilePackage({path.c_str(), 16, 65535});
    if (!package) {
      std::fprintf(stderr, "cannot create %s\n", shape.name);
      return 1;
    }
    shape.make(*package);
    if (!package->Save()) return 1;
  }
  return 0;
}
