#pragma once

namespace Basalt {
namespace System {

// Registers work to run when the process-wide thread pool stops at exit, before it drains its
// queue: whatever could keep that drain waiting (an HTTP exchange with a server that never
// answers) is ended here, so that exit is prompt and queued callbacks still see an outcome.
// Returns false, registering nothing, once that exit has begun.
bool AtPoolExit(void (*hook)());

}  // namespace System
}  // namespace Basalt
