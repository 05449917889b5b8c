#pragma once

#include "Ipfix/CollectorStats.h"

namespace IpfixStats {

// The statistics table of one name, followed across restarts of its writer:
// a restarted agent replaces the table's segment, and a reader that kept the
// old one would go on printing counters that nobody updates any more.
class LiveTable {
 public:
   // Throws Vorpa::MountError.
   explicit LiveTable(const Kel::Name& name);

   const Vorpa::Ipfix::CollectorStatisticsReader& reader() const { return reader_; }

   // Mounts the segment the name refers to now when it is no longer the one
   // mounted, and says whether it did. While the name refers to no finished
   // table (the writer is between removing its old segment and creating the
   // new one, or has not come back) it keeps the old one. Throws
   // Vorpa::MountError when the new segment cannot be read.
   bool refresh();

 private:
   Kel::Name name_;
   Vorpa::Ipfix::CollectorStatisticsReader reader_;
};

}  // namespace IpfixStats
