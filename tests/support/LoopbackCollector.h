#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "CollectorStream.h"
#include "support/UdpReceiver.h"

namespace TestSupport {

// A collector on loopback that reads what it receives the way ipfix-collect
// does: libfixbuf learns templates and options templates from each
// exporter's stream and decodes the data records with them. A message it
// cannot decode (a data set before its template, bad framing) fails the test.
class LoopbackCollector {
 public:
   using Values = std::vector<IpfixCollect::DecodedValue>;

   explicit LoopbackCollector(bool ipv6) : rx_(ipv6) {}

   UdpReceiver& receiver() { return rx_; }

   // Decodes everything that arrived since the last call.
   std::vector<IpfixCollect::DecodedMessage> drain() {
      std::vector<IpfixCollect::DecodedMessage> messages;
      while (auto d = rx_.receive()) {
         messages.push_back(decode(*d));
      }
      return messages;
   }

   // For a sender in another process: decodes what arrives until `done` holds
   // for all of it, or ten seconds pass. Returns all of it.
   template <class Done>
   std::vector<IpfixCollect::DecodedMessage> drainUntil(Done&& done) {
      std::vector<IpfixCollect::DecodedMessage> messages;
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (!done(messages) && std::chrono::steady_clock::now() < deadline) {
         if (auto d = rx_.receiveWithin(100)) {
            messages.push_back(decode(*d));
         }
      }
      return messages;
   }

   // The values of the records of set `setId` in `messages`, as a multiset:
   // options data carries no order.
   static std::multiset<Values> records(const std::vector<IpfixCollect::DecodedMessage>& messages,
                                        std::uint16_t setId) {
      std::multiset<Values> found;
      for (const auto& m : messages) {
         for (const auto& r : m.records) {
            if (r.templateId == setId) {
               found.insert(r.values);
            }
         }
      }
      return found;
   }

   // The templates of `messages` by id, the latest of each.
   static std::map<std::uint16_t, IpfixCollect::DecodedTemplate> templates(
       const std::vector<IpfixCollect::DecodedMessage>& messages) {
      std::map<std::uint16_t, IpfixCollect::DecodedTemplate> found;
      for (const auto& m : messages) {
         for (const auto& t : m.templates) {
            found.insert_or_assign(t.id, t);
         }
      }
      return found;
   }

 private:
   IpfixCollect::DecodedMessage decode(const Datagram& d) {
      auto& stream = streams_[d.sourcePort];
      if (!stream) {
         stream = std::make_unique<IpfixCollect::CollectorStream>();
      }
      auto m = stream->read(d.payload.data(), d.payload.size());
      EXPECT_EQ(m.error, "") << "libfixbuf could not decode a message";
      return m;
   }

   UdpReceiver rx_;
   std::map<Nivel::Port, std::unique_ptr<IpfixCollect::CollectorStream>> streams_;
};

}  // namespace TestSupport
