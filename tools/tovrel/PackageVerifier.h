// PackageVerifier: the deep check of a package, beyond what opening it
// checks, in the spirit of a database's integrity check.
//
// Opening a package checks the head chain and that each table reads; this
// checks that the tables agree with each other and with the file:
// - every page of the allocation table belongs to exactly one owner (the
//   head chain, one stream's chain of whole pages, one child file) or is
//   free, and no owned page is marked free or lies past the file's end;
// - each chain links in the allocation table as its owner says, and a
//   stream's chain has the number of pages its entry (and its size) give;
// - each stream with a tail has one tail record of the right length, and
//   each tail record belongs to a stream and to the child file listing it;
// - in each child file the tails are contiguous from byte 0, do not
//   overlap, and end where the child file's free bytes begin;
// - every stream reads to its size.
// Each problem is one line of text, in the order found.
//
// Made for one check of one open package, which must outlive it and is
// only read. Thread-safety: none.
#ifndef TOVREL_TOOL_PACKAGEVERIFIER_H
#define TOVREL_TOOL_PACKAGEVERIFIER_H

#include <cstdint>
#include <string>
#include <vector>

#include "Console.h"
#include "package/PagedFilePackage.h"

namespace Tovrel {
namespace Tool {

class PackageVerifier {
 public:
  PackageVerifier(PagedFilePackage& package, std::uint64_t fileSize, const Console& console);

  // Runs every check; the problems found (none for a sound package).
  std::vector<std::string> Run();

  std::uint64_t PagesChecked() const { return owners_.size(); }
  std::uint64_t BytesRead() const { return bytesRead_; }

 private:
  // Who a page belongs to: kFree, the head chain, a stream or a child file.
  struct Owner {
    enum Kind : std::uint8_t { kNone, kHead, kStream, kChildFile } kind;
    std::uint64_t identifier;
  };

  void CheckHeadChain();
  void CheckStreamChains();
  void CheckStreamChain(const StreamEntry& entry);
  void CheckChildFilePages();
  void CheckUnownedPages();
  void CheckTailRecords();
  void CheckChildFileLayout(std::uint64_t childFile);
  void CheckStreamReads();
  void CheckStreamRead(std::uint64_t identifier, std::uint64_t size, std::vector<std::uint8_t>& buffer);

  // Claims `page` for `owner`; false (a problem noted) when it is not a
  // page of the table, is marked free, or already has another owner.
  bool Claim(std::uint64_t page, const Owner& owner);
  // The page's link in the allocation table (1, free, past the table).
  std::uint64_t LinkOf(std::uint64_t page) const;
  static std::string Describe(const Owner& owner);
  void Problem(const std::string& text) { problems_.push_back(text); }

  PagedFilePackage& package_;
  std::uint64_t fileSize_;
  const Console& console_;
  // One slot per page of the allocation table, indexed by page id - 10.
  std::vector<Owner> owners_;
  std::vector<std::string> problems_;
  std::uint64_t bytesRead_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
