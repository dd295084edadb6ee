#include "support/EffectTesting.h"

#include <random>
#include <stdexcept>

#include "pagefile/LittleEndian.h"
#include "tovrel/tovrel.h"

namespace Tovrel {
namespace Testing {

namespace {

RefPtr<IDataStreamSet> OpenPackage(const std::wstring& file) {
  PagedFilePackageConfig config{file.c_str(), 64, 65535};
  RefPtr<IDataStreamSet> package = OpenFilePackage(config);
  if (!package) throw std::runtime_error("not a package");
  return package;
}

EffectCacheHeader HeaderOf(const IDataStreamSet& package, std::uint64_t* at) {
  *at = EffectCacheHeader::FindBlock(package.GetUserData(), package.GetUserDataSize());
  EffectCacheHeader header{};
  if (!EffectCacheHeader::Read(package.GetUserData(), package.GetUserDataSize(), header)) {
    throw std::runtime_error("no header");
  }
  return header;
}

struct IndexEntry {
  std::string name;
  EffectRecord record;
};

std::vector<IndexEntry> EntriesOf(IDataStreamSet& package, const EffectCacheHeader& header) {
  RefPtr<IDataStream> index = package.OpenStream(header.indexStreamId);
  if (!index) throw std::runtime_error("no index");
  std::vector<IndexEntry> entries;
  for (std::uint64_t i = 0; i < header.effectCount; ++i) {
    std::uint8_t bytes[EffectRecord::kSize + 8];
    if (index->Read(bytes, sizeof bytes) != sizeof bytes) throw std::runtime_error("short index");
    IndexEntry entry{std::string(LittleEndian::Load64(bytes + EffectRecord::kSize), '\0'), EffectRecord::Decode(bytes)};
    if (index->Read(&entry.name[0], entry.name.size()) != entry.name.size()) throw std::runtime_error("short name");
    entries.push_back(entry);
  }
  return entries;
}

}  // namespace

std::vector<unsigned char> EffectTesting::Bytes(std::uint32_t seed, std::size_t size, bool compressible) {
  std::mt19937 random(seed);
  std::vector<unsigned char> bytes(size);
  if (!compressible) {
    for (auto& b : bytes) b = static_cast<unsigned char>(random());
    return bytes;
  }
  // Instruction-like words: a few opcodes, small register numbers, and an
  // occasional random constant.
  for (std::size_t i = 0; i < size; ++i) {
    const std::uint32_t r = random();
    switch (i % 8) {
      case 0: bytes[i] = static_cast<unsigned char>(0x40 + r % 12); break;
      case 1: case 2: bytes[i] = static_cast<unsigned char>(r % 16); break;
      case 3: bytes[i] = 0; break;
      default: bytes[i] = static_cast<unsigned char>(r % 5 == 0 ? r >> 8 : 0); break;
    }
  }
  return bytes;
}

std::vector<unsigned char> EffectTesting::ToVector(const Tab<unsigned char>& tab) {
  return tab.Count() == 0 ? std::vector<unsigned char>() : std::vector<unsigned char>(tab.Addr(0), tab.Addr(0) + tab.Count());
}

EffectTesting::FileShape EffectTesting::Shape(const std::wstring& file) {
  RefPtr<IDataStreamSet> package = OpenPackage(file);
  std::uint64_t at = 0;
  FileShape shape{HeaderOf(*package, &at), 0, package->GetNumberOfStreams(), package->GetTotalStreamSize()};
  RefPtr<IDataStream> index = package->OpenStream(shape.header.indexStreamId);
  shape.indexSize = index ? index->GetSize() : 0;
  return shape;
}

std::map<std::string, EffectRecord> EffectTesting::ReadIndex(const std::wstring& file) {
  RefPtr<IDataStreamSet> package = OpenPackage(file);
  std::uint64_t at = 0;
  std::map<std::string, EffectRecord> records;
  for (const IndexEntry& e : EntriesOf(*package, HeaderOf(*package, &at))) records[e.name] = e.record;
  return records;
}

std::vector<std::string> EffectTesting::IndexNames(const std::wstring& file) {
  RefPtr<IDataStreamSet> package = OpenPackage(file);
  std::uint64_t at = 0;
  std::vector<std::string> names;
  for (const IndexEntry& e : EntriesOf(*package, HeaderOf(*package, &at))) names.push_back(e.name);
  return names;
}

void EffectTesting::PatchRecord(const std::wstring& file, const std::string& name,
                                const std::function<void(EffectRecord&)>& change) {
  RefPtr<IDataStreamSet> package = OpenPackage(file);
  std::uint64_t at = 0;
  const EffectCacheHeader header = HeaderOf(*package, &at);
  std::uint64_t offset = 0;
  for (IndexEntry& e : EntriesOf(*package, header)) {
    if (e.name == name) {
      change(e.record);
      std::uint8_t bytes[EffectRecord::kSize];
      e.record.Encode(bytes);
      RefPtr<IDataStream> index = package->OpenStream(header.indexStreamId);
      index->Seek(0, static_cast<std::int32_t>(offset));
      if (index->Write(bytes, sizeof bytes) != sizeof bytes) throw std::runtime_error("short write");
      if (!package->Save()) throw std::runtime_error("save failed");
      return;
    }
    offset += EffectRecord::kSize + 8 + e.name.size();
  }
  throw std::runtime_error("no such effect");
}

void EffectTesting::PatchHeader(const std::wstring& file, const std::function<void(EffectCacheHeader&)>& change) {
  RefPtr<IDataStreamSet> package = OpenPackage(file);
  std::uint64_t at = 0;
  EffectCacheHeader header = HeaderOf(*package, &at);
  change(header);
  header.Encode(package->GetUserData() + at + EffectCacheHeader::kBlockHeadSize);
  if (!package->Save()) throw std::runtime_error("save failed");
}

}  // namespace Testing
}  // namespace Tovrel
