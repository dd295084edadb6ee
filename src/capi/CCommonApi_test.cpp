#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <set>
#include <stdexcept>
#include <string>

#include "capi/CApiCall.h"
#include "pagefile/FileDataCorruptException.h"
#include "pagefile/FileIOException.h"
#include "pagefile/InvalidParameterException.h"
#include "pagefile/OutOfMemoryException.h"
#include "tovrel/tovrel_c.h"

namespace {

TEST(CCommonApiTest, TheVersionIsTheLibrarysAndTheHeadersToo) {
  EXPECT_STREQ(tovrel_version(), TOVREL_VERSION_STRING);
  EXPECT_STREQ(tovrel_version(), TOVREL_PROJECT_VERSION);
  EXPECT_EQ(TOVREL_VERSION_NUMBER, TOVREL_VERSION_MAJOR * 10000 + TOVREL_VERSION_MINOR * 100 + TOVREL_VERSION_PATCH);
  EXPECT_EQ(std::to_string(TOVREL_VERSION_MAJOR) + "." + std::to_string(TOVREL_VERSION_MINOR) + "." +
                std::to_string(TOVREL_VERSION_PATCH),
            TOVREL_VERSION_STRING);
}

TEST(CCommonApiTest, EveryStatusHasATextOfItsOwn) {
  std::set<std::string> texts;
  for (int status = TOVREL_OK; status <= TOVREL_INTERNAL_ERROR; ++status) {
    const std::string text = tovrel_status_string(static_cast<tovrel_status>(status));
    EXPECT_FALSE(text.empty());
    EXPECT_NE(text, "unknown status") << status;
    texts.insert(text);
  }
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(TOVREL_INTERNAL_ERROR) + 1);
  EXPECT_STREQ(tovrel_status_string(static_cast<tovrel_status>(99)), "unknown status");
  EXPECT_STREQ(tovrel_status_string(static_cast<tovrel_status>(-1)), "unknown status");
  tovrel_free(nullptr);
}

template <class Thrown>
tovrel_status StatusOf(const Thrown& thrown) {
  return Tovrel::CApiCall::Guard([&]() -> tovrel_status { throw thrown; });
}

TEST(CCommonApiTest, EveryExceptionBecomesAStatus) {
  EXPECT_EQ(StatusOf(std::bad_alloc()), TOVREL_NO_MEMORY);
  EXPECT_EQ(StatusOf(Tovrel::OutOfMemoryException()), TOVREL_NO_MEMORY);
  EXPECT_EQ(StatusOf(Tovrel::FileDataCorruptException()), TOVREL_DAMAGED);
  EXPECT_EQ(StatusOf(Tovrel::FileIOException(EIO)), TOVREL_IO_ERROR);
  EXPECT_EQ(StatusOf(Tovrel::FileIOException(EROFS)), TOVREL_READ_ONLY);
  EXPECT_EQ(StatusOf(Tovrel::InvalidParameterException()), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(StatusOf(std::runtime_error("x")), TOVREL_INTERNAL_ERROR);
  EXPECT_EQ(StatusOf(42), TOVREL_INTERNAL_ERROR);
  EXPECT_EQ(Tovrel::CApiCall::Guard([] { return TOVREL_BUSY; }), TOVREL_BUSY);
}

TEST(CCommonApiTest, TextIsCheckedForUtf8) {
  std::wstring wide;
  EXPECT_EQ(Tovrel::CApiCall::WidePath(nullptr, &wide), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(Tovrel::CApiCall::WidePath("", &wide), TOVREL_INVALID_ARGUMENT);
  EXPECT_EQ(Tovrel::CApiCall::WidePath("a\xff", &wide), TOVREL_BAD_NAME);
  EXPECT_EQ(Tovrel::CApiCall::WidePath("a\xc3\xa9", &wide), TOVREL_OK);
  EXPECT_EQ(wide, L"a\u00e9");
}

}  // namespace
