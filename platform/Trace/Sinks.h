#pragma once

// The process's usual trace sinks. Kel's trace sends enabled lines only to the
// sinks a process installs (it knows none of its own); a program that wants
// the binary ring and the text trace, as the agent does, installs them first
// thing.
namespace TraceSinks {

// Every enabled line goes to the binary ring (Flitlog) and the text trace
// (Duplog) from now on.
void installDefaults();

}  // namespace TraceSinks
