#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "LiveTable.h"

namespace IpfixStats {

// One scrape's HTTP answer.
struct Scrape {
   int status = 200;
   std::string contentType;
   std::string body;
};

// The statistics table as `ipfix-stats serve` reads it: anew at every scrape,
// from the segment the name refers to at that moment (so a restarted agent's
// new table is followed), mounted at the first scrape that finds it when the
// agent was not there yet. Scrapes may come from several server threads at
// once; they take turns.
class ScrapeSource {
 public:
   // Throws Vorpa::MountError for a name no table can have; a table that is
   // missing or unreadable now is only an error of the scrapes that meet it.
   explicit ScrapeSource(Kel::Name table);

   // The table in the OpenMetrics format, or an error: 503 while there is no
   // table (no agent ever ran), 500 when it cannot be read.
   Scrape scrape();

   const Kel::Name& tableName() const { return name_; }

 private:
   Scrape metrics();

   Kel::Name name_;
   std::mutex mutex_;
   std::optional<LiveTable> table_;
};

}  // namespace IpfixStats
