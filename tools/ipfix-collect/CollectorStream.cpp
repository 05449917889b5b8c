#include "CollectorStream.h"

#include <cstring>

namespace IpfixCollect {

namespace {

std::string elementName(const fbInfoElement_t* ie) {
   const fbInfoElement_t* canon = ie->ref.canon;
   if (canon && canon->ref.name && std::strncmp(canon->ref.name, "_alienInformationElement", 24)) {
      return canon->ref.name;
   }
   return std::to_string(ie->ent) + "/" + std::to_string(ie->num);
}

std::vector<DecodedField> fieldsOf(fbTemplate_t* t) {
   std::vector<DecodedField> fields;
   for (std::uint32_t i = 0; i < fbTemplateCountElements(t); ++i) {
      const fbInfoElement_t* ie = fbTemplateGetIndexedIE(t, i);
      const bool octets =
          ie->type == FB_OCTET_ARRAY || ie->type == FB_STRING || ie->type == FB_MAC_ADDR;
      const bool wordSized = ie->len == 1 || ie->len == 2 || ie->len == 4 || ie->len == 8;
      fields.push_back({ie->ent, ie->num, ie->len, elementName(ie), wordSized && !octets});
   }
   return fields;
}

// Decoded records lay fields out back to back, a variable-length one as an
// fbVarfield_t.
std::size_t memoryLength(const DecodedField& f) {
   return f.length == FB_IE_VARLEN ? sizeof(fbVarfield_t) : f.length;
}

// Numbers come out of libfixbuf in host order at their own length.
DecodedValue valueAt(const DecodedField& f, const std::uint8_t* at) {
   if (f.length == FB_IE_VARLEN) {
      fbVarfield_t v;
      std::memcpy(&v, at, sizeof v);
      return std::string(reinterpret_cast<const char*>(v.buf), v.len);
   }
   if (f.number) {
      std::uint64_t n = 0;
      std::memcpy(&n, at, f.length);
      return n;
   }
   return std::string(reinterpret_cast<const char*>(at), f.length);
}

}  // namespace

CollectorStream::CollectorStream() : model_(fbInfoModelAlloc()), session_(fbSessionAlloc(model_)) {
   fbSessionAddNewTemplateCallback(session_, &CollectorStream::onTemplate, this);
   fbuf_ = fBufAllocForCollection(session_, nullptr);
   // One message per read(): stop at its end instead of looking for more.
   fBufSetAutomaticMode(fbuf_, FALSE);
}

CollectorStream::~CollectorStream() {
   fBufFree(fbuf_);  // frees the session and its templates too
   fbInfoModelFree(model_);
}

DecodedMessage CollectorStream::read(const std::uint8_t* data, std::size_t len) {
   DecodedMessage message;
   current_ = &message;
   buffer_.assign(data, data + len);
   fBufSetBuffer(fbuf_, buffer_.data(), buffer_.size());
   GError* err = nullptr;
   for (;;) {
      std::uint16_t tid = 0;
      fbTemplate_t* external = fBufNextCollectionTemplate(fbuf_, &tid, &err);
      if (!external || !internalFor(tid, external, &err)) {
         break;
      }
      DecodedRecord record{tid, fieldsOf(external), {}};
      std::size_t size = 0;
      for (const DecodedField& f : record.fields) {
         size += memoryLength(f);
      }
      std::vector<std::uint8_t> decoded(size);
      std::size_t decodedLen = decoded.size();
      if (!fBufNext(fbuf_, decoded.data(), &decodedLen, &err)) {
         break;
      }
      const std::uint8_t* at = decoded.data();
      for (const DecodedField& f : record.fields) {
         record.values.push_back(valueAt(f, at));
         at += memoryLength(f);
      }
      message.records.push_back(std::move(record));
   }
   if (!g_error_matches(err, FB_ERROR_DOMAIN, FB_ERROR_EOM)) {
      message.error = err ? err->message : "no end of message";
   }
   g_clear_error(&err);
   message.exportTime = fBufGetExportTime(fbuf_);
   message.observationDomain = fbSessionGetDomain(session_);
   current_ = nullptr;
   return message;
}

void CollectorStream::onTemplate(fbSession_t*, std::uint16_t tid, fbTemplate_t* tmpl, void* self,
                                 void**, fbTemplateCtxFree_fn*) {
   auto* s = static_cast<CollectorStream*>(self);
   if (s->current_) {
      s->current_->templates.push_back(
          {tid, static_cast<std::uint16_t>(fbTemplateGetOptionsScope(tmpl)), fieldsOf(tmpl)});
   }
   // A template sent again may have changed: decode its records afresh.
   s->internals_.erase(tid);
}

// Decodes records of `tid` into a layout equal to the template's own.
bool CollectorStream::internalFor(std::uint16_t tid, fbTemplate_t* external, GError** err) {
   if (!internals_.contains(tid)) {
      fbTemplate_t* internal = fbTemplateAlloc(model_);
      for (std::uint32_t i = 0; i < fbTemplateCountElements(external); ++i) {
         if (!fbTemplateAppend(internal, fbTemplateGetIndexedIE(external, i), err)) {
            fbTemplateFreeUnused(internal);
            return false;
         }
      }
      if (!fbSessionAddTemplate(session_, TRUE, tid, internal, err)) {
         return false;
      }
      internals_.insert(tid);
   }
   return fBufSetInternalTemplate(fbuf_, tid, err);
}

}  // namespace IpfixCollect
