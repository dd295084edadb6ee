#include "support/PackageLayout.h"

#include <algorithm>
#include <stdexcept>

#include "package/PagedFilePackage.h"
#include "pagefile/IPagedFileSeeker.h"
#include "pagefile/PageGeometry.h"
#include "support/PackageTesting.h"

namespace Tovrel {
namespace Testing {

namespace {

using Piece = PackageLayout::Piece;

std::vector<Piece> PiecesOfStream(PagedFilePackage& package, std::uint64_t id) {
  std::vector<Piece> pieces;
  const StreamEntry& entry = *package.GetStreamTable().Find(id);
  std::uint64_t page = entry.firstPage;
  for (std::uint64_t i = 0; i < entry.fullPageCount; ++i) {
    pieces.push_back(Piece{page, kPageSize, 0});
    page = package.GetAllocator().GetNextPage(page);
  }
  const StreamTailRecord* tail = package.GetChildFileTable().FindTail(id);
  if (tail == nullptr) return pieces;
  const ChildFileRecord& child = *package.GetChildFileTable().FindChildFile(tail->childFileIdentifier);
  const std::uint64_t inFirst = std::min(tail->size, kPageSize - tail->offset % kPageSize);
  pieces.push_back(Piece{child.page[tail->offset / kPageSize], inFirst, tail->offset % kPageSize});
  if (inFirst < tail->size) pieces.push_back(Piece{child.page[tail->offset / kPageSize + 1], tail->size - inFirst, 0});
  return pieces;
}

}  // namespace

PackageLayout::PackageLayout(const std::wstring& path) {
  RefPtr<PagedFilePackage> package(new PagedFilePackage(PackageTesting::Config(path)));
  if (!package->LoadReadOnly()) throw std::runtime_error("the package does not load");
  const IPagedFileSeeker& head = *package->GetHeadSeeker();
  headPages_.assign(head.pageIds, head.pageIds + head.pageCount);
  for (std::uint64_t i = 0; i < package->GetNumberOfStreams(); ++i) {
    const std::uint64_t id = package->GetStreamIdentifier(i);
    pieces_[id] = PiecesOfStream(*package, id);
  }
}

bool PackageLayout::HeadChainWithin(std::uint64_t filePages) const {
  return std::all_of(headPages_.begin(), headPages_.end(),
                     [filePages](std::uint64_t page) { return page < kFirstPageId + filePages; });
}

std::uint64_t PackageLayout::BytesWithin(std::uint64_t stream, std::uint64_t filePages) const {
  std::uint64_t bytes = 0;
  for (const Piece& piece : PiecesOf(stream)) {
    if (piece.page >= kFirstPageId + filePages) break;
    bytes += piece.bytes;
  }
  return bytes;
}

bool PackageLayout::SameBytes(std::uint64_t stream, const std::vector<std::uint8_t>& a,
                              const std::vector<std::uint8_t>& b) const {
  for (const Piece& piece : PiecesOf(stream)) {
    const std::uint64_t from = PageOffset(piece.page) + piece.offset;
    const std::uint64_t to = from + piece.bytes;
    if (to > a.size() || to > b.size()) return false;
    if (!std::equal(a.begin() + static_cast<std::ptrdiff_t>(from), a.begin() + static_cast<std::ptrdiff_t>(to),
                    b.begin() + static_cast<std::ptrdiff_t>(from))) {
      return false;
    }
  }
  return true;
}

}  // namespace Testing
}  // namespace Tovrel
