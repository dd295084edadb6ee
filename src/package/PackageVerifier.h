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
// Two ways in: a package the caller holds open (the constructor, then
// Run), or a file named by its path (VerifyFile), which is opened for
// reading only, checked and let go. Nothing is ever written to the file,
// and no lock is taken: the caller sees to it that no one saves into the
// file meanwhile (for a cache's file, by holding the cache's named mutex),
// or problems may be found that a save under way made for a moment. A
// journal beside the file is read, not rolled back: the package checked is
// the file as the rollback will leave it.
//
// Reading the streams is the long part: a caller may be told how far it
// has come (SetProgress), and may bound the bytes read (LimitReads), so
// that a check keeps to a time budget whatever the tables claim; the
// streams left unread are then no problem of the package, and
// ReadEveryStream says they were left.
//
// A verifier is made for one check of one open package, which must outlive
// it and is only read. Thread-safety: none for a verifier and its package;
// VerifyFile may be called from any thread, each call with a package of
// its own.
#ifndef TOVREL_PACKAGE_PACKAGEVERIFIER_H
#define TOVREL_PACKAGE_PACKAGEVERIFIER_H

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "package/PagedFilePackage.h"

namespace Tovrel {

class PackageVerifier {
 public:
  // Told the bytes of the streams read so far, of `total`: once with 0
  // before the first stream is read, then after each stream.
  using Progress = std::function<void(std::uint64_t done, std::uint64_t total)>;

  static constexpr std::uint64_t kNoReadLimit = ~std::uint64_t{0};

  // How VerifyFile went.
  enum class Outcome {
    kChecked,      // the checks ran; the problems are what they found
    kNoFile,       // nothing at the path (nothing is made there)
    kNotAPackage,  // the file's bytes break the package format: it does not open
    kUnreadable,   // the file could not be read as it is (a failed file call,
                   // no memory, a living writer's journal): it may open later
  };

  // What VerifyFile found. Only kChecked comes with problems and figures.
  struct FileReport {
    Outcome outcome = Outcome::kNoFile;
    std::vector<std::string> problems;
    std::uint64_t pagesChecked = 0;
    std::uint64_t bytesRead = 0;
    bool everyStreamRead = false;

    // The checks ran and found nothing.
    bool IsSound() const { return outcome == Outcome::kChecked && problems.empty(); }
  };

  // `fileSize` is the length of the package's file (for a package opened
  // read only beside a journal, the length the rollback will leave: its
  // GetFileLength), against which the pages are checked.
  PackageVerifier(PagedFilePackage& package, std::uint64_t fileSize);

  void SetProgress(Progress progress) { progress_ = std::move(progress); }
  // Reading stops once `bytes` have been read (kNoReadLimit: never).
  void LimitReads(std::uint64_t bytes) { readLimit_ = bytes; }

  // Runs every check; the problems found (none for a sound package).
  std::vector<std::string> Run();

  std::uint64_t PagesChecked() const { return owners_.size(); }
  std::uint64_t BytesRead() const { return bytesRead_; }
  // False when the read limit left streams, or parts of them, unread.
  bool ReadEveryStream() const { return everyStreamRead_; }

  // Opens the package file at `path` for reading only (as high a stream
  // limit as a package's tables allow, so that any package the library
  // wrote opens), runs every check with `progress` and the read limit, and
  // lets the package go. An exception leaves only for want of memory.
  static FileReport VerifyFile(const wchar_t* path, const Progress& progress = Progress(),
                               std::uint64_t readLimit = kNoReadLimit);

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
  void TellProgress(std::uint64_t total) const;

  // Claims `page` for `owner`; false (a problem noted) when it is not a
  // page of the table, is marked free, or already has another owner.
  bool Claim(std::uint64_t page, const Owner& owner);
  // The page's link in the allocation table (1, free, past the table).
  std::uint64_t LinkOf(std::uint64_t page) const;
  static std::string Describe(const Owner& owner);
  void Problem(const std::string& text) { problems_.push_back(text); }

  PagedFilePackage& package_;
  std::uint64_t fileSize_;
  Progress progress_;  // may be empty
  std::uint64_t readLimit_;
  // One slot per page of the allocation table, indexed by page id - 10.
  std::vector<Owner> owners_;
  std::vector<std::string> problems_;
  // Invariant: bytesRead_ <= readLimit_.
  std::uint64_t bytesRead_;
  bool everyStreamRead_;
};

}  // namespace Tovrel

#endif
