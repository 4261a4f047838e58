// Requests, responses, cookie stores, connection specs and pools.

#include <malloc.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include "internal/http/HttpInternal.h"
#include "internal/system/Immortal.h"

namespace Basalt {
namespace Http {

CookieStore::~CookieStore() = default;
ConnectionSpec::~ConnectionSpec() = default;
CustomConnectionSpec::~CustomConnectionSpec() = default;
HttpConnectionPool::~HttpConnectionPool() = default;
ClientRequest::~ClientRequest() = default;
ClientResponse::~ClientResponse() = default;
PendingRequestItem::~PendingRequestItem() = default;
HttpUserAgent::~HttpUserAgent() = default;
BASALT_DEFINE_EXCEPTION(TransferException, Exception)

namespace {

// libcurl copies request bodies into buffers of its own (the request it assembles, the upload
// buffer) and frees them as they are; these memory functions wipe every block first.
void WipingFree(void* block) {
    if (block) {
        StringUtil::SecureWipe(block, malloc_usable_size(block));
        std::free(block);
    }
}

void* WipingRealloc(void* block, size_t size) {
    if (!block) {
        return std::malloc(size);
    }
    if (size == 0) {
        WipingFree(block);
        return nullptr;
    }
    void* larger = std::malloc(size);
    if (larger) {
        std::memcpy(larger, block, std::min(size, malloc_usable_size(block)));
        WipingFree(block);
    }
    return larger;
}

CURLcode InitCurl() {
    return curl_global_init_mem(CURL_GLOBAL_DEFAULT, std::malloc, WipingFree, WipingRealloc, strdup,
                                std::calloc);
}

}  // namespace

void EnsureCurlInitialized() {
    static const CURLcode result = InitCurl();
    if (result != CURLE_OK) {
        throw Exception(std::string("Cannot initialise libcurl: ") + curl_easy_strerror(result));
    }
}

CurlShare::CurlShare() {
    EnsureCurlInitialized();
    m_share.reset(curl_share_init());
    if (!m_share) {
        throw Exception("Out of memory creating a connection cache");
    }
    CURLSH* share = m_share.get();
    curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &CurlShare::Lock);
    curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &CurlShare::Unlock);
    curl_share_setopt(share, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
}

void CurlShare::Lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<CurlShare*>(self)->m_mutexes[data].lock();
}

void CurlShare::Unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<CurlShare*>(self)->m_mutexes[data].unlock();
}

bool SameHeaderName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

namespace {

bool IsTokenChar(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
}

void CheckHeader(const std::string& name, const std::string& value) {
    if (name.empty() || !std::all_of(name.begin(), name.end(), IsTokenChar)) {
        throw InvalidArgumentException("Invalid HTTP header name '" + name + "'");
    }
    if (value.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
        throw InvalidArgumentException("Invalid value for HTTP header '" + name +
                                       "': line breaks and NUL are not allowed");
    }
}

class CookieStoreImpl final : public ObjectImpl, public CookieStore {
  public:
    explicit CookieStoreImpl(std::string name) : m_name(std::move(name)) {}
    std::vector<std::string> GetCookieLines() const override {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    void SetCookieLines(std::vector<std::string> lines) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines = std::move(lines);
    }
    void Clear() override { SetCookieLines({}); }
    std::string ToString() const override { return "CookieStore(" + m_name + ")"; }

  private:
    const std::string m_name;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

class ConnectionSpecImpl final : public ObjectImpl, public ConnectionSpec {
  public:
    ConnectionSpecImpl(std::string host, int port, Ssl::SSLContext* context, std::string serverName,
                       bool reusable)
        : m_host(std::move(host)),
          m_port(port),
          m_context(context),
          m_serverName(std::move(serverName)),
          m_reusable(reusable) {}
    std::string GetHost() const override { return m_host; }
    int GetPort() const override { return m_port; }
    Ssl::SSLContext* GetSSLContext() const override { return m_context.Get(); }
    std::string GetServerName() const override { return m_serverName; }
    bool IsReusable() const override { return m_reusable; }
    std::string ToString() const override { return m_host + ":" + std::to_string(m_port); }

  private:
    const std::string m_host;
    const int m_port;
    const Ref<Ssl::SSLContext> m_context;
    const std::string m_serverName;
    const bool m_reusable;
};

class ConnectionPoolImpl final : public ObjectImpl, public HttpConnectionPool {
  public:
    CURLSH* GetShare() const { return m_share.Get(); }
    std::string ToString() const override { return "HttpConnectionPool"; }

  private:
    mutable CurlShare m_share;
};

class ClientRequestImpl final : public ObjectImpl, public ClientRequest {
  public:
    ClientRequestImpl(HttpMethod method, std::string path) {
        m_data.method = method;
        m_data.path = std::move(path);
        CreateStringWriter(m_body);
    }
    HttpMethod GetMethod() const override { return m_data.method; }
    const std::string& GetPath() const override { return m_data.path; }
    void SetHeader(const std::string& name, const std::string& value) override {
        CheckHeader(name, value);
        auto existing = FindHeader(name);
        if (existing != m_data.headers.end()) {
            existing->second = value;
        } else {
            m_data.headers.emplace_back(name, value);
        }
    }
    std::string GetHeader(const std::string& name) const override {
        auto existing = const_cast<ClientRequestImpl*>(this)->FindHeader(name);
        return existing == m_data.headers.end() ? std::string() : existing->second;
    }
    Writer* GetBodyWriter() override { return m_body.Get(); }
    void SetTimeout(int64_t microseconds) override {
        if (microseconds < 0) {
            throw InvalidArgumentException("ClientRequest::SetTimeout: negative timeout");
        }
        m_data.timeoutMicroseconds = microseconds;
    }
    void SetConnectTimeout(int64_t microseconds) override {
        if (microseconds < 0) {
            throw InvalidArgumentException("ClientRequest::SetConnectTimeout: negative timeout");
        }
        m_data.connectTimeoutMicroseconds = microseconds;
    }
    std::string ToString() const override { return "ClientRequest(" + m_data.path + ")"; }

    RequestData Snapshot() const {
        RequestData copy = m_data;
        copy.body = m_body->GetString();
        return copy;
    }

  private:
    HeaderList::iterator FindHeader(const std::string& name) {
        return std::find_if(m_data.headers.begin(), m_data.headers.end(),
                            [&](const auto& header) { return SameHeaderName(header.first, name); });
    }

    RequestData m_data;
    Ref<StringWriter> m_body;
};

class ClientResponseImpl final : public ObjectImpl, public ClientResponse {
  public:
    ClientResponseImpl(int status, std::string reason, HeaderList headers, std::string body)
        : m_status(status),
          m_reason(std::move(reason)),
          m_headers(std::move(headers)),
          m_body(std::move(body)) {}
    int GetStatusCode() const override { return m_status; }
    const std::string& GetReason() const override { return m_reason; }
    const HeaderList& GetHeaders() const override { return m_headers; }
    std::string GetHeader(const std::string& name) const override {
        for (const auto& header : m_headers) {
            if (SameHeaderName(header.first, name)) {
                return header.second;
            }
        }
        return std::string();
    }
    void GetBodyReader(Ref<Reader>& reader) const override;
    std::string ToString() const override {
        return "ClientResponse(" + std::to_string(m_status) + " " + m_reason + ")";
    }
    const std::string& GetBody() const { return m_body; }

  private:
    const int m_status;
    const std::string m_reason;
    const HeaderList m_headers;
    const std::string m_body;
};

// Reads the body in place; holds the response so the bytes stay.
class BodyReader final : public ObjectImpl, public Reader {
  public:
    explicit BodyReader(const ClientResponseImpl* response) : m_response(response) {}
    size_t Read(char* buffer, size_t size) override {
        const std::string& body = m_response->GetBody();
        const size_t count = std::min(size, body.size() - m_offset);
        std::memcpy(buffer, body.data() + m_offset, count);
        m_offset += count;
        return count;
    }
    std::string ToString() const override { return "ResponseBodyReader"; }

  private:
    Ref<const ClientResponseImpl> m_response;
    size_t m_offset = 0;
};

void ClientResponseImpl::GetBodyReader(Ref<Reader>& reader) const {
    reader = new BodyReader(this);
}

}  // namespace

void CreateCookieStore(const std::string& name, Ref<CookieStore>& store) {
    store = new CookieStoreImpl(name.empty() ? "memory" : name);
}

void CreateConnectionSpec(const std::string& host, int port, Ssl::SSLContext* context,
                          const std::string& serverName, bool reusable, Ref<ConnectionSpec>& spec) {
    spec = new ConnectionSpecImpl(host, port, context, serverName, reusable);
}

void CreateHttpConnectionPool(Ref<HttpConnectionPool>& pool) {
    pool = new ConnectionPoolImpl();
}

CURLSH* PoolShare(HttpConnectionPool* pool) {
    auto* impl = dynamic_cast<ConnectionPoolImpl*>(pool);
    if (!impl) {
        throw InvalidArgumentException("HttpConnectionPool not made by CreateHttpConnectionPool");
    }
    return impl->GetShare();
}

HttpConnectionPool* DefaultPool() {
    static const Immortal<Ref<HttpConnectionPool>> pool([] {
        Ref<HttpConnectionPool> created;
        CreateHttpConnectionPool(created);
        return created;
    }());
    return pool->Get();
}

void CreateHttpRequest(HttpMethod method, std::string_view path, Ref<ClientRequest>& request) {
    const auto startsWith = [&](std::string_view prefix) {
        return path.substr(0, prefix.size()) == prefix;
    };
    const bool originForm = startsWith("/");
    const bool absoluteForm = startsWith("http://") || startsWith("https://");
    if ((!originForm && !absoluteForm) ||
        !std::all_of(path.begin(), path.end(), [](char c) { return c > 0x20 && c < 0x7f; })) {
        throw InvalidArgumentException("Invalid HTTP request path '" + std::string(path) + "'");
    }
    if (static_cast<int>(method) < static_cast<int>(HttpMethod::Get) ||
        static_cast<int>(method) > static_cast<int>(HttpMethod::Patch)) {
        throw InvalidArgumentException("Invalid HTTP method");
    }
    request = new ClientRequestImpl(method, std::string(path));
}

RequestData SnapshotRequest(ClientRequest* request) {
    auto* impl = dynamic_cast<ClientRequestImpl*>(request);
    if (!impl) {
        throw InvalidArgumentException("ClientRequest not made by CreateHttpRequest");
    }
    return impl->Snapshot();
}

void CreateClientResponse(int status, std::string reason, HeaderList headers, std::string body,
                          Ref<ClientResponse>& response) {
    response =
        new ClientResponseImpl(status, std::move(reason), std::move(headers), std::move(body));
}

}  // namespace Http
}  // namespace Basalt
