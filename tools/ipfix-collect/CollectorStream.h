#pragma once

#include <fixbuf/public.h>

#include <cstdint>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace IpfixCollect {

// One field of a template as libfixbuf read it; `length` 65535 is variable.
struct DecodedField {
   std::uint32_t enterprise;
   std::uint16_t element;
   std::uint16_t length;
   std::string name;  // the information model's name, or "enterprise/element"
   bool number;       // an integer (or time, IPv4 address) that libfixbuf puts in host order
   bool operator==(const DecodedField& o) const {
      return enterprise == o.enterprise && element == o.element && length == o.length;
   }
};

struct DecodedTemplate {
   std::uint16_t id;
   std::uint16_t scopeCount;  // non-zero for an options template
   std::vector<DecodedField> fields;
};

// A number, or the octets of any other field: texts, IPv6 addresses, and the
// fields of elements libfixbuf does not know, which it leaves as they were
// sent.
using DecodedValue = std::variant<std::uint64_t, std::string>;

struct DecodedRecord {
   std::uint16_t templateId;
   std::vector<DecodedField> fields;
   std::vector<DecodedValue> values;
};

// What one IPFIX message held, in the order of its sets' kinds: the templates
// it taught, then its data records.
struct DecodedMessage {
   std::uint32_t exportTime = 0;
   std::uint32_t observationDomain = 0;
   std::vector<DecodedTemplate> templates;
   std::vector<DecodedRecord> records;
   std::string error;  // libfixbuf's complaint about the message, if any
};

// The decoding state of one exporter's stream of messages, as a collector
// keeps it: libfixbuf learns the templates and options templates from the
// stream and decodes each data record with the template it learnt for it.
class CollectorStream {
 public:
   CollectorStream();
   ~CollectorStream();
   CollectorStream(const CollectorStream&) = delete;
   CollectorStream& operator=(const CollectorStream&) = delete;

   DecodedMessage read(const std::uint8_t* data, std::size_t len);

 private:
   static void onTemplate(fbSession_t* session, std::uint16_t tid, fbTemplate_t* tmpl, void* self,
                          void**, fbTemplateCtxFree_fn*);
   bool internalFor(std::uint16_t tid, fbTemplate_t* external, GError** err);

   fbInfoModel_t* model_;
   fbSession_t* session_;
   fBuf_t* fbuf_;
   std::vector<std::uint8_t> buffer_;
   std::set<std::uint16_t> internals_;
   DecodedMessage* current_ = nullptr;
};

}  // namespace IpfixCollect
