// NorvaneSDK::Util::Path: a file-system path held as a wide string.
//
// Knows the system's separator ('\\' on Windows, '/' elsewhere) so that a
// folder and a file name can be joined. The host's SaveBaseFile has no
// effect on the library's platforms and is not offered. Value type;
// thread-safety as any value.
#ifndef HOST_PATH_H
#define HOST_PATH_H

#include <string>

namespace NorvaneSDK {
namespace Util {

class Path {
 public:
  Path() = default;
  explicit Path(const wchar_t* text) : text_(text != nullptr ? text : L"") {}

  const wchar_t* GetCStr() const { return text_.c_str(); }
  bool IsEmpty() const { return text_.empty(); }

  static wchar_t Separator();

  // Appends the separator unless the path is empty or already ends with it.
  Path& AddTrailingSeparator();

  // Appends name, with a separator between unless the path is empty or
  // already ends with one.
  Path& Append(const wchar_t* name);

 private:
  std::wstring text_;
};

}  // namespace Util
}  // namespace NorvaneSDK

#endif
