#include "package/PackageVerifier.h"

#include <algorithm>
#include <cassert>

#include "pagefile/FileDataCorruptException.h"
#include "pagefile/PageGeometry.h"
#include "platform/PlatformFile.h"

namespace Tovrel {

namespace {

constexpr std::uint64_t kReadChunk = 65536;
constexpr std::uint64_t kCachePages = 64;
constexpr std::uint64_t kTailMask = kPageSize - 1;

std::string N(std::uint64_t value) { return std::to_string(value); }

std::string PageText(std::uint64_t page) { return "page " + N(page); }

}  // namespace

PackageVerifier::PackageVerifier(PagedFilePackage& package, std::uint64_t fileSize)
    : package_(package),
      fileSize_(fileSize),
      readLimit_(kNoReadLimit),
      owners_(package.GetAllocator().GetTableLength(), Owner{Owner::kNone, 0}),
      bytesRead_(0),
      everyStreamRead_(true) {
  assert(package.GetHeadSeeker() != nullptr);
}

PackageVerifier::FileReport PackageVerifier::VerifyFile(const wchar_t* path, const Progress& progress,
                                                        std::uint64_t readLimit) {
  FileReport report;
  if (path == nullptr || !PlatformFile::Exists(path)) return report;
  const PagedFilePackageConfig config{path, kCachePages, PagedFilePackage::kAnyStreamLimit};
  PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
  const RefPtr<PagedFilePackage> package = PagedFilePackage::OpenReadOnly(config, &why);
  if (!package) {
    report.outcome = why == PagedFilePackage::LoadFailure::kCorrupt ? Outcome::kNotAPackage : Outcome::kUnreadable;
    return report;
  }
  PackageVerifier verifier(*package, package->GetFileLength());
  verifier.SetProgress(progress);
  verifier.LimitReads(readLimit);
  report.outcome = Outcome::kChecked;
  report.problems = verifier.Run();
  report.pagesChecked = verifier.PagesChecked();
  report.bytesRead = verifier.BytesRead();
  report.everyStreamRead = verifier.ReadEveryStream();
  return report;
}

std::vector<std::string> PackageVerifier::Run() {
  problems_.clear();
  bytesRead_ = 0;
  everyStreamRead_ = true;
  std::fill(owners_.begin(), owners_.end(), Owner{Owner::kNone, 0});
  CheckHeadChain();
  CheckStreamChains();
  CheckChildFilePages();
  CheckUnownedPages();
  CheckTailRecords();
  const ChildFileTable& children = package_.GetChildFileTable();
  for (std::uint64_t i = 0; i < children.GetChildFileCount(); ++i) {
    CheckChildFileLayout(children.GetChildFileIdentifier(i));
  }
  CheckStreamReads();
  return problems_;
}

std::string PackageVerifier::Describe(const Owner& owner) {
  switch (owner.kind) {
    case Owner::kHead:
      return "the head chain";
    case Owner::kStream:
      return "stream " + N(owner.identifier);
    case Owner::kChildFile:
      return "child file " + N(owner.identifier);
    case Owner::kNone:
      break;
  }
  return "nothing";
}

std::uint64_t PackageVerifier::LinkOf(std::uint64_t page) const {
  return package_.GetAllocator().GetNextPage(page);
}

bool PackageVerifier::Claim(std::uint64_t page, const Owner& owner) {
  if (!IsPageId(page) || page - kFirstPageId >= owners_.size()) {
    Problem(Describe(owner) + ": " + N(page) + " is not a page of the allocation table");
    return false;
  }
  Owner& slot = owners_[page - kFirstPageId];
  if (slot.kind == owner.kind && slot.identifier == owner.identifier) {
    Problem(Describe(owner) + ": its chain comes back to " + PageText(page));
    return false;
  }
  if (slot.kind != Owner::kNone) {
    Problem(PageText(page) + " belongs to both " + Describe(slot) + " and " + Describe(owner));
    return false;
  }
  slot = owner;
  if (LinkOf(page) == IPageAllocator::kFreeLink) {
    Problem(PageText(page) + " of " + Describe(owner) + " is marked free in the allocation table");
  }
  if (PageOffset(page) + kPageSize > fileSize_) {
    Problem(PageText(page) + " of " + Describe(owner) + " lies past the end of the file (" + N(fileSize_) +
            " bytes)");
  }
  return true;
}

void PackageVerifier::CheckHeadChain() {
  const IPagedFileSeeker& head = *package_.GetHeadSeeker();
  const Owner owner{Owner::kHead, 0};
  for (std::uint64_t i = 0; i < head.pageCount; ++i) {
    const std::uint64_t page = head.pageIds[i];
    if (!Claim(page, owner)) continue;
    const std::uint64_t expected = i + 1 < head.pageCount ? head.pageIds[i + 1] : IPageAllocator::kEndLink;
    const std::uint64_t link = LinkOf(page);
    if (link != expected && link != IPageAllocator::kFreeLink) {
      Problem(PageText(page) + " of the head chain links to " + N(link) + " in the allocation table, not to " +
              N(expected));
    }
  }
  const std::uint64_t sections = package_.GetAllocator().GetTableSaveSize() + package_.GetStreamTable().GetSaveSize() +
                                 package_.GetChildFileTable().GetSaveSize() + 8 + package_.GetUserDataSize();
  if (head.totalSize != sections) {
    Problem("the head stream holds " + N(head.totalSize) + " bytes, but its four sections take " + N(sections));
  }
}

void PackageVerifier::CheckStreamChains() {
  const StreamTable& streams = package_.GetStreamTable();
  for (std::uint64_t i = 0; i < streams.GetCount(); ++i) {
    const StreamEntry* entry = streams.Find(streams.GetIdentifier(i));
    if (entry != nullptr) CheckStreamChain(*entry);
  }
}

void PackageVerifier::CheckStreamChain(const StreamEntry& entry) {
  const Owner owner{Owner::kStream, entry.identifier};
  const std::string name = Describe(owner);
  const std::uint64_t needed = entry.size / kPageSize;
  if (entry.fullPageCount != needed) {
    Problem(name + ": its entry records " + N(entry.fullPageCount) + " whole pages, but its size of " +
            N(entry.size) + " bytes makes " + N(needed));
  }
  if (entry.firstPage == 0) {
    if (entry.fullPageCount != 0) Problem(name + ": its entry records whole pages but no first page");
    return;
  }
  if (entry.fullPageCount == 0) {
    Problem(name + ": its entry names a first page (" + N(entry.firstPage) + ") but records no whole pages");
    return;
  }
  std::uint64_t count = 0;
  for (std::uint64_t page = entry.firstPage; Claim(page, owner);) {
    ++count;
    const std::uint64_t link = LinkOf(page);
    if (link == IPageAllocator::kEndLink || link == IPageAllocator::kFreeLink) break;
    page = link;
  }
  if (count != entry.fullPageCount) {
    Problem(name + ": its chain has " + N(count) + (count == 1 ? " page" : " pages") + ", but its entry records " +
            N(entry.fullPageCount));
  }
}

void PackageVerifier::CheckChildFilePages() {
  const ChildFileTable& children = package_.GetChildFileTable();
  for (std::uint64_t i = 0; i < children.GetChildFileCount(); ++i) {
    const ChildFileRecord& child = *children.FindChildFile(children.GetChildFileIdentifier(i));
    const Owner owner{Owner::kChildFile, child.identifier};
    for (std::uint64_t k = 0; k < kChildFilePages; ++k) {
      if (!Claim(child.page[k], owner)) continue;
      const std::uint64_t expected = k + 1 < kChildFilePages ? child.page[k + 1] : IPageAllocator::kEndLink;
      const std::uint64_t link = LinkOf(child.page[k]);
      if (link != expected && link != IPageAllocator::kFreeLink) {
        Problem(Describe(owner) + ": " + PageText(child.page[k]) + " links to " + N(link) +
                " in the allocation table, not to " + N(expected));
      }
    }
  }
}

void PackageVerifier::CheckUnownedPages() {
  std::uint64_t runStart = 0;
  std::uint64_t runLength = 0;
  const auto report = [&]() {
    if (runLength == 1) Problem(PageText(runStart) + " is marked in use but belongs to nothing");
    if (runLength > 1) {
      Problem("pages " + N(runStart) + " to " + N(runStart + runLength - 1) +
              " are marked in use but belong to nothing");
    }
    runLength = 0;
  };
  for (std::uint64_t index = 0; index < owners_.size(); ++index) {
    const std::uint64_t page = kFirstPageId + index;
    const bool leaked = owners_[index].kind == Owner::kNone && LinkOf(page) != IPageAllocator::kFreeLink;
    if (leaked && runLength == 0) runStart = page;
    if (leaked) ++runLength;
    if (!leaked) report();
  }
  report();
}

void PackageVerifier::CheckTailRecords() {
  const StreamTable& streams = package_.GetStreamTable();
  const ChildFileTable& children = package_.GetChildFileTable();
  for (std::uint64_t i = 0; i < streams.GetCount(); ++i) {
    const StreamEntry& entry = *streams.Find(streams.GetIdentifier(i));
    const std::uint64_t tailBytes = entry.size & kTailMask;
    const StreamTailRecord* tail = children.FindTail(entry.identifier);
    const std::string name = "stream " + N(entry.identifier);
    if (tailBytes != 0 && tail == nullptr) Problem(name + ": its last " + N(tailBytes) + " bytes have no tail record");
    if (tailBytes == 0 && tail != nullptr) {
      Problem(name + ": it has a tail record, but its size of " + N(entry.size) + " bytes leaves no tail");
    }
    if (tailBytes != 0 && tail != nullptr && tail->size != tailBytes) {
      Problem(name + ": its tail record holds " + N(tail->size) + " bytes, but its size leaves " + N(tailBytes));
    }
  }
  children.GetTails().ForEach([&](const StreamTailRecord& tail) {
    if (streams.Find(tail.streamIdentifier) == nullptr) {
      Problem("the tail record of stream " + N(tail.streamIdentifier) + " belongs to no stream");
    }
    const std::vector<std::uint64_t>* list = children.TailsOf(tail.childFileIdentifier);
    if (list == nullptr || tail.indexInChild >= list->size() || (*list)[tail.indexInChild] != tail.streamIdentifier) {
      Problem("the tail of stream " + N(tail.streamIdentifier) + " is not where child file " +
              N(tail.childFileIdentifier) + " lists its tails (place " + N(tail.indexInChild) + ")");
    }
  });
}

void PackageVerifier::CheckChildFileLayout(std::uint64_t childFile) {
  const ChildFileRecord& child = *package_.GetChildFileTable().FindChildFile(childFile);
  std::vector<StreamTailRecord> tails;
  package_.GetChildFileTable().GetTails().ForEach([&](const StreamTailRecord& tail) {
    if (tail.childFileIdentifier == childFile) tails.push_back(tail);
  });
  std::sort(tails.begin(), tails.end(),
            [](const StreamTailRecord& a, const StreamTailRecord& b) { return a.offset < b.offset; });
  const std::string name = "child file " + N(childFile);
  std::uint64_t end = 0;
  const StreamTailRecord* furthest = nullptr;
  for (const StreamTailRecord& tail : tails) {
    if (tail.offset > end) {
      Problem(name + ": bytes " + N(end) + " to " + N(tail.offset - 1) + " lie unused between its tails");
    }
    if (furthest != nullptr && tail.offset < end) {
      Problem(name + ": the tails of streams " + N(furthest->streamIdentifier) + " (bytes " + N(furthest->offset) +
              " to " + N(end - 1) + ") and " + N(tail.streamIdentifier) + " (bytes " + N(tail.offset) + " to " +
              N(tail.offset + tail.size - 1) + ") overlap");
    }
    if (tail.offset + tail.size > kChildFileSize) {
      Problem(name + ": the tail of stream " + N(tail.streamIdentifier) + " runs past its end");
    }
    if (tail.offset + tail.size > end) {
      end = tail.offset + tail.size;
      furthest = &tail;
    }
  }
  const std::uint64_t used = kChildFileSize - child.freeBytes;
  if (end != used) {
    Problem(name + ": its tails end at byte " + N(end) + ", but its record counts " + N(used) + " bytes in use");
  }
}

void PackageVerifier::TellProgress(std::uint64_t total) const {
  if (progress_) progress_(bytesRead_, total);
}

void PackageVerifier::CheckStreamReads() {
  const StreamTable& streams = package_.GetStreamTable();
  const std::uint64_t total = streams.GetTotalSize();
  TellProgress(total);
  std::vector<std::uint8_t> buffer(kReadChunk);
  for (std::uint64_t i = 0; i < streams.GetCount(); ++i) {
    const StreamEntry& entry = *streams.Find(streams.GetIdentifier(i));
    if (entry.size != 0) CheckStreamRead(entry.identifier, entry.size, buffer);
    TellProgress(total);
  }
}

void PackageVerifier::CheckStreamRead(std::uint64_t identifier, std::uint64_t size, std::vector<std::uint8_t>& buffer) {
  // The read limit may leave the stream, or its end, unread.
  const std::uint64_t wanted = std::min(size, readLimit_ - bytesRead_);
  if (wanted < size) everyStreamRead_ = false;
  if (wanted == 0) return;
  const std::string name = "stream " + N(identifier);
  std::uint64_t done = 0;
  try {
    RefPtr<IDataStream> stream = package_.OpenStream(identifier);
    if (!stream) {
      Problem(name + " cannot be opened: its whole pages or its tail cannot be found");
      return;
    }
    while (done < wanted) {
      const std::uint64_t asked = std::min<std::uint64_t>(buffer.size(), wanted - done);
      const std::uint64_t got = stream->Read(buffer.data(), asked);
      done += got;
      if (got < asked) break;
    }
  } catch (const FileDataCorruptException&) {
    Problem(name + " cannot be opened: its tail does not lie in the used bytes of its child file");
    return;
  } catch (const std::exception& e) {
    Problem(name + " cannot be read: " + e.what());
    return;
  }
  bytesRead_ += done;
  if (done < wanted) Problem(name + " reads only " + N(done) + " of its " + N(size) + " bytes");
}

}  // namespace Tovrel
