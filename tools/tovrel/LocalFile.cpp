#include "LocalFile.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "ExitStatus.h"
#include "ToolError.h"

namespace Tovrel {
namespace Tool {

namespace {

std::filesystem::path Native(const UserPath& file) { return std::filesystem::u8path(file.AbsoluteText()); }

}  // namespace

std::vector<unsigned char> LocalFile::Read(const UserPath& file, std::uint64_t limit) {
  if (!file.IsFile()) {
    throw ToolError(ExitStatus::kFailed, file.Typed() + (file.Exists() ? ": not a file" : ": no such file"));
  }
  const std::uint64_t size = file.FileSize();
  if (size > limit) {
    throw ToolError(ExitStatus::kFailed, file.Typed() + ": " + std::to_string(size) + " bytes, more than " +
                                             std::to_string(limit));
  }
  std::ifstream in(Native(file), std::ios::binary);
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
  if (!in || !in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size))) {
    throw ToolError(ExitStatus::kFailed, file.Typed() + ": cannot be read");
  }
  return bytes;
}

void LocalFile::Write(const UserPath& file, const unsigned char* bytes, std::size_t size) {
  errno = 0;
  std::ofstream out(Native(file), std::ios::binary | std::ios::trunc);
  if (out) out.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  if (!out || !out.flush()) {
    const int why = errno;
    throw ToolError(ExitStatus::kFailed, file.Typed() + ": cannot be written" +
                                             (why != 0 ? std::string(" (") + std::strerror(why) + ")" : std::string()));
  }
}

void LocalFile::Append(const UserPath& file, const std::string& text) {
  std::ofstream out(Native(file), std::ios::binary | std::ios::app);
  if (out) out << text;
  if (!out || !out.flush()) throw ToolError(ExitStatus::kFailed, file.Typed() + ": cannot be written");
}

}  // namespace Tool
}  // namespace Tovrel
