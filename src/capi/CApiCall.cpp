#include "capi/CApiCall.h"

#include <cerrno>
#include <exception>
#include <new>

#include "effectcache/EffectCacheImpl.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/OutOfMemoryException.h"
#include "platform/WideText.h"

namespace Tovrel {

tovrel_status CApiCall::CurrentException() noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return TOVREL_NO_MEMORY;
  } catch (const OutOfMemoryException&) {
    return TOVREL_NO_MEMORY;
  } catch (const FileDataCorruptException&) {
    return TOVREL_DAMAGED;
  } catch (const FileIOException& e) {
    return e.errorCode == EROFS ? TOVREL_READ_ONLY : TOVREL_IO_ERROR;
  } catch (const InvalidParameterException&) {
    return TOVREL_INVALID_ARGUMENT;
  } catch (...) {
    return TOVREL_INTERNAL_ERROR;
  }
}

tovrel_status CApiCall::WidePath(const char* path, std::wstring* wide) {
  if (path == nullptr || *path == '\0') return TOVREL_INVALID_ARGUMENT;
  const std::string bytes(path);
  if (!WideText::IsUtf8(bytes)) return TOVREL_BAD_NAME;
  *wide = WideText::FromUtf8(bytes);
  return TOVREL_OK;
}

tovrel_status CApiCall::WideName(const char* name, std::size_t size, std::wstring* wide) {
  if (name == nullptr) return TOVREL_INVALID_ARGUMENT;
  if (size == 0 || size > EffectCacheImpl::kEffectNameSizeLimit) return TOVREL_BAD_NAME;
  const std::string bytes(name, size);
  if (!WideText::IsUtf8(bytes)) return TOVREL_BAD_NAME;
  *wide = WideText::FromUtf8(bytes);
  return TOVREL_OK;
}

}  // namespace Tovrel
