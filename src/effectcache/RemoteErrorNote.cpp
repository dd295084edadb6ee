#include "effectcache/RemoteErrorNote.h"

#include <cstring>

#include "effectcache/Adler32.h"
#include "effectcache/SideFile.h"
#include "pagefile/LittleEndian.h"

namespace Tovrel {

namespace {

constexpr std::uint8_t kMagic[4] = {'T', 'V', 'R', 'E'};
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHead = 8 + CacheTimeStamp::kSize + 4;
constexpr std::size_t kLargest = kHead + RemoteErrorNote::kMessageLimit + 4;

// `text` cut to at most `limit` bytes, never inside a UTF-8 character.
std::string CutAt(const std::string& text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

}  // namespace

std::wstring RemoteErrorNote::PathFor(const std::wstring& cacheFilePath) {
  return SideFile::Beside(cacheFilePath, kFileName);
}

std::vector<std::uint8_t> RemoteErrorNote::Encode() const {
  const std::string text = CutAt(message, kMessageLimit);
  std::vector<std::uint8_t> bytes(kHead + text.size() + 4);
  std::memcpy(bytes.data(), kMagic, 4);
  LittleEndian::Store32(bytes.data() + 4, kVersion);
  time.Encode(bytes.data() + 8);
  LittleEndian::Store32(bytes.data() + 8 + CacheTimeStamp::kSize, static_cast<std::uint32_t>(text.size()));
  if (!text.empty()) std::memcpy(bytes.data() + kHead, text.data(), text.size());
  const std::size_t checked = kHead + text.size();
  LittleEndian::Store32(bytes.data() + checked, Adler32::Update(Adler32::kStart, bytes.data(), checked));
  return bytes;
}

bool RemoteErrorNote::Decode(const std::uint8_t* bytes, std::uint64_t size, RemoteErrorNote* note) {
  *note = RemoteErrorNote{};
  if (size < kHead + 4 || std::memcmp(bytes, kMagic, 4) != 0 || LittleEndian::Load32(bytes + 4) != kVersion) {
    return false;
  }
  const std::uint32_t length = LittleEndian::Load32(bytes + 8 + CacheTimeStamp::kSize);
  if (length > kMessageLimit || size != kHead + length + 4) return false;
  const std::size_t checked = kHead + length;
  if (LittleEndian::Load32(bytes + checked) != Adler32::Update(Adler32::kStart, bytes, checked)) return false;
  note->time = CacheTimeStamp::Decode(bytes + 8);
  note->message.assign(reinterpret_cast<const char*>(bytes + kHead), length);
  return true;
}

bool RemoteErrorNote::Read(const std::wstring& path, RemoteErrorNote* note) {
  std::uint8_t bytes[kLargest + 1];
  return Decode(bytes, SideFile::Read(path, bytes, sizeof bytes), note);
}

bool RemoteErrorNote::Write(const std::wstring& path, const RemoteErrorNote& note) {
  const std::vector<std::uint8_t> bytes = note.Encode();
  return SideFile::Replace(path, bytes.data(), bytes.size());
}

bool RemoteErrorNote::Remove(const std::wstring& path) { return SideFile::Remove(path); }

}  // namespace Tovrel
