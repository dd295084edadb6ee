#include "support/TempDir.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <random>
#include <stdexcept>

namespace Tovrel {
namespace Testing {

namespace fs = std::filesystem;

TempDir::TempDir() {
  static std::atomic<unsigned> serial{0};
  std::random_device entropy;
  const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::string name = "tovrel-test-" + std::to_string(stamp % 1000000007) + "-" +
                             std::to_string(entropy()) + "-" + std::to_string(serial++);
    const fs::path candidate = fs::temp_directory_path() / name;
    if (fs::create_directory(candidate)) {
      path_ = candidate;
      return;
    }
  }
  throw std::runtime_error("cannot make a temporary folder");
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::wstring TempDir::File(const std::string& name) const { return (path_ / name).wstring(); }

std::vector<std::uint8_t> TempDir::ReadAll(const std::wstring& file) {
  std::ifstream in(fs::path(file), std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void TempDir::WriteAll(const std::wstring& file, const std::vector<std::uint8_t>& bytes) {
  std::ofstream out(fs::path(file), std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::uint64_t TempDir::SizeOf(const std::wstring& file) { return fs::file_size(fs::path(file)); }

}  // namespace Testing
}  // namespace Tovrel
