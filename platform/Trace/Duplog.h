#pragma once

#include "Kel/Trace.h"

// The text trace: one line per record, "time Facility/level text", to stderr or
// to a file.
namespace Duplog {

class TextTrace final : public Kel::TraceSink {
 public:
   TextTrace() = default;
   ~TextTrace() override;
   TextTrace(const TextTrace&) = delete;
   TextTrace& operator=(const TextTrace&) = delete;

   void write(const Kel::TraceRecord& record) override;
   // Appends to `path` from now on; on failure returns false with the reason
   // in `error` and keeps the current output.
   bool outputIs(const Kel::String& path, Kel::String* error);
   void outputToStderr();

 private:
   int fd_ = 2;
};

Kel::String formatLine(const Kel::TraceRecord& record);

TextTrace& textTrace();

}  // namespace Duplog
