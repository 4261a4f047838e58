// The user agent and the HTTP thread: one thread drives every transfer of the process through
// libcurl's multi interface; callers hand it requests and wait on their pending items.

#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include <basalt/DateTime.h>
#include <basalt/Net.h>
#include "internal/crypto/CryptoInternal.h"
#include "internal/http/HttpInternal.h"
#include "internal/http/SslInternal.h"
#include "internal/system/ExitHooks.h"
#include "internal/system/FoundationLog.h"

namespace Basalt {
namespace Http {

namespace {

thread_local bool t_onHttpThread = false;

// libcurl makes an SSL_CTX per connection; this slot of it names the transfer.
int TransferIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

long Millis(int64_t microseconds) {
    return static_cast<long>(std::max<int64_t>(1, (microseconds + 999) / 1000));
}

std::string BracketIfIpv6(const std::string& host) {
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

// Appends line to list; libcurl links it in place, so only a new list gets a new head.
void Append(UniquePtr<curl_slist>& list, const char* line) {
    curl_slist* head = curl_slist_append(list.get(), line);
    if (!head) {
        throw Exception("Out of memory building request headers");
    }
    if (!list) {
        list.reset(head);
    }
}

bool IsValidHostName(const std::string& host) {
    return !host.empty() &&
           (System::IsIpAddress(host) || std::all_of(host.begin(), host.end(), [](char c) {
                return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' ||
                       c == '_';
            }));
}

// What a user agent fixed at creation: its ConnectionSpec's answers are read once.
struct Endpoint {
    Ref<ConnectionSpec> spec;
    const CustomConnectionSpec* custom = nullptr;
    Ref<Ssl::SSLContextImpl> context;
    bool reusable = false;
    std::string baseUrl;    // scheme://name:port
    std::string connectTo;  // libcurl CONNECT_TO entry when the TLS name is not the host
    std::string peer;       // how messages name the server
    std::string hostPort;   // host:port, for the connect timeout's message
    UserAgentOptions options;
};

// An http proxy given as scheme, host and port only: credentials have their own fields, and a
// path would mean nothing.
void CheckProxyUrl(const std::string& url) {
    bool secure = false;
    std::string host;
    int port = 0;
    std::string path;
    try {
        ParseHttpURL(url, secure, host, port, path);
    } catch (const Exception& error) {
        throw InvalidArgumentException(std::string("CreateHttpUserAgent: invalid proxy URL: ") +
                                       error.what());
    }
    if (secure || path != "/") {
        throw InvalidArgumentException(
            "CreateHttpUserAgent: the proxy URL must be http://host:port");
    }
}

Endpoint MakeEndpoint(ConnectionSpec* spec, const UserAgentOptions& options) {
    if (!spec) {
        throw InvalidArgumentException("CreateHttpUserAgent: a connection spec is required");
    }
    Endpoint endpoint;
    endpoint.spec = spec;
    endpoint.custom = dynamic_cast<const CustomConnectionSpec*>(spec);
    const std::string host = spec->GetHost();
    const int port = spec->GetPort();
    std::string serverName = spec->GetServerName();
    if (!IsValidHostName(host) || port < 1 || port > 65535) {
        throw InvalidArgumentException("CreateHttpUserAgent: invalid host or port in " +
                                       spec->ToString());
    }
    if (!serverName.empty() && !IsValidHostName(serverName)) {
        throw InvalidArgumentException("CreateHttpUserAgent: invalid TLS server name '" +
                                       serverName + "'");
    }
    Ssl::SSLContext* context = spec->GetSSLContext();
    if (context) {
        endpoint.context = dynamic_cast<Ssl::SSLContextImpl*>(context);
        if (!endpoint.context) {
            throw InvalidArgumentException("SSLContext not made by CreateSSLContext");
        }
    }
    endpoint.reusable = spec->IsReusable();
    const std::string scheme = context ? "https://" : "http://";
    const std::string portText = ":" + std::to_string(port);
    if (serverName == host) {
        serverName.clear();
    }
    const std::string urlHost = BracketIfIpv6(serverName.empty() ? host : serverName);
    endpoint.baseUrl = scheme + urlHost + portText;
    endpoint.peer = scheme + BracketIfIpv6(host) + portText;
    endpoint.hostPort = BracketIfIpv6(host) + portText;
    if (!options.proxyUrl.empty()) {
        CheckProxyUrl(options.proxyUrl);
    }
    endpoint.options = options;
    if (!serverName.empty()) {
        endpoint.connectTo = urlHost + portText + ":" + BracketIfIpv6(host) + portText;
        endpoint.peer += " (TLS name " + serverName + ")";
    }
    return endpoint;
}

class UserAgentImpl;

class Transfer final : public ObjectImpl, public PendingRequestItem {
  public:
    Transfer(Ref<UserAgentImpl> agent, RequestData request, CompletionCallback completion);
    ~Transfer() override { CleanupEasy(); }

    bool IsDone() const override {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_done;
    }
    void Cancel() override;
    std::string ToString() const override;

    const UserAgentImpl* GetAgent() const { return m_agent.Get(); }
    // Waits until done; returns false if the time (negative: none) ran out first.
    bool WaitFor(int64_t microseconds) const;
    // The outcome once done: throws the error or fills response.
    void TakeOutcome(Ref<ClientResponse>& response) const;

    // On the HTTP thread.
    CURL* Setup();
    void Finish(CURLcode code);
    void Complete(std::unique_ptr<Exception> error, Ref<ClientResponse> response);

  private:
    template <class T>
    void SetOption(CURLoption option, T value);
    void SetupMethodAndBody();
    void SetupHeaders();
    void SetupCookies();
    void SetupConnection();
    void SetupProxy(const UserAgentOptions& options);
    void SetupTls();
    FailureKind Classify(CURLcode code) const;
    void SaveCookies();
    std::string ErrorText(CURLcode code) const;
    void CleanupEasy();

    static size_t OnHeader(char* data, size_t size, size_t count, void* self);
    static size_t OnBody(char* data, size_t size, size_t count, void* self);
    static CURLcode OnSslContext(CURL*, void* sslContext, void* self);
    static int OnVerifyChain(X509_STORE_CTX* store, void* self);
    static void OnTlsInfo(const SSL* ssl, int where, int value);

    const Ref<UserAgentImpl> m_agent;
    const RequestData m_request;
    CompletionCallback m_completion;

    // Used only on the HTTP thread while the transfer runs.
    UniquePtr<CurlEasyHandle> m_easy;
    UniquePtr<curl_slist> m_headerList;
    UniquePtr<curl_slist> m_connectTo;
    char m_errorBuffer[CURL_ERROR_SIZE] = {};
    ReplyAccumulator m_reply;
    std::string m_tlsSetupError;
    std::string m_handshakeError;
    bool m_tlsAlert = false;  // the peer refused the handshake with an alert

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_doneSignal;
    bool m_done = false;
    std::unique_ptr<Exception> m_error;
    Ref<ClientResponse> m_response;
};

class UserAgentImpl final : public ObjectImpl, public HttpUserAgent {
  public:
    UserAgentImpl(ConnectionSpec* spec, CookieStore* cookies, HttpConnectionPool* pool,
                  const UserAgentOptions& options)
        : m_endpoint(MakeEndpoint(spec, options)), m_cookies(cookies), m_pool(pool) {
        if (!m_cookies) {
            CreateCookieStore("", m_cookies);
        }
        if (m_pool) {
            PoolShare(m_pool.Get());  // refuses foreign pools now rather than per request
        }
        if (!m_endpoint.reusable) {
            m_ownShare = std::make_unique<CurlShare>();
        }
    }

    void SendAsync(ClientRequest* request, CompletionCallback completion,
                   Ref<PendingRequestItem>& pending) override;
    void Wait(PendingRequestItem* pending, int64_t timeout, Ref<ClientResponse>& response) override;
    std::string ToString() const override { return "HttpUserAgent(" + m_endpoint.peer + ")"; }

    const Endpoint& GetEndpoint() const { return m_endpoint; }
    CookieStore& GetCookies() const { return *m_cookies; }
    // The connection cache for this agent's transfers.
    CURLSH* GetShare() const {
        if (m_ownShare) {
            return m_ownShare->Get();
        }
        if (m_endpoint.context) {
            return m_endpoint.context->GetShare();
        }
        return PoolShare(m_pool ? m_pool.Get() : DefaultPool());
    }

  private:
    const Endpoint m_endpoint;
    Ref<CookieStore> m_cookies;
    const Ref<HttpConnectionPool> m_pool;
    // Connections private to this agent, when its ConnectionSpec is not reusable. Declared last:
    // it goes first, and no transfer uses it any more since each holds the agent.
    std::unique_ptr<CurlShare> m_ownShare;
};

// The HTTP thread and its multi handle.
class HttpEngine {
  public:
    HttpEngine() {
        EnsureCurlInitialized();
        m_multi.reset(curl_multi_init());
        if (!m_multi) {
            throw Exception("Out of memory creating the HTTP client");
        }
        m_thread = std::thread([this] { Run(); });
    }
    ~HttpEngine() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        curl_multi_wakeup(m_multi.get());
        m_thread.join();
    }
    HttpEngine(const HttpEngine&) = delete;
    HttpEngine& operator=(const HttpEngine&) = delete;

    void Start(const Ref<Transfer>& transfer) { Post(m_starts, transfer); }
    void Cancel(const Ref<Transfer>& transfer) { Post(m_cancels, transfer); }

  private:
    void Post(std::vector<Ref<Transfer>>& queue, const Ref<Transfer>& transfer) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            queue.push_back(transfer);
        }
        curl_multi_wakeup(m_multi.get());
    }

    void Run() {
        t_onHttpThread = true;
        for (;;) {
            std::vector<Ref<Transfer>> starts;
            std::vector<Ref<Transfer>> cancels;
            bool stopping;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                starts.swap(m_starts);
                cancels.swap(m_cancels);
                stopping = m_stopping;
            }
            if (stopping) {
                FailAll(starts, "The HTTP client is shutting down");
                break;
            }
            for (const Ref<Transfer>& transfer : starts) {
                StartTransfer(transfer);
            }
            for (const Ref<Transfer>& transfer : cancels) {
                Stop(transfer.Get(), "Request cancelled: ");
            }
            // Finished transfers must not be kept alive (with their agents) across the wait.
            starts.clear();
            cancels.clear();
            int running = 0;
            curl_multi_perform(m_multi.get(), &running);
            CollectFinished();
            curl_multi_poll(m_multi.get(), nullptr, 0, 1000, nullptr);
        }
    }

    void StartTransfer(const Ref<Transfer>& transfer) {
        try {
            CURL* easy = transfer->Setup();
            CURLMcode added = curl_multi_add_handle(m_multi.get(), easy);
            if (added != CURLM_OK) {
                throw Exception(std::string("Cannot start the transfer: ") +
                                curl_multi_strerror(added));
            }
            m_active.emplace(easy, transfer);
        } catch (const Exception& error) {
            transfer->Complete(std::unique_ptr<Exception>(error.Clone()), nullptr);
        }
    }

    void Stop(Transfer* transfer, const std::string& reason) {
        for (auto it = m_active.begin(); it != m_active.end(); ++it) {
            if (it->second.Get() == transfer) {
                Ref<Transfer> stopped = it->second;
                curl_multi_remove_handle(m_multi.get(), it->first);
                m_active.erase(it);
                stopped->Complete(std::make_unique<Exception>(reason + stopped->ToString()),
                                  nullptr);
                return;
            }
        }
    }

    void CollectFinished() {
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(m_multi.get(), &left)) {
            if (message->msg != CURLMSG_DONE) {
                continue;
            }
            CURL* easy = message->easy_handle;
            const CURLcode result = message->data.result;
            auto it = m_active.find(easy);
            if (it == m_active.end()) {
                continue;
            }
            Ref<Transfer> finished = it->second;
            curl_multi_remove_handle(m_multi.get(), easy);
            m_active.erase(it);
            finished->Finish(result);
        }
    }

    void FailAll(const std::vector<Ref<Transfer>>& queued, const std::string& reason) {
        while (!m_active.empty()) {
            Stop(m_active.begin()->second.Get(), reason + ": ");
        }
        for (const Ref<Transfer>& transfer : queued) {
            transfer->Complete(std::make_unique<Exception>(reason), nullptr);
        }
    }

    UniquePtr<CurlMultiHandle> m_multi;  // declared first: it goes after the thread
    std::mutex m_mutex;
    std::vector<Ref<Transfer>> m_starts;
    std::vector<Ref<Transfer>> m_cancels;
    bool m_stopping = false;
    std::unordered_map<CURL*, Ref<Transfer>> m_active;  // HTTP thread only
    std::thread m_thread;
};

// The engine starts on first use and stops when the library is unloaded (or the process
// exits); the holder is a namespace-scope object, so work queued on the thread pool, which
// starts later, has finished before it goes.
std::mutex g_engineMutex;
HttpEngine* g_engine = nullptr;
bool g_engineShutDown = false;

// Fails every transfer in flight and refuses new ones.
void ShutDownEngine() {
    HttpEngine* engine;
    {
        std::lock_guard<std::mutex> lock(g_engineMutex);
        g_engineShutDown = true;
        engine = std::exchange(g_engine, nullptr);
    }
    delete engine;
}

struct EngineHolder {
    // OpenSSL registers its exit-time cleanup on first initialisation. Doing that before this
    // holder is complete makes the HTTP thread stop first, while OpenSSL can still free the
    // thread's state.
    EngineHolder() { OPENSSL_init_ssl(0, nullptr); }
    ~EngineHolder() { ShutDownEngine(); }
} g_engineHolder;

// Runs use on the engine, starting it on first use. The lock is held throughout, so the engine
// cannot be shut down under a caller.
template <class Use>
void WithEngine(const Use& use) {
    std::lock_guard<std::mutex> lock(g_engineMutex);
    if (!g_engine && !g_engineShutDown) {
        // A pool thread waiting on a hung exchange would otherwise hold up exit until its
        // timeout; once the pool's exit has begun, no engine starts any more.
        g_engineShutDown = !System::AtPoolExit(ShutDownEngine);
        g_engine = g_engineShutDown ? nullptr : new HttpEngine();
    }
    if (g_engineShutDown) {
        throw InvalidStateException("The HTTP client has been shut down");
    }
    use(*g_engine);
}

// ---- Transfer

Transfer::Transfer(Ref<UserAgentImpl> agent, RequestData request, CompletionCallback completion)
    : m_agent(std::move(agent)),
      m_request(std::move(request)),
      m_completion(std::move(completion)) {}

void Transfer::CleanupEasy() {
    m_easy.reset();
    m_headerList.reset();
    m_connectTo.reset();
}

std::string Transfer::ToString() const {
    return m_agent->GetEndpoint().peer + m_request.path;
}

void Transfer::Cancel() {
    if (IsDone()) {
        return;
    }
    try {
        WithEngine([&](HttpEngine& engine) { engine.Cancel(Ref<Transfer>(this)); });
    } catch (const InvalidStateException&) {
        // Shut down: every transfer has been failed already.
    }
}

bool Transfer::WaitFor(int64_t microseconds) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (microseconds < 0) {
        m_doneSignal.wait(lock, [this] { return m_done; });
        return true;
    }
    return m_doneSignal.wait_for(lock, std::chrono::microseconds(microseconds),
                                 [this] { return m_done; });
}

void Transfer::TakeOutcome(Ref<ClientResponse>& response) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_error) {
        m_error->Throw();
    }
    response = m_response;
}

template <class T>
void Transfer::SetOption(CURLoption option, T value) {
    const CURLcode result = curl_easy_setopt(m_easy.get(), option, value);
    if (result != CURLE_OK) {
        throw Exception(std::string("Cannot configure the transfer to ") +
                        m_agent->GetEndpoint().peer + ": " + curl_easy_strerror(result));
    }
}

CURL* Transfer::Setup() {
    m_easy.reset(curl_easy_init());
    if (!m_easy) {
        throw Exception("Out of memory creating a transfer");
    }
    const Endpoint& endpoint = m_agent->GetEndpoint();
    // An absolute-form target goes to the endpoint, written as given in the request line.
    const bool absoluteTarget = m_request.path.front() != '/';
    SetOption(CURLOPT_URL, (endpoint.baseUrl + (absoluteTarget ? "/" : m_request.path)).c_str());
    if (absoluteTarget) {
        SetOption(CURLOPT_REQUEST_TARGET, m_request.path.c_str());
    }
    SetOption(CURLOPT_PRIVATE, static_cast<void*>(this));
    SetOption(CURLOPT_ERRORBUFFER, m_errorBuffer);
    SetOption(CURLOPT_NOSIGNAL, 1L);
    SetOption(CURLOPT_PROTOCOLS_STR, "http,https");
    SetOption(CURLOPT_FOLLOWLOCATION, 0L);
    SetOption(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    SetOption(CURLOPT_HEADERFUNCTION, &Transfer::OnHeader);
    SetOption(CURLOPT_HEADERDATA, static_cast<void*>(this));
    SetOption(CURLOPT_WRITEFUNCTION, &Transfer::OnBody);
    SetOption(CURLOPT_WRITEDATA, static_cast<void*>(this));
    if (m_request.timeoutMicroseconds > 0) {
        SetOption(CURLOPT_TIMEOUT_MS, Millis(m_request.timeoutMicroseconds));
    }
    if (m_request.connectTimeoutMicroseconds > 0) {
        SetOption(CURLOPT_CONNECTTIMEOUT_MS, Millis(m_request.connectTimeoutMicroseconds));
    }
    SetupMethodAndBody();
    SetupHeaders();
    SetupCookies();
    SetupConnection();
    SetupTls();
    return m_easy.get();
}

void Transfer::SetupMethodAndBody() {
    static const char* const kNames[] = {"",    "GET",    "HEAD",    "POST",
                                         "PUT", "DELETE", "OPTIONS", "PATCH"};
    switch (m_request.method) {
        case HttpMethod::Get:
            SetOption(CURLOPT_HTTPGET, 1L);
            return;
        case HttpMethod::Head:
            SetOption(CURLOPT_NOBODY, 1L);
            return;
        case HttpMethod::Post:
            break;
        default:
            SetOption(CURLOPT_CUSTOMREQUEST, kNames[static_cast<int>(m_request.method)]);
            if (m_request.body.empty()) {
                return;
            }
    }
    SetOption(CURLOPT_POST, 1L);
    SetOption(CURLOPT_POSTFIELDS, m_request.body.data());
    SetOption(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_request.body.size()));
}

void Transfer::SetupHeaders() {
    bool hasExpect = false;
    for (const auto& [name, value] : m_request.headers) {
        // "Name;" is how libcurl sends a header with an empty value.
        const std::string line = value.empty() ? name + ";" : name + ": " + value;
        hasExpect = hasExpect || SameHeaderName(name, "Expect");
        Append(m_headerList, line.c_str());
    }
    if (!hasExpect) {
        // Large bodies go at once rather than after a round trip for "100 Continue".
        Append(m_headerList, "Expect:");
    }
    SetOption(CURLOPT_HTTPHEADER, m_headerList.get());
}

void Transfer::SetupCookies() {
    SetOption(CURLOPT_COOKIEFILE, "");
    for (const std::string& line : m_agent->GetCookies().GetCookieLines()) {
        SetOption(CURLOPT_COOKIELIST, line.c_str());
    }
}

void Transfer::SetupConnection() {
    const Endpoint& endpoint = m_agent->GetEndpoint();
    SetupProxy(endpoint.options);
    if (!endpoint.connectTo.empty()) {
        Append(m_connectTo, endpoint.connectTo.c_str());
        SetOption(CURLOPT_CONNECT_TO, m_connectTo.get());
    }
    SetOption(CURLOPT_SHARE, m_agent->GetShare());
}

void Transfer::SetupProxy(const UserAgentOptions& options) {
    if (options.proxyUrl.empty()) {
        // Configuration comes from the caller only: the environment's proxy on request alone.
        if (!options.environmentProxy) {
            SetOption(CURLOPT_PROXY, "");
        }
        return;
    }
    SetOption(CURLOPT_PROXY, options.proxyUrl.c_str());
    // A tunnel for plain HTTP too: the proxy never sees a request, nor its password.
    SetOption(CURLOPT_HTTPPROXYTUNNEL, 1L);
    SetOption(CURLOPT_NOPROXY, options.noProxy.c_str());
    if (!options.proxyUser.empty()) {
        SetOption(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
        SetOption(CURLOPT_PROXYUSERNAME, options.proxyUser.c_str());
        SetOption(CURLOPT_PROXYPASSWORD, options.proxyPassword.c_str());
    }
}

void Transfer::SetupTls() {
    const Ssl::SSLContextImpl* context = m_agent->GetEndpoint().context.Get();
    if (!context) {
        return;
    }
    const Ssl::SSLContextOptions& options = context->GetOptions();
    const long floor = options.minimumVersion == Ssl::TlsVersion::Tls1_3 ? CURL_SSLVERSION_TLSv1_3
                                                                         : CURL_SSLVERSION_TLSv1_2;
    SetOption(CURLOPT_SSLVERSION, floor | CURL_SSLVERSION_MAX_DEFAULT);
    SetOption(CURLOPT_SSL_VERIFYPEER, options.verifyPeer ? 1L : 0L);
    SetOption(CURLOPT_SSL_VERIFYHOST, options.verifyHostName ? 2L : 0L);
    if (!context->GetPinnedKeyHash().empty()) {
        SetOption(CURLOPT_PINNEDPUBLICKEY, context->GetPinnedKeyHash().c_str());
    }
    // libcurl caches one CA store per multi handle and would hand the first context's trust to
    // every later connection (or fill a context's own store with the cached one): each context
    // keeps its own trust, so the cache stays off.
    SetOption(CURLOPT_CA_CACHE_TIMEOUT, 0L);
    if (context->HasOwnTrust()) {
        SetOption(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
        SetOption(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    }
    SetOption(CURLOPT_SSL_CTX_FUNCTION, &Transfer::OnSslContext);
    SetOption(CURLOPT_SSL_CTX_DATA, static_cast<void*>(this));
}

CURLcode Transfer::OnSslContext(CURL*, void* sslContext, void* self) {
    auto* transfer = static_cast<Transfer*>(self);
    const Endpoint& endpoint = transfer->m_agent->GetEndpoint();
    auto* ctx = static_cast<SSL_CTX*>(sslContext);
    if (!endpoint.context->Install(ctx, transfer->m_tlsSetupError)) {
        return CURLE_ABORTED_BY_CALLBACK;
    }
    if (endpoint.custom && endpoint.context->GetOptions().verifyPeer) {
        SSL_CTX_set_cert_verify_callback(ctx, &Transfer::OnVerifyChain, transfer);
    }
    SSL_CTX_set_ex_data(ctx, TransferIndex(), transfer);
    SSL_CTX_set_info_callback(ctx, &Transfer::OnTlsInfo);
    return CURLE_OK;
}

void Transfer::OnTlsInfo(const SSL* ssl, int where, int) {
    SSL_CTX* ctx = SSL_get_SSL_CTX(ssl);
    auto* transfer = static_cast<Transfer*>(SSL_CTX_get_ex_data(ctx, TransferIndex()));
    if (where & SSL_CB_HANDSHAKE_DONE) {
        // A kept-alive connection outlives its first transfer.
        SSL_CTX_set_ex_data(ctx, TransferIndex(), nullptr);
    } else if ((where & SSL_CB_READ_ALERT) && transfer) {
        transfer->m_tlsAlert = true;
    }
}

int Transfer::OnVerifyChain(X509_STORE_CTX* store, void* self) {
    const int verified = X509_verify_cert(store);
    if (verified != 1) {
        return verified;
    }
    auto* transfer = static_cast<Transfer*>(self);
    try {
        std::vector<Ref<Crypto::Certificate>> chain;
        STACK_OF(X509)* natives = X509_STORE_CTX_get0_chain(store);
        for (int i = 0; i < sk_X509_num(natives); ++i) {
            X509* native = sk_X509_value(natives, i);
            X509_up_ref(native);
            UniquePtr<X509> reference(native);
            chain.emplace_back();
            Crypto::WrapCertificate(std::move(reference), chain.back());
        }
        transfer->m_agent->GetEndpoint().custom->OnHandshake(chain);
        return 1;
    } catch (const std::exception& error) {
        transfer->m_handshakeError = error.what();
    }
    X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
}

size_t Transfer::OnHeader(char* data, size_t size, size_t count, void* self) {
    const size_t bytes = size * count;
    return static_cast<Transfer*>(self)->m_reply.AddHeaderLine({data, bytes}) ? bytes : 0;
}

size_t Transfer::OnBody(char* data, size_t size, size_t count, void* self) {
    const size_t bytes = size * count;
    return static_cast<Transfer*>(self)->m_reply.AddBody({data, bytes}) ? bytes : 0;
}

void Transfer::SaveCookies() {
    curl_slist* cookies = nullptr;
    if (curl_easy_getinfo(m_easy.get(), CURLINFO_COOKIELIST, &cookies) != CURLE_OK) {
        return;
    }
    UniquePtr<curl_slist> owned(cookies);
    std::vector<std::string> lines;
    for (curl_slist* item = cookies; item; item = item->next) {
        lines.emplace_back(item->data);
    }
    m_agent->GetCookies().SetCookieLines(std::move(lines));
}

std::string Transfer::ErrorText(CURLcode code) const {
    struct Cause {
        CURLcode code;
        const char* text;
    };
    static const Cause kCauses[] = {
        {CURLE_COULDNT_RESOLVE_HOST, "Cannot resolve the host name of "},
        {CURLE_COULDNT_CONNECT, "Cannot connect to "},
        {CURLE_OPERATION_TIMEDOUT, "Timed out waiting for "},
        {CURLE_PEER_FAILED_VERIFICATION, "TLS certificate verification failed for "},
        {CURLE_SSL_PINNEDPUBKEYNOTMATCH, "TLS public key does not match the pinned key for "},
        {CURLE_SSL_CONNECT_ERROR, "TLS handshake failed with "},
        {CURLE_SSL_CERTPROBLEM, "Client certificate problem connecting to "},
        {CURLE_SEND_ERROR, "Failure sending the request to "},
        {CURLE_RECV_ERROR, "Failure receiving the reply from "},
        {CURLE_GOT_NOTHING, "Connection closed without a reply by "},
        {CURLE_PARTIAL_FILE, "Reply cut short by "},
        {CURLE_WEIRD_SERVER_REPLY, "Malformed HTTP reply from "},
    };
    const std::string& peer = m_agent->GetEndpoint().peer + m_request.path;
    if (m_reply.bodyTooLarge) {
        return "Reply body larger than " + std::to_string(kMaxResponseBodySize) + " bytes from " +
               peer;
    }
    if (!m_tlsSetupError.empty()) {
        return "TLS setup failed for " + peer + ": " + m_tlsSetupError;
    }
    if (!m_handshakeError.empty()) {
        return "TLS handshake rejected by the connection spec for " + peer + ": " +
               m_handshakeError;
    }
    if (Classify(code) == FailureKind::ConnectTimeout) {
        return "connect timeout of " +
               System::DescribeDuration(m_request.connectTimeoutMicroseconds) +
               " exceeded connecting to " + m_agent->GetEndpoint().hostPort;
    }
    const char* cause = "HTTP transfer failed with ";
    for (const Cause& candidate : kCauses) {
        if (candidate.code == code) {
            cause = candidate.text;
        }
    }
    const std::string detail = m_errorBuffer[0] ? m_errorBuffer : curl_easy_strerror(code);
    return cause + peer + ": " + detail;
}

FailureKind Transfer::Classify(CURLcode code) const {
    curl_off_t connected = 0;
    const bool tls = m_agent->GetEndpoint().context.Get() != nullptr;
    curl_easy_getinfo(m_easy.get(), tls ? CURLINFO_APPCONNECT_TIME_T : CURLINFO_CONNECT_TIME_T,
                      &connected);
    switch (code) {
        case CURLE_COULDNT_CONNECT:
            return FailureKind::Refused;
        case CURLE_OPERATION_TIMEDOUT:
            // Whichever limit is shorter ends the connection phase.
            return connected == 0 && m_request.connectTimeoutMicroseconds > 0 &&
                           (m_request.timeoutMicroseconds == 0 ||
                            m_request.connectTimeoutMicroseconds <= m_request.timeoutMicroseconds)
                       ? FailureKind::ConnectTimeout
                       : FailureKind::TimedOut;
        case CURLE_SSL_CONNECT_ERROR:
            return m_tlsAlert || !m_tlsSetupError.empty() || !m_handshakeError.empty()
                       ? FailureKind::Other
                       : FailureKind::TlsInterrupted;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
            return m_reply.status == 0 ? FailureKind::ResetBeforeReply : FailureKind::Other;
        default:
            return FailureKind::Other;
    }
}

void Transfer::Finish(CURLcode code) {
    std::unique_ptr<Exception> error;
    Ref<ClientResponse> response;
    if (code == CURLE_OK || m_reply.undefinedInterim) {
        long status = m_reply.status;
        if (code == CURLE_OK) {
            curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &status);
        }
        SaveCookies();
        CreateClientResponse(static_cast<int>(status), std::move(m_reply.reason),
                             std::move(m_reply.headers), std::move(m_reply.body), response);
    } else {
        error = std::make_unique<TransferException>(ErrorText(code));
        error->SetErrorCode(static_cast<long>(Classify(code)));
    }
    CleanupEasy();
    Complete(std::move(error), std::move(response));
}

void Transfer::Complete(std::unique_ptr<Exception> error, Ref<ClientResponse> response) {
    CleanupEasy();
    CompletionCallback completion = std::move(m_completion);
    m_completion = nullptr;
    if (completion) {
        try {
            completion(error.get(), response.Get(), this);
        } catch (const std::exception& escaped) {
            Service::LogInternal(FoundationLogger(), Service::Logger::LL_Error,
                                 "HTTP completion callback threw: %1",
                                 PrintFormatter(escaped.what()));
        } catch (...) {
            Service::LogInternal(FoundationLogger(), Service::Logger::LL_Error,
                                 "HTTP completion callback threw an unknown exception");
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_error = std::move(error);
        m_response = std::move(response);
        m_done = true;
    }
    m_doneSignal.notify_all();
}

// ---- UserAgentImpl

void UserAgentImpl::SendAsync(ClientRequest* request, CompletionCallback completion,
                              Ref<PendingRequestItem>& pending) {
    if (!request) {
        throw InvalidArgumentException("HttpUserAgent::SendAsync: null request");
    }
    Ref<Transfer> transfer =
        new Transfer(Ref<UserAgentImpl>(this), SnapshotRequest(request), std::move(completion));
    WithEngine([&](HttpEngine& engine) { engine.Start(transfer); });
    pending = transfer;
}

void UserAgentImpl::Wait(PendingRequestItem* pending, int64_t timeout,
                         Ref<ClientResponse>& response) {
    auto* transfer = dynamic_cast<Transfer*>(pending);
    if (!transfer || transfer->GetAgent() != this) {
        throw InvalidArgumentException(
            "HttpUserAgent::Wait: the request was not sent by this agent");
    }
    if (t_onHttpThread) {
        throw InvalidStateException(
            "HttpUserAgent::Wait called on the HTTP thread, where it would block every transfer");
    }
    if (!transfer->WaitFor(timeout)) {
        transfer->Cancel();
        TransferException timedOut("Timed out after " + std::to_string(timeout / 1000) +
                                   " ms waiting for the reply from " + transfer->ToString());
        timedOut.SetErrorCode(static_cast<long>(FailureKind::TimedOut));
        throw timedOut;
    }
    transfer->TakeOutcome(response);
}

}  // namespace

void HttpUserAgent::Send(ClientRequest* request, int64_t timeout, Ref<ClientResponse>& response) {
    Ref<PendingRequestItem> pending;
    SendAsync(request, nullptr, pending);
    Wait(pending.Get(), timeout, response);
}

void CreateHttpUserAgent(ConnectionSpec* spec, CookieStore* cookies, HttpConnectionPool* pool,
                         Ref<HttpUserAgent>& agent) {
    CreateHttpUserAgent(spec, cookies, pool, UserAgentOptions(), agent);
}

void CreateHttpUserAgent(ConnectionSpec* spec, CookieStore* cookies, HttpConnectionPool* pool,
                         const UserAgentOptions& options, Ref<HttpUserAgent>& agent) {
    agent = new UserAgentImpl(spec, cookies, pool, options);
}

FailureKind GetFailureKind(const Exception& error) {
    return dynamic_cast<const TransferException*>(&error)
               ? static_cast<FailureKind>(error.GetErrorCode())
               : FailureKind::Other;
}

}  // namespace Http
}  // namespace Basalt
