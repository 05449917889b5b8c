#include "ScrapeSource.h"

#include "Kel/System.h"
#include "OpenMetricsReport.h"
#include "StatsSnapshot.h"

namespace IpfixStats {

namespace {

constexpr int httpOk = 200;
constexpr int httpInternalError = 500;
constexpr int httpUnavailable = 503;

Scrape failure(int status, const std::string& why) {
   return Scrape{status, "text/plain; charset=utf-8", "ipfix-stats: " + why + "\n"};
}

}  // namespace

ScrapeSource::ScrapeSource(Kel::Name table) : name_(std::move(table)) {
   try {
      table_.emplace(name_);
   } catch (const Vorpa::MountError& e) {
      if (e.problem() == Vorpa::MountProblem::invalidName) {
         throw;
      }
   }
}

Scrape ScrapeSource::scrape() {
   const std::lock_guard lock(mutex_);
   try {
      return metrics();
   } catch (const Vorpa::MountError& e) {
      return failure(
          e.problem() == Vorpa::MountProblem::missing ? httpUnavailable : httpInternalError,
          e.what());
   } catch (const std::exception& e) {
      return failure(httpInternalError, e.what());
   }
}

Scrape ScrapeSource::metrics() {
   if (table_) {
      table_->refresh();
   } else {
      table_.emplace(name_);
   }
   const Snapshot snapshot = takeSnapshot(table_->reader());
   return Scrape{
       httpOk, std::string(openMetricsContentType),
       openMetricsReport(snapshot.summary, snapshot.trackers, Kel::System::currentTime())};
}

}  // namespace IpfixStats
