// The C interface's version, status texts and memory.

#include <cstdlib>

#include "tovrel/tovrel_c.h"

extern "C" {

const char* tovrel_version(void) { return TOVREL_VERSION_STRING; }

const char* tovrel_status_string(tovrel_status status) {
  switch (status) {
    case TOVREL_OK: return "ok";
    case TOVREL_NOT_FOUND: return "not found";
    case TOVREL_BUFFER_TOO_SMALL: return "the buffer is too small";
    case TOVREL_INVALID_ARGUMENT: return "an argument is null or out of range";
    case TOVREL_INVALID_HANDLE: return "the handle is null or closed";
    case TOVREL_BAD_NAME: return "the name or path is not 1 to 65,536 bytes of UTF-8";
    case TOVREL_UNUSABLE: return "the cache is unusable (its file could not be opened or saved)";
    case TOVREL_REFUSED: return "refused: too little disk space, or a size or count limit";
    case TOVREL_READ_ONLY: return "the file or folder is read only";
    case TOVREL_DAMAGED: return "the file is damaged";
    case TOVREL_IO_ERROR: return "a file call failed";
    case TOVREL_NO_MEMORY: return "out of memory";
    case TOVREL_BUSY: return "in use (a stream is open)";
    case TOVREL_INTERNAL_ERROR: return "an unexpected error inside the library";
  }
  return "unknown status";
}

void tovrel_free(void* memory) { std::free(memory); }

}  // extern "C"
