#include "support/PackageTesting.h"

#include <stdexcept>

#include "platform/WideText.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace Testing {

PagedFilePackageConfig PackageTesting::Config(const std::wstring& path, std::uint64_t cachePages,
                                              std::uint64_t streamLimit) {
  return PagedFilePackageConfig{path.c_str(), cachePages, streamLimit};
}

std::vector<std::uint8_t> PackageTesting::Bytes(std::uint64_t size, std::uint32_t seed) {
  std::vector<std::uint8_t> bytes(size);
  std::uint32_t x = seed * 2654435761u + 1;
  for (auto& b : bytes) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<std::uint8_t>(x);
  }
  return bytes;
}

bool PackageTesting::WriteAll(const RefPtr<IDataStream>& stream, const std::vector<std::uint8_t>& bytes) {
  return stream && stream->Seek(0, 0) && stream->Write(bytes.data(), bytes.size()) == bytes.size();
}

std::vector<std::uint8_t> PackageTesting::ReadAll(const RefPtr<IDataStream>& stream) {
  std::vector<std::uint8_t> bytes(stream->GetSize());
  if (!stream->Seek(0, 0)) return {};
  bytes.resize(stream->Read(bytes.data(), bytes.size()));
  return bytes;
}

std::uint64_t PackageTesting::CreateFilled(const RefPtr<IDataStreamSet>& package, std::uint64_t size,
                                           std::uint32_t seed) {
  const std::uint64_t id = package->CreateStream(size);
  if (id == IDataStreamSet::kNoStream) return id;
  if (size != 0 && !WriteAll(package->OpenStream(id), Bytes(size, seed))) return IDataStreamSet::kNoStream;
  return id;
}

std::vector<std::uint64_t> PackageTesting::Identifiers(const RefPtr<IDataStreamSet>& package) {
  std::vector<std::uint64_t> ids;
  for (std::uint64_t i = 0; i < package->GetNumberOfStreams(); ++i) ids.push_back(package->GetStreamIdentifier(i));
  return ids;
}

std::vector<std::uint64_t> PackageTesting::MakeFile(const std::wstring& path, const std::vector<std::uint64_t>& sizes,
                                                    std::uint64_t userData) {
  RefPtr<IDataStreamSet> package = CreateFilePackage(Config(path));
  const std::string name = WideText::ToUtf8(path);
  if (!package) throw std::runtime_error("cannot create " + name);
  std::vector<std::uint64_t> ids;
  for (std::size_t k = 0; k < sizes.size(); ++k) {
    ids.push_back(CreateFilled(package, sizes[k], static_cast<std::uint32_t>(k + 1)));
    if (ids.back() == IDataStreamSet::kNoStream) throw std::runtime_error("cannot fill a stream of " + name);
  }
  if (userData != 0) {
    package->SetUserDataSize(userData);
    for (std::uint64_t i = 0; i < userData; ++i) package->GetUserData()[i] = static_cast<std::uint8_t>(i);
  }
  if (!package->Save()) throw std::runtime_error("cannot save " + name);
  return ids;
}

void PackageTesting::RemoveFromFile(const std::wstring& path, std::uint64_t identifier) {
  RefPtr<IDataStreamSet> package = OpenFilePackage(Config(path));
  if (!package || !package->RemoveStream(identifier) || !package->Save()) {
    throw std::runtime_error("cannot remove a stream from " + WideText::ToUtf8(path));
  }
}

}  // namespace Testing
}  // namespace Tovrel
