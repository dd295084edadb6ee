#include "tovrel/EffectCacheSystem.h"

#include "effectcache/EffectCacheImpl.h"

namespace Tovrel {

EffectCacheSystem::EffectCacheSystem(const WStr& cacheFolder)
    : impl_(new EffectCacheImpl(cacheFolder, EffectCacheImpl::kHostCompressionLevel)) {}

EffectCacheSystem::~EffectCacheSystem() { delete impl_; }

bool EffectCacheSystem::CacheCompiledEffect(const WStr& name, const unsigned char* data, std::size_t size,
                                            bool permanent) {
  return impl_->CacheCompiledEffect(name, data, size, permanent);
}

void EffectCacheSystem::ForceSaveToFile() { impl_->ForceSaveToFile(); }

const WStr& EffectCacheSystem::GetCacheFilePath() const { return impl_->GetCacheFilePath(); }

std::size_t EffectCacheSystem::GetNumberOfEffectsInFile() const { return impl_->GetNumberOfEffectsInFile(); }

std::size_t EffectCacheSystem::GetNumberOfEffectsInMemory() const { return impl_->GetNumberOfEffectsInMemory(); }

bool EffectCacheSystem::IsEnabled() const { return impl_->IsEnabled(); }

void EffectCacheSystem::SetEnabled(bool enabled) { impl_->SetEnabled(enabled); }

void EffectCacheSystem::ListCachedEffects(const wchar_t* file) { impl_->ListCachedEffects(file); }

bool EffectCacheSystem::SearchCachedEffects(const WStr& name, Tab<unsigned char>& data) {
  return impl_->SearchCachedEffects(name, data);
}

bool EffectCacheSystem::SetRemoteStore(const wchar_t* store) { return impl_->SetRemoteStore(store); }

void EffectCacheSystem::SetBackgroundSaving(bool on) { impl_->SetBackgroundSaving(on); }

}  // namespace Tovrel
