#include <gtest/gtest.h>

#include <cerrno>

#include "Kel/Exception.h"
#include "Kel/Ptr.h"
#include "support/ThrownText.h"

namespace {

TEST(Exception, AssertionCarriesConditionTextExactly) {
   const unsigned msgLen = 10, pktBufSize = 4;
   const int consumed = 0;
   EXPECT_EQ(thrownText([&] { KEL_ASSERT(msgLen <= pktBufSize); }), "msgLen <= pktBufSize");
   EXPECT_EQ(thrownText([&] { KEL_ASSERT(consumed > 0); }), "consumed > 0");
   EXPECT_EQ(thrownText([] { KEL_ASSERT(!"data source changed after init!"); }),
             "!\"data source changed after init!\"");
   EXPECT_EQ(thrownText([&] { KEL_ASSERT(consumed == 0); }), "(nothing thrown)");
}

struct Thing : Kel::PtrInterface {};

TEST(Exception, NameInUseTextNamesAttributeAndBothValues) {
   EXPECT_NO_THROW(Kel::checkConstructorParam("ftName", std::string("t1"), std::string("t1")));
   try {
      Kel::checkConstructorParam("ftrType", 1, 2);
      FAIL() << "no exception";
   } catch (const Kel::NameInUseException& e) {
      EXPECT_STREQ(e.what(),
                   "Reinstantiating the pointer interface where constructor parameter attribute "
                   "_ftrType has a different value of 1 than the current value of 2 not allowed");
   }
   auto a = Kel::makePtr<Thing>();
   auto b = Kel::makePtr<Thing>();
   try {
      Kel::checkConstructorParam("hwExpConfig", a, b);
      FAIL() << "no exception";
   } catch (const Kel::NameInUseException& e) {
      EXPECT_EQ(e.what(), fmt::format("Reinstantiating the pointer interface where constructor "
                                      "parameter attribute _hwExpConfig has a different value of "
                                      "{} than the current value of {} not allowed",
                                      static_cast<void*>(a.ptr()), static_cast<void*>(b.ptr())));
   }
}

TEST(Exception, ErrnoExceptionKeepsErrnoAndContext) {
   const Kel::ErrnoException e(EADDRINUSE, "bind udpPam4-t-e");
   EXPECT_EQ(e.errnoValue(), EADDRINUSE);
   EXPECT_EQ(std::string(e.what()), "bind udpPam4-t-e: Address already in use (errno 98)");
}

}  // namespace
