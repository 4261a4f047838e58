#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include <basalt/DateTime.h>

#include <ssoClient/SamlToken.h>

namespace SsoClient {

// The validated tokens of a caching factory or validator: least recently used first out, each
// until its expiration time with tolerance. Thread-safe; nothing is validated under its lock.
class TokenCache {
  public:
    using Token = std::shared_ptr<const SamlToken>;

    // clock: null means the system clock.
    TokenCache(size_t maxEntries, std::shared_ptr<const Basalt::System::Clock> clock);

    // The kept token of text and extra (what else decides the token object), else the token
    // made by make(), kept unless it throws.
    template <class Make>
    Token Get(std::string_view text, std::string_view extra, const Make& make) {
        const std::string key = Key(text, extra);
        if (Token token = Find(key)) {
            return token;
        }
        return Keep(key, make());
    }

    size_t Size() const;

  private:
    struct Entry {
        std::string key;
        Token token;
        int64_t expiresAt;
    };

    // The SHA-256 of text followed by extra as it is.
    static std::string Key(std::string_view text, std::string_view extra);
    Token Find(const std::string& key);
    // Keeps token (or returns the one another thread kept first).
    Token Keep(const std::string& key, Token token);

    const size_t m_maxEntries;
    const std::shared_ptr<const Basalt::System::Clock> m_clock;
    mutable std::mutex m_mutex;
    std::list<Entry> m_entries;  // most recently used first
    std::unordered_map<std::string, std::list<Entry>::iterator> m_index;
};

}  // namespace SsoClient
