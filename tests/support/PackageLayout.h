// PackageLayout: where the bytes of a saved package file lie, read from its
// tables: the pages of its head chain and, for each stream, the pages its
// bytes run through in order (its whole pages, then the one or two child
// file pages of its tail) with how many of its bytes each holds. Tells
// what a file cut short must still give.
//
// Made from a closed file, which it reads and never writes; a plain value
// afterwards. Thread-safety: none needed (immutable once made).
#ifndef TOVREL_TESTS_PACKAGELAYOUT_H
#define TOVREL_TESTS_PACKAGELAYOUT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Tovrel {
namespace Testing {

class PackageLayout {
 public:
  // Where some consecutive bytes of a stream lie.
  struct Piece {
    std::uint64_t page;    // page id
    std::uint64_t bytes;   // the stream's bytes in that page
    std::uint64_t offset;  // where in the page they start
  };

  // Reads the layout of the package at `path`; std::runtime_error when it
  // does not load.
  explicit PackageLayout(const std::wstring& path);

  // True when every page of the head chain lies in the first `filePages`
  // pages of the file.
  bool HeadChainWithin(std::uint64_t filePages) const;
  // How many of a stream's first bytes lie in the first `filePages` pages
  // of the file: those before its first page past them.
  std::uint64_t BytesWithin(std::uint64_t stream, std::uint64_t filePages) const;
  const std::vector<Piece>& PiecesOf(std::uint64_t stream) const { return pieces_.at(stream); }
  // The page ids of the head chain, in order.
  const std::vector<std::uint64_t>& HeadPages() const { return headPages_; }
  // True when every byte of the stream lies within both files' bytes and
  // is the same in both (a copy of the file, damaged or not, against it).
  bool SameBytes(std::uint64_t stream, const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) const;

 private:
  std::vector<std::uint64_t> headPages_;
  std::map<std::uint64_t, std::vector<Piece>> pieces_;  // by stream identifier
};

}  // namespace Testing
}  // namespace Tovrel

#endif
