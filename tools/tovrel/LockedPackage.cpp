#include "LockedPackage.h"

#include <cstring>

#include "ExitStatus.h"
#include "TextFormat.h"
#include "ToolError.h"
#include "effectcache/EffectCacheImpl.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace Tool {

LockedPackage::LockedPackage(const UserPath& file, std::uint64_t streamLimit, bool forUpdate)
    : file_(file), fileSize_(0) {
  const std::string& name = file.Typed();
  lock_.reset(new CacheFileLock(file.Absolute()));
  hold_.reset(new CacheFileLock::Hold(*lock_, forUpdate ? CacheFileLock::Intent::kWrite : CacheFileLock::Intent::kRead));
  if (!hold_->IsOwner()) throw ToolError(ExitStatus::kUnreadable, name + ": the cache's named mutex cannot be taken");
  if (file.IsFolder()) throw ToolError(ExitStatus::kUnreadable, name + ": is a folder, not a package file");
  if (!file.IsFile()) throw ToolError(ExitStatus::kUnreadable, name + ": no such file");
  journal_ = RollbackJournal::Inspect(file.Absolute());
  fileSize_ = journal_.complete ? journal_.savedLength : file.FileSize();
  if (fileSize_ == 0) throw ToolError(ExitStatus::kUnreadable, name + ": empty file, not a package");
  const PagedFilePackageConfig config{file.Absolute().c_str(), kCachePages, streamLimit};
  PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
  package_ = forUpdate ? PagedFilePackage::Open(config, &why) : PagedFilePackage::OpenReadOnly(config, &why);
  if (!package_) throw ToolError(ExitStatus::kUnreadable, name + ": " + WhyUnreadable(config));
}

std::string LockedPackage::JournalNote() const {
  if (!journal_.present) return "";
  if (journal_.busy) return "a save is under way in another process (its journal is held); checked as the file will be if it fails";
  if (journal_.damaged) {
    return "a damaged journal (its saved length is more than its records and the file explain) will be set aside, "
           "not rolled back, when the library next opens the file; checked as the file is";
  }
  if (!journal_.complete) {
    return "the journal of a save that was interrupted before it changed the file will be deleted when the library "
           "next opens it";
  }
  return "an interrupted save will be rolled back when the library next opens it (" +
         TextFormat::Counted(journal_.pageIds.size(), "page") + ", the file back to " +
         TextFormat::Bytes(journal_.savedLength) + "); checked as it will be then";
}

LockedPackage::~LockedPackage() {
  package_.Reset();
  hold_.reset();
}

std::string LockedPackage::WhyUnreadable(const PagedFilePackageConfig& config) const {
  RefPtr<PagedFilePackage> probe(new PagedFilePackage(config));
  std::string reason = "not a package: its head chain does not hold together";
  try {
    if (probe->LoadReadOnly()) reason = "not a package (it did not open, though its tables read)";
  } catch (const FileDataCorruptException&) {
    reason = "not a package, or a damaged one: its head chain or its tables break the package format";
  } catch (const InvalidParameterException&) {
    reason = "not a package, or a damaged one: a table holds a value out of range";
  } catch (const FileIOException& e) {
    reason = e.errorCode != 0 ? std::string("cannot be read: ") + std::strerror(e.errorCode)
                              : "not a package file (too short: it ends inside its own tables)";
  } catch (const std::exception& e) {
    reason = std::string("cannot be read: ") + e.what();
  }
  probe->Close();
  return reason;
}

}  // namespace Tool
}  // namespace Tovrel
