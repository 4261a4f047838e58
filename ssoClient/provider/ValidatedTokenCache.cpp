#include <ssoClient/ValidatedTokenCache.h>

#include <basalt/Crypto.h>
#include <basalt/Exception.h>

#include "internal/provider/TokenCache.h"

namespace SsoClient {

TokenCache::TokenCache(size_t maxEntries, std::shared_ptr<const Basalt::System::Clock> clock)
    : m_maxEntries(maxEntries),
      m_clock(clock ? std::move(clock)
                    : std::shared_ptr<const Basalt::System::Clock>(
                          std::shared_ptr<void>(), &Basalt::System::SystemClock())) {
    if (maxEntries == 0) {
        throw Basalt::InvalidArgumentException("A token cache needs room for one entry");
    }
}

std::string TokenCache::Key(std::string_view text, std::string_view extra) {
    const std::vector<unsigned char> digest =
        Basalt::Crypto::Digest(Basalt::Crypto::DigestAlgorithm::Sha256, text.data(), text.size());
    std::string key(digest.begin(), digest.end());
    key.append(extra);
    return key;
}

TokenCache::Token TokenCache::Find(const std::string& key) {
    const int64_t now = m_clock->Now().GetUtcTime();
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_index.find(key);
    if (found == m_index.end()) {
        return nullptr;
    }
    if (now >= found->second->expiresAt) {
        m_entries.erase(found->second);
        m_index.erase(found);
        return nullptr;
    }
    m_entries.splice(m_entries.begin(), m_entries, found->second);
    return found->second->token;
}

TokenCache::Token TokenCache::Keep(const std::string& key, Token token) {
    if (!token) {
        return token;
    }
    const int64_t expiresAt = token->GetExpirationTimeWithTolerance().GetUtcTime();
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto [found, inserted] = m_index.emplace(key, m_entries.end());
    if (!inserted) {
        return found->second->token;
    }
    m_entries.push_front({key, std::move(token), expiresAt});
    found->second = m_entries.begin();
    if (m_entries.size() > m_maxEntries) {
        m_index.erase(m_entries.back().key);
        m_entries.pop_back();
    }
    return found->second->token;
}

size_t TokenCache::Size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries.size();
}

namespace {

class CachingSamlTokenFactory final : public SamlTokenFactory {
  public:
    CachingSamlTokenFactory(std::shared_ptr<SamlTokenFactory> inner,
                            const ValidatedTokenCacheOptions& options)
        : m_inner(std::move(inner)), m_cache(options.maxEntries, options.clock) {}

    std::shared_ptr<const SamlToken> CreateSamlToken(const std::string& xml,
                                                     long clockToleranceSec) const override {
        const std::string_view tolerance(reinterpret_cast<const char*>(&clockToleranceSec),
                                         sizeof clockToleranceSec);
        return m_cache.Get(xml, tolerance,
                           [&] { return m_inner->CreateSamlToken(xml, clockToleranceSec); });
    }
    std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(Basalt::Xml::ElementNode* element,
                                                            long clockToleranceSec) const override {
        return m_inner->CreateSamlTokenFromDom(element, clockToleranceSec);
    }

  private:
    const std::shared_ptr<SamlTokenFactory> m_inner;
    mutable TokenCache m_cache;
};

class CachingTokenValidator final : public virtual TokenValidator,
                                    public virtual Basalt::ObjectImpl {
  public:
    CachingTokenValidator(Basalt::Ref<TokenValidator> inner,
                          const ValidatedTokenCacheOptions& options)
        : m_inner(std::move(inner)), m_cache(options.maxEntries, options.clock) {}

    std::shared_ptr<const SamlToken> Validate(std::string_view token,
                                              std::string_view second) const override {
        return m_cache.Get(token, second, [&] { return m_inner->Validate(token, second); });
    }

  private:
    const Basalt::Ref<TokenValidator> m_inner;
    mutable TokenCache m_cache;
};

}  // namespace

std::shared_ptr<SamlTokenFactory> CreateCachingSamlTokenFactory(
    std::shared_ptr<SamlTokenFactory> inner, const ValidatedTokenCacheOptions& options) {
    if (!inner) {
        throw Basalt::InvalidArgumentException("A caching factory needs a factory to wrap");
    }
    return std::make_shared<CachingSamlTokenFactory>(std::move(inner), options);
}

void CreateCachingTokenValidator(const Basalt::Ref<TokenValidator>& inner,
                                 const ValidatedTokenCacheOptions& options,
                                 Basalt::Ref<TokenValidator>& validator) {
    if (!inner) {
        throw Basalt::InvalidArgumentException("A caching validator needs a validator to wrap");
    }
    validator = new CachingTokenValidator(inner, options);
}

}  // namespace SsoClient
