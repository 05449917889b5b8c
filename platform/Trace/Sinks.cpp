#include "Trace/Sinks.h"

#include "Trace/Duplog.h"
#include "Trace/Flitlog.h"

namespace TraceSinks {

void installDefaults() {
   Kel::Trace::sinksIs({&Flitlog::ring(), &Duplog::textTrace()});
}

}  // namespace TraceSinks
