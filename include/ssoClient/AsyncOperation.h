#pragma once

// The handle of an asynchronous token-service operation, for cancelling it.
//
//   std::shared_ptr<SsoClient::AsyncOperation> call = service->AcquireTokenAsync(
//       "alice", password, spec, [](const auto& token, const Basalt::Exception* error) { ... });
//   call->Cancel();  // the callback soon receives OperationCancelledException
//
// Dropping the handle neither cancels nor disturbs the operation.

#include <ssoClient/Export.h>

namespace SsoClient {

class SSOCLIENT_API AsyncOperation {
  public:
    virtual ~AsyncOperation();
    // Ends the operation now: an exchange in flight is aborted and the callback is called (on a
    // pool thread, still exactly once) with OperationCancelledException "Operation cancelled".
    // Does nothing once the operation has completed; never throws.
    virtual void Cancel() = 0;
    // True once the callback has been called or is about to be.
    virtual bool IsDone() const = 0;
};

}  // namespace SsoClient
