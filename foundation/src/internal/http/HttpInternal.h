#pragma once

// Private pieces shared by the foundation's HTTP and TLS code. Never included from a public
// header.

#include <curl/curl.h>

#include <mutex>

#include "internal/system/UniquePtr.h"

namespace Basalt {

// libcurl's handles are all plain void, hence a tag each.
BASALT_TAGGED_DELETER(CurlEasyHandle, CURL*, curl_easy_cleanup);
BASALT_TAGGED_DELETER(CurlMultiHandle, CURLM*, curl_multi_cleanup);
BASALT_TAGGED_DELETER(CurlShareHandle, CURLSH*, curl_share_cleanup);
BASALT_DELETER(curl_slist, curl_slist_free_all);

namespace Http {

// Initialises libcurl once per process (thread-safe; the first call wins).
void EnsureCurlInitialized();

// A libcurl share of kept-alive connections, TLS sessions and DNS answers. Easy handles that
// use it must be removed before it goes; the HTTP thread's transfers keep their owner alive.
class CurlShare {
  public:
    CurlShare();

    CURLSH* Get() const { return m_share.get(); }

  private:
    static void Lock(CURL*, curl_lock_data data, curl_lock_access, void* self);
    static void Unlock(CURL*, curl_lock_data data, void* self);

    std::mutex m_mutexes[CURL_LOCK_DATA_LAST];
    UniquePtr<CurlShareHandle> m_share;  // goes first: its cleanup still locks
};

}  // namespace Http
}  // namespace Basalt

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <basalt/Http.h>
#include <basalt/StringUtil.h>

namespace Basalt {
namespace Http {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// What the HTTP thread needs of a request, copied when it is sent. The body may hold a password,
// so it is wiped when the copy goes.
struct RequestData {
    RequestData() = default;
    RequestData(const RequestData&) = default;
    RequestData(RequestData&&) = default;
    RequestData& operator=(const RequestData&) = delete;
    RequestData& operator=(RequestData&&) = delete;
    ~RequestData() { StringUtil::SecureWipe(body); }

    HttpMethod method = HttpMethod::Get;
    std::string path;
    HeaderList headers;
    std::string body;
    int64_t timeoutMicroseconds = 0;
    int64_t connectTimeoutMicroseconds = 0;
};

// A reply as libcurl hands it over: header lines one at a time (status lines included, line ends
// kept), then pieces of the body. An interim (1xx) reply's headers are dropped when the next status
// line comes.
struct ReplyAccumulator {
    int status = 0;
    std::string reason;
    HeaderList headers;
    std::string body;
    bool undefinedInterim = false;  // a 1xx without defined meaning ended the reply
    bool bodyTooLarge = false;      // the body outgrew kMaxResponseBodySize

    // Take one header line or body piece; false ends the transfer (one of the flags above is set).
    bool AddHeaderLine(std::string_view line);
    bool AddBody(std::string_view piece);
};

// Copies a request made by CreateHttpRequest; throws InvalidArgumentException for others.
RequestData SnapshotRequest(ClientRequest* request);

// The reply of a completed transfer.
void CreateClientResponse(int status, std::string reason, HeaderList headers, std::string body,
                          Ref<ClientResponse>& response);

// The cache of a connection pool.
CURLSH* PoolShare(HttpConnectionPool* pool);
// The process-wide pool of plain connections.
HttpConnectionPool* DefaultPool();

// Case-insensitive ASCII comparison of header names.
bool SameHeaderName(const std::string& a, const std::string& b);

}  // namespace Http
}  // namespace Basalt
