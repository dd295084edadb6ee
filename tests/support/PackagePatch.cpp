#include "support/PackagePatch.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "pagefile/LittleEndian.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {
namespace Testing {

namespace {

std::vector<std::uint8_t> ReadFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

PackagePatch::PackagePatch(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) { Parse(); }

PackagePatch::PackagePatch(const std::filesystem::path& file) : file_(file), bytes_(ReadFile(file)) { Parse(); }

void PackagePatch::Parse() {
  if (bytes_.size() < kPageSize || Get(0) != 1 || Get(8) > kFirstPagePayload) {
    throw std::runtime_error("the head stream is not on one page");
  }
  std::uint64_t at = kFirstPageHeader;
  table_ = at;
  at += 8 + 8 * Get(at);
  streams_ = at;
  at += 8 + 32 * Get(at);
  const std::uint64_t childCount = Get(at);
  at += 8;
  for (std::uint64_t c = 0; c < childCount; ++c) {
    children_.push_back(at);
    at += 80;
    at += 8 + 8 * Get(at);
  }
  tails_ = at;
  at += 8 + 40 * Get(at);
  userData_ = at;
}

std::uint64_t PackagePatch::Link(std::uint64_t page) const { return table_ + 8 + 8 * (page - kFirstPageId); }

std::uint64_t PackagePatch::Stream(std::uint64_t index, StreamField field) const {
  return streams_ + 8 + 32 * index + 8 * static_cast<std::uint64_t>(field);
}

std::uint64_t PackagePatch::ChildFile(std::uint64_t index, int field) const {
  return children_.at(index) + 8 * static_cast<std::uint64_t>(field);
}

std::uint64_t PackagePatch::ListedTail(std::uint64_t index, std::uint64_t k) const {
  return children_.at(index) + 80 + 8 + 8 * k;
}

std::uint64_t PackagePatch::Tail(std::uint64_t index, TailField field) const {
  return tails_ + 8 + 40 * index + 8 * static_cast<std::uint64_t>(field);
}

std::uint64_t PackagePatch::Get(std::uint64_t offset) const {
  if (offset + 8 > bytes_.size()) throw std::runtime_error("no such field");
  return LittleEndian::Load64(bytes_.data() + offset);
}

PackagePatch& PackagePatch::Set(std::uint64_t offset, std::uint64_t value) {
  if (offset + 8 > bytes_.size()) throw std::runtime_error("no such field");
  LittleEndian::Store64(bytes_.data() + offset, value);
  return *this;
}

void PackagePatch::Save() const {
  if (file_.empty()) throw std::runtime_error("made from bytes: no file to save to");
  std::ofstream out(file_, std::ios::binary | std::ios::in | std::ios::out);
  out.write(reinterpret_cast<const char*>(bytes_.data()), static_cast<std::streamsize>(bytes_.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + file_.u8string());
}

}  // namespace Testing
}  // namespace Tovrel
