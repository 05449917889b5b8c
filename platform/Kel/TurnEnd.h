#pragma once

namespace Kel {

// Work that the code run by a task defers to the end of its turn, such as
// datagrams batched into one system call. The scheduler calls turnEnd() after
// every task and before it waits; code that runs outside a scheduler calls it
// itself. Hooks are registered once, for the whole process, before threads
// start using them.
using TurnEndHook = void (*)();
void turnEndHookIs(TurnEndHook hook);
void turnEnd();

}  // namespace Kel
