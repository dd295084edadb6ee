// Page geometry of a package file.
//
// A package file is an array of 8192-byte pages. Page id P (10..0xFFFFF)
// is the page at file offset (P - 10) * 8192; ids 0..9 are never pages, and
// 0 in a next-page link means "no next page". A chain, and the file, hold at
// most kPageLimit pages. Chains carry headers: 32 bytes on their first page,
// 16 on every further page.
#ifndef TOVREL_PAGEFILE_PAGEGEOMETRY_H
#define TOVREL_PAGEFILE_PAGEGEOMETRY_H

#include <cstdint>

namespace Tovrel {

constexpr std::uint64_t kPageSize = 8192;
constexpr std::uint64_t kFirstPageId = 10;
constexpr std::uint64_t kLastPageId = 0xFFFFF;
constexpr std::uint64_t kPageLimit = 0xFFFF6;
constexpr std::uint64_t kFirstPageHeader = 32;
constexpr std::uint64_t kOtherPageHeader = 16;
constexpr std::uint64_t kFirstPagePayload = kPageSize - kFirstPageHeader;  // 8160
constexpr std::uint64_t kPagePayload = kPageSize - kOtherPageHeader;       // 8176

// True for the ids of real pages, 10..0xFFFFF.
constexpr bool IsPageId(std::uint64_t id) { return id - kFirstPageId <= kLastPageId - kFirstPageId; }

// File offset of the page with the given id.
constexpr std::uint64_t PageOffset(std::uint64_t id) { return (id - kFirstPageId) * kPageSize; }

// Pages a head-style chain needs for a payload of `size` bytes (size > 0).
constexpr std::uint64_t ChainPagesFor(std::uint64_t size) {
  return size < kFirstPagePayload ? 1 : 1 + (size - kFirstPagePayload + kPagePayload - 1) / kPagePayload;
}

}  // namespace Tovrel

#endif
