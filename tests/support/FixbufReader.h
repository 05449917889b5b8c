#pragma once

#include <fixbuf/public.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <variant>
#include <vector>

// Decodes IPFIX messages with libfixbuf, an implementation independent of
// ours, so that tests check what we send against someone else's reading of
// RFC 7011. Templates are made known to its session directly, as a collector
// would have learnt them from earlier template sets.
class FixbufReader {
 public:
   // One template field by its information-model name; FB_IE_VARLEN for a
   // variable-length one.
   struct Field {
      const char* name;
      std::uint16_t len;
   };
   // An unsigned number or the octets of a variable-length field.
   using Value = std::variant<std::uint64_t, std::string>;
   struct Record {
      std::uint16_t templateId;
      std::vector<Value> values;
      bool operator==(const Record&) const = default;
   };

   FixbufReader() : model_(fbInfoModelAlloc()), session_(fbSessionAlloc(model_)) {
      fbuf_ = fBufAllocForCollection(session_, nullptr);
      // One message per read(): stop at its end instead of looking for more.
      fBufSetAutomaticMode(fbuf_, FALSE);
   }
   ~FixbufReader() {
      fBufFree(fbuf_);  // frees the session and its templates too
      fbInfoModelFree(model_);
   }
   FixbufReader(const FixbufReader&) = delete;
   FixbufReader& operator=(const FixbufReader&) = delete;

   // Makes template `id` of observation domain `domain` known; a non-zero
   // `scopeCount` makes it an options template with that many scope fields.
   void templateIs(std::uint32_t domain, std::uint16_t id, const std::vector<Field>& fields,
                   std::uint16_t scopeCount = 0) {
      fbSessionSetDomain(session_, domain);
      GError* err = nullptr;
      fbTemplate_t* external = makeTemplate(fields);
      if (scopeCount > 0) {
         fbTemplateSetOptionsScope(external, scopeCount);
      }
      // Internal templates, into which records are decoded, have their own
      // id space: use the same id for the matching layout.
      if (!fbSessionAddTemplate(session_, FALSE, id, external, &err) ||
          !fbSessionAddTemplate(session_, TRUE, id, makeTemplate(fields), &err)) {
         ADD_FAILURE() << "libfixbuf refused template " << id << ": " << err->message;
         g_clear_error(&err);
      }
      fields_[id] = fields;
   }

   // Decodes the data records of one IPFIX message. A framing error libfixbuf
   // detects fails the test.
   std::vector<Record> read(const std::uint8_t* message, std::size_t len) {
      buffer_.assign(message, message + len);
      fBufSetBuffer(fbuf_, buffer_.data(), buffer_.size());
      std::vector<Record> records;
      GError* err = nullptr;
      for (;;) {
         std::uint16_t id = 0;
         if (!fBufNextCollectionTemplate(fbuf_, &id, &err) ||
             !fBufSetInternalTemplate(fbuf_, id, &err)) {
            break;
         }
         std::vector<std::uint8_t> decoded(recordSize(fields_[id]));
         std::size_t decodedLen = decoded.size();
         if (!fBufNext(fbuf_, decoded.data(), &decodedLen, &err)) {
            break;
         }
         records.push_back({id, values(fields_[id], decoded.data())});
      }
      if (!g_error_matches(err, FB_ERROR_DOMAIN, FB_ERROR_EOM) &&
          !g_error_matches(err, FB_ERROR_DOMAIN, FB_ERROR_BUFSZ)) {
         ADD_FAILURE() << "libfixbuf: " << (err ? err->message : "no end of message");
      }
      g_clear_error(&err);
      return records;
   }

   // Of the message read last.
   std::uint32_t exportTime() { return fBufGetExportTime(fbuf_); }
   std::uint32_t observationDomain() { return fbSessionGetDomain(fBufGetSession(fbuf_)); }

 private:
   fbTemplate_t* makeTemplate(const std::vector<Field>& fields) {
      std::vector<fbInfoElementSpec_t> spec;
      for (const Field& f : fields) {
         spec.push_back({const_cast<char*>(f.name), f.len, 0});
      }
      spec.push_back(FB_IESPEC_NULL);
      fbTemplate_t* t = fbTemplateAlloc(model_);
      GError* err = nullptr;
      if (!fbTemplateAppendSpecArray(t, spec.data(), 0, &err)) {
         ADD_FAILURE() << "libfixbuf: " << err->message;
         g_clear_error(&err);
      }
      return t;
   }

   // Decoded records lay fields out back to back, a variable-length one as an
   // fbVarfield_t.
   static std::size_t fieldSize(const Field& f) {
      return f.len == FB_IE_VARLEN ? sizeof(fbVarfield_t) : f.len;
   }
   static std::size_t recordSize(const std::vector<Field>& fields) {
      std::size_t size = 0;
      for (const Field& f : fields) {
         size += fieldSize(f);
      }
      return size;
   }

   static std::vector<Value> values(const std::vector<Field>& fields, const std::uint8_t* at) {
      std::vector<Value> values;
      for (const Field& f : fields) {
         if (f.len == FB_IE_VARLEN) {
            fbVarfield_t v;
            std::memcpy(&v, at, sizeof(v));
            values.emplace_back(std::string(reinterpret_cast<const char*>(v.buf), v.len));
         } else {
            values.emplace_back(hostNumber(at, f.len));
         }
         at += fieldSize(f);
      }
      return values;
   }

   // Numbers come out of libfixbuf in host order at their template length;
   // on a little-endian host their low octets come first.
   static std::uint64_t hostNumber(const std::uint8_t* at, std::uint16_t len) {
      static_assert(std::endian::native == std::endian::little);
      std::uint64_t v = 0;
      std::memcpy(&v, at, std::min<std::size_t>(len, sizeof(v)));
      return v;
   }

   fbInfoModel_t* model_;
   fbSession_t* session_;
   fBuf_t* fbuf_;
   std::vector<std::uint8_t> buffer_;
   std::map<std::uint16_t, std::vector<Field>> fields_;
};
