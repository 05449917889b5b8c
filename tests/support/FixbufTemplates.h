#pragma once

#include <fixbuf/public.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

// Reads template and options template sets with libfixbuf, as a collector
// would learn them, and reports each template it learnt: the check that what
// we send is well formed and means what we intend comes from an independent
// reading of RFC 7011.
class FixbufTemplateReader {
 public:
   struct Field {
      std::uint32_t enterprise;
      std::uint16_t element;
      std::uint16_t length;
      bool operator==(const Field&) const = default;
   };
   struct Template {
      std::uint16_t id;
      std::uint16_t scopeCount;
      std::vector<Field> fields;
      bool operator==(const Template&) const = default;
   };
   struct Message {
      std::uint32_t exportTime = 0;
      std::uint32_t observationDomain = 0;
      std::vector<Template> templates;
   };

   FixbufTemplateReader() : model_(fbInfoModelAlloc()), session_(fbSessionAlloc(model_)) {
      fbSessionAddNewTemplateCallback(session_, &FixbufTemplateReader::onNewTemplate, this);
      fbuf_ = fBufAllocForCollection(session_, nullptr);
      fBufSetAutomaticMode(fbuf_, FALSE);
   }
   ~FixbufTemplateReader() {
      fBufFree(fbuf_);
      fbInfoModelFree(model_);
   }
   FixbufTemplateReader(const FixbufTemplateReader&) = delete;
   FixbufTemplateReader& operator=(const FixbufTemplateReader&) = delete;

   // Reads one message holding template sets only.
   Message read(const std::vector<std::uint8_t>& bytes) {
      buffer_ = bytes;
      learnt_.clear();
      fBufSetBuffer(fbuf_, buffer_.data(), buffer_.size());
      GError* err = nullptr;
      std::uint16_t id = 0;
      // No data set follows, so reading stops at the end of the message after
      // the template sets have been processed.
      if (fBufNextCollectionTemplate(fbuf_, &id, &err)) {
         ADD_FAILURE() << "unexpected data set " << id;
      } else if (!g_error_matches(err, FB_ERROR_DOMAIN, FB_ERROR_EOM)) {
         ADD_FAILURE() << "libfixbuf: " << (err ? err->message : "no end of message");
      }
      g_clear_error(&err);
      return Message{fBufGetExportTime(fbuf_), fbSessionGetDomain(session_), learnt_};
   }

 private:
   static void onNewTemplate(fbSession_t*, std::uint16_t tid, fbTemplate_t* tmpl, void* self,
                             void**, fbTemplateCtxFree_fn*) {
      Template t{tid, static_cast<std::uint16_t>(fbTemplateGetOptionsScope(tmpl)), {}};
      for (std::uint32_t i = 0; i < fbTemplateCountElements(tmpl); ++i) {
         const fbInfoElement_t* ie = fbTemplateGetIndexedIE(tmpl, i);
         t.fields.push_back({ie->ent, ie->num, ie->len});
      }
      static_cast<FixbufTemplateReader*>(self)->learnt_.push_back(std::move(t));
   }

   fbInfoModel_t* model_;
   fbSession_t* session_;
   fBuf_t* fbuf_;
   std::vector<std::uint8_t> buffer_;
   std::vector<Template> learnt_;
};
