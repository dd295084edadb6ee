/* capi_check: a C99 host of Tovrel's C interface, outside the library.
 *
 * It creates an effect cache in the current folder, caches effects and
 * finds them byte-exact, saves, reopens and finds them again, lists,
 * counts and verifies, checks the statuses of bad input, and writes and
 * reads a file package. It prints "capi check: all passed" and exits 0,
 * or prints the first check that failed and exits 1.
 *
 * The checks use nothing of the C library, so that the same file builds
 * as a Windows program of Microsoft's ABI that imports kernel32 and
 * tovrel.dll only (no C runtime, with TOVREL_CHECK_NO_CRT defined): the
 * few things a program needs from its system (an entry point, writing a
 * line, memset/memcpy for the compiler) are at the end, with and without
 * a C runtime. */
#include "tovrel/tovrel_c.h"

static void Say(const char* text);

static int failures = 0;

static void SayNumber(unsigned long long value) {
  char digits[24];
  int at = 23;
  digits[at] = '\0';
  do {
    digits[--at] = (char)('0' + value % 10);
    value /= 10;
  } while (value != 0);
  Say(digits + at);
}

#define CHECK(condition)                        \
  do {                                          \
    if (!(condition)) {                         \
      Say("capi check: failed at line ");       \
      SayNumber((unsigned long long)__LINE__);  \
      Say(": " #condition "\n");                \
      ++failures;                               \
      return;                                   \
    }                                           \
  } while (0)

static int SameText(const char* a, const char* b) {
  while (*a != '\0' && *a == *b) ++a, ++b;
  return *a == *b;
}

static int SameBytes(const unsigned char* a, const unsigned char* b, size_t size) {
  size_t i;
  for (i = 0; i < size; ++i) {
    if (a[i] != b[i]) return 0;
  }
  return 1;
}

#define EFFECTS 24
#define LARGEST 70000

static unsigned char effect[LARGEST];
static unsigned char back[LARGEST];
static char name[32];

static size_t EffectSize(int i) { return (size_t)(1 + i * 2917); }

/* The i-th effect's name ("fx/<i>/\xc3\xa9", UTF-8) and bytes. */
static size_t MakeEffect(int i) {
  size_t n = 0;
  size_t size = EffectSize(i);
  size_t k;
  unsigned x = 2166136261u ^ (unsigned)i;
  name[n++] = 'f';
  name[n++] = 'x';
  name[n++] = '/';
  name[n++] = (char)('a' + i % 26);
  name[n++] = (char)('0' + i / 10);
  name[n++] = (char)('0' + i % 10);
  name[n++] = '/';
  name[n++] = (char)0xc3;
  name[n++] = (char)0xa9;
  name[n] = '\0';
  for (k = 0; k < size; ++k) {
    x = x * 16777619u + (unsigned)k;
    effect[k] = (unsigned char)((x >> 24) % 5 + k % 11);
  }
  return n;
}

static void CheckFound(tovrel_effect_cache* cache, int i) {
  size_t nameSize = MakeEffect(i);
  size_t size = 0;
  void* copy = 0;
  CHECK(tovrel_effect_cache_get(cache, name, nameSize, 0, 0, &size) == TOVREL_BUFFER_TOO_SMALL);
  CHECK(size == EffectSize(i));
  CHECK(tovrel_effect_cache_get(cache, name, nameSize, back, sizeof back, &size) == TOVREL_OK);
  CHECK(size == EffectSize(i) && SameBytes(back, effect, size));
  CHECK(tovrel_effect_cache_get_alloc(cache, name, nameSize, &copy, &size) == TOVREL_OK);
  CHECK(size == EffectSize(i) && SameBytes((const unsigned char*)copy, effect, size));
  tovrel_free(copy);
}

static int CountOne(void* context, const tovrel_effect_info* info) {
  (void)info;
  ++*(int*)context;
  return 0;
}

static void CheckCache(void) {
  tovrel_effect_cache* cache = 0;
  tovrel_effect_cache_options options;
  uint64_t inMemory = 0, inFile = 0, problems = 1;
  size_t size = 0;
  int i, listed = 0;
  CHECK(tovrel_effect_cache_options_init(&options) == TOVREL_OK);
  CHECK(tovrel_effect_cache_open(".", &options, &cache) == TOVREL_OK);
  for (i = 0; i < EFFECTS; ++i) {
    size_t nameSize = MakeEffect(i);
    CHECK(tovrel_effect_cache_put(cache, name, nameSize, effect, EffectSize(i), i == 0) == TOVREL_OK);
  }
  for (i = 0; i < EFFECTS; ++i) CheckFound(cache, i);
  CHECK(tovrel_effect_cache_save(cache) == TOVREL_OK);
  CHECK(tovrel_effect_cache_counts(cache, &inMemory, &inFile) == TOVREL_OK);
  CHECK(inMemory == 0 && inFile == EFFECTS);

  /* Bad input: a status each, nothing stored lost. */
  CHECK(tovrel_effect_cache_put(0, "n", 1, effect, 1, 0) == TOVREL_INVALID_HANDLE);
  CHECK(tovrel_effect_cache_put(cache, "x\xff", 2, effect, 1, 0) == TOVREL_BAD_NAME);
  CHECK(tovrel_effect_cache_put(cache, "n", 0, effect, 1, 0) == TOVREL_BAD_NAME);
  CHECK(tovrel_effect_cache_put(cache, 0, 1, effect, 1, 0) == TOVREL_INVALID_ARGUMENT);
  CHECK(tovrel_effect_cache_put(cache, "n", 1, 0, 1, 0) == TOVREL_INVALID_ARGUMENT);
  CHECK(tovrel_effect_cache_put(cache, "n", 1, effect, 1048577, 0) == TOVREL_INVALID_ARGUMENT);
  CHECK(tovrel_effect_cache_get(cache, "n", 1, 0, 5, &size) == TOVREL_INVALID_ARGUMENT);
  CHECK(tovrel_effect_cache_get(cache, "missing", 7, back, sizeof back, &size) == TOVREL_NOT_FOUND);
  CHECK(tovrel_effect_cache_open(0, 0, &cache) == TOVREL_INVALID_ARGUMENT);
  CHECK(tovrel_effect_cache_close(cache) == TOVREL_OK);
  CHECK(tovrel_effect_cache_save(cache) == TOVREL_INVALID_HANDLE);

  cache = 0;
  CHECK(tovrel_effect_cache_open(".", 0, &cache) == TOVREL_OK);
  for (i = 0; i < EFFECTS; ++i) CheckFound(cache, i);
  CHECK(tovrel_effect_cache_close(cache) == TOVREL_OK);
  CHECK(tovrel_effect_cache_list(".", CountOne, &listed) == TOVREL_OK);
  CHECK(listed == EFFECTS);
  CHECK(tovrel_effect_cache_verify(".", 0, 0, &problems) == TOVREL_OK);
  CHECK(problems == 0);
}

static void CheckPackage(void) {
  tovrel_package* package = 0;
  tovrel_stream* stream = 0;
  uint64_t id = 0, done = 0, count = 0;
  size_t size = EffectSize(7);
  MakeEffect(7);
  CHECK(tovrel_package_create("capi.pkg", 0, &package) == TOVREL_OK);
  CHECK(tovrel_package_stream_create(package, size, &id) == TOVREL_OK);
  CHECK(tovrel_package_stream_open(package, id, &stream) == TOVREL_OK);
  CHECK(tovrel_stream_write(stream, effect, size, &done) == TOVREL_OK && done == size);
  CHECK(tovrel_stream_close(stream) == TOVREL_OK);
  CHECK(tovrel_package_user_data_set(package, "ud", 2) == TOVREL_OK);
  CHECK(tovrel_package_close(package) == TOVREL_OK);
  CHECK(tovrel_package_close(package) == TOVREL_INVALID_HANDLE);
  CHECK(tovrel_package_open_read_only("capi.pkg", 0, &package) == TOVREL_OK);
  CHECK(tovrel_package_stream_count(package, &count) == TOVREL_OK && count == 1);
  CHECK(tovrel_package_stream_open(package, id, &stream) == TOVREL_OK);
  CHECK(tovrel_stream_seek(stream, 0, 5) == TOVREL_OK);
  CHECK(tovrel_stream_read(stream, back, sizeof back, &done) == TOVREL_OK && done == size - 5);
  CHECK(SameBytes(back, effect + 5, size - 5));
  CHECK(tovrel_stream_write(stream, effect, 1, &done) == TOVREL_READ_ONLY);
  CHECK(tovrel_stream_close(stream) == TOVREL_OK);
  CHECK(tovrel_package_close(package) == TOVREL_OK);
  CHECK(tovrel_package_open("missing.pkg", 0, &package) == TOVREL_NOT_FOUND);
}

static int RunChecks(void) {
  if (!SameText(tovrel_version(), TOVREL_VERSION_STRING)) {
    Say("capi check: the library is not of this header's version\n");
    return 1;
  }
  if (!SameText(tovrel_status_string(TOVREL_NOT_FOUND), "not found")) {
    Say("capi check: status texts\n");
    return 1;
  }
  CheckCache();
  if (failures == 0) CheckPackage();
  if (failures != 0) return 1;
  Say("capi check: all passed\n");
  return 0;
}

#if defined(_WIN32) && defined(TOVREL_CHECK_NO_CRT)
/* kernel32 alone: no C runtime, so the entry point is the program's own. */
typedef void* Handle;
__declspec(dllimport) Handle __stdcall GetStdHandle(unsigned long which);
__declspec(dllimport) int __stdcall WriteFile(Handle file, const void* bytes, unsigned long size,
                                              unsigned long* written, void* overlapped);
__declspec(dllimport) void __stdcall ExitProcess(unsigned int code);

static void Say(const char* text) {
  unsigned long size = 0, written = 0;
  while (text[size] != '\0') ++size;
  WriteFile(GetStdHandle((unsigned long)-11), text, size, &written, 0);
}

/* What the compiler may call for a loop that fills or copies. */
void* memset(void* to, int value, size_t size);
void* memcpy(void* to, const void* from, size_t size);
void* memset(void* to, int value, size_t size) {
  volatile unsigned char* bytes = (volatile unsigned char*)to;
  while (size-- != 0) *bytes++ = (unsigned char)value;
  return to;
}
void* memcpy(void* to, const void* from, size_t size) {
  volatile unsigned char* bytes = (volatile unsigned char*)to;
  const unsigned char* source = (const unsigned char*)from;
  while (size-- != 0) *bytes++ = *source++;
  return to;
}

void __stdcall mainCRTStartup(void);
void __stdcall mainCRTStartup(void) { ExitProcess((unsigned int)RunChecks()); }
#else
#include <stdio.h>

static void Say(const char* text) { fputs(text, stdout); }

int main(void) {
  int status = RunChecks();
  return fflush(stdout) == 0 ? status : 1;
}
#endif
