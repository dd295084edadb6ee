#include "UserPath.h"

#include <filesystem>
#include <system_error>

#include "ExitStatus.h"
#include "ToolError.h"
#include "platform/WideText.h"

namespace Tovrel {
namespace Tool {

namespace {

namespace fs = std::filesystem;

fs::path Native(const std::wstring& path) { return fs::u8path(WideText::ToUtf8(path)); }

}  // namespace

UserPath::UserPath(const std::string& typed) : typed_(typed) {
  std::error_code error;
  fs::path path = fs::absolute(fs::u8path(typed.empty() ? "." : typed), error);
  if (error) throw ToolError(ExitStatus::kUnreadable, typed + ": " + error.message());
  path = path.lexically_normal();
  if (path.has_relative_path() && !path.has_filename()) path = path.parent_path();
  absolute_ = WideText::FromUtf8(path.u8string());
}

std::string UserPath::AbsoluteText() const { return WideText::ToUtf8(absolute_); }

bool UserPath::Exists() const {
  std::error_code error;
  return fs::exists(Native(absolute_), error);
}

bool UserPath::IsFile() const {
  std::error_code error;
  return fs::is_regular_file(Native(absolute_), error);
}

bool UserPath::IsFolder() const {
  std::error_code error;
  return fs::is_directory(Native(absolute_), error);
}

std::uint64_t UserPath::FileSize() const {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(Native(absolute_), error);
  return error ? 0 : static_cast<std::uint64_t>(size);
}

}  // namespace Tool
}  // namespace Tovrel
