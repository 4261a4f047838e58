#pragma once

#include <functional>
#include <memory>

#include <basalt/Exception.h>
#include <basalt/Thread.h>
#include <boost/optional.hpp>

namespace SsoClient {

// Keeps a by-reference argument of a synchronous operation alive until the queued call has run.
template <class T>
class PassByRefHelper {
  public:
    explicit PassByRefHelper(std::shared_ptr<T> object) : m_object(std::move(object)) {
        if (!m_object) {
            throw Basalt::InvalidArgumentException("A null object cannot be passed by reference");
        }
    }
    T& Get() const { return *m_object; }

  private:
    std::shared_ptr<T> m_object;
};

namespace Detail {

// The callback's result type: validation results arrive wrapped in an optional.
template <class R, class ErrorValue>
ErrorValue WrapResult(R&& result) {
    return ErrorValue(std::forward<R>(result));
}

}  // namespace Detail

// Runs call on the foundation's thread pool and hands its result, or the Basalt::Exception it
// threw, to callback (exactly once). Other exceptions leave the work item to the pool's handler.
template <class R, class Callback, class ErrorValue>
void SyncToAsyncCall(const std::function<R()>& call, const Callback& callback,
                     const ErrorValue& valueOnError) {
    Basalt::System::GetThreadPool()->GetWorkQueue()->Post([call, callback, valueOnError] {
        ErrorValue result = valueOnError;
        try {
            result = Detail::WrapResult<R, ErrorValue>(call());
        } catch (const Basalt::Exception& e) {
            callback(valueOnError, &e);
            return;
        }
        callback(result, nullptr);
    });
}

}  // namespace SsoClient
