#pragma once

#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "HwFlowTracking/RecordType.h"
#include "Kel/Entity.h"

// The IPFIX vocabulary shared by the whole library: the information elements
// it exports, the agent-wide context and the message sequence number.
namespace Ipfix {

// The private enterprise number that qualifies our enterprise-specific
// elements on the wire (the number reserved for documentation and examples).
constexpr Kel::U32 enterpriseNumber = 32473;

// One information element: how a record type is written in a template.
class ElementId {
 public:
   ElementId() = default;
   ElementId(bool enterpriseIe, RecordType id, Kel::U32 len, Kel::String str)
       : enterpriseIe_(enterpriseIe), id_(id), len_(len), str_(std::move(str)) {}

   bool enterpriseIe() const { return enterpriseIe_; }
   RecordType id() const { return id_; }
   // Encoded length in octets; 65535 is variable length.
   Kel::U32 len() const { return len_; }
   const Kel::String& str() const { return str_; }

   // True for the default value, which a lookup of an unknown type returns.
   bool operator!() const { return *this == ElementId(); }
   bool operator==(const ElementId&) const = default;
   Kel::String string() const;

 private:
   bool enterpriseIe_ = false;
   RecordType id_ = RecordType(1);
   Kel::U32 len_ = 0;
   Kel::String str_;
};

// The catalogue of exported elements, keyed by record type. Filled once at
// start-up and read-only afterwards; a listing follows insertion order.
class ElementIdColl : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<ElementIdColl> {
    public:
      virtual void onElementIdColl(RecordType) {}
   };

   // Inserts the library's elements; calling it again changes nothing.
   void doInitialize();

   // The element of `type`, or the default ElementId when it is not known.
   ElementId elementIdColl(RecordType type) const;
   bool elementIdCollHas(RecordType type) const { return elements_.contains(type); }
   // Inserts `e` under its id, or overwrites the stored flag, length and name.
   void elementIdCollIs(const ElementId& e);
   void elementIdCollDel(RecordType type);
   void elementIdCollDelAll();
   // The record types in insertion order: the order of a listing of the
   // catalogue (ipfix-agent --list-elements).
   const std::vector<RecordType>& elementIdCollKeys() const { return order_; }

 private:
   std::unordered_map<RecordType, ElementId> elements_;
   std::vector<RecordType> order_;
};

Kel::Ptr<ElementIdColl> elementIdCollFactory();

// The element ElementIdColl::doInitialize() inserts for `type`, for code that
// needs the catalogue's answer without the entity (the default ElementId when
// `type` is not exported).
ElementId catalogueElement(RecordType type);

// Agent-wide context handed, read-only, to every state machine.
class AgentInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<AgentInfo> {
    public:
      virtual void onMultiThreaded() {}
   };
   // True when another thread publishes exporter ports and readiness.
   bool multiThreaded() const { return multiThreaded_; }
   void multiThreadedIs(bool v) { attributeIs(multiThreaded_, v, &Notifiee::onMultiThreaded); }

 private:
   bool multiThreaded_ = false;
};

// An IPFIX message sequence number: arithmetic wraps modulo 2^32.
class IpfixMsgSeqNo {
 public:
   constexpr IpfixMsgSeqNo() = default;
   constexpr explicit IpfixMsgSeqNo(Kel::U32 value) : value_(value) {}
   constexpr Kel::U32 value() const { return value_; }
   constexpr IpfixMsgSeqNo& operator+=(IpfixMsgSeqNo n) {
      value_ += n.value_;
      return *this;
   }
   constexpr IpfixMsgSeqNo operator+(IpfixMsgSeqNo n) const {
      return IpfixMsgSeqNo(value_ + n.value_);
   }
   constexpr auto operator<=>(const IpfixMsgSeqNo&) const = default;
   Kel::String str() const { return std::to_string(value_); }
   static std::optional<IpfixMsgSeqNo> parse(std::string_view text);

 private:
   Kel::U32 value_ = 0;
};

}  // namespace Ipfix

template <>
struct fmt::formatter<Ipfix::IpfixMsgSeqNo> : fmt::formatter<Kel::U32> {
   auto format(Ipfix::IpfixMsgSeqNo n, fmt::format_context& ctx) const {
      return fmt::formatter<Kel::U32>::format(n.value(), ctx);
   }
};
