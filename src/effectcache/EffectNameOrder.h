// EffectNameOrder: the order of effect names (UTF-8 bytes) in the cache's
// maps, its index stream and its list file: the shorter name first, names
// of equal length bytewise as unsigned bytes. Not lexicographic, on
// purpose: it fixes the order in which the file is written.
// Stateless; safe from any thread.
#ifndef TOVREL_EFFECTCACHE_EFFECTNAMEORDER_H
#define TOVREL_EFFECTCACHE_EFFECTNAMEORDER_H

#include <cstring>
#include <string>

namespace Tovrel {

struct EffectNameOrder {
  bool operator()(const std::string& a, const std::string& b) const {
    if (a.size() != b.size()) return a.size() < b.size();
    return std::memcmp(a.data(), b.data(), a.size()) < 0;
  }
};

}  // namespace Tovrel

#endif
