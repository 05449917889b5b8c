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

   // A datagram and what libfixbuf read in it.
   struct Message {
      Datagram datagram;
      IpfixCollect::DecodedMessage decoded;
      // From the message header, which libfixbuf does not report.
      std::uint32_t sequenceNumber() const {
         const auto& p = datagram.payload;
         return std::uint32_t(p.at(8)) << 24 | std::uint32_t(p.at(9)) << 16 |
                std::uint32_t(p.at(10)) << 8 | p.at(11);
      }
   };

   UdpReceiver& receiver() { return rx_; }

   // Everything that arrived since the last call, decoded in arrival order.
   std::vector<Message> receiveAll() {
      std::vector<Message> messages;
      while (auto d = rx_.receive()) {
         auto decoded = decode(*d);
         messages.push_back({std::move(*d), std::move(decoded)});
      }
      return messages;
   }

   // The same, without the datagrams.
   std::vector<IpfixCollect::DecodedMessage> drain() {
      std::vector<IpfixCollect::DecodedMessage> messages;
      for (auto& m : receiveAll()) {
         messages.push_back(std::move(m.decoded));
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
