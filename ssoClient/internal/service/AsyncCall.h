#pragma once

#include <functional>
#include <memory>

#include <basalt/Exception.h>
#include <basalt/Thread.h>
#include <boost/optional.hpp>
#include <exception>
#include <string>

#include <ssoClient/Exceptions.h>

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

// Hands report the library exception that failure holds, or an SsoException naming any other,
// so that a callback sees every failure, and sees it as one of the library's.
template <class Report>
void ReportFailure(const std::exception_ptr& failure, const Report& report) {
    try {
        std::rethrow_exception(failure);
    } catch (const Basalt::Exception& e) {
        report(&e);
    } catch (const std::exception& e) {
        const SsoException wrapped(std::string("Unexpected exception: ") + e.what());
        report(&wrapped);
    } catch (...) {
        const SsoException wrapped("Unexpected exception of unknown type");
        report(&wrapped);
    }
}

// Runs call on the foundation's thread pool and hands its result, or whatever it threw, to
// callback: exactly once, whatever the exception (see ReportFailure).
template <class R, class Callback, class ErrorValue>
void SyncToAsyncCall(const std::function<R()>& call, const Callback& callback,
                     const ErrorValue& valueOnError) {
    Basalt::System::GetThreadPool()->GetWorkQueue()->Post([call, callback, valueOnError] {
        ErrorValue result = valueOnError;
        std::exception_ptr failure;
        try {
            result = Detail::WrapResult<R, ErrorValue>(call());
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) {
            ReportFailure(failure, [&](const Basalt::Exception* e) { callback(valueOnError, e); });
            return;
        }
        callback(result, nullptr);
    });
}

}  // namespace SsoClient
