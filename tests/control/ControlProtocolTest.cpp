#include <gtest/gtest.h>

#include "ControlProtocol.h"

namespace {

using Control::ClearRequest;

// Names as the configuration file allows them: any text up to 63 octets.
TEST(ControlProtocol, RequestsCarryAnyNameThroughTheirText) {
   const ClearRequest requests[] = {
       {},
       {"ft1", ""},
       {"ft1", "e1"},
       {"ft edge=1", "exp%20 x"},
       {"line\nbreak\r\t", std::string("nul\0byte", 8)},
       {"caf\xc3\xa9 a/b?", "~-._"},
       {Kel::Name(63, 'x'), Kel::Name(63, '%')},
   };
   for (const ClearRequest& r : requests) {
      SCOPED_TRACE(r.tracker + "/" + r.exporter);
      const Kel::String text = Control::requestText(r);
      ASSERT_TRUE(text.ends_with('\n'));
      EXPECT_EQ(text.find('\n'), text.size() - 1) << "one line: " << text;
      EXPECT_LE(text.size(), Control::maxMessageLength);
      Kel::String error;
      const auto parsed = Control::parseRequest(text, &error);
      ASSERT_TRUE(parsed) << error;
      EXPECT_EQ(*parsed, r);
   }
}

TEST(ControlProtocol, MalformedRequestsAreRefusedWithTheirReason) {
   const struct {
      std::string text;
      const char* error;
   } cases[] = {
       {"", "empty request"},
       {"\n", "empty request"},
       {"clean", "unknown command 'clean'"},
       {"clear\n\n", "one line of printable ASCII"},
       {std::string("clear\0", 6), "one line of printable ASCII"},
       {"clear tracker=caf\xc3\xa9", "one line of printable ASCII"},
       {"clear ", "single spaces"},
       {"clear  tracker=ft1", "single spaces"},
       {"clear tracker", "field 'tracker' has no '='"},
       {"clear tracker=", "field 'tracker': empty name"},
       {"clear tracker=ft1 tracker=ft2", "field 'tracker' given twice"},
       {"clear tracker=ft1 colour=red", "unknown field 'colour'"},
       {"clear tracker=a%4", "not percent-encoded"},
       {"clear tracker=a%g0", "not percent-encoded"},
       {"clear tracker=a=b", "not percent-encoded"},
       {"clear tracker=a+b", "not percent-encoded"},
       {"clear exporter=e1", "an exporter needs its tracker"},
       {"clear tracker=" + std::string(64, 'x'), "tracker name longer than 63 octets"},
       {"clear tracker=t exporter=" + std::string(64, 'x'), "exporter name longer than 63"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.text);
      Kel::String error;
      EXPECT_FALSE(Control::parseRequest(c.text, &error));
      EXPECT_NE(error.find(c.error), Kel::String::npos) << error;
   }
}

TEST(ControlProtocol, RepliesAreOneLineEitherWay) {
   const struct {
      std::string text;
      std::optional<bool> ok;
      std::string error;
   } cases[] = {
       {Control::okReply(), true, ""},
       {Control::errorReply("no tracker named 'x'"), false, "no tracker named 'x'"},
       {Control::errorReply("two\nlines\x7f"), false, "two%0Alines%7F"},
       {Control::errorReply(std::string(1000, 'e')), false,
        std::string(Control::maxMessageLength - 4 - 7, 'e') + "..."},
       {"ok", std::nullopt, ""},
       {"okay\n", std::nullopt, ""},
       {"error: a\nb\n", std::nullopt, ""},
       {"", std::nullopt, ""},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.text);
      EXPECT_LE(c.text.size(), Control::maxMessageLength);
      const auto reply = Control::parseReply(c.text);
      ASSERT_EQ(reply.has_value(), c.ok.has_value());
      if (reply) {
         EXPECT_EQ(reply->ok, *c.ok);
         EXPECT_EQ(reply->error, c.error);
      }
   }
}

}  // namespace
