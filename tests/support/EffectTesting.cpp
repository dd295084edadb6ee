#include "support/EffectTesting.h"

#include "effectcache/EffectCompression.h"

#include <array>
#include <random>
#include <stdexcept>

#include "pagefile/LittleEndian.h"
#include "support/CrashWorkload.h"
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
  // Eight-byte instructions drawn from a few dozen templates (opcode,
  // registers, swizzle, operand), with registers and constants varied now
  // and then, as compiled shaders repeat their instruction shapes.
  std::vector<std::uint32_t> constants(64);
  for (auto& k : constants) k = random();
  std::vector<std::array<unsigned char, 8>> templates(24);
  static const unsigned char kSwizzles[4] = {0xE4, 0x00, 0x55, 0xFF};
  for (auto& t : templates) {
    const std::uint32_t k = random() % 2 == 0 ? 0 : constants[random() % 64];
    t = {static_cast<unsigned char>(0x40 + random() % 12), static_cast<unsigned char>(random() % 8),
         static_cast<unsigned char>(random() % 8), kSwizzles[random() % 4], static_cast<unsigned char>(k),
         static_cast<unsigned char>(k >> 8), static_cast<unsigned char>(k >> 16), static_cast<unsigned char>(k >> 24)};
  }
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (std::size_t at = 0; at < size; at += 8) {
    std::array<unsigned char, 8> t = templates[random() % templates.size()];
    if (unit(random) < 0.4) t[1] = static_cast<unsigned char>(random() % 16);
    if (unit(random) < 0.17) {
      const std::uint32_t k = constants[random() % 64];
      for (int b = 0; b < 4; ++b) t[4 + b] = static_cast<unsigned char>(k >> (8 * b));
    }
    for (std::size_t b = 0; b < 8 && at + b < size; ++b) bytes[at + b] = t[b];
  }
  return bytes;
}

std::vector<std::uint8_t> EffectTesting::Compressed(const std::vector<unsigned char>& bytes) {
  std::vector<std::uint8_t> compressed(EffectCompression::CompressBound(bytes.size()));
  std::uint64_t length = compressed.size();
  EffectCompression::CompressEffect(compressed.data(), length, bytes.data(), bytes.size(), 2);
  compressed.resize(length);
  return compressed;
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

std::vector<unsigned char> EffectTesting::BytesNamedBy(const std::string& utf8Name) {
  const std::uint64_t digest =
      CrashWorkload::Digest(reinterpret_cast<const std::uint8_t*>(utf8Name.data()), utf8Name.size());
  return Bytes(static_cast<std::uint32_t>(digest), 2000 + digest % 30000, digest % 4 != 0);
}

bool EffectTesting::ReadStats(const std::wstring& file, EffectCacheStats& out) {
  RefPtr<IDataStreamSet> package = OpenPackage(file);
  return EffectCacheStats::Read(*package, out);
}

void EffectTesting::ReverseIndex(const std::wstring& file) {
  RefPtr<IDataStreamSet> package = OpenPackage(file);
  std::uint64_t at = 0;
  const EffectCacheHeader header = HeaderOf(*package, &at);
  std::vector<IndexEntry> entries = EntriesOf(*package, header);
  std::vector<std::uint8_t> bytes;
  for (auto e = entries.rbegin(); e != entries.rend(); ++e) {
    std::uint8_t record[EffectRecord::kSize + 8];
    e->record.Encode(record);
    LittleEndian::Store64(record + EffectRecord::kSize, e->name.size());
    bytes.insert(bytes.end(), record, record + sizeof record);
    bytes.insert(bytes.end(), e->name.begin(), e->name.end());
  }
  RefPtr<IDataStream> index = package->OpenStream(header.indexStreamId);
  if (!index || index->Write(bytes.data(), bytes.size()) != bytes.size()) throw std::runtime_error("short write");
  if (!package->Save()) throw std::runtime_error("save failed");
}

void EffectTesting::DamageEffectBytes(const std::wstring& file, const std::string& name) {
  const EffectRecord record = ReadIndex(file).at(name);
  RefPtr<IDataStreamSet> package = OpenPackage(file);
  RefPtr<IDataStream> stream = package->OpenStream(record.streamId);
  if (!stream || record.compressedSize < 8) throw std::runtime_error("no such stream");
  const std::vector<std::uint8_t> garbage(record.compressedSize / 2, 0xA5);
  stream->Seek(0, 8 + static_cast<std::int32_t>(record.compressedSize / 4));
  if (stream->Write(garbage.data(), garbage.size()) != garbage.size()) throw std::runtime_error("short write");
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
