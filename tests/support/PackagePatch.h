// PackagePatch: rewrites single fields of a small package file's tables,
// to build damaged packages that still open, for the tests of the package
// and of the tool's verify.
//
// The whole head stream must lie on page 10 (a package of a few streams).
// Fields are addressed by table and place; Set changes the bytes in
// memory. Bytes gives the patched file, and Save writes it back to the
// file it was read from on the system's own file system.
#ifndef TOVREL_TESTS_PACKAGEPATCH_H
#define TOVREL_TESTS_PACKAGEPATCH_H

#include <cstdint>
#include <filesystem>
#include <vector>

namespace Tovrel {
namespace Testing {

class PackagePatch {
 public:
  enum StreamField { kStreamId = 0, kStreamSize = 1, kFirstPage = 2, kWholePages = 3 };
  enum TailField { kTailStream = 0, kTailChild = 1, kTailIndex = 2, kTailOffset = 3, kTailSize = 4 };
  // Fields of a child-file record: 0 its identifier, 1..8 its pages, 9 its free bytes.
  static constexpr int kChildPage0 = 1;
  static constexpr int kChildFreeBytes = 9;

  // The bytes of a package file.
  explicit PackagePatch(std::vector<std::uint8_t> bytes);
  // The package file at `file`, to be saved back there.
  explicit PackagePatch(const std::filesystem::path& file);

  // File offsets of fields.
  std::uint64_t Link(std::uint64_t page) const;
  std::uint64_t Stream(std::uint64_t index, StreamField field) const;
  std::uint64_t ChildFile(std::uint64_t index, int field) const;
  // The k-th stream identifier of the index-th child file's list of tails.
  std::uint64_t ListedTail(std::uint64_t index, std::uint64_t k) const;
  std::uint64_t Tail(std::uint64_t index, TailField field) const;
  std::uint64_t UserDataLength() const { return userData_; }

  std::uint64_t Get(std::uint64_t offset) const;
  PackagePatch& Set(std::uint64_t offset, std::uint64_t value);
  const std::vector<std::uint8_t>& Bytes() const { return bytes_; }
  void Save() const;

 private:
  void Parse();

  std::filesystem::path file_;  // empty when made from bytes
  std::vector<std::uint8_t> bytes_;
  std::uint64_t table_;     // the allocation table's count
  std::uint64_t streams_;   // the stream table's count
  std::vector<std::uint64_t> children_;  // each child-file record
  std::uint64_t tails_;     // the tail records' count
  std::uint64_t userData_;  // the user data's length
};

}  // namespace Testing
}  // namespace Tovrel

#endif
