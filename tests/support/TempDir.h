// TempDir: a fresh, uniquely named folder for one test, removed with
// everything in it when the object dies.
#ifndef TOVREL_TESTS_TEMPDIR_H
#define TOVREL_TESTS_TEMPDIR_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Tovrel {
namespace Testing {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  // Wide path of a file inside the folder.
  std::wstring File(const std::string& name) const;

  static std::vector<std::uint8_t> ReadAll(const std::wstring& file);
  static void WriteAll(const std::wstring& file, const std::vector<std::uint8_t>& bytes);
  static std::uint64_t SizeOf(const std::wstring& file);

 private:
  std::filesystem::path path_;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
