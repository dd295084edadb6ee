#include "host/Path.h"

#include "platform/PlatformFile.h"

namespace NorvaneSDK {
namespace Util {

wchar_t Path::Separator() { return Tovrel::PlatformFile::Separator(); }

Path& Path::AddTrailingSeparator() {
  if (!text_.empty() && text_.back() != Separator()) text_.push_back(Separator());
  return *this;
}

Path& Path::Append(const wchar_t* name) {
  AddTrailingSeparator();
  text_ += name != nullptr ? name : L"";
  return *this;
}

}  // namespace Util
}  // namespace NorvaneSDK
