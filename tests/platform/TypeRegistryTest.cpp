#include <gtest/gtest.h>

#include "Kel/TypeRegistry.h"

namespace {

TEST(TypeRegistry, CreatesByNameWithTheRegisteredSignatureOnly) {
   auto& registry = Kel::TypeRegistry::instance();
   registry.factoryIs<int(int)>("Doubler", [](int x) { return 2 * x; });
   EXPECT_TRUE(registry.hasFactory("Doubler"));
   EXPECT_EQ(registry.factory<int(int)>("Doubler")(21), 42);
   EXPECT_THROW(registry.factory<long(int)>("Doubler"), Kel::Exception);
   EXPECT_THROW(registry.factory<int(int)>("Unknown"), Kel::Exception);
   registry.factoryDel("Doubler");
   EXPECT_FALSE(registry.hasFactory("Doubler"));
}

}  // namespace
