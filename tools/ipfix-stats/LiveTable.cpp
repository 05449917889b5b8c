#include "LiveTable.h"

namespace IpfixStats {

LiveTable::LiveTable(const Kel::Name& name)
    : name_(name), reader_(Vorpa::Ipfix::CollectorStatisticsReader::mount(name)) {}

bool LiveTable::refresh() {
   if (reader_.live()) {
      return false;
   }
   try {
      reader_ = Vorpa::Ipfix::CollectorStatisticsReader::mount(name_);
   } catch (const Vorpa::MountError& e) {
      if (e.problem() == Vorpa::MountProblem::missing) {
         return false;
      }
      throw;
   }
   return true;
}

}  // namespace IpfixStats
